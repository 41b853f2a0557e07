// The portable state: exact round trips of every result class, and hostile
// bytes that must raise StateError with the right offset and nothing else.

#include <unistd.h>
#include <vorel/vorel.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "blocktree_support.h"
#include "common/statecodec.h"
#include "test_support.h"

namespace vorel::testing {
namespace {

using Bytes = std::vector<std::byte>;
using blocktree::Fresh;
using blocktree::ResultClasses;
using blocktree::SameState;
using tables::Table;

// ---------------------------------------------------------------- makers

// How the rows of a test object carry weights (the discriminant classes
// always take them, and no regression weights).
struct Weighting {
  bool weights;
  bool regWeights;
};
constexpr std::array<Weighting, 3> kWeightings{{{false, false}, {true, false}, {true, true}}};

Table Rows(unsigned seed, Weighting w, std::size_t n) {
  Table t = blocktree::OrderSensitiveTable(seed, n);
  if (!w.weights) t.w.clear();
  if (!w.regWeights) t.rw.clear();
  return t;
}

// Rows [begin, end) of t added to m in batches of 5 rows.
template <class T>
void Add(T& m, const Table& t, std::size_t begin, std::size_t end) {
  for (std::size_t b = begin; b < end; b += 5) {
    auto batch = blocktree::BlockBatch<T>(t, b, std::min(end, b + 5));
    m += batch;
  }
}

template <class T>
T Filled(unsigned seed, Weighting w, std::size_t n = 23) {
  T m = Fresh<T>();
  Add(m, Rows(seed, w, n), 0, n);
  return m;
}

template <class T>
T Reloaded(const T& m) {
  const Bytes bytes = m.SaveState();
  return T::LoadState(bytes);
}

// ---------------------------------------------------------------- round trips

template <class T>
class StateRoundTrip : public ::testing::Test {};
TYPED_TEST_SUITE(StateRoundTrip, ResultClasses);

// Calls f(std::type_identity<T>()) for each class T of the list.
template <class... T, class F>
void ForEachClass(::testing::Types<T...>, F f) {
  (f(std::type_identity<T>()), ...);
}

// A loaded object, empty (bounds and shape only) or filled, saves every byte
// of the original, and rows added to both give the same bytes again. (That
// loaded objects merge as the originals: the block tree's parts, which go
// through saved states.)
TYPED_TEST(StateRoundTrip, LoadedObjectsTakeRowsAsTheOriginals) {
  for (const Weighting w : kWeightings) {
    for (const unsigned n : {0u, 23u}) {
      SCOPED_TRACE(::testing::Message() << n << " rows, weights " << w.weights
                                        << ", regression weights " << w.regWeights);
      TypeParam a = Filled<TypeParam>(n + 11, w, n), loaded = Reloaded(a);
      EXPECT_TRUE(SameState(a.SaveState(), loaded.SaveState()));
      const Table more = Rows(n + 13, w, 9);
      Add(a, more, 0, 9);
      Add(loaded, more, 0, 9);
      EXPECT_TRUE(SameState(a.SaveState(), loaded.SaveState()));
    }
  }
}

// Bounds, codes and flags come back with the bytes above; a NaN code too.
TEST(StateRoundTrip, ANaNMissingCodeComesBack) {
  const SMatrixPairwise loaded =
      Reloaded(SMatrixPairwise(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_TRUE(std::isnan(loaded.MissingCode()));
}

// Copies are deep: rows added to the original later reach none of them. A
// move hands the record over, and a moved-from object takes an assignment.
// Merging an object of another class through MatrixBase& is refused.
TYPED_TEST(StateRoundTrip, CopiesMovesAndForeignMerges) {
  TypeParam original = Filled<TypeParam>(31, {true, true});
  const Bytes state = original.SaveState();
  TypeParam copy(original), assigned = Fresh<TypeParam>(), merged = Fresh<TypeParam>();
  assigned = original;
  merged += original;  // into an empty object: a copy
  assigned = static_cast<const TypeParam&>(assigned);
  Add(original, Rows(32, {true, true}, 7), 0, 7);
  for (const TypeParam* c : {&copy, &assigned, &merged})
    EXPECT_TRUE(c->SaveState() == state);
  TypeParam moved(std::move(copy));
  EXPECT_TRUE(moved.SaveState() == state);
  copy = original;  // NOLINT(bugprone-use-after-move): a moved-from object can be assigned to
  EXPECT_TRUE(copy.SaveState() == original.SaveState());
  if constexpr (std::is_base_of_v<MatrixBase, TypeParam>) {
    using Other = std::conditional_t<std::is_same_v<TypeParam, SMatrixListwise>, NSMatrixListwise,
                                     SMatrixListwise>;
    Other other = Filled<Other>(33, {true, true});
    MatrixBase& base = moved;
    EXPECT_VOREL_ASSERT(base += other, "d != nullptr", kMergeSource);
    EXPECT_TRUE(moved.SaveState() == state);
  }
}

// ---------------------------------------------------------------- another process

// States written here and read in a fresh process of this same test binary,
// which makes the same objects from the same rows: their bytes are the
// parent's, so that a state loads and merges there as it does here. The
// child's half runs only when the parent hands it the folder.
constexpr const char* kStateFolderVariable = "VOREL_TEST_STATE_FOLDER";

template <class T>
void StateAcrossProcesses(const std::filesystem::path& folder, bool child) {
  const std::filesystem::path path = folder / ::testing::internal::GetTypeName<T>();
  SCOPED_TRACE(path);
  const Bytes own = Filled<T>(41, {true, true}).SaveState();
  if (!child) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(own.data()), static_cast<std::streamsize>(own.size()));
    return;
  }
  Bytes bytes(std::filesystem::file_size(path));
  std::ifstream(path, std::ios::binary)
      .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  EXPECT_TRUE(SameState(bytes, own));
}

TEST(StateFreshProcess, ChildReadsTheStates) {
  const char* folder = std::getenv(kStateFolderVariable);
  if (folder == nullptr) GTEST_SKIP() << "runs in the child of WritesStatesForAChild only";
  ForEachClass(ResultClasses(), [&](auto type) {
    StateAcrossProcesses<typename decltype(type)::type>(folder, true);
  });
}

TEST(StateFreshProcess, WritesStatesForAChild) {
  if (std::getenv(kStateFolderVariable) != nullptr) GTEST_SKIP() << "the child's own run";
  // One folder per process: runs of other builds may go on beside this one.
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("vorel-state-" + std::to_string(::getpid()));
  std::filesystem::create_directories(folder);
  ForEachClass(ResultClasses(), [&](auto type) {
    StateAcrossProcesses<typename decltype(type)::type>(folder, false);
  });
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string command = "timeout 60 env " + std::string(kStateFolderVariable) + "='"
                              + folder.string() + "' '" + self
                              + "' --gtest_filter=StateFreshProcess.ChildReadsTheStates >/dev/null";
  const int status = std::system(command.c_str());
  std::filesystem::remove_all(folder);
  EXPECT_EQ(status, 0) << command;
}

// ---------------------------------------------------------------- the format

std::uint64_t ReadLittle(const Bytes& b, std::size_t at, int width) {
  std::uint64_t v = 0;
  for (int i = width - 1; i >= 0; --i)
    v = (v << 8) | std::to_integer<std::uint64_t>(b[at + static_cast<std::size_t>(i)]);
  return v;
}

void WriteLittle(Bytes& b, std::size_t at, std::uint64_t v, int width) {
  for (int i = 0; i < width; ++i)
    b[at + static_cast<std::size_t>(i)] = static_cast<std::byte>((v >> (8 * i)) & 0xFF);
}

// Makes the checksum fit the bytes again, so that a test reaches the check
// behind it.
void Reseal(Bytes& b) {
  const std::size_t end = b.size() - 4;
  WriteLittle(b, end, internal::Crc32c(std::span(b).first(end)), 4);
}

// The state of a MatrixListwise over the rows (1, 2), (3, 4) without
// weights, byte for byte as the format describes it.
TEST(StateFormat, TestVectorOfTheFormatDescription) {
  MatrixListwise m;
  DataBatch batch = tables::MakeBatch(Table{{{1, 2}, {3, 4}}}, 0, 2);
  m += batch;
  const Bytes b = m.SaveState();
  ASSERT_EQ(b.size(), 24u + 4 + 8 + 8 + 8 + 2 * 8 + 3 * 8 + 4);
  const unsigned char magic[8] = {0x89, 'V', 'S', 'T', '\r', '\n', 0x1A, '\n'};
  EXPECT_EQ(std::memcmp(b.data(), magic, 8), 0);
  EXPECT_EQ(ReadLittle(b, 8, 2), 1u);                                  // version
  EXPECT_EQ(ReadLittle(b, 10, 2), 1u);                                 // kind: MatrixListwise
  EXPECT_EQ(ReadLittle(b, 12, 4), 1u);                                 // flags: filled
  EXPECT_EQ(ReadLittle(b, 16, 8), b.size());                           // length
  EXPECT_EQ(ReadLittle(b, 24, 4), 2u);                                 // columns
  EXPECT_EQ(ReadLittle(b, 28, 8), 2u);                                 // rows
  EXPECT_EQ(ReadLittle(b, 36, 8), std::bit_cast<std::uint64_t>(2.0));  // weight sum
  EXPECT_EQ(ReadLittle(b, 44, 8), std::bit_cast<std::uint64_t>(2.0));  // combined weight sum
  EXPECT_EQ(ReadLittle(b, 52, 8), std::bit_cast<std::uint64_t>(2.0));  // mean 0
  EXPECT_EQ(ReadLittle(b, 60, 8), std::bit_cast<std::uint64_t>(3.0));  // mean 1
  for (std::size_t cell = 0; cell < 3; ++cell)  // every centred cross-product is 2
    EXPECT_EQ(ReadLittle(b, 68 + 8 * cell, 8), std::bit_cast<std::uint64_t>(2.0));
  EXPECT_EQ(ReadLittle(b, 92, 4), 0xF7B58981u);  // CRC-32C of bytes 0 to 91
}

// ---------------------------------------------------------------- hostile bytes

// The bytes with `width` bytes at `at` replaced by value and the checksum
// made to fit again.
Bytes Patched(Bytes b, std::size_t at, std::uint64_t value, int width) {
  WriteLittle(b, at, value, width);
  Reseal(b);
  return b;
}

// Expects loading bytes as T to raise StateError at byte `offset` with a
// message containing `text`.
template <class T>
void ExpectStateError(const Bytes& bytes, std::uint64_t offset, const std::string& text) {
  try {
    T::LoadState(bytes);
    ADD_FAILURE() << "no StateError; expected \"" << text << "\" at byte " << offset;
  } catch (const StateError& e) {
    EXPECT_EQ(e.Offset(), offset) << e.what();
    EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("at byte " + std::to_string(offset)), std::string::npos)
        << e.what();
  }
}

template <class T>
class StateHostileBytes : public ::testing::Test {};
TYPED_TEST_SUITE(StateHostileBytes, ResultClasses);

// Short bytes, a damaged header, and a flipped bit of the fields, which is a
// checksum mismatch found at the checksum.
TYPED_TEST(StateHostileBytes, HeaderDamageIsNamed) {
  const Bytes good = Filled<TypeParam>(9, {true, false}, 6).SaveState();
  for (const std::size_t n : {std::size_t{0}, std::size_t{27}, good.size() - 1})
    ExpectStateError<TypeParam>(Bytes(good.begin(), good.begin() + static_cast<long>(n)), n,
                                "truncated");
  Bytes flipped = good;
  flipped[30] ^= std::byte{4};
  ExpectStateError<TypeParam>(flipped, good.size() - 4, "checksum mismatch");
  Bytes magic = good;
  magic[1] = std::byte{'X'};
  ExpectStateError<TypeParam>(magic, 0, "wrong magic");

  ExpectStateError<TypeParam>(Patched(good, 8, 2, 2), 8, "format version 2");
  ExpectStateError<TypeParam>(Patched(good, 10, 99, 2), 10, "unknown class kind 99");
  const std::uint64_t unknownFlag = ReadLittle(good, 12, 4) | 0x100;
  ExpectStateError<TypeParam>(Patched(good, 12, unknownFlag, 4), 12, "flags 256 are unknown");

  Bytes longer = good;
  longer.push_back(std::byte{0});
  ExpectStateError<TypeParam>(longer, good.size(), "1 bytes follow the end");

  Bytes shortLength = good;
  WriteLittle(shortLength, 16, 27, 8);
  ExpectStateError<TypeParam>(shortLength, 16, "fewer than a header");
}

// Each class refuses the state of every other class, naming both.
TEST(StateHostileBytes, WrongClassIsNamed) {
  const Bytes pairwise = Filled<MatrixPairwise>(4, {false, false}).SaveState();
  ExpectStateError<MatrixListwise>(pairwise, 10, "holds a MatrixPairwise, not a MatrixListwise");
  const Bytes s = Filled<SMatrixListwise>(4, {false, false}).SaveState();
  ExpectStateError<NSMatrixListwise>(s, 10, "holds a SMatrixListwise, not a NSMatrixListwise");
  const Bytes disc = Filled<DiscriminantMatrix>(4, {false, false}).SaveState();
  ExpectStateError<DiscIndividualMatrix>(disc, 10, "not a DiscIndividualMatrix");
}

// MatrixListwise: columns at 24, rows at 28, then the sums and the stores.
TEST(StateHostileBytes, ShapeBeyondTheBytesIsRefusedBeforeAllocating) {
  const Bytes good = Filled<MatrixListwise>(5, {true, true}).SaveState();
  ExpectStateError<MatrixListwise>(Patched(good, 24, 65535, 4), 52, "payload: 65535 items");
  ExpectStateError<MatrixListwise>(Patched(good, 24, 65536, 4), 24, "65536, outside 1 to 65535");

  // SMatrixListwise: bounds at 24, rows at 36, sums, the column stores from 60.
  Bytes block = Filled<SMatrixListwise>(5, {false, false}).SaveState();
  ExpectStateError<SMatrixListwise>(Patched(block, 32, 0x7FFFFFFF, 4), 60, "2147483646 items");

  // A block whose means the bytes hold but whose triangle no int can index.
  constexpr int kWide = 46341;
  block.resize(60);
  WriteLittle(block, 24, 0, 4);
  WriteLittle(block, 28, 0, 4);
  WriteLittle(block, 32, kWide, 4);
  block.resize(60 + 3 * 8 * kWide + 4);
  WriteLittle(block, 16, block.size(), 8);
  Reseal(block);
  ExpectStateError<SMatrixListwise>(block, 60 + 3 * 8 * kWide,
                                    "more cells than the library's tables can index");

  // NSMatrixPairwise: missing code at 24, bounds at 32; col2 made 1, below col1.
  const Bytes pairs = Filled<NSMatrixPairwise>(5, {false, false}).SaveState();
  ExpectStateError<NSMatrixPairwise>(Patched(pairs, 40, 1, 4), 32, "out of order");
}

// Counts are integers: the bits of a NaN where one stands are a count out of
// range, and a record with more rows than its table is damage too.
TEST(StateHostileBytes, ImpossibleCountsAreRefused) {
  const std::uint64_t nan = std::bit_cast<std::uint64_t>(std::numeric_limits<double>::quiet_NaN());
  const Bytes listwise = Filled<MatrixListwise>(6, {true, false}).SaveState();
  ExpectStateError<MatrixListwise>(Patched(listwise, 28, nan, 8), 28,
                                   "row count of 9221120237041090560 is out of range");
  ExpectStateError<MatrixListwise>(Patched(MatrixListwise().SaveState(), 28, 3, 8), 28,
                                   "does not fit a record that is empty");

  // SMatrixListwise: flags, bounds at 24, rows at 36 as a 64-bit field of an int count.
  const Bytes block = Filled<SMatrixListwise>(6, {true, false}).SaveState();
  ExpectStateError<SMatrixListwise>(Patched(block, 36, nan, 8), 36, "(at most 2147483647)");

  // MatrixPairwise: missing code at 24, columns at 32, rows at 36, sums, then
  // the first column record's count at 60.
  const Bytes pairwise = Filled<MatrixPairwise>(6, {true, false}).SaveState();
  ExpectStateError<MatrixPairwise>(Patched(pairwise, 60, ReadLittle(pairwise, 36, 8) + 1, 8), 60,
                                   "out of range (at most 23)");
}

}  // namespace
}  // namespace vorel::testing
