#include "ops/float/float_add_op.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40AddParam : BaseParam {
  std::string action_type;
};

// a + b[i mod count(b)] (a per-channel bias, or one value for all), then the fused activation.
class Z40AddOpExecutor : public FloatAddOpExecutor<Z40AddParam> {
 public:
  Z40AddOpExecutor()
      : FloatAddOpExecutor("Z40Add", "FloatZ40Add", Pairing::kCyclic, add_cpu, add_backward_cpu) {}
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Add)
