#include <cstring>
#include <memory>

#include "op_executor.h"
#include "ops/float/float_shape_checks.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40CloneParam : BaseParam {};

class Z40CloneOpExecutor : public ParamOpExecutor<Z40CloneParam> {
 public:
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    _check(inputs);
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    _check(inputs);
    check_output_shape(output, inputs[0]->shape(), "Z40Clone");
    if (inputs[0]->size() < 1) return true;
    std::memcpy(output->mutable_data<float>(), inputs[0]->data<float>(),
                sizeof(float) * inputs[0]->size());
    return true;
  }

 private:
  void _check(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, "Z40Clone");
    KOVRA_ENSURE_MSG(inputs[0]->dims() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input shape in FloatZ40Clone!!!");
    check_float(inputs[0], "Z40Clone");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Clone)
