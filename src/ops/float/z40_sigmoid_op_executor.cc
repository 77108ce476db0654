#include "common.h"
#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"
#include "tensor_operators.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SigmoidParam : BaseParam, EltwiseSizes {};

// 1 / (1 + expf(-x)), the tensor arithmetic's sigmoid, over the whole tensor.
class Z40SigmoidOpExecutor : public FloatUnaryOpExecutor<Z40SigmoidOpExecutor, Z40SigmoidParam> {
 public:
  static constexpr const char* kName = "Z40Sigmoid";
  static constexpr const char* kLabel = "FloatZ40Sigmoid";

  void compute(const float* in, float* out, int n) const { sigmoid_f32(in, out, n); }

  // d/dx sigmoid(x) = s * (1 - s), applied to the incoming gradient with the
  // tensor operators.
  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    check_inputs(inputs);
    const int n = output->size();
    check_min_size(inputs[0], n, kName);
    float* grads[1];
    prepare_input_grads(inputs, output_grad, n, input_grads, 1, grads, kName);
    if (grads[0] == nullptr || n < 1) return;
    KOVRA_ENSURE_MSG(output_grad->size() == n, "output_grad->size() == output->size()",
                     std::string(kName) + ": the gradient has " + std::to_string(output_grad->size()) +
                         " elements but the output " + std::to_string(n));
    const Tensor s = inputs[0]->sigmoid();
    *input_grads[0] = *output_grad * (s * (1.0f - s));
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Sigmoid)
