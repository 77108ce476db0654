#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/kernels/matmul_cpu.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const char* const kOp = "FloatZ40MatMul";
}

struct Z40MatMulParam : BaseParam {
  std::string action_type;
  float alpha = 1.0f;
  int clip_max_value = 1;
  int clip_min_value = 0;
  std::vector<int> weight_shape;
  bool has_bias = false;
};

class Z40MatMulOpExecutor : public ParamOpExecutor<Z40MatMulParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    read_string(node, "ActionType", op_param_.action_type);
    read_float(node, "alpha", op_param_.alpha);
    read_float_as_int(node, "clip_max_value", op_param_.clip_max_value);
    read_float_as_int(node, "clip_min_value", op_param_.clip_min_value);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const MatMulArgs args = _args(inputs);
    op_param_.has_bias = inputs.size() == 3;
    shape = {args.M, args.N};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const MatMulArgs args = _args(inputs);
    check_min_size(output, static_cast<long long>(args.M) * args.N, kOp);
    // A node without bias adds a zero bias of N values.
    const std::vector<float> zero_bias(op_param_.has_bias ? 0 : args.N, 0.0f);
    const float* bias = op_param_.has_bias ? inputs[2]->data<float>() : zero_bias.data();
    matmul_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(), bias, output->mutable_data<float>(), args);
    return true;
  }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    Tensor* weight_gradient = input_grads.size() > 1 ? input_grads[1] : nullptr;
    KOVRA_ENSURE_MSG(weight_gradient != nullptr, "weight_gradient != NULL",
                     "Please set matmul weight grad tesnor.");
    const MatMulArgs args = _args(inputs);
    check_min_size(output, static_cast<long long>(args.M) * args.N, kOp);
    check_min_size(output_grad, static_cast<long long>(args.M) * args.N, kOp);
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
  MatMulArgs _args(const std::vector<const Tensor*>& inputs) {
    check_input_not_scalar(inputs.empty() ? nullptr : inputs[0], kOp);
    check_input_count(inputs, 2, kOp);
    const Tensor* a = inputs[0];
    const Tensor* b = inputs[1];
    check_float(a, kOp);
    check_float(b, kOp);
    const std::vector<int>& as = a->shape();
    KOVRA_ENSURE_MSG(as.size() == 2 || as.size() == 4, "input_tensor->shape().size() == 2 || == 4",
                     std::string(kOp) + ": input must be [M, K] or [M, 1, 1, K]");
    KOVRA_ENSURE_MSG(b->shape().size() == 2, "weight->shape().size() == 2",
                     std::string(kOp) + ": weight must be [K, N]");
    op_param_.weight_shape = b->shape();
    MatMulArgs args;
    args.M = as[0];
    args.K = as.size() == 4 ? as[3] : as[1];
    args.N = b->shape()[1];
    KOVRA_ENSURE_MSG(args.M > 0 && args.K > 0 && args.N > 0, "M > 0 && K > 0 && N > 0",
                     std::string(kOp) + ": empty input or weight");
    KOVRA_ENSURE_MSG(b->shape()[0] == args.K, "weight_rows == input_features",
                     std::string(kOp) + ": weight rows " + std::to_string(b->shape()[0]) +
                         " != input features " + std::to_string(args.K));
    check_min_size(a, static_cast<long long>(args.M) * args.K, kOp);
    KOVRA_ENSURE_MSG(static_cast<long long>(args.M) * args.N <= 0x7fffffffLL, "output_size <= INT_MAX",
                     std::string(kOp) + ": output too large");
    if (inputs.size() > 2) {
      check_float(inputs[2], kOp);
      check_min_size(inputs[2], args.N, kOp);
    }
    args.action = matmul_action(op_param_.action_type.c_str());
    args.alpha = op_param_.alpha;
    args.clip_max = op_param_.clip_max_value;
    args.clip_min = op_param_.clip_min_value;
    return args;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40MatMul)
