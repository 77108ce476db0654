#include "ops/kernels/float_activation_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "basic_cal_function.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// cond ? a : b as a bit mask. A plain ?: on a float comparison is left
// unvectorised (the compiler keeps the comparison's trap semantics); a mask
// built from the comparison's value is not, and it selects exactly.
inline float select_bits(bool cond, float a, float b) {
  uint32_t ab, bb;
  std::memcpy(&ab, &a, sizeof ab);
  std::memcpy(&bb, &b, sizeof bb);
  const uint32_t mask = 0u - static_cast<uint32_t>(cond);
  const uint32_t r = (ab & mask) | (bb & ~mask);
  float out;
  std::memcpy(&out, &r, sizeof out);
  return out;
}

}  // namespace

// The clamps are written as std::max / std::min so that a NaN passes through
// (and the compiler emits packed max/min instructions for them).

void relu_f32(const float* in, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = std::max(in[i], 0.0f);
}

void relu6_f32(const float* in, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = std::min(std::max(in[i], 0.0f), 6.0f);
}

void leaky_relu_f32(const float* in, float* out, int n, float alpha) {
  for (int i = 0; i < n; ++i) {
    const float x = in[i];
    out[i] = select_bits(x > 0.0f, x, x * alpha);
  }
}

void prelu_f32(const float* in, float* out, int n, const float* slope, int channels) {
  // Whole rows of `channels` values keep the inner loop free of the modulo.
  for (int start = 0; start < n; start += channels) {
    const int len = std::min(channels, n - start);
    const float* x = in + start;
    float* y = out + start;
    for (int c = 0; c < len; ++c) y[c] = select_bits(x[c] >= 0.0f, x[c], x[c] * slope[c]);
  }
}

void elu_f32(const float* in, float* out, int n, float alpha) {
  const double a = alpha;
  for (int i = 0; i < n; ++i) {
    const float x = in[i];
    out[i] = x < 0.0f ? static_cast<float>(a * (std::exp(static_cast<double>(x)) - 1.0)) : x;
  }
}

void selu_f32(const float* in, float* out, int n) {
  const double scale = 1.0507009873554805;
  const double alpha = 1.6732632423543772;
  for (int i = 0; i < n; ++i) {
    const double x = in[i];
    // x == 0 takes the exponential branch, which yields exactly 0.
    out[i] = static_cast<float>(x > 0.0 ? scale * x : scale * alpha * (std::exp(x) - 1.0));
  }
}

void hsigmoid_f32(const float* in, float* out, int n, float alpha, float beta) {
  for (int i = 0; i < n; ++i) out[i] = std::min(std::max(in[i] * alpha + beta, 0.0f), 1.0f);
}

void hard_swish_f32(const float* in, float* out, int n, int add_scalar) {
  const float add = static_cast<float>(add_scalar);
  for (int i = 0; i < n; ++i) {
    const float x = in[i];
    const float gate = std::min(std::max(x + add, 0.0f), 6.0f);
    out[i] = static_cast<float>(static_cast<double>(x) * (static_cast<double>(gate) / 6.0));
  }
}

void swish_f32(const float* in, float* out, int n, int beta) {
  const double b = beta;
  for (int i = 0; i < n; ++i) {
    const double x = in[i];
    out[i] = static_cast<float>(x / (std::exp(-(b * x)) + 1.0));
  }
}

float mish_rational_tanh(float s) {
  const float kLimit = 0x1.017f4p+0f;  // bits 0x3f80bfa0
  if (s < -4.0f) return -kLimit;
  if (s > 4.0f) return kLimit;
  return (s * s + 27.0f) * s / (9.0f * s * s + 27.0f);
}

void mish_f32(const float* in, float* out, int n) {
  for (int i = 0; i < n; ++i) {
    const float x = in[i];
    // The bounds are tested on the softplus s, which is never negative, so
    // only the upper one can act.
    const float s = static_cast<float>(std::log(std::exp(static_cast<double>(x)) + 1.0));
    out[i] = x * mish_rational_tanh(s);
  }
}

void sigmoid_f32(const float* in, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = scalar::sigmoid(in[i], 0.0f);
}

void tanh_f32(const float* in, float* out, int n) {
  for (int i = 0; i < n; ++i) {
    const double x = in[i];
    out[i] = static_cast<float>(2.0 / (std::exp(-2.0 * x) + 1.0) - 1.0);
  }
}

void softplus_f32(const float* in, float* out, int n) {
  // No guard for large x: exp overflows to infinity and so does the result.
  for (int i = 0; i < n; ++i) {
    out[i] = static_cast<float>(std::log(std::exp(static_cast<double>(in[i])) + 1.0));
  }
}

void softsign_f32(const float* in, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = in[i] / (1.0f + std::fabs(in[i]));
}

void softmax_whole_f32(const float* in, float* out, int n) {
  // Each term is added in double and the running sum is kept as a float, in
  // element order; large inputs overflow to infinity and give NaN.
  float sum = 0.0f;
  for (int i = 0; i < n; ++i) {
    sum = static_cast<float>(static_cast<double>(sum) + std::exp(static_cast<double>(in[i])));
  }
  const double total = sum;
  for (int i = 0; i < n; ++i) {
    out[i] = static_cast<float>(std::exp(static_cast<double>(in[i])) / total);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
