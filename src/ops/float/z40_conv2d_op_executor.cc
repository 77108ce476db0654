#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/conv_attrs.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/activate.h"
#include "ops/kernels/conv2d_cpu.h"
#include "ops/kernels/conv_backward.h"
#include "ops/kernels/gemm_f32.h"
#include "ops/kernels/winograd_f32.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40Conv2DParam : BaseParam {
  std::vector<int> strides, pads, dilations, kernel_shape;
  std::string padding, action_type;
  int groups = 1;
  float pad_value = 0.0f;
  float alpha = 1.0f;
  float multify_param = 0.0f, clip_max_value = 0.0f, clip_min_value = 0.0f;
  bool has_bias = false;
  // Prepared by inference_shape for the inputs it saw.
  bool prepared = false;
  size_t input_count = 0;
  std::vector<int> input_shape;
  ConvGeometry geometry;
  long long out_count = 0;
  bool tiled = false;
  ConvTilePlan plan;
  std::vector<float> zero_bias;
  // The tiled path's weight panels, packed on first use and again only when
  // the weight tensor's version changes.
  PackedPanelsF32 packed;
  // 3x3 with unit steps and channels enough: the Winograd path instead.
  bool winograd = false;
  WinogradPlan winograd_plan;
  WinogradWeights winograd_weights;
};

class Z40Conv2DOpExecutor : public ParamOpExecutor<Z40Conv2DParam> {
 public:
  // As the operator's messages spell it.
  static constexpr const char* kName = "FloatZ40Conv2D";

