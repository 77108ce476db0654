#include <immintrin.h>

#include "ops/kernels/x86/x86_kernels.h"
#include "ops/kernels/x86/dwconv_row_impl.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
struct Avx512Vec {
  using V = __m512;
  using M = __mmask16;
  // Outputs per block: accumulators plus the shared inputs fit the registers.
  static constexpr int kBlock = 8;
  static constexpr int kWidth = 16;
  static M mask(int count) {
    return count >= 16 ? static_cast<M>(0xFFFF) : static_cast<M>((1u << count) - 1u);
  }
  static V zero() { return _mm512_setzero_ps(); }
  static V set1(float v) { return _mm512_set1_ps(v); }
  static V load(M m, const float* p) { return _mm512_maskz_loadu_ps(m, p); }
  static void store(M m, float* p, V v) { _mm512_mask_storeu_ps(p, m, v); }
  static V add(V a, V b) { return _mm512_add_ps(a, b); }
  static V fma(V a, V b, V c) { return _mm512_fmadd_ps(a, b, c); }
};
}  // namespace

void dwconv_row_f32_8x16_avx512(const float* image, const float* weight, const float* bias, float* out_row,
                           const ConvGeometry& g, int oy) {
  dwconv_detail::dwconv_row<Avx512Vec>(image, weight, bias, out_row, g, oy);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
