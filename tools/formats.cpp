// The three printed forms of a Report, written as they are produced.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "report.h"

namespace vorelstat {
namespace {

void Put(std::FILE* out, std::string_view text) { std::fwrite(text.data(), 1, text.size(), out); }

// Six significant digits for people; "n/a" for a figure that is not defined.
std::string Short(double value) {
  if (std::isnan(value)) return "n/a";
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

// A table whose cells are made on demand: the first column left-aligned, the
// others right-aligned. Each cell is made twice, once for the widths and once
// to print it, so that no more than a line is held at a time.
using CellText = std::function<std::string(std::size_t row, std::size_t column)>;

void StreamTable(std::FILE* out, std::size_t nRows, std::size_t nColumns, const CellText& cell) {
  std::vector<std::size_t> widths(nColumns, 0);
  for (std::size_t r = 0; r < nRows; ++r) {
    for (std::size_t c = 0; c < nColumns; ++c)
      widths[c] = std::max(widths[c], cell(r, c).size());
  }
  std::string line;
  for (std::size_t r = 0; r < nRows; ++r) {
    line = "  ";
    for (std::size_t c = 0; c < nColumns; ++c) {
      const std::string text = cell(r, c);
      const std::string pad(widths[c] - text.size(), ' ');
      line += c == 0 ? text + pad : "  " + pad + text;
    }
    while (!line.empty() && line.back() == ' ')
      line.pop_back();
    line += '\n';
    Put(out, line);
  }
}

// A square table of the columns: names across and down, `value` in the cells.
void SquareTable(std::FILE* out, const Report& report,
                 const std::function<std::string(std::size_t, std::size_t)>& value) {
  StreamTable(out, report.K() + 1, report.K() + 1, [&](std::size_t r, std::size_t c) {
    if (r == 0) return c == 0 ? std::string() : report.columns[c - 1].name;
    if (c == 0) return report.columns[r - 1].name;
    return value(r - 1, c - 1);
  });
}

std::string RowsLine(const Report& report) {
  const PassResult& pass = report.Pass();
  std::string line =
      std::to_string(pass.rows.read) + " read, " + std::to_string(pass.rows.used) + " used";
  if (pass.rows.incomplete != 0) {
    line += report.pairwise
                ? ", " + std::to_string(pass.rows.incomplete) + " with missing cells"
                : ", " + std::to_string(pass.rows.incomplete) + " left out for missing cells";
  }
  if (pass.rows.withoutWeight != 0) {
    line += ", " + std::to_string(pass.rows.withoutWeight) + " left out for a missing weight";
  }
  if (pass.rows.zeroWeight != 0) {
    line += ", " + std::to_string(pass.rows.zeroWeight) + " of weight 0 left out";
  }
  return line;
}

// Lines of a key and a text, the keys padded to one width.
class KeyValueLines {
 public:
  void Add(std::string key, std::string value) {
    _lines.emplace_back(std::move(key), std::move(value));
  }
  void Write(std::FILE* out) const {
    std::size_t width = 0;
    for (const auto& line : _lines)
      width = std::max(width, line.first.size());
    for (const auto& [key, value] : _lines)
      Put(out, key + std::string(width - key.size() + 2, ' ') + value + "\n");
  }

 private:
  std::vector<std::pair<std::string, std::string>> _lines;
};

void ColumnTable(std::FILE* out, const Report& report) {
  static const char* const kColumnHead[] = {"column", "n", "weight", "mean", "sd", "min", "max"};
  StreamTable(out, report.K() + 1, 7, [&](std::size_t r, std::size_t c) -> std::string {
    if (r == 0) return kColumnHead[c];
    const ColumnSummary& s = report.columns[r - 1];
    switch (c) {
      case 0:
        return s.name;
      case 1:
        return std::to_string(s.moments.n);
      case 2:
        return Short(s.moments.weight);
      case 3:
        return Short(s.mean);
      case 4:
        return Short(s.sd);
      case 5:
        return Short(s.min);
      default:
        return Short(s.max);
    }
  });
}

void GroupTables(std::FILE* out, const Report& report) {
  const PassResult& pass = report.Pass();
  std::string title = "\nMeans by group of " + report.groupColumn;
  if (pass.rows.withoutGroup != 0) {
    title += " (" + std::to_string(pass.rows.withoutGroup) + " rows without a group left out)";
  }
  Put(out, title + "\n");
  const auto groupTable = [&](const std::function<double(std::size_t, std::size_t)>& value) {
    StreamTable(out, report.NGroups() + 1, report.K() + 3, [&](std::size_t r, std::size_t c) {
      static const char* const kHead[] = {"group", "n", "weight"};
      if (r == 0) return c < 3 ? std::string(kHead[c]) : report.columns[c - 3].name;
      const figures::GroupMoments& g = report.Group(r - 1);
      if (c == 0) return report.Label(r - 1).Display();
      if (c == 1) return std::to_string(g.Rows());
      if (c == 2) return Short(g.Weight());
      return Short(value(r - 1, c - 3));
    });
  };
  groupTable([&](std::size_t g, std::size_t i) { return report.Group(g).Mean(i); });
  if (report.groupCovariance) {
    Put(out, "\nStandard deviations by group of " + report.groupColumn + "\n");
    groupTable([&](std::size_t g, std::size_t i) { return report.GroupSd(g, i); });
    for (std::size_t g = 0; g < report.NGroups(); ++g) {
      Put(out, "\nCovariance in group " + report.Label(g).Display() + "\n");
      SquareTable(out, report, [&](std::size_t i, std::size_t j) {
        return Short(report.GroupCovariance(g, i, j));
      });
    }
  }
}

}  // namespace

void WriteTable(const Report& report, std::FILE* out) {
  const PassResult& pass = report.Pass();
  KeyValueLines head;
  head.Add("file", report.file);
  head.Add("rows", RowsLine(report));
  for (const SkippedSummary& column : report.skipped)
    head.Add("skipped", column.name + ": " + column.reason);
  if (pass.rows.cellsCoerced != 0) {
    head.Add("cells", std::to_string(pass.rows.cellsCoerced) + " not numbers, taken as missing");
  }
  std::string weights =
      report.weightColumn.empty() ? "none (every row counts 1)" : report.weightColumn;
  if (!report.regWeightColumn.empty())
    weights += ", times regression weight " + report.regWeightColumn;
  head.Add("weight", weights + "; total " + Short(report.weightSum));
  head.Add("deletion", report.pairwise ? "pairwise" : "listwise");
  if (!report.DefaultDivisor()) {
    head.Add("divisor", report.DivisorFormula() + " (" + report.WeightKindName() + " weights, ddof "
                            + RoundTrip(report.ddof) + ")");
  }
  head.Add("block size", pass.blockBytes != 0 ? std::to_string(pass.blockBytes) + " bytes"
                                              : "none: merged as the threads finished");
  head.Write(out);

  if (report.Shows(kColumnsSection)) {
    Put(out, "\nColumns\n");
    ColumnTable(out, report);
  }
  if (report.Shows(kCovarianceSection)) {
    Put(out, "\nCovariance\n");
    SquareTable(out, report,
                [&](std::size_t i, std::size_t j) { return Short(report.Covariance(i, j)); });
  }
  if (report.Shows(kCorrelationSection)) {
    Put(out, "\nCorrelation\n");
    SquareTable(out, report,
                [&](std::size_t i, std::size_t j) { return Short(report.Correlation(i, j)); });
  }
  if (report.pairwise && report.Shows(kPairsSection)) {
    Put(out, "\nRows of each pair\n");
    SquareTable(out, report, [&](std::size_t i, std::size_t j) {
      return std::to_string(report.PairRows(i, j));
    });
    Put(out, "\nWeight of each pair\n");
    SquareTable(out, report,
                [&](std::size_t i, std::size_t j) { return Short(report.PairWeight(i, j)); });
  }
  if (report.Grouped() && report.Shows(kGroupsSection)) GroupTables(out, report);
  if (report.Grouped() && report.Shows(kPooledSection)) {
    Put(out, "\nPooled within-group covariance (divisor " + Short(report.PooledDivisor()) + ")\n");
    SquareTable(out, report,
                [&](std::size_t i, std::size_t j) { return Short(report.PooledCovariance(i, j)); });
  }
  if (!report.notes.empty()) {
    Put(out, "\nNotes\n");
    for (const std::string& note : report.notes)
      Put(out, "  " + note + "\n");
  }
}

namespace {

std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\n\r") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

class CsvWriter {
 public:
  explicit CsvWriter(std::FILE* out) : _out(out) {
    Put(_out, "section,group,row,column,statistic,value\n");
  }
  void Add(const std::string& section, const std::string& group, const std::string& row,
           const std::string& column, const std::string& statistic, const std::string& value) {
    Put(_out, section + "," + group + "," + CsvField(row) + "," + CsvField(column) + "," + statistic
                  + "," + value + "\n");
  }

