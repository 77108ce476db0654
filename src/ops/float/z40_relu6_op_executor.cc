#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40Relu6Param : BaseParam {};

// min(max(x, 0), 6).
class Z40Relu6OpExecutor : public FloatUnaryOpExecutor<Z40Relu6Param> {
 public:
  Z40Relu6OpExecutor() : FloatUnaryOpExecutor("Z40Relu6", "FloatZ40Relu6") {}

 protected:
  void _compute(const float* in, float* out, int n) const override { relu6_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Relu6)
