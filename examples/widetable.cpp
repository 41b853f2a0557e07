// A table of 10 columns cut into parts of 3, 1, 4 and 2 columns, read in
// batches of 256 rows on a pool of threads (the first argument, 0 if none is
// given: the host's count).
#include "widetable.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

// 1,000 rows of whole numbers far from zero, columns that move together by
// pairs of parts, and a constant column 5.
std::vector<std::vector<double>> Rows() {
  std::vector<std::vector<double>> rows(1000, std::vector<double>(10));
  for (int r = 0; r < 1000; ++r) {
    const int common = (r * 37) % 101 - 50;
    for (int c = 0; c < 10; ++c)
      rows[r][c] = c == 5 ? 0.7 : 1000 * (c + 1) + common * (c % 4) + (r * (2 * c + 3)) % 23;
  }
  return rows;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::vector<double>> rows = Rows();
  WideProblem problem(rows, {0, 3, 4, 8, 10});
  vorel::Driver(&problem, argc > 1 ? std::atoi(argv[1]) : 0);

  const WideTable& t = problem.result;
  std::printf("means:");
  for (int x = 0; x < 10; ++x)
    std::printf(" %.3f", t.Mean(x));
  std::printf("\n");
  for (auto [x, y] : {std::pair{2, 1}, {7, 2}, {9, 3}, {8, 6}}) {  // in one part, and across
    const double r = t.CCP(x, y) / std::sqrt(t.CCP(x, x) * t.CCP(y, y));
    std::printf("r(%d, %d) = %.4f\n", x, y, r);
  }
  // A constant column keeps its value exactly, whatever the split of the rows.
  std::printf("column 5: mean %s 0.7, sum of squares %g\n", t.Mean(5) == 0.7 ? "exactly" : "not",
              t.CCP(5, 5));
}
