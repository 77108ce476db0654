#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SoftmaxParam : BaseParam {};

// Softmax over every element of the tensor at once, not along an axis.
class Z40SoftmaxOpExecutor : public FloatUnaryOpExecutor<Z40SoftmaxParam> {
 public:
  Z40SoftmaxOpExecutor() : FloatUnaryOpExecutor("Z40Softmax", "FloatZ40Softmax") {}

 protected:
  void _compute(const float* in, float* out, int n) const override { softmax_whole_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Softmax)
