#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_grad_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40PReluParam : BaseParam {};

// x >= 0 ? x : x * slope[c], one slope per channel (the last dimension of a
// 4-D tensor); the slopes are the second input.
class Z40PReluOpExecutor : public FloatEltwiseOpExecutor<Z40PReluParam> {
 public:
  Z40PReluOpExecutor() : FloatEltwiseOpExecutor("Z40PRelu", "FloatZ40PRelu") {}

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const int channels = _check(inputs, output);
    const int n = output->size();
    if (n < 1) return true;
    prelu_f32(inputs[0]->data<float>(), output->mutable_data<float>(), n,
              inputs[1]->data<float>(), channels);
    return true;
  }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output,
                const Tensor* output_grad, std::vector<Tensor*>& input_grads) override;

 private:
  // Validates inputs and slopes once and returns the channel count.
  int _check(const std::vector<const Tensor*>& inputs, const Tensor* output) const {
    _check_float_inputs(inputs, 2);
    KOVRA_ENSURE_MSG(output->shape().size() == 4, "output->shape().size() == 4",
                     "Wrong input shape in FloatZ40PRelu.");
    check_min_size(inputs[0], output->size(), name_);
    const int channels = output->shape()[3];
    if (output->size() > 0) check_min_size(inputs[1], channels, name_);
    return channels;
  }
};

void Z40PReluOpExecutor::backward(const std::vector<const Tensor*>& inputs, const Tensor* output,
                                  const Tensor* output_grad, std::vector<Tensor*>& input_grads) {
  const int channels = _check(inputs, output);
  const int n = output->size();
  float* grads[2];
  prepare_input_grads(inputs, output_grad, n, input_grads, 2, grads, name_);
  prelu_backward_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(),
                     output_grad->data<float>(), n, channels, grads[0], grads[1],
                     inputs[1]->size());
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40PRelu)
