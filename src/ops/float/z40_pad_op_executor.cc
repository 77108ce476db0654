#include <string>
#include <vector>

#include "checked_size.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40PadParam : BaseParam {
  std::vector<int> output_shape;
  std::vector<int> pads;
  std::string mode = "constant";
  bool constant_mode = true;
  // Prepared by inference_shape for the input shape it was given.
  std::vector<int> in_shape;
  std::vector<int> before;
};

// "pads" pairs (before, after) per axis as TensorFlow's paddings do: eight
// values for [N, H, W, C], or four for H and W alone (top, bottom, left,
// right, as the pooling operators read them). Padded cells are 0.
class Z40PadOpExecutor : public ParamOpExecutor<Z40PadParam> {
 public:
  static constexpr const char* kName = "Z40Pad";

  void parse_parameter(const NodeDef& node) override {
    require_int_list(node, "output_shape", op_param_.output_shape,
                     "Do not find the strides in FloatZ40Pad!!!");
    read_int_list(node, "pads", op_param_.pads);
    read_string(node, "mode", op_param_.mode);
    op_param_.constant_mode = op_param_.mode == "constant";
  }

  int max_inputs() const override { return 1; }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    KOVRA_ENSURE_MSG(op_param_.constant_mode, "op_param_->mode == \"constant\"",
                     "The mode only support constant in FloatZ40Pad!!!");
    check_input_count(inputs, 1, kName);
    const Tensor* input = inputs[0];
    KOVRA_ENSURE_MSG(input->dims() == 4, "input_tensor->shape().size() == 4",
                     "The shape of input only support 4D or 5D in FloatZ40Pad!!!");
    check_float(input, kName);
    const std::vector<int>& pads = op_param_.pads;
    KOVRA_ENSURE_MSG(
        pads.empty() || pads.size() == 4 || pads.size() == 8, "pads.size() is 0, 4 or 8",
        "Z40Pad: pads " + shape_text(pads) + " must pair (before, after) for H, W or for all four axes");
    std::vector<int> before(4, 0), after(4, 0);
    const int first_axis = pads.size() == 4 ? 1 : 0;
    for (size_t i = 0; i + 1 < pads.size(); i += 2) {
      before[first_axis + i / 2] = pads[i];
      after[first_axis + i / 2] = pads[i + 1];
    }
    std::vector<int> padded(4);
    bool ok = true;
    for (int a = 0; a < 4; ++a) {
      ok = ok && before[a] >= 0 && after[a] >= 0;
      if (ok) padded[a] = padded_size(input->shape()[a], before[a], after[a], kName);
    }
    KOVRA_ENSURE_MSG(ok && padded == op_param_.output_shape, "output_shape == input shape + pads",
                     "Z40Pad: input " + shape_text(input->shape()) + " padded by " + shape_text(pads) +
                         " does not give output_shape " + shape_text(op_param_.output_shape));
    op_param_.in_shape = input->shape();
    op_param_.before = before;
    shape = op_param_.output_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    KOVRA_ENSURE_MSG(op_param_.constant_mode, "op_param_->mode == \"constant\"",
                     "The model only support constant in FloatZ40Pad!!!");
    check_input_count(inputs, 1, kName);
    const Tensor* input = inputs[0];
    KOVRA_ENSURE_MSG(!op_param_.in_shape.empty() && input->shape() == op_param_.in_shape,
                     "input->shape() == prepared input shape",
                     "Z40Pad: input " + shape_text(input->shape()) + " differs from the input " +
                         shape_text(op_param_.in_shape) + " that inference_shape prepared for");
    check_float(input, kName);
    check_output_shape(output, op_param_.output_shape, kName);
    if (input->size() < 1) return true;
    pad_constant_f32(input->data<float>(), input->shape(), op_param_.before, 0.0f,
                     output->mutable_data<float>(), op_param_.output_shape);
    return true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Pad)
