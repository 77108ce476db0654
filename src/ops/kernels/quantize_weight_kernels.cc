#include "ops/kernels/quantize_weight_kernels.h"

#include <algorithm>
#include <cmath>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

float qmax_of(int bitwidth) { return std::ldexp(1.0f, bitwidth - 1) - 1.0f; }
float qmin_of(int bitwidth) { return -std::ldexp(1.0f, bitwidth - 1); }

inline int channel_of(int i, const QuantizeWeightParam& p) { return (i / p.channel_stride) % p.channels; }

inline float sigmoid(float v) { return 1.0f / (1.0f + std::exp(-v)); }

// AdaRound's rectified sigmoid h(v) = clamp(sigmoid(v) * (zeta - gamma) + gamma, 0, 1);
// hard targets round it to 0 or 1 at 0.5.
inline float rounding_offset(float v, const QuantizeWeightParam& p) {
  const float h = std::min(1.0f, std::max(0.0f, sigmoid(v) * (p.zeta - p.gamma) + p.gamma));
  if (p.soft_targets) return h;
  return h >= 0.5f ? 1.0f : 0.0f;
}

}  // namespace

void quantize_weight_scales(const float* weight, int count, const QuantizeWeightParam& p, float* scale) {
  std::fill(scale, scale + p.channels, 0.0f);
  for (int i = 0; i < count; ++i) {
    float& m = scale[channel_of(i, p)];
    m = std::max(m, std::fabs(weight[i]));
  }
  const float qmax = qmax_of(p.bitwidth);
  for (int c = 0; c < p.channels; ++c) scale[c] /= qmax;
}

std::vector<float> quantize_weight_scales(const float* weight, int count, const QuantizeWeightParam& p) {
  std::vector<float> scale(p.channels);
  quantize_weight_scales(weight, count, p, scale.data());
  return scale;
}

void quantize_weight_cpu(const float* weight, const float* rounding, float* out, int count,
                         const QuantizeWeightParam& p, float* scale) {
  quantize_weight_scales(weight, count, p, scale);
  const float qmin = qmin_of(p.bitwidth), qmax = qmax_of(p.bitwidth);
  for (int i = 0; i < count; ++i) {
    const float s = scale[channel_of(i, p)];
    // An all-zero channel has no step; its weights stay 0.
    if (s == 0.0f) {
      out[i] = 0.0f;
      continue;
    }
    const float code = std::floor(weight[i] / s) + rounding_offset(rounding[i], p);
    out[i] = s * std::min(qmax, std::max(qmin, code));
  }
}

void quantize_weight_backward_cpu(const float* weight, const float* rounding, const float* out_grad,
                                  float* weight_grad, float* rounding_grad, int count,
                                  const QuantizeWeightParam& p) {
  const std::vector<float> scale = quantize_weight_scales(weight, count, p);
  const float qmin = qmin_of(p.bitwidth), qmax = qmax_of(p.bitwidth);
  for (int i = 0; i < count; ++i) {
    const float s = scale[channel_of(i, p)];
    bool inside = false;
    float dh = 0.0f;
    if (s != 0.0f) {
      const float code = std::floor(weight[i] / s) + rounding_offset(rounding[i], p);
      inside = code >= qmin && code <= qmax;
      const float sg = sigmoid(rounding[i]);
      const float h = sg * (p.zeta - p.gamma) + p.gamma;
      if (h > 0.0f && h < 1.0f) dh = (p.zeta - p.gamma) * sg * (1.0f - sg);
    }
    if (weight_grad != nullptr) weight_grad[i] = inside ? out_grad[i] : 0.0f;
    if (rounding_grad != nullptr) {
      rounding_grad[i] = (p.update_parameter && inside) ? out_grad[i] * s * dh : 0.0f;
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
