// The blocked kernels in plain C++, for any CPU. Also the model of what an
// Isa gives the engine: a vector type of kLanes doubles, the tile shape
// (kRows row-columns against up to kVecs vectors), and lane-wise operations.
#include "crossproducts_engine.h"

namespace vorel::kernels {
namespace {

struct PlainIsa {
  static constexpr int kLanes = 4;
  static constexpr int kRows = 4;
  static constexpr int kVecs = 1;
  static constexpr bool kPacksColumns = false;

  struct Vec {
    double v[kLanes];
  };

  static Vec Load(const double* p) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = p[l];
    return r;
  }
  static void Store(double* p, const Vec& a) {
    for (int l = 0; l < kLanes; ++l)
      p[l] = a.v[l];
  }
  static Vec Broadcast(const double* p) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = *p;
    return r;
  }
  static Vec Add(const Vec& a, const Vec& b) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = a.v[l] + b.v[l];
    return r;
  }
  static Vec Mul(const Vec& a, const Vec& b) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = a.v[l] * b.v[l];
    return r;
  }
  // x > best ? x : best, lane by lane.
  static Vec KeepGreater(const Vec& x, const Vec& best) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = x.v[l] > best.v[l] ? x.v[l] : best.v[l];
    return r;
  }
  // x < best ? x : best, lane by lane.
  static Vec KeepLess(const Vec& x, const Vec& best) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = x.v[l] < best.v[l] ? x.v[l] : best.v[l];
    return r;
  }
};

}  // namespace

const KernelTable* PlainKernels() { return &kTable<PlainIsa>; }

}  // namespace vorel::kernels
