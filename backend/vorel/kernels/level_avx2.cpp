// The blocked kernels with AVX2 (four doubles a vector, sixteen registers:
// tiles of 6 row-columns against 2 vectors). Built with -mavx2 and
// -ffp-contract=off: separate multiply and add instructions only (the build's
// no_fused_multiply_add test checks the library for fused ones).
#include "kernels/dispatch.h"

#if defined(__AVX2__)
#include "kernels/avx.h"
#include "kernels/engine.h"

namespace vorel::internal {
namespace engine {
namespace {

struct Avx2Isa {
  using Vec = __m256d;
  static constexpr int kLanes = 4;
  static constexpr int kRows = 6;
  static constexpr int kVecs = 2;
  static constexpr bool kPacksColumns = true;
  static constexpr int kPairBlocks = 2;  // blocks of lanes the masked pairs take side by side

  static Vec Load(const double* p) { return _mm256_loadu_pd(p); }
  static void Store(double* p, Vec a) { _mm256_storeu_pd(p, a); }
  static Vec Broadcast(const double* p) { return _mm256_broadcast_sd(p); }
  static const double* Opaque(const double* p) { return p; }
  static Vec Add(Vec a, Vec b) { return _mm256_add_pd(a, b); }
  static Vec Mul(Vec a, Vec b) { return _mm256_mul_pd(a, b); }
  static Vec Set1(double a) { return _mm256_set1_pd(a); }
  static Vec Sub(Vec a, Vec b) { return _mm256_sub_pd(a, b); }
  static Vec Div(Vec a, Vec b) { return _mm256_div_pd(a, b); }

  // Masks: all bits of a lane set (in) or clear (out).
  using Mask = __m256d;
  static Mask Equal(Vec a, Vec b) { return _mm256_cmp_pd(a, b, _CMP_EQ_OQ); }
  static Mask NotEqual(Vec a, Vec b) { return _mm256_cmp_pd(a, b, _CMP_NEQ_UQ); }
  static Mask And(Mask a, Mask b) { return _mm256_and_pd(a, b); }
  static Mask AndNot(Mask a, Mask b) { return _mm256_andnot_pd(b, a); }  // a and not b
  static Mask Or(Mask a, Mask b) { return _mm256_or_pd(a, b); }
  static bool Any(Mask m) { return _mm256_movemask_pd(m) != 0; }
  // The lanes of bits where x is not code.
  static Mask KeptIf(unsigned bits, Vec x, Vec code) {
    return And(MaskFromBits(bits), NotEqual(x, code));
  }
  // The lanes of a mask as bits (bit l: lane l), and back.
  static unsigned Bits(Mask m) { return static_cast<unsigned>(_mm256_movemask_pd(m)); }
  static Mask MaskFromBits(unsigned bits) {
    const __m256i lanes = _mm256_setr_epi64x(1, 2, 4, 8);
    const __m256i set = _mm256_and_si256(_mm256_set1_epi64x(bits), lanes);
    return _mm256_castsi256_pd(_mm256_cmpeq_epi64(set, lanes));
  }
  // A mask stored as bits.
  static Mask LoadMask(const std::uint16_t* p) { return MaskFromBits(*p); }
  // acc + t in the lanes of m; the other lanes keep acc, untouched.
  static Vec AddIf(Mask m, Vec acc, Vec t) {
    return _mm256_blendv_pd(acc, _mm256_add_pd(acc, t), m);
  }
  // a in the lanes of m, b in the others.
  static Vec Select(Mask m, Vec a, Vec b) { return _mm256_blendv_pd(b, a, m); }
  static Mask ToMask(Vec a) { return NotEqual(a, _mm256_setzero_pd()); }
  static Vec FromMask(Mask m) { return _mm256_and_pd(m, _mm256_set1_pd(1.0)); }
  // vmaxpd gives its first operand when that is greater and the second
  // otherwise (ties and NaN included): x > best ? x : best.
  static Vec KeepGreater(Vec x, Vec best) { return _mm256_max_pd(x, best); }
  static Vec KeepLess(Vec x, Vec best) { return _mm256_min_pd(x, best); }
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

const KernelTable* Avx2Kernels() { return &engine::kTable<engine::Avx2Isa>; }

}  // namespace vorel::internal
#else
namespace vorel::internal {

const KernelTable* Avx2Kernels() { return nullptr; }

}  // namespace vorel::internal
#endif
