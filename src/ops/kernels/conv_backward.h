#ifndef KOVRAEXECUTOR_OPS_CONV_BACKWARD_H_
#define KOVRAEXECUTOR_OPS_CONV_BACKWARD_H_

#include "ops/kernels/conv2d_cpu.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Gradients of a convolution computed with geometry g (the same padding as the
// forward path that produced `output`). The activation's slope is read from
// the activated output. weight_grad is required; input_grad and bias_grad are
// filled when not null. Taps on the padding contribute pad_value to the
// weight gradient, as they do to the forward sum.
void conv2d_backward_cpu(const float* input, const float* weight, const float* output,
                         const float* output_grad, float* input_grad, float* weight_grad,
                         float* bias_grad, const ConvGeometry& g);

// The same for the depthwise convolution (weights [kh, kw, in_c, multiplier]).
void dwconv2d_backward_cpu(const float* input, const float* weight, const float* output,
                           const float* output_grad, float* input_grad, float* weight_grad,
                           float* bias_grad, const ConvGeometry& g);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_CONV_BACKWARD_H_
