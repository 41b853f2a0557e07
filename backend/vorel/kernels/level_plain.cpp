// The blocked kernels in plain C++, for any CPU. Also the model of what an
// Isa gives the engine: a vector type of kLanes doubles, the tile shape
// (kRows row-columns against up to kVecs vectors), and lane-wise operations;
// an Isa that transposes columns as it packs them (kPacksColumns) also gives
// PackColumns and NarrowTriangle, as the AVX levels do.
#include "kernels/engine.h"

namespace vorel::internal {
namespace engine {
namespace {

struct PlainIsa {
  static constexpr int kLanes = 4;
  static constexpr int kRows = 4;
  static constexpr int kVecs = 1;
  static constexpr bool kPacksColumns = false;
  static constexpr int kPairBlocks = 2;  // blocks of lanes the masked pairs take side by side

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
  static const double* Opaque(const double* p) { return p; }
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
  static Vec Set1(double a) { return Broadcast(&a); }
  static Vec Sub(const Vec& a, const Vec& b) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = a.v[l] - b.v[l];
    return r;
  }
  static Vec Div(const Vec& a, const Vec& b) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = a.v[l] / b.v[l];
    return r;
  }

  // Masks: a lane is in or out.
  struct Mask {
    bool in[kLanes];
  };
  static Mask Equal(const Vec& a, const Vec& b) {
    Mask m;
    for (int l = 0; l < kLanes; ++l)
      m.in[l] = a.v[l] == b.v[l];
    return m;
  }
  static Mask NotEqual(const Vec& a, const Vec& b) {
    Mask m;
    for (int l = 0; l < kLanes; ++l)
      m.in[l] = !(a.v[l] == b.v[l]);
    return m;
  }
  static Mask And(const Mask& a, const Mask& b) {
    Mask m;
    for (int l = 0; l < kLanes; ++l)
      m.in[l] = a.in[l] && b.in[l];
    return m;
  }
  // a and not b.
  static Mask AndNot(const Mask& a, const Mask& b) {
    Mask m;
    for (int l = 0; l < kLanes; ++l)
      m.in[l] = a.in[l] && !b.in[l];
    return m;
  }
  static Mask Or(const Mask& a, const Mask& b) {
    Mask m;
    for (int l = 0; l < kLanes; ++l)
      m.in[l] = a.in[l] || b.in[l];
    return m;
  }
  static bool Any(const Mask& m) {
    for (int l = 0; l < kLanes; ++l)
      if (m.in[l]) return true;
    return false;
  }
  // The lanes of bits where x is not code.
  static Mask KeptIf(unsigned bits, const Vec& x, const Vec& code) {
    return And(MaskFromBits(bits), NotEqual(x, code));
  }
  // The lanes of a mask as bits (bit l: lane l), and back.
  static unsigned Bits(const Mask& m) {
    unsigned bits = 0;
    for (int l = 0; l < kLanes; ++l)
      bits |= static_cast<unsigned>(m.in[l]) << l;
    return bits;
  }
  static Mask MaskFromBits(unsigned bits) {
    Mask m;
    for (int l = 0; l < kLanes; ++l)
      m.in[l] = (bits >> l & 1u) != 0;
    return m;
  }
  // A mask stored as bits.
  static Mask LoadMask(const std::uint16_t* p) { return MaskFromBits(*p); }
  // acc + t in the lanes of m; the other lanes keep acc, untouched.
  static Vec AddIf(const Mask& m, const Vec& acc, const Vec& t) {
    Vec r = acc;
    for (int l = 0; l < kLanes; ++l)
      if (m.in[l]) r.v[l] = acc.v[l] + t.v[l];
    return r;
  }
  // a in the lanes of m, b in the others.
  static Vec Select(const Mask& m, const Vec& a, const Vec& b) {
    Vec r;
    for (int l = 0; l < kLanes; ++l)
      r.v[l] = m.in[l] ? a.v[l] : b.v[l];
    return r;
  }
  // A mask kept in memory as 1.0 (in) and 0.0 (out).
  static Mask ToMask(const Vec& a) { return NotEqual(a, Set1(0.0)); }
  static Vec FromMask(const Mask& m) { return Select(m, Set1(1.0), Set1(0.0)); }

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
}  // namespace engine

const KernelTable* PlainKernels() { return &engine::kTable<engine::PlainIsa>; }

}  // namespace vorel::internal
