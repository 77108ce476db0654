#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SoftsignParam : BaseParam {};

// x / (1 + |x|).
class Z40SoftsignOpExecutor : public FloatUnaryOpExecutor<Z40SoftsignParam> {
 public:
  Z40SoftsignOpExecutor() : FloatUnaryOpExecutor("Z40Softsign", "FloatZ40Softsign") {}

 protected:
  void _compute(const float* in, float* out, int n) const override { softsign_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Softsign)
