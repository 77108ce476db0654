#include <vector>

#include "ops/int8/int8_common.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40LeakyReluInt8Param : BaseParam {};

// The int8 leaky ReLU leaves its codes unchanged.
class Z40LeakyReluInt8OpExecutor : public OpExecutor {
 public:
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, "Z40LeakyReluInt8");
    shape = input->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    copy_codes(first_input(inputs, "Z40LeakyReluInt8"), output, "Z40LeakyReluInt8");
    return true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40LeakyReluInt8)
