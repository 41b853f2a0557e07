#include "frames.h"

#include <algorithm>
#include <array>
#include <optional>

namespace vorelstat {
namespace {

constexpr std::uint64_t kZstdMagic = 0xFD2FB528;
// Skippable frames take the 16 magic numbers from this one on.
constexpr std::uint64_t kSkippableMagic = 0x184D2A50;
constexpr std::uint64_t kLargestZstdBlock = std::uint64_t{128} << 10;

constexpr PieceExtent kNeedMore{PieceExtent::kNeedMore};
constexpr PieceExtent kUnknown{PieceExtent::kUnknown};

// The unsigned number of `width` bytes at `at`, least significant first.
std::uint64_t LittleEndian(std::string_view bytes, std::size_t at, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = width; i-- > 0;)
    value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  return value;
}

// The window of a frame that is not single-segment, from its descriptor byte.
std::uint64_t WindowSize(unsigned descriptor) {
  const std::uint64_t base = std::uint64_t{1} << (10 + (descriptor >> 3));
  return base + base / 8 * (descriptor & 7);
}

}  // namespace

PieceExtent FindZstdFrame(std::string_view bytes) {
  if (bytes.size() < 4) return kNeedMore;
  const std::uint64_t magic = LittleEndian(bytes, 0, 4);
  if ((magic & ~std::uint64_t{0xF}) == kSkippableMagic) {
    if (bytes.size() < 8) return kNeedMore;
    const std::uint64_t size = 8 + LittleEndian(bytes, 4, 4);
    if (bytes.size() < size) return {PieceExtent::kNeedMore, size, 0, true};
    return {PieceExtent::kSkippable, size, 0, true};
  }
  if (magic != kZstdMagic) return kUnknown;
  if (bytes.size() < 5) return kNeedMore;
  const unsigned descriptor = static_cast<unsigned char>(bytes[4]);
  if ((descriptor & 0x08) != 0) return kUnknown;  // the reserved bit
  const bool singleSegment = (descriptor & 0x20) != 0;
  constexpr std::array<std::size_t, 4> kDictionaryIdBytes{0, 1, 2, 4};
  const std::array<std::size_t, 4> contentSizeBytes{singleSegment ? 1u : 0u, 2, 4, 8};
  const std::size_t sizeBytes = contentSizeBytes[descriptor >> 6];
  std::size_t at = 5 + (singleSegment ? 0 : 1) + kDictionaryIdBytes[descriptor & 3] + sizeBytes;
  if (bytes.size() < at) return kNeedMore;
  std::optional<std::uint64_t> declared;
  if (sizeBytes != 0) {
    // Two bytes count from 256 on; one byte or none would do below that.
    declared = LittleEndian(bytes, at - sizeBytes, sizeBytes) + (sizeBytes == 2 ? 256 : 0);
  }
  const std::uint64_t window =
      singleSegment ? *declared : WindowSize(static_cast<unsigned char>(bytes[5]));
  const std::uint64_t largestBlock = std::min(window, kLargestZstdBlock);
  std::uint64_t bound = 0;
  // What is known of the content so far, so that a large frame is seen to
  // be large before all of it is read.
  const auto needMore = [&declared, &bound] {
    return PieceExtent{PieceExtent::kNeedMore, 0, declared.value_or(bound), declared.has_value()};
  };
  for (bool last = false; !last;) {
    if (bytes.size() - at < 3) return needMore();
    const std::uint64_t header = LittleEndian(bytes, at, 3);
    last = (header & 1) != 0;
    const std::uint64_t size = header >> 3;
    switch ((header >> 1) & 3) {
      case 0:  // raw: the content as it is
        bound += size;
        at += 3 + size;
        break;
      case 1:  // one byte repeated `size` times
        bound += size;
        at += 3 + 1;
        break;
      case 2:  // compressed: its content fits a block
        bound += largestBlock;
        at += 3 + size;
        break;
      default:  // reserved: damaged, for the serial path to say so
        return kUnknown;
    }
    if (at > bytes.size()) return needMore();
  }
  if ((descriptor & 0x04) != 0) at += 4;  // the checksum
  if (at > bytes.size()) return needMore();
  return {PieceExtent::kPiece, at, declared.value_or(bound), declared.has_value()};
}

PieceExtent FindBgzfMember(std::string_view bytes) {
  // The fixed header and the length of the extra field.
  constexpr std::size_t kFixed = 12;
  constexpr std::size_t kTrailer = 8;  // CRC-32 and ISIZE
  constexpr unsigned kExtraFlag = 0x04;
  if (bytes.size() < kFixed) return kNeedMore;
  if (bytes.substr(0, 3) != "\x1F\x8B\x08") return kUnknown;
  if ((static_cast<unsigned char>(bytes[3]) & kExtraFlag) == 0) return kUnknown;
  const std::size_t extraEnd = kFixed + LittleEndian(bytes, 10, 2);
  if (bytes.size() < extraEnd) return kNeedMore;
  for (std::size_t at = kFixed; at + 4 <= extraEnd;) {
    const std::size_t length = LittleEndian(bytes, at + 2, 2);
    if (bytes.substr(at, 2) == "BC" && length == 2 && at + 6 <= extraEnd) {
      const std::uint64_t size = LittleEndian(bytes, at + 4, 2) + 1;
      if (size < extraEnd + kTrailer) return kUnknown;
      if (bytes.size() < size) return {PieceExtent::kNeedMore, size};
      return {PieceExtent::kPiece, size, LittleEndian(bytes, size - 4, 4), true};
    }
    at += 4 + length;
  }
  return kUnknown;
}

OrderedPool::OrderedPool(unsigned threads) {
  for (unsigned i = 0; i < std::max(threads, 1u); ++i)
    _threads.emplace_back([this] { Work(); });
}

OrderedPool::~OrderedPool() {
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    _stop = true;
  }
  _toDo.notify_all();
  for (std::thread& thread : _threads)
    thread.join();
}

void OrderedPool::Submit(Job job) {
  auto slot = std::make_shared<Slot>();
  slot->job = std::move(job);
  {
    const std::lock_guard<std::mutex> lock(_mutex);
    _slots.push_back(slot);
    _todo.push_back(std::move(slot));
  }
  _toDo.notify_one();
}

std::size_t OrderedPool::Pending() const {
  const std::lock_guard<std::mutex> lock(_mutex);
  return _slots.size();
}

std::string OrderedPool::TakeNext() {
  std::unique_lock<std::mutex> lock(_mutex);
  const std::shared_ptr<Slot> slot = _slots.front();
  _done.wait(lock, [&slot] { return slot->done; });
  _slots.pop_front();
  if (slot->error) std::rethrow_exception(slot->error);
  return std::move(slot->result);
}

void OrderedPool::Work() {
  std::unique_lock<std::mutex> lock(_mutex);
  for (;;) {
    _toDo.wait(lock, [this] { return _stop || !_todo.empty(); });
    if (_stop) return;
    const std::shared_ptr<Slot> slot = std::move(_todo.front());
    _todo.pop_front();
    lock.unlock();
    try {
      slot->result = slot->job();
    } catch (...) {
      slot->error = std::current_exception();
    }
    slot->job = nullptr;
    lock.lock();
    slot->done = true;
    _done.notify_one();
  }
}

}  // namespace vorelstat
