#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"
#include "tensor_operators.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SigmoidParam : BaseParam {};

// 1 / (1 + expf(-x)), the tensor arithmetic's sigmoid, over the whole tensor.
class Z40SigmoidOpExecutor : public FloatUnaryOpExecutor<Z40SigmoidParam> {
 public:
  Z40SigmoidOpExecutor() : FloatUnaryOpExecutor("Z40Sigmoid", "FloatZ40Sigmoid") {}

  // d/dx sigmoid(x) = s * (1 - s), applied to the incoming gradient with the
  // tensor operators.
  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output,
                const Tensor* output_grad, std::vector<Tensor*>& input_grads) override {
    _check_float_inputs(inputs, 1);
    const int n = output->size();
    check_min_size(inputs[0], n, name_);
    float* grads[1];
    prepare_input_grads(inputs, output_grad, n, input_grads, 1, grads, name_);
    if (grads[0] == nullptr || n < 1) return;
    KOVRA_ENSURE_MSG(output_grad->size() == n, "output_grad->size() == output->size()",
                     std::string(name_) + ": the gradient has " + std::to_string(output_grad->size()) +
                         " elements but the output " + std::to_string(n));
    const Tensor s = inputs[0]->sigmoid();
    *input_grads[0] = *output_grad * (s * (1.0f - s));
  }

 protected:
  void _compute(const float* in, float* out, int n) const override { sigmoid_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Sigmoid)
