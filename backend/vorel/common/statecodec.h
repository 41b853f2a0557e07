// The portable state format, written once for every record.
//
// A record describes its state in one static function
//
//   template <class Archive, class Self>
//   static void StateFields(Archive& a, Self& record);
//
// listing its fields in their order in the state. Self is `const Record` when
// saving and `Record` when loading, and Archive is a StateWriter or a
// StateReader: the same list writes the bytes, measures them and reads them
// back, so the layout of a class lives in one place. A record also names its
// kind in `static constexpr StateKind kStateKind`.
//
// The layout (docs/state-format.md): a 24-byte header (magic, version, kind,
// flags, total length), the fields in order, and a CRC-32C of everything
// before it. Integers and doubles are little-endian whatever the host.
//
// Internal to the library.
#pragma once

#include <vorel/ownedarray.h>
#include <vorel/state.h>

#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vorel::internal {

// The class a state holds; the numbers are part of the format.
enum class StateKind : std::uint16_t {
  MatrixListwise = 1,
  MatrixPairwise = 2,
  SMatrixListwise = 3,
  NSMatrixListwise = 4,
  SMatrixPairwise = 5,
  NSMatrixPairwise = 6,
  DiscriminantMatrix = 7,
  DiscIndividualMatrix = 8,
  // Not a class of the library: the container in which vorelstat keeps a
  // pass, whose fields embed states of the kinds above.
  ToolPass = 9,
};

// Bits of the header's flags word; the numbers are part of the format.
enum class StateFlag : std::uint32_t {
  Filled = 1,      // the record holds its stores (it has taken rows in)
  RegWeights = 2,  // its batches carried regression weights
};

inline constexpr unsigned char kStateMagic[8] = {0x89, 'V', 'S', 'T', '\r', '\n', 0x1A, '\n'};
inline constexpr std::uint16_t kStateVersion = 1;
inline constexpr std::size_t kStateHeaderBytes = 24;
inline constexpr std::size_t kStateChecksumBytes = 4;
// A row count in binary64 is exact up to 2^53, and so is a weight sum that
// counts rows: a 64-bit count beyond it is refused as damage.
inline constexpr std::uint64_t kMaxStateRows64 = std::uint64_t{1} << 53;
// Every table of the library is indexed by int.
inline constexpr std::uint64_t kMaxStateCells = INT_MAX;

// CRC-32C (Castagnoli, reflected polynomial 0x82F63B78, initial value and
// final xor 0xFFFFFFFF) of bytes, continuing from a previous result crc.
std::uint32_t Crc32c(std::span<const std::byte> bytes, std::uint32_t crc = 0);

const char* StateKindName(std::uint16_t kind);

// Writes a state, or with Measure() only counts its bytes.
class StateWriter {
 public:
  // A writer that only counts.
  static StateWriter Measure() { return StateWriter(); }
  // A writer of a state of `kind` whose header and fields Measure() found to
  // take `bytes` bytes; the checksum follows them.
  StateWriter(StateKind kind, std::size_t bytes);

  void Flag(StateFlag flag, bool on) {
    if (on) _flags |= static_cast<std::uint32_t>(flag);
  }
  void Dim(const char* name, int value, long long lo, long long hi);
  void Bounds(int col0, int col1, int col2, bool filled, bool symmetric);
  void RowCount(int rows, bool /*filled*/) { PutInt(static_cast<std::uint64_t>(rows), 8); }
  void RowCount(std::uint64_t rows, bool /*filled*/) { PutInt(rows, 8); }
  template <class N, class Limit>
  void Count(N count, Limit /*limit*/) {
    PutInt(static_cast<std::uint64_t>(count), 8);
  }
  void Real(double x) { PutInt(std::bit_cast<std::uint64_t>(x), 8); }
  void Reals(const std::vector<double>& cells, std::size_t n);
  void Reals(const OwnedArray<double>& cells, std::size_t n, bool filled);
  // A u64 length and as many bytes: a text, or a state embedded in another.
  void Text(const std::string& text) { PutBytes(text.data(), text.size()); }
  void Blob(const std::vector<std::byte>& bytes) { PutBytes(bytes.data(), bytes.size()); }
  // n records of a store (a vector of records or of owning pointers to
  // handles), each written by fields(archive, record).
  template <class Store, class Fields>
  void Records(const Store& store, std::size_t n, Fields fields) {
    CheckStoreSize(store.size(), n);
    for (const auto& element : store)
      fields(*this, RecordOf(element));
  }

  // The header and the fields so far, and the fields alone.
  std::size_t Bytes() const { return _at; }
  std::size_t FieldBytes() const { return _at - kStateHeaderBytes; }
  // The finished state: flags and length in the header, the checksum behind.
  std::vector<std::byte> Finish();