 private:
  std::FILE* _out;
};

}  // namespace

void WriteCsv(const Report& report, std::FILE* out) {
  const PassResult& pass = report.Pass();
  CsvWriter csv(out);
  const auto summary = [&](const std::string& statistic, const std::string& value) {
    csv.Add("summary", "", "", "", statistic, value);
  };
  summary("file", CsvField(report.file));
  summary("deletion", report.pairwise ? "pairwise" : "listwise");
  summary("weight_column", CsvField(report.weightColumn));
  summary("regression_weight_column", CsvField(report.regWeightColumn));
  summary("group_column", CsvField(report.groupColumn));
  summary("block_size", std::to_string(pass.blockBytes));
  summary("rows_read", std::to_string(pass.rows.read));
  summary("rows_used", std::to_string(pass.rows.used));
  summary("rows_incomplete", std::to_string(pass.rows.incomplete));
  summary("rows_without_weight", std::to_string(pass.rows.withoutWeight));
  summary("rows_zero_weight", std::to_string(pass.rows.zeroWeight));
  summary("rows_without_group", std::to_string(pass.rows.withoutGroup));
  summary("cells_not_numeric", std::to_string(pass.rows.cellsCoerced));
  summary("weight_sum", RoundTrip(report.weightSum));
  summary("weight_kind", report.WeightKindName());
  summary("ddof", RoundTrip(report.ddof));
  for (const SkippedSummary& column : report.skipped)
    csv.Add("skipped", "", column.name, "", "reason", CsvField(column.reason));
  for (const std::string& note : report.notes)
    csv.Add("note", "", "", "", "note", CsvField(note));

  for (const ColumnSummary& c : report.columns) {
    if (!report.Shows(kColumnsSection)) break;
    csv.Add("column", "", c.name, "", "n", std::to_string(c.moments.n));
    csv.Add("column", "", c.name, "", "weight", RoundTrip(c.moments.weight));
    csv.Add("column", "", c.name, "", "mean", RoundTrip(c.mean));
    csv.Add("column", "", c.name, "", "sd", RoundTrip(c.sd));
    csv.Add("column", "", c.name, "", "min", RoundTrip(c.min));
    csv.Add("column", "", c.name, "", "max", RoundTrip(c.max));
  }
  const std::size_t k = report.K();
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j < k; ++j) {
      const std::string& a = report.columns[i].name;
      const std::string& b = report.columns[j].name;
      if (report.Shows(kCovarianceSection))
        csv.Add("pair", "", a, b, "covariance", RoundTrip(report.Covariance(i, j)));
      if (report.Shows(kCorrelationSection))
        csv.Add("pair", "", a, b, "correlation", RoundTrip(report.Correlation(i, j)));
      if (report.pairwise && report.Shows(kPairsSection)) {
        csv.Add("pair", "", a, b, "n", std::to_string(report.PairRows(i, j)));
        csv.Add("pair", "", a, b, "weight", RoundTrip(report.PairWeight(i, j)));
      }
    }
  }
  if (!report.Grouped()) return;
  for (std::size_t g = 0; g < report.NGroups() && report.Shows(kGroupsSection); ++g) {
    const figures::GroupMoments& group = report.Group(g);
    const std::string code = CsvField(report.Label(g).Display());
    csv.Add("group", code, "", "", "n", std::to_string(group.Rows()));
    csv.Add("group", code, "", "", "weight", RoundTrip(group.Weight()));
    for (std::size_t i = 0; i < k; ++i) {
      const std::string& a = report.columns[i].name;
      csv.Add("group", code, a, "", "mean", RoundTrip(group.Mean(i)));
      if (!report.groupCovariance) continue;
      csv.Add("group", code, a, "", "sd", RoundTrip(report.GroupSd(g, i)));
      for (std::size_t j = 0; j < k; ++j) {
        csv.Add("group", code, a, report.columns[j].name, "covariance",
                RoundTrip(report.GroupCovariance(g, i, j)));
      }
    }
  }
  if (!report.Shows(kPooledSection)) return;
  summary("pooled_divisor", RoundTrip(report.PooledDivisor()));
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j < k; ++j) {
      csv.Add("pooled", "", report.columns[i].name, report.columns[j].name, "covariance",
              RoundTrip(report.PooledCovariance(i, j)));
    }
  }
}

