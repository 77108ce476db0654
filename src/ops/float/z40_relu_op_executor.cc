#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ReluParam : BaseParam, EltwiseSizes {};

// max(x, 0).
class Z40ReluOpExecutor : public FloatUnaryOpExecutor<Z40ReluOpExecutor, Z40ReluParam> {
 public:
  static constexpr const char* kName = "Z40Relu";
  static constexpr const char* kLabel = "FloatZ40Relu";

  void compute(const float* in, float* out, int n) const { relu_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Relu)
