#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SoftmaxParam : BaseParam, EltwiseSizes {};

// Softmax over every element of the tensor at once, not along an axis.
class Z40SoftmaxOpExecutor : public FloatUnaryOpExecutor<Z40SoftmaxOpExecutor, Z40SoftmaxParam> {
 public:
  static constexpr const char* kName = "Z40Softmax";
  static constexpr const char* kLabel = "FloatZ40Softmax";

  void compute(const float* in, float* out, int n) const { softmax_whole_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Softmax)
