#ifndef KOVRA_TESTS_SUPPORT_INT8_REFERENCE_H_
#define KOVRA_TESTS_SUPPORT_INT8_REFERENCE_H_

// Straightforward models of the int8 output stage, written from the arithmetic
// as stated (float32 steps, one rounding at a time), for the int8 kernel tests.

#include <cmath>
#include <string>
#include <vector>

#include "kvdl.h"

namespace kovra_test {

struct Int8Stage {
  std::string action = "None";
  std::vector<float> output_scale, sum_scale, q_scale;
  float elu_alpha = 1.0f, hswish_add = 3.0f, hswish_mul = 1.0f / 6.0f, alpha = 1.0f;
  int lo = -128, hi = 127, offset = 0;
  int m = 0;
  bool bits32 = false;
};

inline double ref_tanh(double x) {
  if (x < -4) return -1.0058479;
  if (x > 4) return 1.0058479;
  return x * (x * x + 27) / (9 * x * x + 27);
}

// The activation of accumulator value a of channel c out of C.
inline float ref_activate(const Int8Stage& p, float a, int c, int C) {
  const std::string& n = p.action;
  if (n == "LeakyRelu" || n == "PRelu") return a < 0 ? a * p.output_scale[C + c] : a * p.output_scale[c];
  const bool uses_t = n == "Swish" || n == "Sigmoid" || n == "Selu" || n == "Tanh" || n == "Elu" ||
                      n == "HardSwish" || n == "Mish" || n == "Softplus" || n == "Softsign";
  if (!uses_t) return a * p.output_scale[c];
  const float t = p.sum_scale[c] * a;
  const float o = p.q_scale[c];
  if (n == "Swish") return o * (float)(t / (kvdl::Exp(-t) + 1));
  if (n == "Sigmoid") return o * (float)(1 / (kvdl::Exp(-t) + 1));
  if (n == "Selu") {
    float u = t;
    if (!(t > 0)) u = (float)((std::exp((double)t) - 1) * 1.6732632423543772);
    return o * (float)(u * 1.0507009873554805);
  }
  if (n == "Tanh") return (float)(o * ref_tanh(t));
  if (n == "Elu") {
    double u = t;
    if (!(t >= 0)) u = (std::exp((double)t) - 1) * p.elu_alpha;
    return (float)(o * u);
  }
  if (n == "HardSwish") {
    float r = t + p.hswish_add;
    float g = r < 0 ? 0.0f : std::min(r, 6.0f);
    return o * (t * g * p.hswish_mul);
  }
  if (n == "Mish") {
    float sp = (float)std::log(std::exp((double)t) + 1);
    return (float)(t * ref_tanh(sp) * o);
  }
  if (n == "Softplus") return o * (float)std::log(std::exp((double)t) + 1);
  return o * (t / (std::fabs(t) + 1));  // Softsign
}

// Round half to even through the C library (default rounding mode).
inline float ref_round(float v) { return std::nearbyint(v); }

// From the accumulated sum to the stored value.
inline float ref_output(const Int8Stage& p, float sum, float bias, int c, int C) {
  const float a = sum * (float)(int)std::exp2((double)p.m) + bias;
  const float v = ref_activate(p, a, c, C);
  if (p.bits32) {
    if (p.action == "Relu") return std::max(v, 0.0f);
    if (p.action == "Relu6") return std::min(v, 6.0f);
    if (p.action == "LeakyRelu") return v <= 0 ? v * p.alpha : v;
    return v;
  }
  float q = ref_round(v);
  q = std::max(q, (float)p.lo);
  q = std::min(q, (float)p.hi);
  return (float)p.offset + q;
}

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_INT8_REFERENCE_H_
