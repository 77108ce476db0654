#include <vector>

#include "common.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40FocusParam : BaseParam, PreparedShapes {};

class Z40FocusOpExecutor : public ParamOpExecutor<Z40FocusParam> {
 public:
  static constexpr const char* kName = "Z40Focus";

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    op_param_.out_shape = _output_shape(inputs);
    op_param_.in_shape = inputs[0]->shape();
    shape = op_param_.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, op_param_))) _refuse(inputs, output);
    if (output->size() < 1) return true;
    focus_f32(inputs[0]->data<float>(), output->mutable_data<float>(), op_param_.in_shape);
    return true;
  }

 private:
  static std::vector<int> _output_shape(const std::vector<const Tensor*>& inputs) {
    check_input_count(inputs, 1, kName);
    check_input_not_scalar(inputs[0], "FloatZ40Focus");
    check_rank(inputs[0], 4, kName);
    const std::vector<int>& s = inputs[0]->shape();
    // Four times the channels of a tensor whose element count is an int still fits
    // unless H or W is below 2, which the empty-dimension check reports.
    const int channels = s[1] >= 2 && s[2] >= 2 ? 4 * s[3] : 0;
    std::vector<int> out = {s[0], s[1] >> 1, s[2] >> 1, channels};
    check_positive_dims(out, "output", kName);
    return out;
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    refuse_unprepared(inputs, output, _output_shape(inputs), op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Focus)
