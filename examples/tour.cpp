#include <vorel/vorel.h>

#include <cstdio>

int main() {
  const double rows[4][2] = {{1, 2}, {2, 4}, {3, 5}, {4, 4}};
  vorel::DataBatch batch(2, 4, nullptr, nullptr, nullptr);  // 2 columns, 4 rows, no weights
  for (const auto& row : rows)
    batch.AddRow(row);
  vorel::MatrixListwise m;
  m += batch;  // the batch is spent: its columns are left centred
  std::printf("means %g %g, covariance %g\n", m.Mean(0), m.Mean(1),
              m.CCP(1, 0) / (m.WeightSum() - 1));
}
