#include "savedstate.h"

#include <vorel/state.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

#include "common/statecodec.h"

namespace vorelpy {
namespace {

namespace figures = vorelstat::figures;

constexpr unsigned char kMagic[8] = {0x89, 'V', 'P', 'Y', '\r', '\n', 0x1A, '\n'};
constexpr std::uint16_t kVersion = 1;
constexpr std::size_t kHeaderBytes = 24, kChecksumBytes = 4;
constexpr unsigned kMostColumns = 65536;

enum class Kind : std::uint16_t { kAccumulator = 1, kForest = 2 };

enum SettingFlag : std::uint8_t {
  kPairwise = 1,
  kGrouped = 2,
  kRegWeights = 4,
  kMissingNaN = 8,
};

class Writer {
 public:
  explicit Writer(Kind kind) {
    for (unsigned char c : kMagic)
      _bytes.push_back(static_cast<std::byte>(c));
    Int(kVersion, 2);
    Int(static_cast<std::uint16_t>(kind), 2);
    Int(0, 4);
    Int(0, 8);  // the length, once known
  }

  void Int(std::uint64_t value, int bytes) {
    for (int b = 0; b < bytes; ++b)
      _bytes.push_back(static_cast<std::byte>(value >> (8 * b)));
  }
  void Real(double x) { Int(std::bit_cast<std::uint64_t>(x), 8); }
  void Reals(const double* x, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
      Real(x[i]);
  }
  void Block(const std::vector<std::byte>& bytes) {
    Int(bytes.size(), 8);
    _bytes.insert(_bytes.end(), bytes.begin(), bytes.end());
  }

  std::vector<std::byte> Finish() {
    const std::uint64_t length = _bytes.size() + kChecksumBytes;
    for (int b = 0; b < 8; ++b)
      _bytes[16 + static_cast<std::size_t>(b)] = static_cast<std::byte>(length >> (8 * b));
    Int(vorel::internal::Crc32c(_bytes), 4);
    return std::move(_bytes);
  }

 private:
  std::vector<std::byte> _bytes;
};

class Reader {
 public:
  Reader(std::span<const std::byte> bytes, Kind kind) : _bytes(bytes) {
    if (bytes.size() < kHeaderBytes + kChecksumBytes) Fail("too few bytes for a saved state");
    if (std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0)
      Fail("not a saved state of the vorel module");
    _at = sizeof kMagic;
    _end = bytes.size() - kChecksumBytes;
    if (Int(2) != kVersion) Fail("a format version this build does not read");
    if (Int(2) != static_cast<std::uint16_t>(kind)) Fail("another kind of saved state");
    if (Int(4) != 0) Fail("reserved bits set");
    if (Int(8) != bytes.size()) Fail("a length other than the bytes given");
    const auto stored = static_cast<std::uint32_t>(ReadInt(_end, 4));
    if (vorel::internal::Crc32c(bytes.first(_end)) != stored) Fail("checksum mismatch");
  }

  std::uint64_t Int(int bytes) {
    Need(static_cast<std::size_t>(bytes));
    const std::uint64_t value = ReadInt(_at, bytes);
    _at += static_cast<std::size_t>(bytes);
    return value;
  }
  double Real() { return std::bit_cast<double>(Int(8)); }
  std::vector<double> Reals(std::size_t n) {
    Need(n, 8);
    std::vector<double> x(n);
    for (double& v : x)
      v = Real();
    return x;
  }
  bool Flag() {
    const std::uint64_t value = Int(1);
    if (value > 1) Fail("a flag other than 0 or 1");
    return value == 1;
  }
  std::span<const std::byte> Block() {
    const std::uint64_t n = Int(8);
    Need(n, 1);
    const auto block = _bytes.subspan(_at, static_cast<std::size_t>(n));
    _at += static_cast<std::size_t>(n);
    return block;
  }
  // Throws unless n items of size bytes each are left.
  void Need(std::uint64_t n, std::size_t size = 1) const {
    if (n > (_end - _at) / size) Fail("fewer bytes left than the state claims");
  }
  void Finish() const {
    if (_at != _end) Fail("bytes left over");
  }
  [[noreturn]] void Fail(const std::string& problem) const {
    throw std::invalid_argument("vorel pickle: " + problem + " at byte " + std::to_string(_at));
  }
  std::size_t At() const { return _at; }

 private:
  std::uint64_t ReadInt(std::size_t at, int bytes) const {
    std::uint64_t value = 0;
    for (int b = 0; b < bytes; ++b)
      value |= std::to_integer<std::uint64_t>(_bytes[at + static_cast<std::size_t>(b)]) << (8 * b);
    return value;
  }