namespace {

// Length of the valid UTF-8 sequence at p (at most `left` bytes), 0 if none.
std::size_t Utf8Length(const unsigned char* p, std::size_t left) {
  const unsigned char c = p[0];
  std::size_t length = 0;
  unsigned char lo = 0x80, hi = 0xBF;  // bounds of the second byte
  if (c < 0x80) return 1;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) lo = 0xA0;
    if (c == 0xED) hi = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (left < length || p[1] < lo || p[1] > hi) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return length;
}

// A JSON string. Text that is not valid UTF-8 is read byte by byte as
// Latin-1, so that the output is always valid JSON and no byte is lost.
std::string JsonString(const std::string& text) {
  std::string out = "\"";
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = bytes[i];
    const std::size_t length = Utf8Length(bytes + i, text.size() - i);
    if (length > 1) {
      out.append(text, i, length);
      i += length;
      continue;
    }
    ++i;
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || length == 0) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

// Infinities as numbers beyond any double, which JSON readers take as infinite.
std::string JsonNumber(double value) {
  if (std::isnan(value)) return "null";
  if (std::isinf(value)) return value > 0 ? "1e999" : "-1e999";
  return RoundTrip(value);
}
std::string JsonNumber(std::uint64_t value) { return std::to_string(value); }
std::string JsonName(const std::string& name) { return name.empty() ? "null" : JsonString(name); }
// A number label as a number, a text label as a string.
std::string JsonLabel(const GroupLabel& label) {
  const std::string text = label.Display();
  return label.GetKind() == GroupLabel::Kind::kText ? JsonString(text) : text;
}

