// libFuzzer target: vorelstat's whole run over an in-memory file, then every
// printed form of the report, then its figures against a plain serial
// reference in long double over the rows the run accepted.
//
// Input: three bytes of settings, then the file.
//   byte 0: bit 0 pairwise, bit 1 two threads, bit 2 each group's covariance,
//           bit 3 weight column "w", bit 4 group column "g", bit 5 regression
//           weight column "r", bit 6 missing code -9
//   byte 1: rows per batch, 1 to 16
//   byte 2: read size, 1 to 256 bytes
// Counts, extremes and constant columns must agree exactly; the rest within a
// bound of rounding taken from the data, when the data keep clear of overflow.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "errors.h"
#include "inputsource.h"
#include "report.h"
#include "tool.h"

namespace vorelstat {
namespace {

using Real = long double;
constexpr double kEps = 2.220446049250313e-16;
constexpr std::size_t kMostCheckedColumns = 12;

void Check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "fuzz_pass: %s\n", what);
  std::abort();
}

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// An accepted row as the reference sees it.
struct Row {
  std::vector<double> x;  // the missing code where missing
  double w = 1.0;         // frequency weight
  double v = 1.0;         // combined weight, as the library forms it
  bool grouped = false;
  long long group = 0;
};

struct Reference {
  std::uint64_t read = 0, used = 0, zero = 0, noWeight = 0;
  std::vector<Row> rows;  // the rows that reach the whole-table figures
  bool sane = true;       // every value and weight well inside the range of a double
};

// The text after the header, the first line that is not blank, as the reader finds it.
std::string_view Body(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty()) break;
  }
  return text;
}

Reference Gather(std::string_view text, const ToolRun& run, const CellRules& rules, bool pairwise) {
  Reference ref;
  RowParser parser(run.layout, rules);
  ParsedRow parsed;
  LineError error;
  const std::string_view body = Body(text);
  const char* end = body.data() + body.size();
  RecordEnd record;
  for (const char* p = body.data(); p != end; p = record.next) {
    Check(parser.ParseRecord(p, end, parsed, error, record),
          "a record the run accepted does not parse");
    if (record.blank) continue;
    Check(parsed.texts.empty(), "text left in a column the run kept");
    ++ref.read;
    if (parsed.weightMissing) {
      ++ref.noWeight;
      continue;
    }
    const double v = parsed.weight * parsed.regWeight;
    if (parsed.weight == 0.0 || v == 0.0) {
      ++ref.zero;
      continue;
    }
    if (parsed.nMissing != 0 && !pairwise) continue;
    ++ref.used;
    Row row{parsed.values, parsed.weight, run.layout.regWeightField ? v : parsed.weight,
            run.layout.groupField && !parsed.groupMissing && parsed.nMissing == 0,
            parsed.group.Whole()};
    ref.sane = ref.sane && row.w > 1e-50 && row.w < 1e50 && row.v > 1e-50 && row.v < 1e50;
    for (double x : row.x)
      ref.sane = ref.sane && (x == rules.missingCode || std::fabs(x) < 1e100);
    ref.rows.push_back(std::move(row));
  }
  return ref;
}

// Weighted moments of columns i and j over the rows where both are present.
struct PairRef {
  std::uint64_t n = 0;
  Real w = 0, v = 0, mi = 0, mj = 0, cp = 0;
  double maxI = 0, maxJ = 0;
  figures::Range ri, rj;
};

PairRef PairOf(const Reference& ref, std::size_t i, std::size_t j, double code) {
  PairRef p;
  for (const Row& row : ref.rows) {
    if (row.x[i] == code || row.x[j] == code) continue;
    ++p.n;
    p.w += row.w;
    p.v += row.v;
    p.mi += row.v * static_cast<Real>(row.x[i]);
    p.mj += row.v * static_cast<Real>(row.x[j]);
    p.maxI = std::max(p.maxI, std::fabs(row.x[i]));
    p.maxJ = std::max(p.maxJ, std::fabs(row.x[j]));
    p.ri.Include(row.x[i]);
    p.rj.Include(row.x[j]);
  }
  if (p.n == 0) return p;
  p.mi /= p.v;
  p.mj /= p.v;
  for (const Row& row : ref.rows) {
    if (row.x[i] == code || row.x[j] == code) continue;
    p.cp += row.v * (row.x[i] - p.mi) * (row.x[j] - p.mj);
  }
  return p;
}

void Near(double got, Real want, Real bound, const char* what) {
  if (std::isnan(got) || std::fabs(static_cast<Real>(got) - want) > bound) {
    std::fprintf(stderr, "%s: got %.17g, want %.17Lg, bound %.3Lg\n", what, got, want, bound);
    std::abort();
  }
}

