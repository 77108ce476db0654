#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40Relu6Param : BaseParam, EltwiseSizes {};

// min(max(x, 0), 6).
class Z40Relu6OpExecutor : public FloatUnaryOpExecutor<Z40Relu6OpExecutor, Z40Relu6Param> {
 public:
  static constexpr const char* kName = "Z40Relu6";
  static constexpr const char* kLabel = "FloatZ40Relu6";

  void compute(const float* in, float* out, int n) const { relu6_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Relu6)
