#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40TanhParam : BaseParam {};

// tanh as 2 / (exp(-2x) + 1) - 1.
class Z40TanhOpExecutor : public FloatUnaryOpExecutor<Z40TanhParam> {
 public:
  Z40TanhOpExecutor() : FloatUnaryOpExecutor("Z40Tanh", "FloatZ40Tanh") {}

 protected:
  void _compute(const float* in, float* out, int n) const override { tanh_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Tanh)