  std::span<const std::byte> _bytes;
  std::size_t _at = 0;
  std::size_t _end = 0;
};

void WriteSettings(Writer& w, const Settings& settings, const MissingRule& missing) {
  w.Int(settings.nColumns, 4);
  w.Int((settings.pairwise ? kPairwise : 0) | (settings.grouped ? kGrouped : 0)
            | (settings.regWeights ? kRegWeights : 0) | (missing.nan ? kMissingNaN : 0),
        1);
  w.Real(missing.nan ? 0.0 : missing.code);
}

void ReadSettings(Reader& r, Settings& settings, MissingRule& missing) {
  const std::uint64_t nColumns = r.Int(4);
  if (nColumns > kMostColumns) r.Fail("more columns than a table can have");
  settings.nColumns = static_cast<unsigned>(nColumns);
  const std::uint64_t flags = r.Int(1);
  if (flags > (kPairwise | kGrouped | kRegWeights | kMissingNaN)) r.Fail("unknown setting flags");
  settings.pairwise = (flags & kPairwise) != 0;
  settings.grouped = (flags & kGrouped) != 0;
  settings.regWeights = (flags & kRegWeights) != 0;
  missing.nan = (flags & kMissingNaN) != 0;
  missing.code = r.Real();
  if (missing.nan ? missing.code != 0.0 : !std::isfinite(missing.code))
    r.Fail("a missing code that is not a finite number");
  settings.pairwiseCode = PairwiseCodeOf(missing);
}

void WriteTally(Writer& w, const Settings& settings, const Tally& tally) {
  const unsigned k = settings.nColumns;
  w.Int(tally.counts.rows, 8);
  w.Int(tally.counts.zeroWeight, 8);
  w.Int(tally.counts.incomplete, 8);
  w.Int(tally.counts.withoutGroup, 8);
  w.Reals(tally.extremes.minima.data(), k);
  w.Reals(tally.extremes.maxima.data(), k);
  for (char seen : tally.extremes.nan)
    w.Int(seen != 0 ? 1 : 0, 1);
  for (const figures::Constancy& pair : tally.extremes.pairs) {
    w.Int(static_cast<std::uint8_t>(pair.state), 1);
    w.Real(pair.value);
  }
  w.Block(tally.listwise ? tally.listwise->SaveState() : tally.pairwise->SaveState());
  w.Int(tally.groups.size(), 8);
  for (const GroupTally& group : tally.groups) {
    w.Int(static_cast<std::uint64_t>(group.code), 8);
    w.Int(group.moments.Rows(), 8);
    w.Real(group.moments.Weight());
    w.Reals(group.moments.Origin(), k);
    w.Reals(group.moments.RelativeMeans(), k);
  }
  w.Reals(tally.within.data(), tally.within.size());
}

// The matrix of a tally: of the settings' kind and, once it has rows, of
// their shape, so that merging it cannot breach the library's preconditions.
template <class Matrix>
void CheckMatrix(Reader& r, const Matrix& matrix, const Settings& settings,
                 const RowCounts& counts) {
  if (matrix.NRows() == 0) return;
  if (matrix.NColumns() != settings.nColumns || matrix.HasRegWeights() != settings.regWeights)
    r.Fail("a matrix of another shape than the settings");
  if (matrix.NRows() > counts.rows) r.Fail("a matrix with more rows than were seen");
}

template <class Matrix>
Matrix LoadMatrix(Reader& r, std::span<const std::byte> state) {
  try {
    return Matrix::LoadState(state);
  } catch (const vorel::StateError& error) {
    r.Fail(std::string("the matrix: ") + error.what());
  }
}

Tally ReadTally(Reader& r, const Settings& settings) {
  const unsigned k = settings.nColumns;
  if (k == 0) r.Fail("rows without columns");
  Tally tally(settings);
  tally.counts.rows = r.Int(8);
  tally.counts.zeroWeight = r.Int(8);
  tally.counts.incomplete = r.Int(8);
  tally.counts.withoutGroup = r.Int(8);
  if (tally.counts.zeroWeight > tally.counts.rows || tally.counts.incomplete > tally.counts.rows
      || tally.counts.withoutGroup > tally.counts.rows)
    r.Fail("more rows left out than were seen");
  tally.extremes.minima = r.Reals(k);
  tally.extremes.maxima = r.Reals(k);
  r.Need(k);
  for (char& seen : tally.extremes.nan)
    seen = static_cast<char>(r.Flag());
  r.Need(tally.extremes.pairs.size(), 9);
  for (figures::Constancy& pair : tally.extremes.pairs) {
    const std::uint64_t state = r.Int(1);
    if (state > static_cast<std::uint8_t>(figures::Constancy::State::kVaries))
      r.Fail("an unknown state of a pair");
    pair.state = static_cast<figures::Constancy::State>(state);
    pair.value = r.Real();
  }
  const std::span<const std::byte> matrix = r.Block();
  if (settings.pairwise) {
    tally.pairwise = LoadMatrix<vorel::MatrixPairwise>(r, matrix);
    CheckMatrix(r, *tally.pairwise, settings, tally.counts);
    if (tally.pairwise->NRows() > 0
        && std::bit_cast<std::uint64_t>(tally.pairwise->MissingCode())
               != std::bit_cast<std::uint64_t>(settings.pairwiseCode))
      r.Fail("a pairwise matrix with another missing code");
  } else {
    tally.listwise = LoadMatrix<vorel::MatrixListwise>(r, matrix);
    CheckMatrix(r, *tally.listwise, settings, tally.counts);
  }
  const std::uint64_t nGroups = r.Int(8);
  if (nGroups > 0 && !settings.grouped) r.Fail("groups without the grouped setting");
  r.Need(nGroups, 24 + 16 * std::size_t{k});
  std::vector<double> unused;
  for (std::uint64_t g = 0; g < nGroups; ++g) {
    const auto code = static_cast<std::int64_t>(r.Int(8));
    if (code < 0 || (!tally.groups.empty() && code <= tally.groups.back().code))
      r.Fail("group codes out of order");
    const std::uint64_t rows = r.Int(8);
    const double weight = r.Real();
    if (rows == 0 || rows > tally.counts.rows) r.Fail("a group with a row count out of range");
    const std::vector<double> origin = r.Reals(k), means = r.Reals(k);
    tally.groups.push_back(GroupTally{code, figures::GroupMoments(k, false)});
    tally.groups.back().moments.Join(rows, weight, origin.data(), means.data(), nullptr, unused);
  }
  tally.within = r.Reals(tally.within.size());
  return tally;
}

}  // namespace

double PairwiseCodeOf(const MissingRule& missing) {
  return missing.nan ? std::numeric_limits<double>::lowest() : missing.code;
}

std::vector<std::byte> SaveAccumulator(const Settings& settings, const MissingRule& missing,
                                       const std::optional<Tally>& tally) {
  Writer w(Kind::kAccumulator);
  WriteSettings(w, settings, missing);
  w.Int(tally ? 1 : 0, 1);
  if (tally) WriteTally(w, settings, *tally);
  return w.Finish();
}

void LoadAccumulator(std::span<const std::byte> bytes, Settings& settings, MissingRule& missing,
                     std::optional<Tally>& tally) {
  Reader r(bytes, Kind::kAccumulator);
  ReadSettings(r, settings, missing);
  tally.reset();
  if (r.Flag()) tally.emplace(ReadTally(r, settings));
  r.Finish();
}

std::vector<std::byte> SaveForest(const Settings& settings, const MissingRule& missing,
                                  const Forest& forest) {
  Writer w(Kind::kForest);
  WriteSettings(w, settings, missing);
  w.Int(forest.Nodes().size(), 8);
  for (const auto& node : forest.Nodes()) {
    w.Int(node.level, 4);
    w.Int(node.index, 8);
    WriteTally(w, settings, node.result);
  }
  return w.Finish();
}

Forest LoadForest(std::span<const std::byte> bytes, Settings& settings, MissingRule& missing) {
  Reader r(bytes, Kind::kForest);
  ReadSettings(r, settings, missing);
  const std::uint64_t nNodes = r.Int(8);
  r.Need(nNodes, 12);
  Forest forest;
  std::uint64_t end = 0;
  for (std::uint64_t n = 0; n < nNodes; ++n) {
    const auto level = static_cast<std::uint32_t>(r.Int(4));
    const std::uint64_t index = r.Int(8);
    if (level >= 64 || index >= (~std::uint64_t{0} >> level)) r.Fail("a node beyond the blocks");
    vorel::BlockNode<Tally> node{level, index, ReadTally(r, settings)};
    if (node.FirstBlock() < end) r.Fail("nodes out of order or overlapping");
    end = node.EndBlock();
    forest.Insert(std::move(node));
  }
  r.Finish();
  return forest;
}

}  // namespace vorelpy
