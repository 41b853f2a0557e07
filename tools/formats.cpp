// The three printed forms of a Report.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "report.h"

namespace vorelstat {
namespace {

// Six significant digits for people; "n/a" for a figure that is not defined.
std::string Short(double value) {
  if (std::isnan(value)) return "n/a";
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

// Columns of text: the first left-aligned, the others right-aligned.
class TextTable {
 public:
  void Add(std::vector<std::string> row) { _rows.push_back(std::move(row)); }

  std::string Render() const {
    std::vector<std::size_t> widths;
    for (const auto& row : _rows) {
      if (widths.size() < row.size()) widths.resize(row.size(), 0);
      for (std::size_t c = 0; c < row.size(); ++c)
        widths[c] = std::max(widths[c], row[c].size());
    }
    std::string out;
    for (const auto& row : _rows) {
      std::string line = "  ";
      for (std::size_t c = 0; c < row.size(); ++c) {
        const std::string pad(widths[c] - row[c].size(), ' ');
        line += c == 0 ? row[c] + pad : "  " + pad + row[c];
      }
      while (!line.empty() && line.back() == ' ')
        line.pop_back();
      out += line + "\n";
    }
    return out;
  }

 private:
  std::vector<std::vector<std::string>> _rows;
};

std::vector<std::string> Names(const Report& report) {
  std::vector<std::string> names;
  for (const ColumnSummary& column : report.columns)
    names.push_back(column.name);
  return names;
}

template <class Cell>
std::string SquareTable(const Report& report, const std::vector<std::vector<Cell>>& matrix,
                        std::string (*format)(Cell)) {
  TextTable table;
  std::vector<std::string> head{""};
  for (const std::string& name : Names(report))
    head.push_back(name);
  table.Add(head);
  for (std::size_t i = 0; i < matrix.size(); ++i) {
    std::vector<std::string> row{report.columns[i].name};
    for (const Cell& cell : matrix[i])
      row.push_back(format(cell));
    table.Add(row);
  }
  return table.Render();
}

std::string ShortCell(double value) { return Short(value); }
std::string CountCell(std::uint64_t value) { return std::to_string(value); }

std::string RowsLine(const Report& report) {
  std::string line =
      std::to_string(report.rowsRead) + " read, " + std::to_string(report.rowsUsed) + " used";
  if (report.rowsIncomplete != 0) {
    line += report.pairwise
                ? ", " + std::to_string(report.rowsIncomplete) + " with missing cells"
                : ", " + std::to_string(report.rowsIncomplete) + " left out for missing cells";
  }
  if (report.rowsWithoutWeight != 0) {
    line += ", " + std::to_string(report.rowsWithoutWeight) + " left out for a missing weight";
  }
  return line;
}

// Lines of a key and a text, the keys padded to one width.
class KeyValueLines {
 public:
  void Add(std::string key, std::string value) {
    _lines.emplace_back(std::move(key), std::move(value));
  }
  std::string Render() const {
    std::size_t width = 0;
    for (const auto& line : _lines)
      width = std::max(width, line.first.size());
    std::string out;
    for (const auto& [key, value] : _lines) {
      out += key + std::string(width - key.size() + 2, ' ') + value + "\n";
    }
    return out;
  }

 private:
  std::vector<std::pair<std::string, std::string>> _lines;
};

}  // namespace

std::string FormatTable(const Report& report) {
  std::string out;
  KeyValueLines head;
  head.Add("file", report.file);
  head.Add("rows", RowsLine(report));
  if (report.cellsCoerced != 0) {
    head.Add("cells", std::to_string(report.cellsCoerced) + " not numbers, taken as missing");
  }
  std::string weights =
      report.weightColumn.empty() ? "none (every row counts 1)" : report.weightColumn;
  if (!report.regWeightColumn.empty())
    weights += ", times regression weight " + report.regWeightColumn;
  head.Add("weight", weights + "; total " + Short(report.weightSum));
  head.Add("deletion", report.pairwise ? "pairwise" : "listwise");
  head.Add("threads", std::to_string(report.threads));
  out += head.Render();

  out += "\nColumns\n";
  TextTable columns;
  columns.Add({"column", "n", "weight", "mean", "sd", "min", "max"});
  for (const ColumnSummary& c : report.columns) {
    columns.Add({c.name, std::to_string(c.n), Short(c.weight), Short(c.mean), Short(c.sd),
                 Short(c.min), Short(c.max)});
  }
  out += columns.Render();

  out += "\nCovariance\n" + SquareTable(report, report.covariance, &ShortCell);
  out += "\nCorrelation\n" + SquareTable(report, report.correlation, &ShortCell);
  if (report.pairwise) {
    out += "\nRows of each pair\n" + SquareTable(report, report.pairRows, &CountCell);
    out += "\nWeight of each pair\n" + SquareTable(report, report.pairWeights, &ShortCell);
  }
  if (report.grouped) {
    out += "\nMeans by group of " + report.groupColumn;
    if (report.rowsWithoutGroup != 0) {
      out += " (" + std::to_string(report.rowsWithoutGroup) + " rows without a group left out)";
    }
    out += "\n";
    TextTable groups;
    std::vector<std::string> headRow{"group", "n", "weight"};
    for (const std::string& name : Names(report))
      headRow.push_back(name);
    groups.Add(headRow);
    for (const GroupSummary& g : report.groups) {
      std::vector<std::string> row{std::to_string(g.code), std::to_string(g.n), Short(g.weight)};
      for (double mean : g.means)
        row.push_back(Short(mean));
      groups.Add(row);
    }
    out += groups.Render();
    out += "\nPooled within-group covariance (divisor " + Short(report.pooledDf) + ")\n";
    out += SquareTable(report, report.pooledCovariance, &ShortCell);
  }
  return out;
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
  CsvWriter() { _out = "section,group,row,column,statistic,value\n"; }
  void Add(const std::string& section, const std::string& group, const std::string& row,
           const std::string& column, const std::string& statistic, const std::string& value) {
    _out += section + "," + group + "," + CsvField(row) + "," + CsvField(column) + "," + statistic
            + "," + value + "\n";
  }
  std::string Take() { return std::move(_out); }

 private:
  std::string _out;
};

}  // namespace

std::string FormatCsv(const Report& report) {
  CsvWriter csv;
  const auto summary = [&](const std::string& statistic, const std::string& value) {
    csv.Add("summary", "", "", "", statistic, value);
  };
  summary("file", CsvField(report.file));
  summary("deletion", report.pairwise ? "pairwise" : "listwise");
  summary("weight_column", CsvField(report.weightColumn));
  summary("regression_weight_column", CsvField(report.regWeightColumn));
  summary("group_column", CsvField(report.groupColumn));
  summary("threads", std::to_string(report.threads));
  summary("rows_read", std::to_string(report.rowsRead));
  summary("rows_used", std::to_string(report.rowsUsed));
  summary("rows_incomplete", std::to_string(report.rowsIncomplete));
  summary("rows_without_weight", std::to_string(report.rowsWithoutWeight));
  summary("rows_without_group", std::to_string(report.rowsWithoutGroup));
  summary("cells_not_numeric", std::to_string(report.cellsCoerced));
  summary("weight_sum", RoundTrip(report.weightSum));

  for (const ColumnSummary& c : report.columns) {
    csv.Add("column", "", c.name, "", "n", std::to_string(c.n));
    csv.Add("column", "", c.name, "", "weight", RoundTrip(c.weight));
    csv.Add("column", "", c.name, "", "mean", RoundTrip(c.mean));
    csv.Add("column", "", c.name, "", "sd", RoundTrip(c.sd));
    csv.Add("column", "", c.name, "", "min", RoundTrip(c.min));
    csv.Add("column", "", c.name, "", "max", RoundTrip(c.max));
  }
  const std::size_t k = report.columns.size();
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t j = 0; j < k; ++j) {
      const std::string& a = report.columns[i].name;
      const std::string& b = report.columns[j].name;
      csv.Add("pair", "", a, b, "covariance", RoundTrip(report.covariance[i][j]));
      csv.Add("pair", "", a, b, "correlation", RoundTrip(report.correlation[i][j]));
      if (report.pairwise) {
        csv.Add("pair", "", a, b, "n", std::to_string(report.pairRows[i][j]));
        csv.Add("pair", "", a, b, "weight", RoundTrip(report.pairWeights[i][j]));
      }
    }
  }
  if (report.grouped) {
    for (const GroupSummary& g : report.groups) {
      const std::string code = std::to_string(g.code);
      csv.Add("group", code, "", "", "n", std::to_string(g.n));
      csv.Add("group", code, "", "", "weight", RoundTrip(g.weight));
      for (std::size_t i = 0; i < k; ++i) {
        csv.Add("group", code, report.columns[i].name, "", "mean", RoundTrip(g.means[i]));
      }
    }
    summary("pooled_divisor", RoundTrip(report.pooledDf));
    for (std::size_t i = 0; i < k; ++i) {
      for (std::size_t j = 0; j < k; ++j) {
        csv.Add("pooled", "", report.columns[i].name, report.columns[j].name, "covariance",
                RoundTrip(report.pooledCovariance[i][j]));
      }
    }
  }
  return csv.Take();
}

