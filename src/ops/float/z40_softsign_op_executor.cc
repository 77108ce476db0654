#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SoftsignParam : BaseParam, EltwiseSizes {};

// x / (1 + |x|).
class Z40SoftsignOpExecutor : public FloatUnaryOpExecutor<Z40SoftsignOpExecutor, Z40SoftsignParam> {
 public:
  static constexpr const char* kName = "Z40Softsign";
  static constexpr const char* kLabel = "FloatZ40Softsign";

  void compute(const float* in, float* out, int n) const { softsign_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Softsign)
