// One pass over the codes of a call (range and integrality), and their
// conversion to bytes, 16 values at a time.
// GCC 12 reports the intrinsics' internal "undefined" vectors as
// uninitialised (GCC bug 105593); nothing here reads an uninitialised value.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void scan_codes_f32_1x16_avx512(const float* v, long long count, float* lo, float* hi, bool* integral) {
  __m512 vlo = _mm512_set1_ps(*lo), vhi = _mm512_set1_ps(*hi);
  const __m512 low = _mm512_set1_ps(-128.0f), high = _mm512_set1_ps(255.0f);
  __mmask16 bad = 0;
  for (long long i = 0; i < count; i += 16) {
    const __mmask16 m = count - i >= 16 ? static_cast<__mmask16>(0xFFFF)
                                        : static_cast<__mmask16>((1u << (count - i)) - 1);
    const __m512 x = _mm512_maskz_loadu_ps(m, v + i);
    vlo = _mm512_mask_min_ps(vlo, m, vlo, x);
    vhi = _mm512_mask_max_ps(vhi, m, vhi, x);
    // Unordered compare: a NaN is never an integer.
    const __m512 whole =
        _mm512_mask_roundscale_ps(x, 0xFFFF, x, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC);
    bad |= _mm512_mask_cmp_ps_mask(m, x, whole, _CMP_NEQ_UQ);
    bad |= _mm512_mask_cmp_ps_mask(m, x, low, _CMP_LT_OQ) | _mm512_mask_cmp_ps_mask(m, x, high, _CMP_GT_OQ);
  }
  float lanes_lo[16], lanes_hi[16];
  _mm512_storeu_ps(lanes_lo, vlo);
  _mm512_storeu_ps(lanes_hi, vhi);
  // Locals: stores through lo/hi would be reloaded after every lane.
  float l = *lo, h = *hi;
  for (int i = 0; i < 16; ++i) {
    l = lanes_lo[i] < l ? lanes_lo[i] : l;
    h = lanes_hi[i] > h ? lanes_hi[i] : h;
  }
  *lo = l;
  *hi = h;
  *integral = *integral && bad == 0;
}

void convert_codes_f32_u8_1x16_avx512(const float* v, long long count, int shift, uint8_t* out) {
  const __m512i add = _mm512_set1_epi32(shift);
  for (long long i = 0; i < count; i += 16) {
    const __mmask16 m = count - i >= 16 ? static_cast<__mmask16>(0xFFFF)
                                        : static_cast<__mmask16>((1u << (count - i)) - 1);
    const __m512i x = _mm512_add_epi32(_mm512_cvttps_epi32(_mm512_maskz_loadu_ps(m, v + i)), add);
    _mm512_mask_cvtepi32_storeu_epi8(out + i, m, x);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
