#include <string>

#include "common.h"
#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseMulParam : BaseParam {};

// a * b, b repeating cyclically, so a per-channel b of C values scales each channel.
class Z40EltwiseMulOpExecutor : public FloatBinaryOpExecutor<Z40EltwiseMulParam> {
 public:
  Z40EltwiseMulOpExecutor()
      : FloatBinaryOpExecutor("Z40EltwiseMul", "FloatZ40EltwiseMul", Pairing::kCyclic) {}

 protected:
  // Exactly two inputs; the message names the int8 operator it was copied from.
  void _check_inputs(const std::vector<const Tensor*>& inputs) const override {
    if (inputs.size() != 2) {
      fatal("Unspport input size :" + std::to_string(inputs.size()) + "in Z40EltwiseMulInt8.");
    }
    _check_float_inputs(inputs, 2);
  }
  void _compute(const float* a, int n, const float* b, int nb, float* out) const override {
    mul_cyclic_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseMul)
