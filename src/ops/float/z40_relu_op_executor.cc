#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ReluParam : BaseParam {};

// max(x, 0).
class Z40ReluOpExecutor : public FloatUnaryOpExecutor<Z40ReluParam> {
 public:
  Z40ReluOpExecutor() : FloatUnaryOpExecutor("Z40Relu", "FloatZ40Relu") {}

 protected:
  void _compute(const float* in, float* out, int n) const override { relu_f32(in, out, n); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Relu)
