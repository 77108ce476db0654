#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MishParam : BaseParam {};

// x * tanh(softplus(x)), the tanh replaced by its rational stand-in.
class Z40MishOpExecutor : public FloatUnaryOpExecutor<Z40MishParam> {
 public:
  Z40MishOpExecutor() : FloatUnaryOpExecutor("Z40Mish", "FloatZ40Mish") {}

 protected:
  void _compute(const float* in, float* out, int n) const override { mish_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Mish)