// A k x k matrix, a row a line, each cell from `cell`.
template <class Cell>
void JsonMatrix(std::FILE* out, std::size_t k, const std::string& indent, const Cell& cell) {
  Put(out, "[");
  std::string line;
  for (std::size_t i = 0; i < k; ++i) {
    line = (i ? ",\n" : "\n") + indent + "  [";
    for (std::size_t j = 0; j < k; ++j)
      line += (j ? ", " : "") + JsonNumber(cell(i, j));
    Put(out, line + "]");
  }
  Put(out, "\n" + indent + "]");
}

template <class Cell>
std::string JsonArray(std::size_t k, const Cell& cell) {
  std::string out = "[";
  for (std::size_t i = 0; i < k; ++i)
    out += (i ? ", " : "") + JsonNumber(cell(i));
  return out + "]";
}

}  // namespace

void WriteJson(const Report& report, std::FILE* out) {
  const PassResult& pass = report.Pass();
  const std::size_t k = report.K();
  Put(out, "{\n");
  Put(out, "  \"file\": " + JsonString(report.file) + ",\n");
  Put(out, "  \"deletion\": " + JsonString(report.pairwise ? "pairwise" : "listwise") + ",\n");
  Put(out, "  \"weight_column\": " + JsonName(report.weightColumn) + ",\n");
  Put(out, "  \"regression_weight_column\": " + JsonName(report.regWeightColumn) + ",\n");
  Put(out, "  \"group_column\": " + JsonName(report.groupColumn) + ",\n");
  Put(out, "  \"block_size\": " + std::to_string(pass.blockBytes) + ",\n");
  Put(out, "  \"rows\": {\"read\": " + JsonNumber(pass.rows.read)
               + ", \"used\": " + JsonNumber(pass.rows.used)
               + ", \"incomplete\": " + JsonNumber(pass.rows.incomplete)
               + ", \"without_weight\": " + JsonNumber(pass.rows.withoutWeight)
               + ", \"zero_weight\": " + JsonNumber(pass.rows.zeroWeight)
               + ", \"without_group\": " + JsonNumber(pass.rows.withoutGroup) + "},\n");
  Put(out, "  \"cells_not_numeric\": " + JsonNumber(pass.rows.cellsCoerced) + ",\n");
  Put(out, "  \"weight_sum\": " + JsonNumber(report.weightSum) + ",\n");
  Put(out, "  \"weight_kind\": " + JsonString(report.WeightKindName()) + ",\n");
  Put(out, "  \"ddof\": " + JsonNumber(report.ddof) + ",\n");
  Put(out, "  \"skipped_columns\": [");
  for (std::size_t i = 0; i < report.skipped.size(); ++i) {
    Put(out, std::string(i ? ", " : "") + "{\"name\": " + JsonString(report.skipped[i].name)
                 + ", \"reason\": " + JsonString(report.skipped[i].reason) + "}");
  }
  Put(out, "],\n  \"notes\": [");
  for (std::size_t i = 0; i < report.notes.size(); ++i)
    Put(out, std::string(i ? ", " : "") + JsonString(report.notes[i]));
  Put(out, "]");
  if (report.Shows(kColumnsSection)) {
    Put(out, ",\n  \"columns\": [");
    for (std::size_t i = 0; i < k; ++i) {
      const ColumnSummary& c = report.columns[i];
      Put(out, std::string(i ? "," : "") + "\n    {\"name\": " + JsonString(c.name) + ", \"n\": "
                   + JsonNumber(c.moments.n) + ", \"weight\": " + JsonNumber(c.moments.weight)
                   + ", \"mean\": " + JsonNumber(c.mean) + ", \"sd\": " + JsonNumber(c.sd)
                   + ", \"min\": " + JsonNumber(c.min) + ", \"max\": " + JsonNumber(c.max) + "}");
    }
    Put(out, "\n  ]");
  }
  if (report.Shows(kCovarianceSection)) {
    Put(out, ",\n  \"covariance\": ");
    JsonMatrix(out, k, "  ", [&](std::size_t i, std::size_t j) { return report.Covariance(i, j); });
  }
  if (report.Shows(kCorrelationSection)) {
    Put(out, ",\n  \"correlation\": ");
    JsonMatrix(out, k, "  ",
               [&](std::size_t i, std::size_t j) { return report.Correlation(i, j); });
  }
  if (report.pairwise && report.Shows(kPairsSection)) {
    Put(out, ",\n  \"pair_rows\": ");
    JsonMatrix(out, k, "  ", [&](std::size_t i, std::size_t j) { return report.PairRows(i, j); });
    Put(out, ",\n  \"pair_weights\": ");
    JsonMatrix(out, k, "  ", [&](std::size_t i, std::size_t j) { return report.PairWeight(i, j); });
  }
  if (report.Grouped() && report.Shows(kGroupsSection)) {
    Put(out, ",\n  \"groups\": [");
    for (std::size_t g = 0; g < report.NGroups(); ++g) {
      const figures::GroupMoments& group = report.Group(g);
      Put(out, std::string(g ? "," : "") + "\n    {\"code\": " + JsonLabel(report.Label(g))
                   + ", \"n\": " + JsonNumber(group.Rows())
                   + ", \"weight\": " + JsonNumber(group.Weight())
                   + ", \"means\": " + JsonArray(k, [&](std::size_t i) { return group.Mean(i); }));
      if (report.groupCovariance) {
        Put(out, ", \"sd\": " + JsonArray(k, [&](std::size_t i) { return report.GroupSd(g, i); })
                     + ", \"covariance\": ");
        JsonMatrix(out, k, "    ",
                   [&](std::size_t i, std::size_t j) { return report.GroupCovariance(g, i, j); });
      }
      Put(out, "}");
    }
    Put(out, "\n  ]");
  }
  if (report.Grouped() && report.Shows(kPooledSection)) {
    Put(out, ",\n  \"pooled_divisor\": " + JsonNumber(report.PooledDivisor()) + ",\n");
    Put(out, "  \"pooled_covariance\": ");
    JsonMatrix(out, k, "  ",
               [&](std::size_t i, std::size_t j) { return report.PooledCovariance(i, j); });
  }
  Put(out, "\n}\n");
}

namespace {

std::string Capture(const Report& report, void (*write)(const Report&, std::FILE*)) {
  char* buffer = nullptr;
  std::size_t size = 0;
  std::FILE* stream = ::open_memstream(&buffer, &size);
  if (stream == nullptr) throw std::bad_alloc();
  write(report, stream);
  std::fclose(stream);
  std::string text(buffer, size);
  std::free(buffer);
  return text;
}

}  // namespace

std::string FormatTable(const Report& report) { return Capture(report, &WriteTable); }
std::string FormatCsv(const Report& report) { return Capture(report, &WriteCsv); }
std::string FormatJson(const Report& report) { return Capture(report, &WriteJson); }

}  // namespace vorelstat
