#include <memory>

#include "op_executor.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/layout_kernels.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ConcatParam : BaseParam {};

// Joins every input (weights included) along the channel axis, the last one.
class Z40ConcatOpExecutor : public ParamOpExecutor<Z40ConcatParam> {
 public:
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    shape = _joined_shape(inputs);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const std::vector<int> output_shape = _joined_shape(inputs);
    KOVRA_ENSURE_MSG(output_shape.size() > 3, "output_shape.size() > 3", "Wrong output shape in concat.");
    check_output_shape(output, output_shape, "Z40Concat");
    if (output->size() < 1) return true;
    std::vector<const float*> data;
    std::vector<int> axis_sizes;
    for (const Tensor* input : inputs) {
      data.push_back(input->data<float>());
      axis_sizes.push_back(input->shape().back());
    }
    concat_f32(data, axis_sizes, output->mutable_data<float>(), output_shape,
               static_cast<int>(output_shape.size()) - 1);
    return true;
  }

 private:
  static std::vector<int> _joined_shape(const std::vector<const Tensor*>& inputs) {
    KOVRA_ENSURE_MSG(inputs.size() > 1, "inputs.size() > 1",
                     "Z40Concat operator inputs must greater than 1.");
    const std::vector<int>& first = inputs[0]->shape();
    KOVRA_ENSURE_MSG(!first.empty(), "input_tensor->shape().size() > 0",
                     "The shape of input is 0 in FloatZ40Concat!!!");
    std::vector<int> joined = first;
    long long channels = 0;
    for (const Tensor* input : inputs) {
      check_float(input, "Z40Concat");
      const std::vector<int>& shape = input->shape();
      bool match = shape.size() == first.size();
      for (size_t a = 0; match && a + 1 < shape.size(); ++a) match = shape[a] == first[a];
      KOVRA_ENSURE_MSG(match, "inputs agree on every axis but the last",
                       "Z40Concat cannot join " + input->name() + " " + shape_text(shape) + " to " +
                           inputs[0]->name() + " " + shape_text(first));
      channels += shape.back();
    }
    KOVRA_ENSURE_MSG(channels <= 0x7fffffffLL, "joined channels fit in int",
                     "Z40Concat: the inputs join to " + std::to_string(channels) + " channels");
    joined.back() = static_cast<int>(channels);
    return joined;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Concat)
