#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SeluParam : BaseParam {};

// Scaled exponential linear unit with the fixed self-normalising constants.
class Z40SeluOpExecutor : public FloatUnaryOpExecutor<Z40SeluParam> {
 public:
  Z40SeluOpExecutor() : FloatUnaryOpExecutor("Z40Selu", "FloatZ40Selu") {}

 protected:
  void _compute(const float* in, float* out, int n) const override { selu_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Selu)