void Compare(const ToolRun& run, const Reference& ref, const CellRules& rules, bool groupCov) {
  const PassResult& pass = run.pass;
  Check(pass.rows.read == ref.read, "rows read");
  Check(pass.rows.used == ref.used, "rows used");
  Check(pass.rows.zeroWeight == ref.zero, "rows of weight 0");
  Check(pass.rows.withoutWeight == ref.noWeight, "rows without weight");
  const std::size_t k = run.layout.NValues();
  if (k > kMostCheckedColumns) return;
  const Report report("fuzz", run.layout, pass, run.skipped, groupCov);
  const double code = rules.missingCode;
  for (std::size_t i = 0; i < k; ++i) {
    const PairRef self = PairOf(ref, i, i, code);
    const ColumnSummary& column = report.columns[i];
    Check(pass.cellCounts[i] == self.n, "cells of a column");
    if (self.n == 0) continue;
    Check(SameBits(column.min, self.ri.min) && SameBits(column.max, self.ri.max), "extremes");
    if (self.ri.Constant()) {
      Check(SameBits(column.mean, self.ri.max), "a constant column's mean");
      Check(!(column.moments.weight > 1.0) || column.sd == 0.0, "a constant column's sd");
    }
    if (!ref.sane) continue;
    Near(column.moments.weight, self.w, 4 * self.n * kEps * self.w, "column weight");
    Near(column.mean, self.mi, 64 * self.n * kEps * self.maxI, "mean");
  }
  if (!ref.sane) return;
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j < k; ++j) {
      const PairRef p = PairOf(ref, i, j, code);
      if (report.pairwise) Check(report.PairRows(i, j) == p.n, "rows of a pair");
      const double got = report.Covariance(i, j);
      if (std::fabs(p.w - 1) < 1e-9 * p.w) continue;  // the divisor's sign is a rounding away
      if (!(p.w > 1)) {
        Check(std::isnan(got), "a covariance without divisor");
        continue;
      }
      if (p.ri.Constant() || p.rj.Constant()) {
        Check(got == 0.0, "a covariance with a constant column");
        continue;
      }
      const Real bound = 256 * p.n * kEps * p.v * p.maxI * p.maxJ / (p.w - 1);
      Near(got, p.cp / (p.w - 1), bound, "covariance");
    }
  }
  if (!pass.grouped) return;
  std::map<long long, std::vector<const Row*>> groups;
  for (const Row& row : ref.rows) {
    if (row.grouped) groups[row.group].push_back(&row);
  }
  Check(report.NGroups() == groups.size(), "groups");
  Real total = 0;
  std::vector<Real> within(k * k, 0);
  std::vector<double> maxAbs(k, 0.0);
  std::size_t g = 0;
  std::uint64_t n = 0;
  for (const auto& [code, members] : groups) {
    Check(report.GroupCode(g) == code && report.Group(g).Rows() == members.size(), "group rows");
    Real w = 0;
    std::vector<Real> mean(k, 0);
    for (const Row* row : members) {
      w += row->w;
      for (std::size_t i = 0; i < k; ++i) {
        mean[i] += row->w * static_cast<Real>(row->x[i]);
        maxAbs[i] = std::max(maxAbs[i], std::fabs(row->x[i]));
      }
    }
    for (std::size_t i = 0; i < k; ++i) {
      mean[i] /= w;
      Near(report.Group(g).Mean(i), mean[i], 64 * members.size() * kEps * maxAbs[i], "group mean");
    }
    for (const Row* row : members) {
      for (std::size_t i = 0; i < k; ++i) {
        for (std::size_t j = 0; j < k; ++j)
          within[i * k + j] += row->w * (row->x[i] - mean[i]) * (row->x[j] - mean[j]);
      }
    }
    total += w;
    n += members.size();
    ++g;
  }
  const Real divisor = total - static_cast<Real>(groups.size());
  if (!(divisor > 1e-9 * total)) return;
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j < k; ++j) {
      const Real bound = 256 * n * kEps * total * maxAbs[i] * maxAbs[j] / divisor;
      Near(report.PooledCovariance(i, j), within[i * k + j] / divisor, bound, "pooled");
    }
  }
}

std::FILE* Sink() {
  static std::FILE* sink = std::fopen("/dev/null", "w");
  return sink;
}

}  // namespace
}  // namespace vorelstat

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vorelstat;
  if (size < 3) return 0;
  const std::uint8_t flags = data[0];
  Options options;
  options.pairwise = (flags & 1) != 0;
  options.threads = (flags & 2) != 0 ? 2 : 1;
  options.groupCovariance = (flags & 4) != 0;
  if ((flags & 8) != 0) options.choice.weight = "w";
  if ((flags & 16) != 0) options.choice.group = "g";
  if ((flags & 32) != 0) options.choice.regWeight = "r";
  if ((flags & 64) != 0) options.missingCode = -9.0;
  options.groupRange = "-1000:1000";
  options.finishOrder = (flags & 128) != 0;
  options.blockSize = 1u + data[1];
  options.batchRows = 1u + data[1] % 16u;
  options.readSize = 1u + data[2];
  options.maxLineLength = 4096;
  const std::string_view text(reinterpret_cast<const char*>(data + 3), size - 3);

  const int fd = ::memfd_create("fuzz-input", 0);
  if (fd < 0) return 0;
  if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    ::close(fd);
    return 0;
  }
  options.path = "/proc/self/fd/" + std::to_string(fd);
  try {
    const ToolRun run = RunPasses(options, false);
    const Report report(options.path, run.layout, run.pass, run.skipped, options.groupCovariance);
    WriteTable(report, Sink());
    WriteCsv(report, Sink());
    WriteJson(report, Sink());
    // The reference reads plain text; compressed input is fuzzed for its
    // decoding and the pass over what it yields, not against the reference.
    if (CompressionOf(text) == Compression::kNone) {
      Compare(run, Gather(text, run, MakeCellRules(options), options.pairwise),
              MakeCellRules(options), options.groupCovariance);
    }
  } catch (const UsageError&) {
  } catch (const DataError&) {
  }
  ::close(fd);
  return 0;
}
