#include "ops/float/float_add_op.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseAddParam : FloatAddParam {};

// a + b with b a single value or one per element of a, then the fused activation.
class Z40EltwiseAddOpExecutor : public FloatAddOpExecutor<Z40EltwiseAddOpExecutor, Z40EltwiseAddParam> {
 public:
  static constexpr const char* kName = "Z40EltwiseAdd";
  static constexpr const char* kLabel = "FloatZ40EltwiseAdd";
  static constexpr Pairing kPairing = Pairing::kScalarOrSame;
  static constexpr AddKernel kForward = eltwise_add_cpu;
  static constexpr AddGradKernel kBackward = eltwise_add_backward_cpu;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseAdd)
