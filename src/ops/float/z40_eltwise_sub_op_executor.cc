#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseSubParam : BaseParam {};

// a - b, with b a single value or one value per element of a.
// Its rank message names the int8 operator, as it always has.
class Z40EltwiseSubOpExecutor : public FloatBinaryOpExecutor<Z40EltwiseSubParam> {
 public:
  Z40EltwiseSubOpExecutor()
      : FloatBinaryOpExecutor("Z40EltwiseSub", "Z40EltwiseSubInt8", Pairing::kScalarOrSame) {}

 protected:
  void _compute(const float* a, int n, const float* b, int nb, float* out) const override {
    eltwise_sub_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseSub)
