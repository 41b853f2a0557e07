// vorel-gendata: writes a CSV data set of any size for benchmarks of vorelstat.
//
// Columns x01..xNN are correlated normal values with different scales and
// offsets, written with four decimals: two common factors plus noise, so that
// the covariance matrix is far from diagonal. Optional columns: a group code
// (1..G) that shifts the means, a frequency weight (1..4), and a share of
// empty (missing) cells. The same seed gives the same file.
#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

struct Settings {
  std::string output = "-";
  std::uint64_t rows = 0;
  double megabytes = 0.0;
  unsigned columns = 20;
  unsigned groups = 0;
  bool weight = false;
  double missingShare = 0.0;
  std::uint64_t seed = 20240601;
};

class Writer {
 public:
  explicit Writer(std::FILE* out) : _out(out) { _buffer.reserve(kFlushAt + 4096); }
  ~Writer() { Flush(); }
  void Put(char c) { _buffer.push_back(c); }
  void Put(const std::string& text) { _buffer.append(text); }
  void Put(double value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 4);
    _buffer.append(text, result.ptr);
  }
  void Put(unsigned value) { _buffer.append(std::to_string(value)); }
  void EndLine() {
    _buffer.push_back('\n');
    if (_buffer.size() >= kFlushAt) Flush();
  }
  std::uint64_t Written() const { return _written + _buffer.size(); }
  bool Failed() const { return _failed; }
  void Flush() {
    if (_buffer.empty()) return;
    if (std::fwrite(_buffer.data(), 1, _buffer.size(), _out) != _buffer.size()) _failed = true;
    _written += _buffer.size();
    _buffer.clear();
  }

 private:
  static constexpr std::size_t kFlushAt = 1 << 20;
  std::FILE* _out;
  std::string _buffer;
  std::uint64_t _written = 0;
  bool _failed = false;
};

std::string ColumnName(unsigned j) {
  char name[16];
  std::snprintf(name, sizeof name, "x%02u", j + 1);
  return name;
}

int Generate(const Settings& s, std::FILE* out) {
  std::mt19937_64 random(s.seed);
  std::normal_distribution<double> normal(0.0, 1.0);
  std::uniform_real_distribution<double> uniform(0.0, 1.0);
  std::uniform_int_distribution<unsigned> groupOf(1, s.groups == 0 ? 1 : s.groups);
  std::uniform_int_distribution<unsigned> weightOf(1, 4);

  // Column j: offset_j + scale_j * (a_j f1 + b_j f2 + noise), fixed per seed.
  std::vector<double> offset(s.columns), scale(s.columns), a(s.columns), b(s.columns);
  for (unsigned j = 0; j < s.columns; ++j) {
    offset[j] = std::round((uniform(random) - 0.3) * 2000.0);
    scale[j] = std::pow(10.0, uniform(random) * 3.0 - 1.0);
    a[j] = uniform(random) * 1.6 - 0.8;
    b[j] = uniform(random) * 1.2 - 0.6;
  }

  Writer writer(out);
  if (s.groups != 0) writer.Put(std::string("group,"));
  if (s.weight) writer.Put(std::string("weight,"));
  for (unsigned j = 0; j < s.columns; ++j) {
    if (j != 0) writer.Put(',');
    writer.Put(ColumnName(j));
  }
  writer.EndLine();

  const std::uint64_t targetBytes = static_cast<std::uint64_t>(s.megabytes * 1e6);
  for (std::uint64_t row = 0;; ++row) {
    if (s.rows != 0 ? row >= s.rows : writer.Written() >= targetBytes) break;
    const unsigned group = s.groups != 0 ? groupOf(random) : 0;
    if (s.groups != 0) {
      writer.Put(group);
      writer.Put(',');
    }
    if (s.weight) {
      writer.Put(weightOf(random));
      writer.Put(',');
    }
    const double f1 = normal(random) + 0.5 * group;
    const double f2 = normal(random);
    for (unsigned j = 0; j < s.columns; ++j) {
      if (j != 0) writer.Put(',');
      const double value = offset[j] + scale[j] * (a[j] * f1 + b[j] * f2 + normal(random));
      if (s.missingShare > 0.0 && uniform(random) < s.missingShare) continue;
      writer.Put(value);
    }
    writer.EndLine();
    if (writer.Failed()) break;
  }
  writer.Flush();
  return writer.Failed() ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Writes a CSV data set for benchmarks of vorelstat.", "vorel-gendata"};
  Settings s;
  app.add_option("-o,--output", s.output, "Output file (- for standard output)")
      ->capture_default_str();
  auto* rows = app.add_option("-n,--rows", s.rows, "Number of rows");
  auto* size = app.add_option("-s,--megabytes", s.megabytes, "Approximate size in MB (10^6 bytes)");
  rows->excludes(size);
  app.add_option("-c,--columns", s.columns, "Numeric columns")
      ->capture_default_str()
      ->check(CLI::Range(1u, 10000u));
  app.add_option("-g,--groups", s.groups, "Add a group column with codes 1..G (0: none)")
      ->check(CLI::Range(0u, 1000000u));
  app.add_flag("-w,--weight", s.weight, "Add a frequency weight column (1..4)");
  app.add_option("--missing", s.missingShare, "Share of empty cells, 0 to 1")
      ->check(CLI::Range(0.0, 1.0));
  app.add_option("--seed", s.seed, "Random seed")->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }
  if (s.rows == 0 && !(s.megabytes > 0.0)) {
    std::fputs("vorel-gendata: give --rows or --megabytes\n", stderr);
    return 2;
  }
  std::FILE* out = s.output == "-" ? stdout : std::fopen(s.output.c_str(), "wb");
  if (out == nullptr) {
    std::perror(("vorel-gendata: " + s.output).c_str());
    return 2;
  }
  int status = Generate(s, out);
  if ((out != stdout ? std::fclose(out) : std::fflush(out)) != 0) status = 1;
  if (status != 0) std::fputs("vorel-gendata: write failed\n", stderr);
  return status;
}
