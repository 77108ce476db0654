// The common output stage (scale or split scale, round half to even, clamp,
// offset) on 16 channels at a time, straight from int32 sums. Kept free of
// library templates so that no AVX-512 copy of a shared inline function can
// stand in for the baseline one.
// GCC 12 reports the intrinsics' internal "undefined" vectors as
// uninitialised (GCC bug 105593); nothing here reads an uninitialised value.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include "ops/kernels/int8_dot_path.h"
#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void requantize_s32_1x16_avx512(const Int8RequantizeArgs& args, const int32_t* sums, int ld,
                                int rows, float* out) {
  const int channels = args.channels;
  const __m512 mult = _mm512_set1_ps(args.multiplier);
  const __m512 lo = _mm512_set1_ps(args.lo), hi = _mm512_set1_ps(args.hi);
  const __m512 offset = _mm512_set1_ps(args.offset);
  const __m512 zero = _mm512_setzero_ps();
  for (int r = 0; r < rows; ++r) {
    const int32_t* src = sums + static_cast<long long>(r) * ld;
    float* dst = out + static_cast<long long>(r) * channels;
    for (int c = 0; c < channels; c += 16) {
      const __mmask16 m = channels - c >= 16 ? static_cast<__mmask16>(0xFFFF)
                                             : static_cast<__mmask16>((1u << (channels - c)) - 1);
      const __m512i s = _mm512_sub_epi32(_mm512_maskz_loadu_epi32(m, src + c),
                                         _mm512_maskz_loadu_epi32(m, args.correction + c));
      // Separate multiply and add: each float step rounds on its own.
      const __m512 a = _mm512_add_ps(_mm512_mul_ps(_mm512_cvtepi32_ps(s), mult),
                                     _mm512_maskz_loadu_ps(m, args.bias + c));
      __m512 v = _mm512_mul_ps(a, _mm512_maskz_loadu_ps(m, args.scale + c));
      if (args.negative_scale != nullptr) {
        const __mmask16 negative = _mm512_cmp_ps_mask(a, zero, _CMP_LT_OQ);
        v = _mm512_mask_mul_ps(v, negative, a, _mm512_maskz_loadu_ps(m, args.negative_scale + c));
      }
      __m512 q = _mm512_mask_roundscale_ps(v, 0xFFFF, v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
      // Operand order keeps a NaN flowing through as the scalar steps do.
      q = _mm512_max_ps(lo, q);
      q = _mm512_min_ps(hi, q);
      _mm512_mask_storeu_ps(dst + c, m, _mm512_add_ps(offset, q));
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
