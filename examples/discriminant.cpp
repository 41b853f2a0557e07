// Group means, the pooled within-group covariance and each group's own
// covariance, from the raw sums of the two discriminant tables.
#include <vorel/vorel.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <string>
#include <vector>

namespace {

struct Row {
  unsigned group;
  double cells[2];
};

// Two variables, seven rows of weight 1, in two groups.
const std::vector<Row> kRows = {{0, {1, 2}}, {0, {3, 6}},  {0, {5, 4}}, {1, {6, 1}},
                                {1, {8, 3}}, {1, {10, 5}}, {1, {8, 7}}};

// Each figure as the shortest text that reads back as the same double.
void Print(const std::string& what, const std::vector<double>& figures) {
  std::cout << what << ':';
  for (double x : figures) {
    char text[32];
    std::cout << ' ' << std::string(text, std::to_chars(text, text + sizeof text, x).ptr);
  }
  std::cout << '\n';
}

// From the totals table: the means of each group and the pooled covariance.
void FromTotals() {
  // 2 groups, 2 variables; a batch of up to 64 rows with groups and no
  // weights, so that every row weighs 1.
  vorel::DiscriminantMatrix m(2, 2);
  unsigned group = 0;
  vorel::DataBatch batch(2, 64, nullptr, nullptr, &group);
  for (const Row& row : kRows) {
    group = row.group;
    batch.AddRow(row.cells);
  }
  m += batch;  // or, over threads, merge each worker's matrix into m

  const int n = m.NVar(), k = m.NGroup();
  std::vector<double> mean(k * n), within(n * n);
  int groupsWithRows = 0;
  for (int g = 0; g < k; ++g) {
    if (m.sumW(g) > 0.) ++groupsWithRows;
    for (int i = 0; i < n; ++i)
      mean[g * n + i] = m.sumX1(g, i) / m.sumW(g);
  }
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      double w = m.TSSP(i, j);
      for (int g = 0; g < k; ++g)
        if (m.sumW(g) > 0.) w -= m.sumX1(g, i) * m.sumX1(g, j) / m.sumW(g);
      within[i * n + j] = w / (m.WeightSum() - groupsWithRows);
    }
  }
  Print("means of group 0 and group 1", mean);
  Print("pooled within-group covariance", within);
}

// From the table by group: the same means, and each group's own covariance.
void ByGroup() {
  vorel::DiscIndividualMatrix d(2, 2);
  unsigned group = 0;
  vorel::DataBatchByGroup batch(2, 64, nullptr, nullptr, &group, 2);
  for (const Row& row : kRows) {
    group = row.group;
    std::copy(row.cells, row.cells + 2, batch.Row(batch.NRows()));
    batch.AddRow();
  }
  batch.SortByGroup();  // the table reads the rows group by group
  d += batch;

  const int n = d.NVar();  // variable n is the column of ones
  for (int g = 0; g < d.NGroup(); ++g) {
    const double w = d.TSSP(n, n, g);
    std::vector<double> mean, covariance;
    for (int i = 0; i < n; ++i) {
      mean.push_back(d.TSSP(n, i, g) / w);
      for (int j = 0; j <= i; ++j)
        covariance.push_back((d.TSSP(i, j, g) - d.TSSP(n, i, g) * d.TSSP(n, j, g) / w) / (w - 1));
    }
    Print("group " + std::to_string(g) + ": means", mean);
    Print("group " + std::to_string(g) + ": covariance (00, 10, 11)", covariance);
  }
}

}  // namespace

int main() {
  FromTotals();
  ByGroup();
}
