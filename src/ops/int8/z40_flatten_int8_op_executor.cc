#include <vector>

#include "ops/int8/int8_common.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40FlattenInt8Param : BaseParam {};

// Flatten changes the shape only.
class Z40FlattenInt8OpExecutor : public OpExecutor {
 public:
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, "Z40FlattenInt8");
    // [N, everything else]; the codes keep their order.
    int rest = 1;
    for (size_t d = 1; d < input->shape().size(); ++d) rest *= input->shape()[d];
    shape = {input->shape()[0], rest};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    copy_codes(first_input(inputs, "Z40FlattenInt8"), output, "Z40FlattenInt8");
    return true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40FlattenInt8)
