#include <vector>

#include "ops/int8/int8_common.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40CloneInt8Param : BaseParam {};

// A second reference to a 4-D activation: the codes unchanged.
class Z40CloneInt8OpExecutor : public OpExecutor {
 public:
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, "Z40CloneInt8");
    check_rank_4(input, "Wrong input shape in Z40CloneInt8!!!");
    shape = input->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    copy_codes(first_input(inputs, "Z40CloneInt8"), output, "Z40CloneInt8");
    return true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40CloneInt8)
