#include "op_attr.h"
#include "ops/float/float_pool_params.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MaxPoolParam : FloatPoolParam {};

class Z40MaxPoolOpExecutor : public FloatPoolOpExecutor<Z40MaxPoolOpExecutor, Z40MaxPoolParam> {
 public:
  static constexpr const char* kName = "Z40MaxPool";
  static constexpr const char* kKsizeMessage = "Do not find the ksize in FloatZ40MaxPool!!!";
  static constexpr void (*kKernel)(const float*, float*, const PoolGeometry&) = max_pool_f32;

  void parse_parameter(const NodeDef& node) override {
    FloatPoolOpExecutor::parse_parameter(node);
    read_bool(node, "ceil_mode", op_param_.ceil_mode);
  }

  static void check_input(const Tensor* input) {
    check_input_not_scalar(input, "FloatZ40MaxPool");
    check_rank(input, 4, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40MaxPool)
