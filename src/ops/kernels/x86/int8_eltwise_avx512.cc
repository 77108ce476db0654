#include <immintrin.h>

#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// The zero-masked forms with a full mask are the plain instructions; they
// avoid GCC's spurious "maybe uninitialized" on the unmasked intrinsics.
constexpr __mmask16 kAll = 0xFFFF;
inline __m512 vmin(__m512 a, __m512 b) { return _mm512_maskz_min_ps(kAll, a, b); }
inline __m512 vmax(__m512 a, __m512 b) { return _mm512_maskz_max_ps(kAll, a, b); }

// Half to even like kvdl::tensorflow_round_cpu, which differs from the
// instruction only in the sign of zero: it gives +0 for every input in
// [-0.5, 0) and keeps -0 only for -0 itself.
inline __m512 round_half_even(__m512 v) {
  const __m512 zero = _mm512_setzero_ps();
  const __m512 r = _mm512_maskz_roundscale_ps(kAll, v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  const __mmask16 fix =
      _mm512_cmp_ps_mask(r, zero, _CMP_EQ_OQ) & _mm512_cmp_ps_mask(v, zero, _CMP_NEQ_OQ);
  return _mm512_mask_mov_ps(r, fix, zero);
}

inline __mmask16 tail_mask(int remaining) {
  return remaining >= 16 ? static_cast<__mmask16>(0xFFFF)
                         : static_cast<__mmask16>((1u << remaining) - 1u);
}

int gcd(int a, int b) {
  while (b != 0) {
    const int t = a % b;
    a = b;
    b = t;
  }
  return a;
}

// Runs body(i, mask, params) over blocks of 16 elements, params[j] holding the
// per-channel values of parameter j for those lanes. Wide channel counts go
// pixel by pixel; narrow ones use tables repeated to a multiple of 16 lanes.
template <int NP, typename Body>
void channel_loop(int n, int channels, const float* const (&params)[NP], Body body) {
  __m512 p[NP];
  if (channels >= 16) {
    for (int base = 0; base < n; base += channels) {
      for (int c = 0; c < channels; c += 16) {
        const __mmask16 m = tail_mask(channels - c);
        for (int j = 0; j < NP; ++j) p[j] = _mm512_maskz_loadu_ps(m, params[j] + c);
        body(base + c, m, p);
      }
    }
    return;
  }
  // At most 15 / gcd * 16 = 240 lanes per parameter: the table lives on the stack.
  const int period = channels / gcd(channels, 16) * 16;
  float table[NP * 240];
  for (int j = 0; j < NP; ++j) {
    for (int i = 0; i < period; ++i) table[j * period + i] = params[j][i % channels];
  }
  for (int i = 0, offset = 0; i < n; i += 16) {
    const __mmask16 m = tail_mask(n - i);
    for (int j = 0; j < NP; ++j) p[j] = _mm512_loadu_ps(table + j * period + offset);
    body(i, m, p);
    offset += 16;
    if (offset == period) offset = 0;
  }
}

}  // namespace

void quantize_f32_1x16_avx512(const float* x, float* y, int n, int channels, const float* scale, float lo,
                              float hi, float offset) {
  const __m512 vlo = _mm512_set1_ps(lo), vhi = _mm512_set1_ps(hi), voff = _mm512_set1_ps(offset);
  const float* const params[1] = {scale};
  channel_loop<1>(n, channels, params, [&](int i, __mmask16 m, const __m512* p) {
    __m512 q = round_half_even(_mm512_mul_ps(p[0], _mm512_maskz_loadu_ps(m, x + i)));
    q = vmin(vhi, q);  // hi < q ? hi : q
    q = vmax(vlo, q);  // lo > q ? lo : q
    _mm512_mask_storeu_ps(y + i, m, _mm512_add_ps(voff, q));
  });
}

void dequantize_f32_1x16_avx512(const float* x, float* y, int n, int channels, const float* scale,
                                float offset) {
  const __m512 voff = _mm512_set1_ps(offset);
  const float* const params[1] = {scale};
  channel_loop<1>(n, channels, params, [&](int i, __mmask16 m, const __m512* p) {
    const __m512 v = _mm512_add_ps(voff, _mm512_maskz_loadu_ps(m, x + i));
    _mm512_mask_storeu_ps(y + i, m, _mm512_mul_ps(v, p[0]));
  });
}

void sum_requant_f32_1x16_avx512(const float* x0, const float* x1, float* y, int n, int channels,
                                 const float* a, const float* b, const float* k, float hi) {
  const __m512 vhi = _mm512_set1_ps(hi), zero = _mm512_setzero_ps();
  const float* const params[3] = {a, b, k};
  channel_loop<3>(n, channels, params, [&](int i, __mmask16 m, const __m512* p) {
    const __m512 t0 = _mm512_mul_ps(p[0], _mm512_maskz_loadu_ps(m, x0 + i));
    const __m512 t1 = _mm512_mul_ps(p[1], _mm512_maskz_loadu_ps(m, x1 + i));
    __m512 q = round_half_even(_mm512_add_ps(p[2], _mm512_add_ps(t0, t1)));
    q = vmin(vhi, q);   // q > hi ? hi : q
    q = vmax(zero, q);  // q < 0 ? 0 : q
    _mm512_mask_storeu_ps(y + i, m, q);
  });
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
