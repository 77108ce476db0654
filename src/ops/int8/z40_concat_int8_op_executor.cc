#include <string>
#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/layout_kernels.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ConcatInt8Param : BaseParam {
  int axis = 3;
  int input_bitwidth = 8;
  int output_bitwidth = 8;
  int max_value = 0;
  int min_value = 0;
  int offset = 0;
  int input_offset = 0;
  std::vector<float> qscale;    // one per input
  std::vector<float> deqscale;  // one per input
};

// Concatenation of codes with different scales: input k is brought to the
// output scale, q = clamp(round((input_offset + x) * DEQSCALE[k] * QSCALE[k]),
// minValue, maxValue) + offset, then the inputs are joined along "axis".
class Z40ConcatInt8OpExecutor : public ParamOpExecutor<Z40ConcatInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    Z40ConcatInt8Param& p = op_param_;
    read_int(node, "axis", p.axis);
    read_int(node, "input_bitwidth", p.input_bitwidth);
    read_int(node, "output_bitwidth", p.output_bitwidth);
    require_int(node, "maxValue", p.max_value, missing_message("maxValue", kName));
    require_int(node, "minValue", p.min_value, missing_message("minValue", kName));
    require_int(node, "offset", p.offset, missing_message("offset", kName));
    require_int(node, "input_offset", p.input_offset, missing_message("input_offset", kName));
    require_float_list(node, "QSCALE", p.qscale, missing_message("QSCALE", kName));
    require_float_list(node, "DEQSCALE", p.deqscale, missing_message("DEQSCALE", kName));
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    int axis = 0;
    shape = output_shape(inputs, &axis);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    int axis = 0;
    const std::vector<int> out_shape = output_shape(inputs, &axis);
    KOVRA_ENSURE_MSG(out_shape.size() > 3, "output_shape.size() > 3", "Wrong output shape in concat.");
    check_attr_size(op_param_.qscale.size(), inputs.size(), "QSCALE", kName);
    check_attr_size(op_param_.deqscale.size(), inputs.size(), "DEQSCALE", kName);
    long long total = 0;
    for (const Tensor* t : inputs) {
      check_float(t, kName);
      total += t->size();
    }
    check_min_size(output, total, kName);

    const float in_off = static_cast<float>(op_param_.input_offset);
    const float lo = static_cast<float>(op_param_.min_value);
    const float hi = static_cast<float>(op_param_.max_value);
    const float offset = static_cast<float>(op_param_.offset);
    std::vector<std::vector<float>> requantized(inputs.size());
    std::vector<const float*> parts;
    std::vector<int> axis_sizes;
    for (size_t k = 0; k < inputs.size(); ++k) {
      const float* x = inputs[k]->data<float>();
      std::vector<float>& r = requantized[k];
      r.resize(inputs[k]->size());
      for (size_t i = 0; i < r.size(); ++i) {
        const float q =
            kvdl::tensorflow_round_cpu((in_off + x[i]) * op_param_.deqscale[k] * op_param_.qscale[k]);
        r[i] = clamp_then_offset(q, lo, hi, offset);
      }
      parts.push_back(r.data());
      axis_sizes.push_back(inputs[k]->shape()[axis]);
    }
    concat_f32(parts, axis_sizes, output->mutable_data<float>(), out_shape, axis);
    return true;
  }

 private:
  // Every input has the first one's rank and sizes except along the axis.
  std::vector<int> output_shape(const std::vector<const Tensor*>& inputs, int* axis_out) const {
    KOVRA_ENSURE_MSG(inputs.size() > 1, "inputs.size() > 1",
                     "Z40ConcatInt8 operator inputs must greater than 1.");
    check_input_not_scalar(inputs[0], kName);
    std::vector<int> shape = inputs[0]->shape();
    const int rank = static_cast<int>(shape.size());
    const int axis = op_param_.axis < 0 ? op_param_.axis + rank : op_param_.axis;
    KOVRA_ENSURE_MSG(axis >= 0 && axis < rank, "0 <= axis < rank",
                     std::string(kName) + ": axis " + std::to_string(op_param_.axis) + " for rank " +
                         std::to_string(rank));
    for (size_t k = 1; k < inputs.size(); ++k) {
      const std::vector<int>& s = inputs[k]->shape();
      bool match = static_cast<int>(s.size()) == rank;
      for (int d = 0; match && d < rank; ++d) match = d == axis || s[d] == shape[d];
      KOVRA_ENSURE_MSG(match, "inputs agree off the axis",
                       std::string(kName) + ": input " + std::to_string(k) +
                           " differs from input 0 off the concatenation axis");
      shape[axis] += s[axis];
    }
    *axis_out = axis;
    return shape;
  }

  static constexpr const char* kName = "Z40ConcatInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ConcatInt8)
