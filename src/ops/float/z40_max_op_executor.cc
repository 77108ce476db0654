#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_grad_kernels.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MaxParam : BaseParam {};

// Element-wise maximum of two 4-D tensors over the output's element count.
class Z40MaxOpExecutor : public FloatBinaryOpExecutor<Z40MaxParam> {
 public:
  Z40MaxOpExecutor() : FloatBinaryOpExecutor("Z40Max", "FloatZ40Max", Pairing::kSame) {}

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output,
                const Tensor* output_grad, std::vector<Tensor*>& input_grads) override {
    const int n = output->size();
    _check_operands(inputs, n);
    float* grads[2];
    prepare_input_grads(inputs, output_grad, n, input_grads, 2, grads, name_);
    max_backward_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(),
                     output_grad->data<float>(), n, inputs[1]->size(), grads[0], grads[1]);
  }

 protected:
  void _check_rank(const Tensor* input_tensor) const override {
    check_rank4(input_tensor, "Wrong input shape in FloatZ40Max.");
  }
  void _compute(const float* a, int n, const float* b, int, float* out) const override {
    max_f32(a, n, b, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Max)
