#include "common.h"
#include "ops/float/float_pool_params.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40AvgPoolParam : FloatPoolParam {};

class Z40AvgPoolOpExecutor : public FloatPoolOpExecutor<Z40AvgPoolOpExecutor, Z40AvgPoolParam> {
 public:
  static constexpr const char* kName = "Z40AvgPool";
  static constexpr const char* kKsizeMessage = "Do not find the ksize in FloatZ40AvgPool!!!";
  static constexpr void (*kKernel)(const float*, float*, const PoolGeometry&) = avg_pool_f32;

  static void check_input(const Tensor* input) {
    KOVRA_ENSURE_MSG(input->dims() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input shape in z40_avg_pool.");
    check_float(input, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40AvgPool)
