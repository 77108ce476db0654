#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/quantize_weight_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40QuantizeWeightParam : BaseParam, PreparedShapes {
  int weight_bitwidth = 8;
  bool update_parameter = false;
  bool soft_targets = false;
  bool is_depthwise = false;
  float gamma = -0.1f;
  float zeta = 1.1f;
  QuantizeWeightParam kernel;  // the attributes and the weight's channel layout
  std::vector<float> scale;    // the kernel's per-channel steps, recomputed on every run
};

// Inputs: the weight and its rounding variables (same element count). Runs
// from weights alone, on demand before the node that reads its output.
class Z40QuantizeWeightOpExecutor : public ParamOpExecutor<Z40QuantizeWeightParam> {
 public:
  // The name its messages go by; it is registered as "Z40AdaRoundQuantizeWeight".
  static constexpr const char* kName = "Z40QuantizeWeight";

  void parse_parameter(const NodeDef& node) override {
    Z40QuantizeWeightParam& p = op_param_;
    require_float_as_int(node, "weight_bitwidth", p.weight_bitwidth,
                         "Do not find the weight_bitwidth in Z40QuantizeWeight!!!");
    read_bool(node, "update_parameter", p.update_parameter);
    read_bool(node, "soft_targets", p.soft_targets);
    read_bool(node, "is_depthwise", p.is_depthwise);
    read_float(node, "gamma", p.gamma);
    read_float(node, "zeta", p.zeta);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40QuantizeWeightParam& p = op_param_;
    p.kernel = _plan(inputs);
    p.scale.resize(p.kernel.channels);
    p.in_shape = p.out_shape = inputs[0]->shape();
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40QuantizeWeightParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p) || inputs.size() < 2 ||
                       !is_float_of_size(inputs[1], inputs[0]->size()))) {
      _refuse(inputs, output);
    }
    quantize_weight_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(), output->mutable_data<float>(),
                        inputs[0]->size(), p.kernel, p.scale.data());
    return true;
  }

  // input_grads[0] receives the weight's gradient, input_grads[1] (when
  // present) the rounding variables'.
  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    (void)output;
    const QuantizeWeightParam p = _plan(inputs);
    const Tensor* weight = inputs[0];
    KOVRA_ENSURE_MSG(output_grad != nullptr && output_grad->size() == weight->size(),
                     "output_grad->size() == weight->size()",
                     std::string(kName) + ": the output gradient does not match the weight " +
                         shape_text(weight->shape()));
    check_float(output_grad, kName);
    Tensor* grads[2] = {nullptr, nullptr};
    for (size_t i = 0; i < 2 && i < input_grads.size(); ++i) {
      grads[i] = input_grads[i];
      if (grads[i] != nullptr) grads[i]->set_data(inputs[i]->shape(), Tensor::DT_FLOAT, nullptr);
    }
    quantize_weight_backward_cpu(weight->data<float>(), inputs[1]->data<float>(), output_grad->data<float>(),
                                 grads[0] ? grads[0]->mutable_data<float>() : nullptr,
                                 grads[1] ? grads[1]->mutable_data<float>() : nullptr, weight->size(), p);
  }

 private:
  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    _plan(inputs);
    refuse_unprepared(inputs, output, inputs[0]->shape(), op_param_, kName);
  }

  QuantizeWeightParam _plan(const std::vector<const Tensor*>& inputs) const {
    const Z40QuantizeWeightParam& a = op_param_;
    check_input_count(inputs, 2, kName);
    const Tensor* weight = inputs[0];
    check_input_not_scalar(weight, kName);
    check_float(weight, kName);
    check_float(inputs[1], kName);
    KOVRA_ENSURE_MSG(inputs[1]->size() == weight->size(), "rounding->size() == weight->size()",
                     std::string(kName) + ": " + inputs[1]->name() + " has " +
                         std::to_string(inputs[1]->size()) + " rounding variables for " +
                         std::to_string(weight->size()) + " weights");
    KOVRA_ENSURE_MSG(
        a.weight_bitwidth >= 2 && a.weight_bitwidth <= 16, "2 <= weight_bitwidth <= 16",
        std::string(kName) + ": weight_bitwidth " + std::to_string(a.weight_bitwidth) + " is not supported");
    QuantizeWeightParam p;
    p.bitwidth = a.weight_bitwidth;
    p.soft_targets = a.soft_targets;
    p.update_parameter = a.update_parameter;
    p.gamma = a.gamma;
    p.zeta = a.zeta;
    const std::vector<int>& s = weight->shape();
    if (a.is_depthwise && s.size() >= 2) {
      p.channels = s[s.size() - 2];
      p.channel_stride = s.back();
    } else {
      p.channels = s.back();
      p.channel_stride = 1;
    }
    check_positive_dims(s, "weight", kName);
    return p;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP_AS("Z40AdaRoundQuantizeWeight", Z40QuantizeWeight)