  void parse_parameter(const NodeDef& node) override {
    Z40Conv2DParam& p = op_param_;
    require_int_list(node, "strides", p.strides, "Do not find the strides in FloatZ40Conv2D!!!");
    require_string(node, "padding", p.padding, "Do not find the padding in FloatZ40Conv2D!!!");
    read_int_list(node, "pads", p.pads);
    read_int_list(node, "dilations", p.dilations);
    read_float_as_int(node, "groups", p.groups);
    read_float(node, "pad_value", p.pad_value);
    read_string(node, "ActionType", p.action_type);
    read_float(node, "alpha", p.alpha);
    read_float(node, "multify_param", p.multify_param);
    read_float(node, "clip_max_value", p.clip_max_value);
    read_float(node, "clip_min_value", p.clip_min_value);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    // Inputs as before need no second preparation.
    if (inputs.size() < 2 || !_prepared_for(inputs)) _prepare(inputs);
    const ConvGeometry& g = op_param_.geometry;
    shape = {g.batch, g.out_h, g.out_w, g.out_c};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40Conv2DParam& p = op_param_;
    if (!_prepared_for(inputs)) _prepare(inputs);
    const ConvGeometry& g = p.geometry;
    check_min_size(output, p.out_count, kName);
    check_float(inputs[0], kName);
    check_float(inputs[1], kName);
    if (p.has_bias) check_min_size(inputs[2], g.out_c, kName);
    // A node without bias adds a zero bias of out_channels values.
    const float* bias = p.has_bias ? inputs[2]->data<float>() : p.zero_bias.data();
    const float* in = inputs[0]->data<float>();
    const float* w = inputs[1]->data<float>();
    float* out = output->mutable_data<float>();
    if (!p.tiled) {
      conv2d_cpu(in, w, bias, out, g);
      return true;
    }
    if (p.winograd) {
      transform_winograd_weights(w, g.in_c, g.out_c, inputs[1]->version(), &p.winograd_weights);
      conv2d_winograd_f23(p.winograd_plan, in, p.winograd_weights, bias, out);
      return true;
    }
    const float* packed =
        p.plan.keep_panels ? pack_panels_f32(w, p.plan.K, g.out_c, inputs[1]->version(), &p.packed) : nullptr;
    conv2d_avx_cpu(p.plan, in, w, packed, bias, out);
    return true;
  }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    require_conv_weight_gradient(input_grads, "Please set conv weight grad tesnor.");
    _prepare(inputs);
    const ConvGeometry& g = op_param_.geometry;
    const ConvGradientSlots slots =
        prepare_conv_gradients(inputs, output, output_grad, input_grads, op_param_.out_count, g.out_c, kName);
    conv2d_backward_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(), output->data<float>(),
                        output_grad->data<float>(), slots.input, slots.weight, slots.bias, g);
  }

 private:
  // Inputs with more than 2 channels and a single group take the tiled path.
  static bool _tiled(const ConvGeometry& g) { return g.in_c > 2 && g.groups == 1; }

  // Whether execute may use what was prepared: same input count and shapes.
  bool _prepared_for(const std::vector<const Tensor*>& inputs) const {
    const Z40Conv2DParam& p = op_param_;
    return p.prepared && inputs.size() == p.input_count && inputs[0]->shape() == p.input_shape &&
           inputs[1]->shape() == p.kernel_shape;
  }

  // Checks inputs, weights and bias against each other and prepares the
  // shapes and padding of the path that will run, its tile plan and the
  // stand-in bias.
  void _prepare(const std::vector<const Tensor*>& inputs) {
    Z40Conv2DParam& p = op_param_;
    KOVRA_ENSURE_MSG(!inputs.empty() && inputs[0]->shape().size() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input shape in z40 conv2d!!!");
    check_input_count(inputs, 2, kName);
    const Tensor* input = inputs[0];
    const Tensor* weight = inputs[1];
    check_float(input, kName);
    check_float(weight, kName);
    check_positive_dims(input, kName);
    KOVRA_ENSURE_MSG(
        weight->shape().size() == 4, "weight->shape().size() == 4",
        std::string(kName) + ": weight must be [kernel_h, kernel_w, in_channels / groups, out_channels]");
    check_positive_dims(weight, kName);
    op_param_.kernel_shape = weight->shape();
    const ConvSteps steps = conv_steps(p.strides, p.dilations, p.pads, p.padding, kName);
    ConvGeometry g;
    g.batch = input->shape()[0];
    g.in_h = input->shape()[1];
    g.in_w = input->shape()[2];
    g.in_c = input->shape()[3];
    g.kernel_h = weight->shape()[0];
    g.kernel_w = weight->shape()[1];
    g.out_c = weight->shape()[3];
    g.groups = p.groups;
    KOVRA_ENSURE_MSG(g.groups > 0 && g.out_c % g.groups == 0, "groups > 0 && out_channels % groups == 0",
                     std::string(kName) + ": groups " + std::to_string(g.groups) +
                         " do not divide out_channels " + std::to_string(g.out_c));
    KOVRA_ENSURE_MSG(static_cast<long long>(weight->shape()[2]) * g.groups == g.in_c,
                     "weight_in_channels * groups == input_channels",
                     std::string(kName) + ": weight in-channels " + std::to_string(weight->shape()[2]) +
                         " x groups " + std::to_string(g.groups) + " != input channels " +
                         std::to_string(g.in_c));
    if (inputs.size() > 2) {
      check_float(inputs[2], kName);
      check_min_size(inputs[2], g.out_c, kName);
    }
    conv_output_hw(input->shape(), g.kernel_h, g.kernel_w, steps, kName, g.out_h, g.out_w);
    KOVRA_ENSURE_MSG(static_cast<long long>(g.batch) * g.out_h * g.out_w * g.out_c <= 0x7fffffffLL,
                     "output_size <= INT_MAX", std::string(kName) + ": output too large");
    g.stride_h = steps.stride_h;
    g.stride_w = steps.stride_w;
    g.dilation_h = steps.dilation_h;
    g.dilation_w = steps.dilation_w;
    g.pad_value = p.pad_value;
    g.activate = select_activation(p.action_type);
    g.alpha = p.alpha;
    if (_tiled(g)) {
      // The tiled path pads only for "SAME", with dilation left out of the rule.
      g.pad_top = steps.same ? same_pad_tiled(g.out_h, g.stride_h, g.kernel_h, g.in_h) : 0;
      g.pad_left = steps.same ? same_pad_tiled(g.out_w, g.stride_w, g.kernel_w, g.in_w) : 0;
    } else if (steps.same) {
      g.pad_top = same_pad_direct(g.out_h, g.stride_h, g.kernel_h, g.dilation_h, g.in_h);
      g.pad_left = same_pad_direct(g.out_w, g.stride_w, g.kernel_w, g.dilation_w, g.in_w);
    } else {
      g.pad_top = steps.pads[0];
      g.pad_left = steps.pads[2];
    }
    p.geometry = g;
    p.out_count = static_cast<long long>(g.batch) * g.out_h * g.out_w * g.out_c;
    p.tiled = _tiled(g);
    p.winograd = p.tiled && winograd_f23_applies(g);
    if (p.winograd) {
      prepare_winograd_f23(g, &p.winograd_plan);
    } else if (p.tiled) {
      prepare_conv_tiles(g, &p.plan);
    }
    p.has_bias = inputs.size() == 3;
    p.zero_bias.assign(p.has_bias ? 0 : g.out_c, 0.0f);
    p.input_count = inputs.size();
    p.input_shape = input->shape();
    p.prepared = true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Conv2D)
