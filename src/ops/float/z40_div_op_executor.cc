#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40DivParam : BaseParam {};

// a / b on 4-D tensors, b repeating cyclically (one value per channel, or one in all).
class Z40DivOpExecutor : public FloatBinaryOpExecutor<Z40DivParam> {
 public:
  Z40DivOpExecutor() : FloatBinaryOpExecutor("Z40Div", "FloatZ40Div", Pairing::kCyclic) {}

 protected:
  void _check_rank(const Tensor* input_tensor) const override {
    check_rank4(input_tensor, "Wrong input shape in FloatZ40Div.");
  }
  void _compute(const float* a, int n, const float* b, int nb, float* out) const override {
    div_cyclic_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Div)
