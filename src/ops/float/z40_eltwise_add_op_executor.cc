#include "ops/float/float_add_op.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseAddParam : BaseParam {
  std::string action_type;
};

// a + b with b a single value or one per element of a, then the fused activation.
class Z40EltwiseAddOpExecutor : public FloatAddOpExecutor<Z40EltwiseAddParam> {
 public:
  Z40EltwiseAddOpExecutor()
      : FloatAddOpExecutor("Z40EltwiseAdd", "FloatZ40EltwiseAdd", Pairing::kScalarOrSame, eltwise_add_cpu,
                           eltwise_add_backward_cpu) {}
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseAdd)
