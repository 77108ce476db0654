#ifndef KOVRAEXECUTOR_OPS_FLOAT_ADD_OP_H_
#define KOVRAEXECUTOR_OPS_FLOAT_ADD_OP_H_

#include <string>
#include <vector>

#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_grad_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The two float additions differ only in how b pairs with a and in their
// kernels; both fuse "Relu"/"Relu6" named by "ActionType" and have a gradient.
// Param needs a string field `action_type`.
template <typename Param>
class FloatAddOpExecutor : public FloatBinaryOpExecutor<Param> {
 public:
  typedef void (*Forward)(const float*, int, const float*, int, float*, FusedRelu);
  typedef void (*Backward)(const float*, const float*, int, int, FusedRelu, float*, float*);

  FloatAddOpExecutor(const char* name, const char* label, Pairing pairing, Forward forward, Backward backward)
      : FloatBinaryOpExecutor<Param>(name, label, pairing), forward_(forward), backward_(backward) {}

  void parse_parameter(const NodeDef& node_def) override {
    read_string(node_def, "ActionType", this->op_param_.action_type);
  }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output,
                const Tensor* output_grad, std::vector<Tensor*>& input_grads) override {
    const int n = output->size();
    this->_check_operands(inputs, n);
    float* grads[2];
    prepare_input_grads(inputs, output_grad, n, input_grads, 2, grads, this->name_);
    backward_(output->data<float>(), output_grad->data<float>(), n, inputs[1]->size(),
              fused_relu_kind(this->op_param_.action_type), grads[0], grads[1]);
  }

 protected:
  void _compute(const float* a, int n, const float* b, int nb, float* out) const override {
    forward_(a, n, b, nb, out, fused_relu_kind(this->op_param_.action_type));
  }

 private:
  const Forward forward_;
  const Backward backward_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_ADD_OP_H_
