// The figures of a pass, in the form people and programs read them, and the
// three ways to print them: an aligned table, CSV and JSON.
//
// The figures are defined in figures.h. A Report holds what takes one entry
// per column or group; every cell of a matrix is worked out from the pass's
// results when it is printed, and the printers write as they go, so that a
// report of k columns needs memory for the pass's figures and nothing more.
// A figure that is not defined is NaN here, printed as "n/a" in the table, an
// empty field in CSV and null in JSON.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "figures.h"
#include "rowparser.h"
#include "statpass.h"

namespace vorelstat {

struct ColumnSummary {
  std::string name;
  figures::ColumnMoments moments;
  double mean = 0.0, sd = 0.0, min = 0.0, max = 0.0;
};

struct SkippedSummary {
  std::string name;
  std::string reason;
};

// The parts of a report besides its head and notes, as bits.
enum Section : unsigned {
  kColumnsSection = 1u << 0,
  kCovarianceSection = 1u << 1,
  kCorrelationSection = 1u << 2,
  kPairsSection = 1u << 3,   // rows and weight of each pair (pairwise deletion)
  kGroupsSection = 1u << 4,  // means by group, and each group's own spread on request
  kPooledSection = 1u << 5,  // pooled within-group covariance
  kAllSections = (1u << 6) - 1,
};

// The sections a comma-separated list names ("all" for every one). Throws
// UsageError for an unknown name or an empty list.
unsigned ParseSections(const std::vector<std::string>& names);

// How the figures are defined and what is printed.
struct ReportOptions {
  bool groupCovariance = false;
  double ddof = 1.0;
  figures::WeightKind weightKind = figures::WeightKind::kFrequency;
  unsigned sections = kAllSections;
};

class Report {
 public:
  // `pass` must outlive the report.
  Report(std::string fileName, const RowLayout& layout, const PassResult& pass,
         const std::vector<SkippedColumn>& skippedColumns, const ReportOptions& options);
  Report(std::string fileName, const RowLayout& layout, const PassResult& pass,
         const std::vector<SkippedColumn>& skippedColumns, bool withGroupCovariance)
      : Report(std::move(fileName), layout, pass, skippedColumns,
               ReportOptions{withGroupCovariance}) {}

  std::string file;
  bool pairwise = false;
  std::string weightColumn, regWeightColumn, groupColumn;
  bool groupCovariance = false;
  double ddof = 1.0;
  figures::WeightKind weightKind = figures::WeightKind::kFrequency;
  unsigned sections = kAllSections;
  double weightSum = 0.0;  // frequency weight of the rows used
  std::vector<ColumnSummary> columns;
  std::vector<SkippedSummary> skipped;
  // Why figures are n/a or exact, one line each.
  std::vector<std::string> notes;

  const PassResult& Pass() const { return _pass; }
  bool Shows(Section section) const { return (sections & section) != 0; }
  // Frequency weights and ddof 1: the divisor W - 1.
  bool DefaultDivisor() const {
    return ddof == 1.0 && weightKind == figures::WeightKind::kFrequency;
  }
  // "frequency" or "analytic".
  const char* WeightKindName() const;
  // The divisor of the corrected sums, as a formula in W (and V), e.g. "W - 1".
  std::string DivisorFormula() const;
  std::size_t K() const { return columns.size(); }
  double Covariance(std::size_t i, std::size_t j) const;
  double Correlation(std::size_t i, std::size_t j) const;
  // Pairwise deletion only: rows and weight behind each pair (a column's own on the diagonal).
  std::uint64_t PairRows(std::size_t i, std::size_t j) const;
  double PairWeight(std::size_t i, std::size_t j) const;

  bool Grouped() const { return _pass.grouped; }
  std::size_t NGroups() const { return _pass.groups.size(); }
  const GroupLabel& Label(std::size_t g) const { return _pass.groupLabels[g]; }
  // The number of a whole-number label.
  long long GroupCode(std::size_t g) const { return Label(g).Whole(); }
  const figures::GroupMoments& Group(std::size_t g) const { return _pass.groups[g]; }
  double GroupSd(std::size_t g, std::size_t i) const;
  double GroupCovariance(std::size_t g, std::size_t i, std::size_t j) const;
  double PooledDivisor() const;
  double PooledCovariance(std::size_t i, std::size_t j) const;

 private:
  figures::PairMoments PairOf(std::size_t i, std::size_t j) const;
  // V of the rows behind column i and j (i == j: the column's own).
  double WeightSquares(std::size_t i, std::size_t j) const;
  void AddNotes();

  const PassResult& _pass;
  double _groupWeight = 0.0;
};

// Each writes the whole report to `out` as it goes; the caller checks `out`
// for write errors.
void WriteTable(const Report& report, std::FILE* out);
void WriteCsv(const Report& report, std::FILE* out);
void WriteJson(const Report& report, std::FILE* out);

// The same, into a string (for tests).
std::string FormatTable(const Report& report);
std::string FormatCsv(const Report& report);
std::string FormatJson(const Report& report);

// Shortest text that reads back as the same double; "" for NaN.
std::string RoundTrip(double value);

}  // namespace vorelstat