namespace {

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
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
        if (c < 0x20) {
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

std::string JsonNumber(double value) { return std::isfinite(value) ? RoundTrip(value) : "null"; }
std::string JsonNumber(std::uint64_t value) { return std::to_string(value); }
std::string JsonName(const std::string& name) { return name.empty() ? "null" : JsonString(name); }

template <class T>
std::string JsonArray(const std::vector<T>& values) {
  std::string out = "[";
  for (std::size_t i = 0; i < values.size(); ++i)
    out += (i ? ", " : "") + JsonNumber(values[i]);
  return out + "]";
}

template <class T>
std::string JsonMatrix(const std::vector<std::vector<T>>& matrix, const std::string& indent) {
  std::string out = "[";
  for (std::size_t i = 0; i < matrix.size(); ++i) {
    out += (i ? ",\n" : "\n") + indent + "  " + JsonArray(matrix[i]);
  }
  return out + "\n" + indent + "]";
}

}  // namespace

std::string FormatJson(const Report& report) {
  std::string out = "{\n";
  out += "  \"file\": " + JsonString(report.file) + ",\n";
  out += "  \"deletion\": " + JsonString(report.pairwise ? "pairwise" : "listwise") + ",\n";
  out += "  \"weight_column\": " + JsonName(report.weightColumn) + ",\n";
  out += "  \"regression_weight_column\": " + JsonName(report.regWeightColumn) + ",\n";
  out += "  \"group_column\": " + JsonName(report.groupColumn) + ",\n";
  out += "  \"threads\": " + std::to_string(report.threads) + ",\n";
  out += "  \"rows\": {\"read\": " + JsonNumber(report.rowsRead) + ", \"used\": "
         + JsonNumber(report.rowsUsed) + ", \"incomplete\": " + JsonNumber(report.rowsIncomplete)
         + ", \"without_weight\": " + JsonNumber(report.rowsWithoutWeight)
         + ", \"without_group\": " + JsonNumber(report.rowsWithoutGroup) + "},\n";
  out += "  \"cells_not_numeric\": " + JsonNumber(report.cellsCoerced) + ",\n";
  out += "  \"weight_sum\": " + JsonNumber(report.weightSum) + ",\n";
  out += "  \"columns\": [";
  for (std::size_t i = 0; i < report.columns.size(); ++i) {
    const ColumnSummary& c = report.columns[i];
    out += std::string(i ? "," : "") + "\n    {\"name\": " + JsonString(c.name)
           + ", \"n\": " + JsonNumber(c.n) + ", \"weight\": " + JsonNumber(c.weight)
           + ", \"mean\": " + JsonNumber(c.mean) + ", \"sd\": " + JsonNumber(c.sd)
           + ", \"min\": " + JsonNumber(c.min) + ", \"max\": " + JsonNumber(c.max) + "}";
  }
  out += "\n  ],\n";
  out += "  \"covariance\": " + JsonMatrix(report.covariance, "  ") + ",\n";
  out += "  \"correlation\": " + JsonMatrix(report.correlation, "  ");
  if (report.pairwise) {
    out += ",\n  \"pair_rows\": " + JsonMatrix(report.pairRows, "  ");
    out += ",\n  \"pair_weights\": " + JsonMatrix(report.pairWeights, "  ");
  }
  if (report.grouped) {
    out += ",\n  \"groups\": [";
    for (std::size_t i = 0; i < report.groups.size(); ++i) {
      const GroupSummary& g = report.groups[i];
      out += std::string(i ? "," : "") + "\n    {\"code\": " + std::to_string(g.code)
             + ", \"n\": " + JsonNumber(g.n) + ", \"weight\": " + JsonNumber(g.weight)
             + ", \"means\": " + JsonArray(g.means) + "}";
    }
    out += "\n  ],\n";
    out += "  \"pooled_divisor\": " + JsonNumber(report.pooledDf) + ",\n";
    out += "  \"pooled_covariance\": " + JsonMatrix(report.pooledCovariance, "  ");
  }
  return out + "\n}\n";
}

}  // namespace vorelstat