 private:
  StateWriter() = default;
  void PutInt(std::uint64_t value, int bytes);
  void PutReals(const double* cells, std::size_t n);
  void PutBytes(const void* bytes, std::size_t n);
  static void CheckStoreSize(std::size_t size, std::size_t n);
  template <class T>
  static const auto& RecordOf(const std::unique_ptr<T>& handle) {
    return handle->Data();
  }
  template <class T>
  static const T& RecordOf(const T& record) {
    return record;
  }

  std::vector<std::byte> _bytes;  // stays empty while measuring
  std::size_t _at = kStateHeaderBytes;
  std::uint32_t _flags = 0;
};

// Reads a state of one kind, checking each field before it is used.
class StateReader {
 public:
  // Checks the header, the length and the checksum; the fields follow.
  StateReader(std::span<const std::byte> state, StateKind kind);

  void Flag(StateFlag flag, bool& on);
  void Dim(const char* name, int& value, long long lo, long long hi);
  // Bounds col0, col1, col2 of a column block; once filled, 0 <= col0 <=
  // col1 <= col2 and col0 < col2, with col0 == col1 for a symmetric block.
  void Bounds(int& col0, int& col1, int& col2, bool filled, bool symmetric);
  // The record's own row count: positive exactly when it is filled.
  void RowCount(int& rows, bool filled);
  void RowCount(std::uint64_t& rows, bool filled);
  // A count of rows from 0 to limit.
  template <class N, class Limit>
  void Count(N& count, Limit limit) {
    const std::size_t at = _at;
    const std::uint64_t value = TakeInt(8);
    if (value > static_cast<std::uint64_t>(limit))
      FailCount(value, static_cast<std::uint64_t>(limit), at);
    count = static_cast<N>(value);
  }
  void Real(double& x) { x = std::bit_cast<double>(TakeInt(8)); }
  void Reals(std::vector<double>& cells, std::size_t n);
  // A table that exists once filled, even with no cells.
  void Reals(OwnedArray<double>& cells, std::size_t n, bool filled);
  void Text(std::string& text);
  void Blob(std::vector<std::byte>& bytes);
  template <class Store, class Fields>
  void Records(Store& store, std::size_t n, Fields fields) {
    auto probe = MakeRecord<typename Store::value_type>();
    StateWriter measure = StateWriter::Measure();
    fields(measure, std::as_const(RecordOf(probe)));
    CheckRoom(n, measure.FieldBytes());
    Store records = NewStore<Store>(n);
    for (auto& element : records)
      fields(*this, RecordOf(element));
    store = std::move(records);
  }

  // After the last field: every byte up to the checksum was read and every
  // flag is known.
  void Finish() const;
  [[noreturn]] void Fail(const std::string& problem) const { throw StateError(problem, _at); }

 private:
  std::uint64_t TakeInt(int bytes);
  // The bytes behind a u64 length.
  std::span<const std::byte> TakeBytes();
  // Throws unless n items of `size` bytes each fit into what is left.
  void CheckRoom(std::uint64_t n, std::size_t size) const;
  [[noreturn]] static void FailCount(std::uint64_t value, std::uint64_t limit, std::size_t at);
  template <class Store>
  static Store NewStore(std::size_t n) {
    Store store;
    store.reserve(n);
    for (std::size_t i = 0; i < n; ++i)
      store.push_back(typename Store::value_type(MakeRecord<typename Store::value_type>()));
    return store;
  }
  template <class T>
  static T MakeRecord() {
    if constexpr (requires { typename T::element_type; })
      return std::make_unique<typename T::element_type>();
    else
      return T();
  }
  template <class T>
  static auto& RecordOf(std::unique_ptr<T>& handle) {
    return handle->Data();
  }
  template <class T>
  static T& RecordOf(T& record) {
    return record;
  }

  std::span<const std::byte> _state;
  std::size_t _at = kStateHeaderBytes;
  std::size_t _end;  // where the checksum starts
  std::uint32_t _flags;
  std::uint32_t _flagsRead = 0;
};

// The state of a record.
template <class Record>
std::vector<std::byte> SaveRecord(const Record& record) {
  StateWriter measure = StateWriter::Measure();
  Record::StateFields(measure, record);
  StateWriter writer(Record::kStateKind, measure.Bytes());
  Record::StateFields(writer, record);
  return writer.Finish();
}

// Replaces every field of record, a fresh one, by those of the state. A shape
// that the library's tables cannot index is refused as a StateError too.
template <class Record>
void LoadRecord(Record& record, std::span<const std::byte> state) {
  StateReader reader(state, Record::kStateKind);
  try {
    Record::StateFields(reader, record);
  } catch (const std::length_error&) {
    reader.Fail("the shape needs more cells than the library's tables can index");
  }
  reader.Finish();
}

}  // namespace vorel::internal
