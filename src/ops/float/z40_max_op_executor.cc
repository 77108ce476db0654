#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_grad_kernels.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MaxParam : BaseParam, EltwiseSizes {};

// Element-wise maximum of two 4-D tensors over the output's element count.
class Z40MaxOpExecutor : public FloatBinaryOpExecutor<Z40MaxOpExecutor, Z40MaxParam> {
 public:
  static constexpr const char* kName = "Z40Max";
  static constexpr const char* kRank4Message = "Wrong input shape in FloatZ40Max.";
  static constexpr Pairing kPairing = Pairing::kSame;

  void compute(const float* a, int n, const float* b, int, float* out) const { max_f32(a, n, b, out); }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    const int n = output->size();
    _check_operands(inputs, n);
    float* grads[2];
    prepare_input_grads(inputs, output_grad, n, input_grads, 2, grads, kName);
    max_backward_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(), output_grad->data<float>(), n,
                     inputs[1]->size(), grads[0], grads[1]);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Max)
