#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40TanhParam : BaseParam, EltwiseSizes {};

// tanh as 2 / (exp(-2x) + 1) - 1.
class Z40TanhOpExecutor : public FloatUnaryOpExecutor<Z40TanhOpExecutor, Z40TanhParam> {
 public:
  static constexpr const char* kName = "Z40Tanh";
  static constexpr const char* kLabel = "FloatZ40Tanh";

  void compute(const float* in, float* out, int n) const { tanh_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Tanh)
