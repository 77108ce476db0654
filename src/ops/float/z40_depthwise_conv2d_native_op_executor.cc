#include <limits>
#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/kernels/activate.h"
#include "ops/common/conv_attrs.h"
#include "ops/kernels/conv_backward.h"
#include "ops/kernels/dwconv2d_cpu.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40DepthwiseConv2dNativeParam : BaseParam {
  std::vector<int> strides, pads, dilations, kernel_shape;
  std::string padding, action_type;
  float pad_value = 0.0f;
  float alpha = 1.0f;
  // Without bounds, "Linear" leaves values as they are.
  float clip_max_value = std::numeric_limits<float>::max();
  float clip_min_value = std::numeric_limits<float>::lowest();
  bool is_conv1d = false, post_training_quantization = false;
  // Prepared by inference_shape for the inputs it saw.
  bool prepared = false;
  size_t input_count = 0;
  std::vector<int> input_shape;
  ConvGeometry geometry;
  long long out_count = 0;
  std::vector<float> zero_bias;
};

class Z40DepthwiseConv2dNativeOpExecutor : public ParamOpExecutor<Z40DepthwiseConv2dNativeParam> {
 public:
  // As the operator's messages spell it.
  static constexpr const char* kName = "FloatZ40DepthwiseConv2dNative";

  void parse_parameter(const NodeDef& node) override {
    Z40DepthwiseConv2dNativeParam& p = op_param_;
    read_int_list(node, "strides", p.strides);
    require_string(node, "padding", p.padding, "Do not find the padding in FloatZ40DepthwiseConv2dNative!!!");
    require_int_list(node, "dilations", p.dilations,
                     "Do not find the dilations in FloatZ40DepthwiseConv2dNative!!!");
    read_int_list(node, "pads", p.pads);
    read_float(node, "pad_value", p.pad_value);
    read_string(node, "ActionType", p.action_type);
    read_float(node, "alpha", p.alpha);
    read_float(node, "clip_max_value", p.clip_max_value);
    read_float(node, "clip_min_value", p.clip_min_value);
    // Both only describe how the model was made; NHWC computation is the same.
    read_bool(node, "is_conv1d", p.is_conv1d);
    read_bool(node, "post_training_quantization", p.post_training_quantization);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    // Inputs as before need no second preparation.
    if (inputs.size() < 2 || !_prepared_for(inputs)) _prepare(inputs);
    const ConvGeometry& g = op_param_.geometry;
    shape = {g.batch, g.out_h, g.out_w, g.out_c};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40DepthwiseConv2dNativeParam& p = op_param_;
    if (!_prepared_for(inputs)) _prepare(inputs);
    const ConvGeometry& g = p.geometry;
    check_min_size(output, p.out_count, kName);
    check_float(inputs[0], kName);
    check_float(inputs[1], kName);
    const bool has_bias = inputs.size() > 2;
    if (has_bias) check_min_size(inputs[2], g.out_c, kName);
    const float* bias = has_bias ? inputs[2]->data<float>() : p.zero_bias.data();
    dwconv2d_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(), bias, output->mutable_data<float>(), g);
    return true;
  }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    require_conv_weight_gradient(input_grads, "Please set dwconv weight grad tesnor.");
    _prepare(inputs);
    const ConvGeometry& g = op_param_.geometry;
    const ConvGradientSlots slots =
        prepare_conv_gradients(inputs, output, output_grad, input_grads, op_param_.out_count, g.out_c, kName);
    dwconv2d_backward_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(), output->data<float>(),
                          output_grad->data<float>(), slots.input, slots.weight, slots.bias, g);
  }

 private:
  // Whether execute may use what was prepared: same input count and shapes.
  bool _prepared_for(const std::vector<const Tensor*>& inputs) const {
    const Z40DepthwiseConv2dNativeParam& p = op_param_;
    return p.prepared && inputs.size() == p.input_count && inputs[0]->shape() == p.input_shape &&
           inputs[1]->shape() == p.kernel_shape;
  }

  // Checks inputs, weights and bias against each other and prepares the
  // geometry and the stand-in bias.
  void _prepare(const std::vector<const Tensor*>& inputs) {
    Z40DepthwiseConv2dNativeParam& p = op_param_;
    KOVRA_ENSURE_MSG(!inputs.empty() && inputs[0]->shape().size() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input shape in FloatZ40DepthwiseConv2dNative!!!");
    op_param_.kernel_shape = inputs.size() > 1 ? inputs[1]->shape() : std::vector<int>();
    KOVRA_ENSURE_MSG(!op_param_.kernel_shape.empty(), "op_param_->kernel_shape.size() > 0",
                     "The shape of kernel is 0 in FloatZ40DepthwiseConv2dNative!!!");
    const Tensor* input = inputs[0];
    const Tensor* weight = inputs[1];
    check_float(input, kName);
    check_float(weight, kName);
    check_positive_dims(input, kName);
    KOVRA_ENSURE_MSG(weight->shape().size() == 4, "weight->shape().size() == 4",
                     std::string(kName) + ": weight must be [kernel_h, kernel_w, channels, multiplier]");
    check_positive_dims(weight, kName);
    ConvGeometry g;
    g.batch = input->shape()[0];
    g.in_h = input->shape()[1];
    g.in_w = input->shape()[2];
    g.in_c = input->shape()[3];
    g.kernel_h = weight->shape()[0];
    g.kernel_w = weight->shape()[1];
    KOVRA_ENSURE_MSG(weight->shape()[2] == g.in_c, "weight_channels == input_channels",
                     std::string(kName) + ": weight channels " + std::to_string(weight->shape()[2]) +
                         " != input channels " + std::to_string(g.in_c));
    // No larger than the weight's element count, so it fits an int.
    g.out_c = g.in_c * weight->shape()[3];
    if (inputs.size() > 2) {
      check_float(inputs[2], kName);
      check_min_size(inputs[2], g.out_c, kName);
    }
    const ConvSteps steps = conv_steps(p.strides, p.dilations, p.pads, p.padding, kName);
    conv_output_hw(input->shape(), g.kernel_h, g.kernel_w, steps, kName, g.out_h, g.out_w);
    KOVRA_ENSURE_MSG(static_cast<long long>(g.batch) * g.out_h * g.out_w * g.out_c <= 0x7fffffffLL,
                     "output_size <= INT_MAX", std::string(kName) + ": output too large");
    g.stride_h = steps.stride_h;
    g.stride_w = steps.stride_w;
    g.dilation_h = steps.dilation_h;
    g.dilation_w = steps.dilation_w;
    if (steps.same) {
      g.pad_top = same_pad_direct(g.out_h, g.stride_h, g.kernel_h, g.dilation_h, g.in_h);
      g.pad_left = same_pad_direct(g.out_w, g.stride_w, g.kernel_w, g.dilation_w, g.in_w);
    } else {
      g.pad_top = steps.pads[0];
      g.pad_left = steps.pads[2];
    }
    g.pad_value = p.pad_value;
    g.activate = select_activation(p.action_type);
    g.alpha = p.alpha;
    g.clip = p.action_type == "Linear";
    g.clip_min = p.clip_min_value;
    g.clip_max = p.clip_max_value;
    p.geometry = g;
    p.out_count = static_cast<long long>(g.batch) * g.out_h * g.out_w * g.out_c;
    p.zero_bias.assign(inputs.size() > 2 ? 0 : g.out_c, 0.0f);
    p.input_count = inputs.size();
    p.input_shape = input->shape();
    p.prepared = true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40DepthwiseConv2dNative)
