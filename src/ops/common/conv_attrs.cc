#include "ops/common/conv_attrs.h"

#include <cmath>

#include "common.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

ConvSteps conv_steps(const std::vector<int>& strides, const std::vector<int>& dilations,
                     const std::vector<int>& pads, const std::string& padding, const char* op) {
  ConvSteps s;
  if (padding == "SAME") {
    s.same = true;
  } else if (padding != "VALID") {
    check_failed("false");
  }
  if (!strides.empty()) {
    check_attr_size(strides.size(), 4, "strides", op);
    s.stride_h = strides[1];
    s.stride_w = strides[2];
  }
  KOVRA_ENSURE_MSG(s.stride_h > 0 && s.stride_w > 0, "strides[1] > 0 && strides[2] > 0",
                   std::string(op) + ": strides must be positive");
  if (!dilations.empty()) {
    check_attr_size(dilations.size(), 4, "dilations", op);
    s.dilation_h = dilations[1];
    s.dilation_w = dilations[2];
  }
  KOVRA_ENSURE_MSG(s.dilation_h > 0 && s.dilation_w > 0, "dilations[1] > 0 && dilations[2] > 0",
                   std::string(op) + ": dilations must be positive");
  if (!pads.empty()) {
    check_attr_size(pads.size(), 4, "pads", op);
    for (int i = 0; i < 4; ++i) s.pads[i] = pads[i];
  }
  // Index arithmetic stays far from int overflow.
  const int kLimit = 1 << 24;
  KOVRA_ENSURE_MSG(s.stride_h <= kLimit && s.stride_w <= kLimit && s.dilation_h <= kLimit &&
                       s.dilation_w <= kLimit && s.pads[0] > -kLimit && s.pads[0] < kLimit &&
                       s.pads[1] > -kLimit && s.pads[1] < kLimit && s.pads[2] > -kLimit &&
                       s.pads[2] < kLimit && s.pads[3] > -kLimit && s.pads[3] < kLimit,
                   "steps within limits", std::string(op) + ": strides, dilations or pads out of range");
  return s;
}

void conv_output_hw(const std::vector<int>& input_shape, int kernel_h, int kernel_w, const ConvSteps& steps,
                    const char* op, int& out_h, int& out_w) {
  const long long H = input_shape[1], W = input_shape[2];
  KOVRA_ENSURE_MSG(static_cast<long long>(kernel_h) * steps.dilation_h < (1LL << 28) &&
                       static_cast<long long>(kernel_w) * steps.dilation_w < (1LL << 28),
                   "kernel * dilation < 2^28", std::string(op) + ": dilated kernel too large");
  long long oh, ow;
  if (steps.same) {
    oh = static_cast<long long>(std::ceil(static_cast<float>(H) / static_cast<float>(steps.stride_h)));
    ow = static_cast<long long>(std::ceil(static_cast<float>(W) / static_cast<float>(steps.stride_w)));
  } else {
    const long long span_h = static_cast<long long>(kernel_h - 1) * steps.dilation_h + 1;
    const long long span_w = static_cast<long long>(kernel_w - 1) * steps.dilation_w + 1;
    const long long padded_h = H + steps.pads[0] + steps.pads[1] - span_h;
    const long long padded_w = W + steps.pads[2] + steps.pads[3] - span_w;
    // C division truncates toward zero: a window slightly larger than the
    // padded input still gives one output, whose outside taps read padding.
    oh = padded_h / steps.stride_h + 1;
    ow = padded_w / steps.stride_w + 1;
  }
  KOVRA_ENSURE_MSG(oh > 0 && ow > 0 && oh * ow <= 0x7fffffffLL, "out_h > 0 && out_w > 0",
                   std::string(op) + ": the kernel does not fit the padded input");
  out_h = static_cast<int>(oh);
  out_w = static_cast<int>(ow);
}

void check_positive_dims(const Tensor* tensor, const char* op) {
  for (int d : tensor->shape()) {
    if (d > 0) continue;
    check_failed_quoted("dim > 0", std::string(op) + ": " + tensor->name() + " has an empty dimension");
  }
}

void require_conv_weight_gradient(const std::vector<Tensor*>& input_grads, const char* missing_message) {
  const Tensor* weight_gradient = input_grads.size() > 1 ? input_grads[1] : nullptr;
  KOVRA_ENSURE_MSG(weight_gradient != nullptr, "weight_gradient != NULL", missing_message);
}

ConvGradientSlots prepare_conv_gradients(const std::vector<const Tensor*>& inputs, const Tensor* output,
                                         const Tensor* output_grad, std::vector<Tensor*>& input_grads,
                                         long long out_count, int out_channels, const char* op) {
  Tensor* weight_gradient = input_grads[1];
  check_min_size(output, out_count, op);
  check_min_size(output_grad, out_count, op);
  ConvGradientSlots slots;
  weight_gradient->set_data(inputs[1]->shape(), Tensor::DT_FLOAT, nullptr);
  slots.weight = weight_gradient->mutable_data<float>();
  if (input_grads[0] != nullptr) {
    input_grads[0]->set_data(inputs[0]->shape(), Tensor::DT_FLOAT, nullptr);
    slots.input = input_grads[0]->mutable_data<float>();
  }
  if (input_grads.size() > 2 && input_grads[2] != nullptr) {
    input_grads[2]->set_data({out_channels}, Tensor::DT_FLOAT, nullptr);
    slots.bias = input_grads[2]->mutable_data<float>();
  }
  return slots;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
