#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SoftplusParam : BaseParam, EltwiseSizes {};

// log(exp(x) + 1).
class Z40SoftplusOpExecutor : public FloatUnaryOpExecutor<Z40SoftplusOpExecutor, Z40SoftplusParam> {
 public:
  static constexpr const char* kName = "Z40Softplus";
  static constexpr const char* kLabel = "FloatZ40Softplus";

  void compute(const float* in, float* out, int n) const { softplus_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Softplus)
