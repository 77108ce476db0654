#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MishParam : BaseParam, EltwiseSizes {};

// x * tanh(softplus(x)), the tanh replaced by its rational stand-in.
class Z40MishOpExecutor : public FloatUnaryOpExecutor<Z40MishOpExecutor, Z40MishParam> {
 public:
  static constexpr const char* kName = "Z40Mish";
  static constexpr const char* kLabel = "FloatZ40Mish";

  void compute(const float* in, float* out, int n) const { mish_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Mish)
