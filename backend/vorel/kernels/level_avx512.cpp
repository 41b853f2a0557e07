// The blocked kernels with AVX-512 (eight doubles a vector, thirty-two
// registers: tiles of 12 row-columns against 2 vectors). Built with
// -mavx512f and -ffp-contract=off: separate multiply and add instructions
// only (the build's no_fused_multiply_add test checks the library for fused
// ones).
#include "kernels/dispatch.h"

#if defined(__AVX512F__)
#include "kernels/avx.h"
#include "kernels/engine.h"

namespace vorel::internal {
namespace engine {
namespace {

struct Avx512Isa {
  using Vec = __m512d;
  static constexpr int kLanes = 8;
  static constexpr int kRows = 12;
  static constexpr int kVecs = 2;
  static constexpr bool kPacksColumns = true;
  static constexpr int kPairBlocks = 4;  // blocks of lanes the masked pairs take side by side

  static Vec Load(const double* p) { return _mm512_loadu_pd(p); }
  static void Store(double* p, Vec a) { _mm512_storeu_pd(p, a); }
  static Vec Broadcast(const double* p) { return _mm512_set1_pd(*p); }
  // A pointer the compiler cannot prove equal to p: each broadcast from it
  // folds into its multiplication (an embedded broadcast of the load unit)
  // instead of taking a shuffle of its own.
  static const double* Opaque(const double* p) {
    __asm__ volatile("" : "+r"(p));  // volatile: two of them must not merge
    return p;
  }
  static Vec Add(Vec a, Vec b) { return _mm512_add_pd(a, b); }
  static Vec Mul(Vec a, Vec b) { return _mm512_mul_pd(a, b); }
  static Vec Set1(double a) { return _mm512_set1_pd(a); }
  static Vec Sub(Vec a, Vec b) { return _mm512_sub_pd(a, b); }
  static Vec Div(Vec a, Vec b) { return _mm512_div_pd(a, b); }

  // Masks: one bit a lane.
  using Mask = __mmask8;
  static Mask Equal(Vec a, Vec b) { return _mm512_cmp_pd_mask(a, b, _CMP_EQ_OQ); }
  static Mask NotEqual(Vec a, Vec b) { return _mm512_cmp_pd_mask(a, b, _CMP_NEQ_UQ); }
  // In mask registers throughout, not through general ones.
  static Mask And(Mask a, Mask b) { return static_cast<Mask>(_mm512_kand(a, b)); }
  static Mask AndNot(Mask a, Mask b) { return static_cast<Mask>(_mm512_kandn(b, a)); }  // a, not b
  static Mask Or(Mask a, Mask b) { return static_cast<Mask>(_mm512_kor(a, b)); }
  static bool Any(Mask m) { return _mm512_kortestz(m, m) == 0; }
  // The lanes of a mask as bits (bit l: lane l), and back.
  static unsigned Bits(Mask m) { return m; }
  static Mask MaskFromBits(unsigned bits) { return static_cast<Mask>(bits); }
  // The lanes of bits where x is not code.
  static Mask KeptIf(unsigned bits, Vec x, Vec code) {
    return _mm512_mask_cmp_pd_mask(static_cast<Mask>(bits), x, code, _CMP_NEQ_UQ);
  }
  // A mask stored as bits.
  // Straight from memory: through a general register the mask would take a
  // slot of the vector units.
  static Mask LoadMask(const std::uint16_t* p) {
    Mask m;
    __asm__("kmovw %1, %0" : "=k"(m) : "m"(*p));
    return m;
  }
  // acc + t in the lanes of m; the other lanes keep acc, untouched.
  static Vec AddIf(Mask m, Vec acc, Vec t) { return _mm512_mask_add_pd(acc, m, acc, t); }
  // a in the lanes of m, b in the others.
  static Vec Select(Mask m, Vec a, Vec b) { return _mm512_mask_blend_pd(m, b, a); }
  static Mask ToMask(Vec a) { return NotEqual(a, _mm512_setzero_pd()); }
  static Vec FromMask(Mask m) { return _mm512_maskz_mov_pd(m, _mm512_set1_pd(1.0)); }
  // As vmaxpd/vminpd: the first operand when it wins, else the second. (The
  // all-lanes mask form only spares GCC 12 a false uninitialised warning.)
  static Vec KeepGreater(Vec x, Vec best) { return _mm512_mask_max_pd(best, 0xFF, x, best); }
  static Vec KeepLess(Vec x, Vec best) { return _mm512_mask_min_pd(best, 0xFF, x, best); }
  static Index PackColumns(int cols, Centring c, double* const* x, const double* centre,
                           const double* w, Index rows, double* p, double* q, Index ld) {
    return PackColumnsAvx(cols, c, x, centre, w, rows, p, q, ld);
  }
  static bool NarrowTriangle(const CrossProductJob& job, double* tri) {
    return NarrowTriangleAvx(job, tri);
  }
};

}  // namespace
}  // namespace engine

const KernelTable* Avx512Kernels() { return &engine::kTable<engine::Avx512Isa>; }

}  // namespace vorel::internal
#else
namespace vorel::internal {

const KernelTable* Avx512Kernels() { return nullptr; }

}  // namespace vorel::internal
#endif
