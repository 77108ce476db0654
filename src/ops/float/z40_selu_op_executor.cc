#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SeluParam : BaseParam, EltwiseSizes {};

// Scaled exponential linear unit with the fixed self-normalising constants.
class Z40SeluOpExecutor : public FloatUnaryOpExecutor<Z40SeluOpExecutor, Z40SeluParam> {
 public:
  static constexpr const char* kName = "Z40Selu";
  static constexpr const char* kLabel = "FloatZ40Selu";

  void compute(const float* in, float* out, int n) const { selu_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Selu)
