// A program outside the project, built against the installed package: it must
// find the headers and link the library with nothing but find_package.
#include <vorel/databatch.h>
#include <vorel/driver.h>

#include <cstdio>

int main() {
  vorel::DataBatch batch(2, 4, nullptr, nullptr, nullptr);
  const double row[2] = {1.5, 2.5};
  batch.AddRow(row);
  batch.AddRow(row);
  const bool ok = batch.NRows() == 2 && batch.Column(1)[1] == 2.5;
  std::puts(ok ? "consumer ok" : "consumer FAILED");
  return ok ? 0 : 1;
}
