#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SoftplusParam : BaseParam {};

// log(exp(x) + 1).
class Z40SoftplusOpExecutor : public FloatUnaryOpExecutor<Z40SoftplusParam> {
 public:
  Z40SoftplusOpExecutor() : FloatUnaryOpExecutor("Z40Softplus", "FloatZ40Softplus") {}

 protected:
  void _compute(const float* in, float* out, int n) const override { softplus_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Softplus)
