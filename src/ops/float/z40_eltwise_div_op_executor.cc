#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseDivParam : BaseParam {};

// a / b on 4-D tensors, with b a single value or one value per element of a.
class Z40EltwiseDivOpExecutor : public FloatBinaryOpExecutor<Z40EltwiseDivParam> {
 public:
  Z40EltwiseDivOpExecutor()
      : FloatBinaryOpExecutor("Z40EltwiseDiv", "FloatZ40EltwiseDiv", Pairing::kScalarOrSame) {}

 protected:
  void _check_rank(const Tensor* input_tensor) const override {
    check_rank4(input_tensor, "Wrong input shape in FloatZ40EltwiseDiv.");
  }
  void _compute(const float* a, int n, const float* b, int nb, float* out) const override {
    eltwise_div_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseDiv)
