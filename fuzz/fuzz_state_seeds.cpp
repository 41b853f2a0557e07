// Writes the seed corpus of the state fuzz target: real states of every
// result class, empty and filled, with and without weights and regression
// weights, and with missing cells for the pairwise classes.
//
//   fuzz_state_seeds DIR

#include <vorel/vorel.h>

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr unsigned kColumns = 4;
constexpr unsigned kRows = 9;
constexpr unsigned kGroups = 3;
constexpr double kMissing = -9.0;

struct Seeds {
  std::string dir;
  int count = 0;

  template <class T>
  void Write(const char* name, const T& m) {
    const std::vector<std::byte> bytes = m.SaveState();
    std::ofstream out(dir + "/" + name + "-" + std::to_string(count++),
                      std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write a seed into " + dir);
  }
};

// Rows of small integers, a cell in six missing when asked, weights and
// regression weights when asked; groups cycle.
struct Rows {
  std::vector<double> cells;  // row-major
  std::vector<double> weights, regWeights;
  std::vector<unsigned> groups;

  Rows(unsigned seed, bool missing, bool w, bool rw) {
    std::mt19937 rng(seed);
    for (unsigned r = 0; r < kRows; ++r) {
      for (unsigned c = 0; c < kColumns; ++c)
        cells.push_back(missing && rng() % 6 == 0 ? kMissing : static_cast<double>(rng() % 17) - 8);
      if (w) weights.push_back(0.5 * static_cast<double>(1 + rng() % 4));
      if (rw) regWeights.push_back(0.25 * static_cast<double>(1 + rng() % 8));
      groups.push_back(r % kGroups);
    }
  }

  template <class M>
  void AddTo(M& m) const {
    double w = 1, rw = 1;
    unsigned g = 0;
    vorel::DataBatch batch(kColumns, kRows, weights.empty() ? nullptr : &w,
                           regWeights.empty() ? nullptr : &rw, &g);
    for (unsigned r = 0; r < kRows; ++r) {
      if (!weights.empty()) w = weights[r];
      if (!regWeights.empty()) rw = regWeights[r];
      g = groups[r];
      batch.AddRow(&cells[r * kColumns]);
    }
    m += batch;
  }

  void AddTo(vorel::DiscIndividualMatrix& m) const {
    double w = 1;
    unsigned g = 0;
    vorel::DataBatchByGroup batch(kColumns, kRows, weights.empty() ? nullptr : &w, nullptr, &g,
                                  kGroups);
    for (unsigned r = 0; r < kRows; ++r) {
      if (!weights.empty()) w = weights[r];
      g = groups[r];
      std::copy(&cells[r * kColumns], &cells[(r + 1) * kColumns], batch.Row(batch.NRows()));
      batch.AddRow();
    }
    batch.SortByGroup();
    m += batch;
  }
};

template <class M>
void Both(Seeds& seeds, const char* name, M empty, bool missing) {
  seeds.Write(name, empty);
  for (unsigned variant = 0; variant < 3; ++variant) {
    M m = empty;
    Rows(variant + 1, missing, variant > 0, variant > 1).AddTo(m);
    seeds.Write(name, m);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR\n", argv[0]);
    return 2;
  }
  Seeds seeds{argv[1]};
  Both(seeds, "matrixlistwise", vorel::MatrixListwise(), false);
  Both(seeds, "matrixpairwise", vorel::MatrixPairwise(kMissing), true);
  Both(seeds, "smatrixlistwise", vorel::SMatrixListwise(1, 4), false);
  Both(seeds, "nsmatrixlistwise", vorel::NSMatrixListwise(0, 2, 4), false);
  Both(seeds, "smatrixpairwise", vorel::SMatrixPairwise(kMissing), true);
  Both(seeds, "nsmatrixpairwise", vorel::NSMatrixPairwise(kMissing, 0, 1, 4), true);
  Both(seeds, "discriminant", vorel::DiscriminantMatrix(kGroups, kColumns), false);
  Both(seeds, "discindividual", vorel::DiscIndividualMatrix(kGroups, kColumns), false);
  std::printf("%d seed states in %s\n", seeds.count, argv[1]);
  return 0;
}
