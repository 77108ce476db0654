#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/gemm_f32.h"
#include "ops/kernels/matmul_cpu.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MatMulParam : BaseParam {
  std::string action_type;
  float alpha = 1.0f;
  int clip_max_value = 1;
  int clip_min_value = 0;
  std::vector<int> weight_shape;
  bool has_bias = false;
  // Prepared by inference_shape for the inputs it saw.
  bool prepared = false;
  size_t input_count = 0;
  std::vector<int> input_shape;
  MatMulArgs args;
  std::vector<float> zero_bias;
  // The weight's panels, packed on first use and again only when the weight
  // tensor's version changes.
  PackedPanelsF32 packed;
};

class Z40MatMulOpExecutor : public ParamOpExecutor<Z40MatMulParam> {
 public:
  // As the operator's messages spell it.
  static constexpr const char* kName = "FloatZ40MatMul";

  void parse_parameter(const NodeDef& node) override {
    read_string(node, "ActionType", op_param_.action_type);
    read_float(node, "alpha", op_param_.alpha);
    read_float_as_int(node, "clip_max_value", op_param_.clip_max_value);
    read_float_as_int(node, "clip_min_value", op_param_.clip_min_value);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    // Inputs as before need no second preparation.
    if (inputs.size() < 2 || !_prepared_for(inputs)) _prepare(inputs);
    shape = {op_param_.args.M, op_param_.args.N};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40MatMulParam& p = op_param_;
    if (!_prepared_for(inputs)) _prepare(inputs);
    const MatMulArgs& args = p.args;
    check_min_size(output, static_cast<long long>(args.M) * args.N, kName);
    check_float(inputs[0], kName);
    check_float(inputs[1], kName);
    if (p.has_bias) check_min_size(inputs[2], args.N, kName);
    // A node without bias adds a zero bias of N values.
    const float* bias = p.has_bias ? inputs[2]->data<float>() : p.zero_bias.data();
    const float* b = inputs[1]->data<float>();
    // A single row reads the weights as they are stored.
    const float* packed =
        args.M > 1 ? pack_panels_f32(b, args.K, args.N, inputs[1]->version(), &p.packed) : nullptr;
    matmul_cpu(inputs[0]->data<float>(), b, bias, output->mutable_data<float>(), args, packed);
    return true;
  }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    Tensor* weight_gradient = input_grads.size() > 1 ? input_grads[1] : nullptr;
    KOVRA_ENSURE_MSG(weight_gradient != nullptr, "weight_gradient != NULL",
                     "Please set matmul weight grad tesnor.");
    _prepare(inputs);
    const MatMulArgs& args = op_param_.args;
    check_min_size(output, static_cast<long long>(args.M) * args.N, kName);
    check_min_size(output_grad, static_cast<long long>(args.M) * args.N, kName);
    weight_gradient->set_data(inputs[1]->shape(), Tensor::DT_FLOAT, nullptr);
    Tensor* input_gradient = input_grads.empty() ? nullptr : input_grads[0];
    if (input_gradient != nullptr) input_gradient->set_data({args.M, args.K}, Tensor::DT_FLOAT, nullptr);
    Tensor* bias_gradient = input_grads.size() > 2 ? input_grads[2] : nullptr;
    if (bias_gradient != nullptr) bias_gradient->set_data({args.N}, Tensor::DT_FLOAT, nullptr);
    matmul_backward_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(), output->data<float>(),
                        output_grad->data<float>(),
                        input_gradient ? input_gradient->mutable_data<float>() : nullptr,
                        weight_gradient->mutable_data<float>(),
                        bias_gradient ? bias_gradient->mutable_data<float>() : nullptr, args);
  }

 private:
  // Whether execute may use what was prepared: same input count and shapes.
  bool _prepared_for(const std::vector<const Tensor*>& inputs) const {
    const Z40MatMulParam& p = op_param_;
    return p.prepared && inputs.size() == p.input_count && inputs[0]->shape() == p.input_shape &&
           inputs[1]->shape() == p.weight_shape;
  }

  // Checks the inputs and prepares the product's sizes, its activation and
  // the stand-in bias.
  void _prepare(const std::vector<const Tensor*>& inputs) {
    check_input_not_scalar(inputs.empty() ? nullptr : inputs[0], kName);
    check_input_count(inputs, 2, kName);
    const Tensor* a = inputs[0];
    const Tensor* b = inputs[1];
    check_float(a, kName);
    check_float(b, kName);
    const std::vector<int>& as = a->shape();
    KOVRA_ENSURE_MSG(as.size() == 2 || as.size() == 4, "input_tensor->shape().size() == 2 || == 4",
                     std::string(kName) + ": input must be [M, K] or [M, 1, 1, K]");
    KOVRA_ENSURE_MSG(b->shape().size() == 2, "weight->shape().size() == 2",
                     std::string(kName) + ": weight must be [K, N]");
    op_param_.weight_shape = b->shape();
    MatMulArgs args;
    args.M = as[0];
    args.K = as.size() == 4 ? as[3] : as[1];
    args.N = b->shape()[1];
    KOVRA_ENSURE_MSG(args.M > 0 && args.K > 0 && args.N > 0, "M > 0 && K > 0 && N > 0",
                     std::string(kName) + ": empty input or weight");
    KOVRA_ENSURE_MSG(b->shape()[0] == args.K, "weight_rows == input_features",
                     std::string(kName) + ": weight rows " + std::to_string(b->shape()[0]) +
                         " != input features " + std::to_string(args.K));
    check_min_size(a, static_cast<long long>(args.M) * args.K, kName);
    KOVRA_ENSURE_MSG(static_cast<long long>(args.M) * args.N <= 0x7fffffffLL, "output_size <= INT_MAX",
                     std::string(kName) + ": output too large");
    if (inputs.size() > 2) {
      check_float(inputs[2], kName);
      check_min_size(inputs[2], args.N, kName);
    }
    args.action = matmul_action(op_param_.action_type.c_str());
    args.alpha = op_param_.alpha;
    args.clip_max = op_param_.clip_max_value;
    args.clip_min = op_param_.clip_min_value;
    Z40MatMulParam& p = op_param_;
    p.args = args;
    p.has_bias = inputs.size() == 3;
    p.zero_bias.assign(p.has_bias ? 0 : args.N, 0.0f);
    p.input_count = inputs.size();
    p.input_shape = a->shape();
    p.prepared = true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40MatMul)
