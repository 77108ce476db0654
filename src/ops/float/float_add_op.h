#ifndef KOVRAEXECUTOR_OPS_FLOAT_ADD_OP_H_
#define KOVRAEXECUTOR_OPS_FLOAT_ADD_OP_H_

#include <string>
#include <vector>

#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_grad_kernels.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The record of both float additions: "ActionType" and the fused activation
// it names, chosen once when the attributes are read.
struct FloatAddParam : BaseParam, EltwiseSizes {
  std::string action_type;
  FusedRelu act = FusedRelu::kNone;
};

typedef void (*AddKernel)(const float*, int, const float*, int, float*, FusedRelu);
typedef void (*AddGradKernel)(const float*, const float*, int, int, FusedRelu, float*, float*);

// The two float additions differ only in how b pairs with a and in their
// kernels; both fuse "Relu"/"Relu6" named by "ActionType" and have a gradient.
// `Op` supplies, besides what FloatBinaryOpExecutor asks, kForward and kBackward.
template <typename Op, typename Param>
class FloatAddOpExecutor : public FloatBinaryOpExecutor<Op, Param> {
 public:
  void parse_parameter(const NodeDef& node_def) override {
    Param& p = this->op_param_;
    read_string(node_def, "ActionType", p.action_type);
    p.act = fused_relu_kind(p.action_type);
  }

  void compute(const float* a, int n, const float* b, int nb, float* out) const {
    Op::kForward(a, n, b, nb, out, this->op_param_.act);
  }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    const int n = output->size();
    this->_check_operands(inputs, n);
    float* grads[2];
    prepare_input_grads(inputs, output_grad, n, input_grads, 2, grads, Op::kName);
    Op::kBackward(output->data<float>(), output_grad->data<float>(), n, inputs[1]->size(),
                  this->op_param_.act, grads[0], grads[1]);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_ADD_OP_H_
