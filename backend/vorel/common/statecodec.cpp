#include "common/statecodec.h"

#include <vorelhost/assertion.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

namespace vorel {

StateError::StateError(const std::string& problem, std::uint64_t offset)
    : std::runtime_error("vorel state: " + problem + " at byte " + std::to_string(offset)),
      _offset(offset) {}

}  // namespace vorel

namespace vorel::internal {

namespace {

constexpr std::uint32_t kCastagnoli = 0x82F63B78u;  // reflected 0x1EDC6F41

// Eight tables of 256 entries: table[k][b] is the CRC of byte b followed by k
// zero bytes, so that eight bytes are folded in one step.
using CrcTables = std::array<std::array<std::uint32_t, 256>, 8>;

constexpr CrcTables MakeCrcTables() {
  CrcTables t{};
  for (std::uint32_t b = 0; b < 256; ++b) {
    std::uint32_t crc = b;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc & 1u) != 0 ? (crc >> 1) ^ kCastagnoli : crc >> 1;
    t[0][b] = crc;
  }
  for (std::size_t k = 1; k < 8; ++k)
    for (std::size_t b = 0; b < 256; ++b)
      t[k][b] = (t[k - 1][b] >> 8) ^ t[0][t[k - 1][b] & 0xFFu];
  return t;
}

constexpr CrcTables kCrcTables = MakeCrcTables();

std::uint32_t Byte(std::uint32_t value, int index) { return (value >> (8 * index)) & 0xFFu; }

std::uint64_t LoadLittle(const std::byte* p, int bytes) {
  std::uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i)
    value = (value << 8) | std::to_integer<std::uint64_t>(p[i]);
  return value;
}

void StoreLittle(std::byte* p, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i)
    p[i] = static_cast<std::byte>((value >> (8 * i)) & 0xFFu);
}

constexpr std::size_t kMagicAt = 0;
constexpr std::size_t kVersionAt = 8;
constexpr std::size_t kKindAt = 10;
constexpr std::size_t kFlagsAt = 12;
constexpr std::size_t kLengthAt = 16;
constexpr std::size_t kMinimumBytes = kStateHeaderBytes + kStateChecksumBytes;

std::string Number(std::uint64_t n) { return std::to_string(n); }

}  // namespace

std::uint32_t Crc32c(std::span<const std::byte> bytes, std::uint32_t crc) {
  crc = ~crc;
  const std::byte* p = bytes.data();
  std::size_t n = bytes.size();
  for (; n >= 8; n -= 8, p += 8) {
    const auto lo = static_cast<std::uint32_t>(LoadLittle(p, 4)) ^ crc;
    const auto hi = static_cast<std::uint32_t>(LoadLittle(p + 4, 4));
    crc = kCrcTables[7][Byte(lo, 0)] ^ kCrcTables[6][Byte(lo, 1)] ^ kCrcTables[5][Byte(lo, 2)]
          ^ kCrcTables[4][Byte(lo, 3)] ^ kCrcTables[3][Byte(hi, 0)] ^ kCrcTables[2][Byte(hi, 1)]
          ^ kCrcTables[1][Byte(hi, 2)] ^ kCrcTables[0][Byte(hi, 3)];
  }
  for (; n > 0; --n, ++p)
    crc = (crc >> 8) ^ kCrcTables[0][(crc ^ std::to_integer<std::uint32_t>(*p)) & 0xFFu];
  return ~crc;
}

const char* StateKindName(std::uint16_t kind) {
  static constexpr const char* kNames[] = {
      "MatrixListwise",     "MatrixPairwise",       "SMatrixListwise",
      "NSMatrixListwise",   "SMatrixPairwise",      "NSMatrixPairwise",
      "DiscriminantMatrix", "DiscIndividualMatrix", "vorelstat pass"};
  if (kind < 1 || kind > std::size(kNames)) return nullptr;
  return kNames[kind - 1];
}

// ---------------------------------------------------------------- writer

StateWriter::StateWriter(StateKind kind, std::size_t bytes) : _bytes(bytes + kStateChecksumBytes) {
  std::memcpy(_bytes.data() + kMagicAt, kStateMagic, sizeof kStateMagic);
  StoreLittle(_bytes.data() + kVersionAt, kStateVersion, 2);
  StoreLittle(_bytes.data() + kKindAt, static_cast<std::uint16_t>(kind), 2);
}

void StateWriter::Dim(const char* /*name*/, int value, long long lo, long long hi) {
  VOREL_ASSERT(lo <= value && value <= hi);
  PutInt(static_cast<std::uint32_t>(value), 4);
}

