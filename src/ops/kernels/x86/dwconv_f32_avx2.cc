#include <immintrin.h>

#include "ops/kernels/x86/x86_kernels.h"
#include "ops/kernels/x86/dwconv_row_impl.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
struct Avx2Vec {
  using V = __m256;
  using M = __m256i;
  // Outputs per block: accumulators plus the shared inputs fit the registers.
  static constexpr int kBlock = 4;
  static constexpr int kWidth = 8;
  static M mask(int count) {
    return _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
  }
  static V zero() { return _mm256_setzero_ps(); }
  static V set1(float v) { return _mm256_set1_ps(v); }
  static V load(M m, const float* p) { return _mm256_maskload_ps(p, m); }
  static void store(M m, float* p, V v) { _mm256_maskstore_ps(p, m, v); }
  static V add(V a, V b) { return _mm256_add_ps(a, b); }
  static V fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
};
}  // namespace

void dwconv_row_f32_4x8_avx2(const float* image, const float* weight, const float* bias, float* out_row,
                         const ConvGeometry& g, int oy) {
  dwconv_detail::dwconv_row<Avx2Vec>(image, weight, bias, out_row, g, oy);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
