#include <string>
#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

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

  // Prepared: every input's shape, and the output seen as `outer` rows in
  // which input k contributes `chunk[k]` consecutive codes.
  std::vector<std::vector<int>> input_shapes;
  std::vector<long long> chunk;
  long long outer = 0;
  long long out_count = 0;
};

// Concatenation of codes with different scales: input k is brought to the
// output scale, q = clamp(round((input_offset + x) * DEQSCALE[k] * QSCALE[k]),
// minValue, maxValue) + offset, and written straight to its place along "axis".
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

  // Every input has the first one's rank and sizes except along the axis.
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40ConcatInt8Param& p = op_param_;
    KOVRA_ENSURE_MSG(inputs.size() > 1, "inputs.size() > 1",
                     "Z40ConcatInt8 operator inputs must greater than 1.");
    check_input_not_scalar(inputs[0], kName);
    shape = inputs[0]->shape();
    const int rank = static_cast<int>(shape.size());
    const int axis = p.axis < 0 ? p.axis + rank : p.axis;
    KOVRA_ENSURE_MSG(
        axis >= 0 && axis < rank, "0 <= axis < rank",
        std::string(kName) + ": axis " + std::to_string(p.axis) + " for rank " + std::to_string(rank));
    for (size_t k = 1; k < inputs.size(); ++k) {
      const std::vector<int>& s = inputs[k]->shape();
      bool match = static_cast<int>(s.size()) == rank;
      for (int d = 0; match && d < rank; ++d) match = d == axis || s[d] == shape[d];
      KOVRA_ENSURE_MSG(match, "inputs agree off the axis",
                       std::string(kName) + ": input " + std::to_string(k) +
                           " differs from input 0 off the concatenation axis");
      shape[axis] += s[axis];
    }
    KOVRA_ENSURE_MSG(shape.size() > 3, "output_shape.size() > 3", "Wrong output shape in concat.");
    check_attr_size(p.qscale.size(), inputs.size(), "QSCALE", kName);
    check_attr_size(p.deqscale.size(), inputs.size(), "DEQSCALE", kName);

    long long inner = 1;
    for (int d = axis + 1; d < rank; ++d) inner *= shape[d];
    p.outer = 1;
    for (int d = 0; d < axis; ++d) p.outer *= shape[d];
    p.input_shapes.resize(inputs.size());
    p.chunk.resize(inputs.size());
    for (size_t k = 0; k < inputs.size(); ++k) {
      p.input_shapes[k] = inputs[k]->shape();
      p.chunk[k] = inputs[k]->shape()[axis] * inner;
    }
    p.out_count = shape_count(shape);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40ConcatInt8Param& p = op_param_;
    KOVRA_ENSURE_MSG(inputs.size() > 1, "inputs.size() > 1",
                     "Z40ConcatInt8 operator inputs must greater than 1.");
    KOVRA_ENSURE_MSG(inputs.size() == p.input_shapes.size(), "inputs.size() == prepared inputs",
                     std::string(kName) + ": " + std::to_string(inputs.size()) + " inputs but prepared for " +
                         std::to_string(p.input_shapes.size()));
    for (size_t k = 0; k < inputs.size(); ++k) {
      check_prepared(inputs[k], p.input_shapes[k], kName);
      check_float(inputs[k], kName);
    }
    check_min_size(output, p.out_count, kName);

    const float in_off = static_cast<float>(p.input_offset);
    const float lo = static_cast<float>(p.min_value);
    const float hi = static_cast<float>(p.max_value);
    const float offset = static_cast<float>(p.offset);
    float* dst = output->mutable_data<float>();
    for (long long o = 0; o < p.outer; ++o) {
      for (size_t k = 0; k < inputs.size(); ++k) {
        const long long chunk = p.chunk[k];
        const float* x = inputs[k]->data<float>() + o * chunk;
        const float deq = p.deqscale[k], q = p.qscale[k];
        for (long long i = 0; i < chunk; ++i) {
          dst[i] = clamp_then_offset(kvdl::tensorflow_round_cpu((in_off + x[i]) * deq * q), lo, hi, offset);
        }
        dst += chunk;
      }
    }
    return true;
  }

 private:
  static constexpr const char* kName = "Z40ConcatInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ConcatInt8)
