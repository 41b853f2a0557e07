// The tool's parser: numbers read at the cursor against the C library's
// strtod and std::from_chars on the same cells, and whole records of the
// benchmark data set's shape (columns of four decimals, as vorel-gendata
// writes them) into parsed rows. Bytes per second count the text read.
#if defined(VOREL_BENCH_TOOL)
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "numbertext.h"
#include "rowparser.h"

namespace vorel::bench {
namespace {

// Rows of `columns` cells like "-368.9202", every `missingEvery`-th cell
// empty (0: none), comma-separated, about `bytes` long.
std::string MakeCsvText(int columns, std::size_t bytes, int missingEvery) {
  std::uint64_t seed = 42;
  std::string text;
  text.reserve(bytes + 4096);
  char cell[32];
  for (long cellIndex = 0; text.size() < bytes;) {
    for (int c = 0; c < columns; ++c, ++cellIndex) {
      if (c != 0) text += ',';
      if (missingEvery != 0 && cellIndex % missingEvery == 0) continue;
      const double value = (Unit(seed) - 0.5) * 3000.0;
      const int length = std::snprintf(cell, sizeof cell, "%.4f", value);
      text.append(cell, static_cast<std::size_t>(length));
    }
    text += '\n';
  }
  return text;
}

// The cells of a text, each ended by its delimiter or line end.
std::vector<std::string_view> Cells(const std::string& text) {
  std::vector<std::string_view> cells;
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ',' || text[i] == '\n') {
      cells.emplace_back(text.data() + start, i - start);
      start = i + 1;
    }
  }
  return cells;
}

constexpr std::size_t kTextBytes = std::size_t{8} << 20;

const std::string& SharedText(int columns, int missingEvery) {
  static std::string text;
  static int madeColumns = -1, madeMissing = -1;
  if (columns != madeColumns || missingEvery != madeMissing) {
    text = MakeCsvText(columns, kTextBytes, missingEvery);
    madeColumns = columns;
    madeMissing = missingEvery;
  }
  return text;
}

enum Converter { kAtCursor, kFromChars, kStrtod };

// The cells' numbers, summed so that nothing is optimised away; the sums of
// the three converters must agree bit for bit.
void NumberConversion(benchmark::State& state) {
  const auto converter = static_cast<Converter>(state.range(0));
  const std::string& text = SharedText(20, 0);
  const std::vector<std::string_view> cells = Cells(text);
  const auto convert = [&](Converter how) {
    double sum = 0.0;
    for (std::string_view cell : cells) {
      double value = 0.0;
      // The text goes on after each cell, so strtod and the cursor stop at the delimiter.
      switch (how) {
        case kAtCursor:
          vorelstat::ReadNumberAt(cell.data(), text.data() + text.size(), '.', value);
          break;
        case kFromChars:
          std::from_chars(cell.data(), cell.data() + cell.size(), value);
          break;
        case kStrtod:
          value = std::strtod(cell.data(), nullptr);
          break;
      }
      sum += value;
    }
    return sum;
  };
  const double expected = convert(kStrtod);
  if (convert(converter) != expected) {
    state.SkipWithError("wrong answer");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(convert(converter));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * cells.size()));
}
BENCHMARK(NumberConversion)
    ->Name("BM_NumberConversion")
    ->Arg(kAtCursor)
    ->Arg(kFromChars)
    ->Arg(kStrtod);

// Whole records into parsed rows: columns, and one cell in `missingEvery` empty.
void ParseRecords(benchmark::State& state) {
  const int columns = static_cast<int>(state.range(0));
  const int missingEvery = static_cast<int>(state.range(1));
  const std::string& text = SharedText(columns, missingEvery);
  std::vector<std::string> names;
  for (int c = 0; c < columns; ++c)
    names.push_back("x" + std::to_string(c));
  const vorelstat::RowLayout layout = vorelstat::MakeLayout(names, ',', {names, "", "", ""});
  vorelstat::CellRules rules;
  rules.missingTexts = {"", "NA", "NaN"};
  rules.missingCode = -1e300;
  vorelstat::RowParser parser(layout, rules);
  vorelstat::ParsedRow row;
  vorelstat::LineError error;
  const char* const end = text.data() + text.size();
  for (auto _ : state) {
    double sum = 0.0;
    vorelstat::RecordEnd record;
    for (const char* p = text.data(); p != end; p = record.next) {
      if (!parser.ParseRecord(p, end, row, error, record)) {
        state.SkipWithError(error.message.c_str());
        return;
      }
      sum += row.values[0];
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(ParseRecords)->Name("BM_ParseRecords")->Args({20, 0})->Args({100, 0})->Args({20, 20});

}  // namespace
}  // namespace vorel::bench
#endif
