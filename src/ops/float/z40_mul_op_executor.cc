#include <cstring>
#include <string>
#include <vector>

#include "ops/float/float_eltwise.h"
#include "tensor_operators.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MulParam : BaseParam {};

// a * b with the tensor product operator and its broadcasting (pairing by
// flat position within the aligned block). The output keeps a's shape, so the
// broadcast result must hold exactly a's element count.
class Z40MulOpExecutor : public FloatEltwiseOpExecutor<Z40MulParam> {
 public:
  Z40MulOpExecutor() : FloatEltwiseOpExecutor("Z40Mul", "FloatZ40Mul") {}

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    _check_float_inputs(inputs, 2);
    const Tensor product = *inputs[0] * *inputs[1];
    KOVRA_ENSURE_MSG(product.size() == output->size(), "product.size() == output->size()",
                     std::string(name_) + ": the product has " + std::to_string(product.size()) +
                         " elements but the output holds " + std::to_string(output->size()));
    if (product.size() > 0) {
      std::memcpy(output->mutable_data<float>(), product.data<float>(),
                  static_cast<size_t>(product.size()) * sizeof(float));
    }
    return true;
  }

  // Each operand's gradient is the incoming gradient times the other operand,
  // element by element of the product (not summed over broadcast positions).
  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output,
                const Tensor* output_grad, std::vector<Tensor*>& input_grads) override {
    _check_float_inputs(inputs, 2);
    const int n = output->size();
    float* grads[2];
    prepare_input_grads(inputs, output_grad, n, input_grads, 2, grads, name_);
    for (int k = 0; k < 2; ++k) {
      if (grads[k] == nullptr) continue;
      const Tensor grad = *output_grad * *inputs[1 - k];
      *input_grads[k] = grad;
    }
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Mul)
