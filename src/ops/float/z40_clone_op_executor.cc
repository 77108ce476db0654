#include <cstring>
#include <vector>

#include "common.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40CloneParam : BaseParam, PreparedShapes {};

class Z40CloneOpExecutor : public ParamOpExecutor<Z40CloneParam> {
 public:
  static constexpr const char* kName = "Z40Clone";

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    _check(inputs);
    op_param_.in_shape = op_param_.out_shape = inputs[0]->shape();
    shape = op_param_.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, op_param_))) _refuse(inputs, output);
    const int n = inputs[0]->size();
    if (n < 1) return true;
    std::memcpy(output->mutable_data<float>(), inputs[0]->data<float>(), sizeof(float) * n);
    return true;
  }

 private:
  static void _check(const std::vector<const Tensor*>& inputs) {
    check_input_count(inputs, 1, kName);
    KOVRA_ENSURE_MSG(inputs[0]->dims() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input shape in FloatZ40Clone!!!");
    check_float(inputs[0], kName);
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    _check(inputs);
    refuse_unprepared(inputs, output, inputs[0]->shape(), op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Clone)