void StateWriter::Bounds(int col0, int col1, int col2, bool /*filled*/, bool /*symmetric*/) {
  PutInt(static_cast<std::uint32_t>(col0), 4);
  PutInt(static_cast<std::uint32_t>(col1), 4);
  PutInt(static_cast<std::uint32_t>(col2), 4);
}

void StateWriter::Reals(const std::vector<double>& cells, std::size_t n) {
  CheckStoreSize(cells.size(), n);
  PutReals(cells.data(), n);
}

void StateWriter::Reals(const OwnedArray<double>& cells, std::size_t n, bool filled) {
  VOREL_ASSERT(static_cast<bool>(cells) == filled);
  CheckStoreSize(cells.size(), n);
  PutReals(cells.get(), n);
}

void StateWriter::CheckStoreSize(std::size_t size, std::size_t n) { VOREL_ASSERT(size == n); }

void StateWriter::PutInt(std::uint64_t value, int bytes) {
  if (!_bytes.empty()) StoreLittle(_bytes.data() + _at, value, bytes);
  _at += static_cast<std::size_t>(bytes);
}

void StateWriter::PutReals(const double* cells, std::size_t n) {
  if (!_bytes.empty() && n != 0) {
    if constexpr (std::endian::native == std::endian::little) {
      std::memcpy(_bytes.data() + _at, cells, n * sizeof(double));
    } else {
      for (std::size_t i = 0; i < n; ++i)
        StoreLittle(_bytes.data() + _at + 8 * i, std::bit_cast<std::uint64_t>(cells[i]), 8);
    }
  }
  _at += n * sizeof(double);
}

void StateWriter::PutBytes(const void* bytes, std::size_t n) {
  PutInt(n, 8);
  if (!_bytes.empty() && n != 0) std::memcpy(_bytes.data() + _at, bytes, n);
  _at += n;
}

std::vector<std::byte> StateWriter::Finish() {
  VOREL_ASSERT(_at + kStateChecksumBytes == _bytes.size());
  StoreLittle(_bytes.data() + kFlagsAt, _flags, 4);
  StoreLittle(_bytes.data() + kLengthAt, _bytes.size(), 8);
  const std::uint32_t crc = Crc32c(std::span(_bytes.data(), _at));
  StoreLittle(_bytes.data() + _at, crc, 4);
  return std::move(_bytes);
}

// ---------------------------------------------------------------- reader

StateReader::StateReader(std::span<const std::byte> state, StateKind kind) : _state(state) {
  const std::size_t size = state.size();
  if (size < kMinimumBytes)
    throw StateError("truncated: a state has at least " + Number(kMinimumBytes)
                         + " bytes, this one " + Number(size),
                     size);
  if (std::memcmp(state.data() + kMagicAt, kStateMagic, sizeof kStateMagic) != 0)
    throw StateError("not a vorel state (wrong magic bytes)", kMagicAt);
  const std::uint64_t version = LoadLittle(state.data() + kVersionAt, 2);
  if (version != kStateVersion)
    throw StateError("format version " + Number(version)
                         + " is not readable here (this library reads " + Number(kStateVersion)
                         + ")",
                     kVersionAt);
  const std::uint64_t length = LoadLittle(state.data() + kLengthAt, 8);
  if (length < kMinimumBytes)
    throw StateError("the length field says " + Number(length) + " bytes, fewer than a header",
                     kLengthAt);
  if (length > size)
    throw StateError("truncated: the state says " + Number(length) + " bytes, only " + Number(size)
                         + " are here",
                     size);
  if (length < size)
    throw StateError(Number(size - length) + " bytes follow the end of the state", length);
  _end = size - kStateChecksumBytes;
  const auto stored = static_cast<std::uint32_t>(LoadLittle(state.data() + _end, 4));
  const std::uint32_t computed = Crc32c(state.first(_end));
  if (stored != computed)
    throw StateError("checksum mismatch (stored " + Number(stored) + ", computed "
                         + Number(computed) + "): the bytes are damaged",
                     _end);
  const auto found = static_cast<std::uint16_t>(LoadLittle(state.data() + kKindAt, 2));
  if (found != static_cast<std::uint16_t>(kind)) {
    const char* name = StateKindName(found);
    const std::string holds =
        name ? std::string("a ") + name : "unknown class kind " + Number(found);
    throw StateError(
        "the state holds " + holds + ", not a " + StateKindName(static_cast<std::uint16_t>(kind)),
        kKindAt);
  }
  _flags = static_cast<std::uint32_t>(LoadLittle(state.data() + kFlagsAt, 4));
}

void StateReader::Flag(StateFlag flag, bool& on) {
  const auto bit = static_cast<std::uint32_t>(flag);
  _flagsRead |= bit;
  on = (_flags & bit) != 0;
}

