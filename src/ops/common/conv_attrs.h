#ifndef KOVRAEXECUTOR_OPS_CONV_ATTRS_H_
#define KOVRAEXECUTOR_OPS_CONV_ATTRS_H_

#include <string>
#include <vector>

#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Steps and padding of a convolution node, checked once per call.
struct ConvSteps {
  int stride_h = 1, stride_w = 1, dilation_h = 1, dilation_w = 1;
  int pads[4] = {0, 0, 0, 0};  // top, bottom, left, right
  bool same = false;
};

// Checks the attribute lists (4 entries; strides and dilations positive) and
// the padding word (anything but "SAME"/"VALID" fails the check "false").
// Empty strides or dilations mean 1; empty pads mean 0.
ConvSteps conv_steps(const std::vector<int>& strides, const std::vector<int>& dilations,
                     const std::vector<int>& pads, const std::string& padding, const char* op);

// [N, OH, OW] of an NHWC input under these steps ("SAME": ceil(H / stride);
// "VALID": the explicit-padding formula); aborts unless OH, OW > 0.
void conv_output_hw(const std::vector<int>& input_shape, int kernel_h, int kernel_w, const ConvSteps& steps,
                    const char* op, int& out_h, int& out_w);

// Every dimension of a tensor the kernels index must be positive.
void check_positive_dims(const Tensor* tensor, const char* op);

// The gradient buffers of a convolution's backward pass, sized and ready.
struct ConvGradientSlots {
  float* input = nullptr;   // filled when the caller asked for it
  float* weight = nullptr;  // always present
  float* bias = nullptr;    // filled when the caller asked for it
};

// Gradient slots are [input, weight, bias]: the weight gradient is required
// ("weight_gradient != NULL" with `missing_message`), the others optional.
void require_conv_weight_gradient(const std::vector<Tensor*>& input_grads, const char* missing_message);

// Checks that output and output_grad hold `out_count` values, then sizes every
// requested slot like the tensor it is the gradient of.
ConvGradientSlots prepare_conv_gradients(const std::vector<const Tensor*>& inputs, const Tensor* output,
                                         const Tensor* output_grad, std::vector<Tensor*>& input_grads,
                                         long long out_count, int out_channels, const char* op);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_CONV_ATTRS_H_
