#ifndef KOVRAEXECUTOR_OPS_QUANTIZE_WEIGHT_KERNELS_H_
#define KOVRAEXECUTOR_OPS_QUANTIZE_WEIGHT_KERNELS_H_

#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Learned-rounding weight quantization. Element i belongs to channel
// (i / channel_stride) % channels: the last axis of [kh, kw, in, out]
// (channel_stride 1) or axis 2 of a depthwise [kh, kw, C, multiplier]
// (channel_stride = multiplier).
struct QuantizeWeightParam {
  int bitwidth = 8;
  bool soft_targets = false;
  bool update_parameter = false;
  float gamma = -0.1f;
  float zeta = 1.1f;
  int channels = 1;
  int channel_stride = 1;
};

// Symmetric per-channel step: max |w| over the channel / (2^(bitwidth-1) - 1),
// into `scale` (p.channels floats) or a new vector.
void quantize_weight_scales(const float* weight, int count, const QuantizeWeightParam& p, float* scale);
std::vector<float> quantize_weight_scales(const float* weight, int count, const QuantizeWeightParam& p);

// out = s * clamp(floor(w / s) + h(v), -2^(b-1), 2^(b-1) - 1) per element;
// `scale` is scratch for p.channels floats.
void quantize_weight_cpu(const float* weight, const float* rounding, float* out, int count,
                         const QuantizeWeightParam& p, float* scale);

// Gradients of quantize_weight_cpu given the output gradient: the weight's is
// passed straight through where the code was not clamped; the rounding
// variables' follows the rectified sigmoid and is 0 unless update_parameter.
// Either output pointer may be null.
void quantize_weight_backward_cpu(const float* weight, const float* rounding, const float* out_grad,
                                  float* weight_grad, float* rounding_grad, int count,
                                  const QuantizeWeightParam& p);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_QUANTIZE_WEIGHT_KERNELS_H_
