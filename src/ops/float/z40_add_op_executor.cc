#include "ops/float/float_add_op.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40AddParam : FloatAddParam {};

// a + b[i mod count(b)] (a per-channel bias, or one value for all), then the fused activation.
class Z40AddOpExecutor : public FloatAddOpExecutor<Z40AddOpExecutor, Z40AddParam> {
 public:
  static constexpr const char* kName = "Z40Add";
  static constexpr const char* kLabel = "FloatZ40Add";
  static constexpr Pairing kPairing = Pairing::kCyclic;
  static constexpr AddKernel kForward = add_cpu;
  static constexpr AddGradKernel kBackward = add_backward_cpu;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Add)