void StateReader::Dim(const char* name, int& value, long long lo, long long hi) {
  const std::size_t at = _at;
  const auto v = static_cast<std::int32_t>(static_cast<std::uint32_t>(TakeInt(4)));
  if (v < lo || v > hi)
    throw StateError(std::string(name) + " is " + std::to_string(v) + ", outside "
                         + std::to_string(lo) + " to " + std::to_string(hi),
                     at);
  value = v;
}

void StateReader::Bounds(int& col0, int& col1, int& col2, bool filled, bool symmetric) {
  const std::size_t at = _at;
  Dim("col0", col0, INT_MIN, INT_MAX);
  Dim("col1", col1, INT_MIN, INT_MAX);
  Dim("col2", col2, INT_MIN, INT_MAX);
  if (symmetric && col0 != col1)
    throw StateError("a symmetric block needs col0 == col1, not " + std::to_string(col0) + " and "
                         + std::to_string(col1),
                     at);
  if (filled && !(0 <= col0 && col0 <= col1 && col1 <= col2 && col0 < col2))
    throw StateError("the bounds " + std::to_string(col0) + ", " + std::to_string(col1) + ", "
                         + std::to_string(col2) + " of a filled block are out of order",
                     at);
}

void StateReader::RowCount(int& rows, bool filled) {
  const std::size_t at = _at;
  Count(rows, INT_MAX);
  if ((rows > 0) != filled)
    throw StateError("a row count of " + std::to_string(rows) + " does not fit a record that is "
                         + (filled ? "filled" : "empty"),
                     at);
}

void StateReader::RowCount(std::uint64_t& rows, bool filled) {
  const std::size_t at = _at;
  Count(rows, kMaxStateRows64);
  if ((rows > 0) != filled)
    throw StateError("a row count of " + Number(rows) + " does not fit a record that is "
                         + (filled ? "filled" : "empty"),
                     at);
}

void StateReader::Reals(std::vector<double>& cells, std::size_t n) {
  CheckRoom(n, sizeof(double));
  std::vector<double> read(n);
  if constexpr (std::endian::native == std::endian::little) {
    if (n != 0) std::memcpy(read.data(), _state.data() + _at, n * sizeof(double));
    _at += n * sizeof(double);
  } else {
    for (double& x : read)
      Real(x);
  }
  cells = std::move(read);
}

void StateReader::Reals(OwnedArray<double>& cells, std::size_t n, bool filled) {
  CheckRoom(n, sizeof(double));
  if (!filled) {
    cells = OwnedArray<double>();
    return;
  }
  OwnedArray<double> read(n);
  if constexpr (std::endian::native == std::endian::little) {
    if (n != 0) std::memcpy(read.get(), _state.data() + _at, n * sizeof(double));
    _at += n * sizeof(double);
  } else {
    for (std::size_t i = 0; i < n; ++i)
      Real(read[i]);
  }
  cells = std::move(read);
}

std::span<const std::byte> StateReader::TakeBytes() {
  const std::uint64_t n = TakeInt(8);
  CheckRoom(n, 1);
  const std::span<const std::byte> bytes = _state.subspan(_at, static_cast<std::size_t>(n));
  _at += static_cast<std::size_t>(n);
  return bytes;
}

void StateReader::Text(std::string& text) {
  const std::span<const std::byte> bytes = TakeBytes();
  text.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

void StateReader::Blob(std::vector<std::byte>& bytes) {
  const std::span<const std::byte> taken = TakeBytes();
  bytes.assign(taken.begin(), taken.end());
}

void StateReader::Finish() const {
  if (_at != _end)
    throw StateError(Number(_end - _at) + " bytes are left over after the last field", _at);
  const std::uint32_t unknown = _flags & ~_flagsRead;
  if (unknown != 0)
    throw StateError("flags " + Number(unknown) + " are unknown to this kind and version",
                     kFlagsAt);
}

std::uint64_t StateReader::TakeInt(int bytes) {
  CheckRoom(1, static_cast<std::size_t>(bytes));
  const std::uint64_t value = LoadLittle(_state.data() + _at, bytes);
  _at += static_cast<std::size_t>(bytes);
  return value;
}

void StateReader::CheckRoom(std::uint64_t n, std::size_t size) const {
  const std::size_t left = _end - _at;
  if (n > kMaxStateCells)
    throw StateError(
        "the shape claims " + Number(n) + " cells, more than the library's tables can index", _at);
  if (n > left / size)
    throw StateError("truncated payload: " + Number(n) + " items of " + Number(size)
                         + " bytes do not fit into the " + Number(left) + " bytes left",
                     _at);
}

void StateReader::FailCount(std::uint64_t value, std::uint64_t limit, std::size_t at) {
  throw StateError(
      "a row count of " + Number(value) + " is out of range (at most " + Number(limit) + ")", at);
}

}  // namespace vorel::internal
