#include <string>
#include <vector>

#include "checked_size.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40PadInt8Param : BaseParam {
  std::vector<int> output_shape;  // optional; when given, the padded shape must be it
  std::vector<int> pads;
  float pad_value = 0.0f;
  std::string mode = "constant";
  // Prepared by inference_shape for the input shape it was given.
  std::vector<int> in_shape;
  std::vector<int> out_shape;
  long long out_count = 0;
  std::vector<int> before;
};

// Constant padding of 4-D or 5-D codes with "padValue". "pads" is read as the
// float "Z40Pad" reads it, so both runs of one model shift the image alike:
// (before, after) pairs per axis, or on a 4-D input four values for H and W
// alone (top, bottom, left, right).
class Z40PadInt8OpExecutor : public ParamOpExecutor<Z40PadInt8Param> {
 public:
  static constexpr const char* kName = "Z40PadInt8";

  void parse_parameter(const NodeDef& node) override {
    read_int_list(node, "output_shape", op_param_.output_shape);
    require_int_list(node, "pads", op_param_.pads, missing_message("pads", kName));
    int pad_value = 0;
    read_int(node, "padValue", pad_value);
    op_param_.pad_value = static_cast<float>(pad_value);
    read_string(node, "mode", op_param_.mode);
    KOVRA_ENSURE_MSG(op_param_.mode == "constant", "op_param_->mode == \"constant\"",
                     "The mode only support constant in Z40PadInt8!!!");
  }

  int max_inputs() const override { return 1; }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, kName);
    const int rank = input->dims();
    KOVRA_ENSURE_MSG(rank == 4 || rank == 5,
                     "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
                     "The shape of input only support 4D or 5D in Z40PadInt8!!!");
    // Only non-negative amounts in one of the pair layouts make a constant
    // pad; anything else (cropping, other layouts) the model cannot ask for.
    const std::vector<int>& pads = op_param_.pads;
    const bool hw_only = rank == 4 && pads.size() == 4;
    bool constant = pads.empty() || hw_only || static_cast<int>(pads.size()) == 2 * rank;
    for (size_t i = 0; constant && i < pads.size(); ++i) constant = pads[i] >= 0;
    KOVRA_ENSURE_MSG(constant, "op_param_->pads.size() == 2 * rank",
                     "The model only support constant in Z40PadInt8!!!");
    std::vector<int> before(rank, 0);
    std::vector<int> padded = input->shape();
    const int first_axis = hw_only ? 1 : 0;
    for (size_t i = 0; i + 1 < pads.size(); i += 2) {
      const int axis = first_axis + static_cast<int>(i / 2);
      before[axis] = pads[i];
      padded[axis] = padded_size(padded[axis], pads[i], pads[i + 1], kName);
    }
    KOVRA_ENSURE_MSG(op_param_.output_shape.empty() || padded == op_param_.output_shape,
                     "output_shape == input shape + pads",
                     std::string(kName) + ": input " + shape_text(input->shape()) + " padded by " +
                         shape_text(pads) + " does not give output_shape " +
                         shape_text(op_param_.output_shape));
    op_param_.in_shape = input->shape();
    op_param_.out_shape = padded;
    op_param_.out_count = checked_count(padded, kName);
    op_param_.before = before;
    shape = padded;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Tensor* input = first_input(inputs, kName);
    KOVRA_ENSURE_MSG(!op_param_.in_shape.empty() && input->shape() == op_param_.in_shape,
                     "input->shape() == prepared input shape",
                     std::string(kName) + ": input " + shape_text(input->shape()) +
                         " differs from the input " + shape_text(op_param_.in_shape) +
                         " that inference_shape prepared for");
    check_float(input, kName);
    check_min_size(output, op_param_.out_count, kName);
    pad_constant_f32(input->data<float>(), input->shape(), op_param_.before, op_param_.pad_value,
                     output->mutable_data<float>(), op_param_.out_shape);
    return true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40PadInt8)
