#include <algorithm>
#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SliceParam : BaseParam, PreparedShapes {
  std::vector<int> split;
  int axis = 0;
  std::vector<int> output_shape;
  std::vector<int> starts;
  std::vector<int> ends;
  std::vector<int> axes;
  std::vector<int> steps;
  GatherPlan plan;
};

namespace {

std::string list_text(const char* key, const std::vector<int>& values) {
  return std::string(key) + " " + shape_text(values);
}

}  // namespace

// ONNX Slice: negative starts/ends count from the end of the axis and are
// clamped to it; a negative step walks backwards. A node carrying "split" is
// one output of an ONNX Split on "axis": starts[0]..ends[0] must be exactly
// one of the pieces whose sizes "split" lists.
class Z40SliceOpExecutor : public ParamOpExecutor<Z40SliceParam> {
 public:
  static constexpr const char* kName = "Z40Slice";

  void parse_parameter(const NodeDef& node) override {
    Z40SliceParam& p = op_param_;
    read_int_list(node, "split", p.split);
    read_float_as_int(node, "axis", p.axis);
    require_int_list(node, "output_shape", p.output_shape,
                     "Do not find the output_shape in FloatZ40Slice!!!");
    require_int_list(node, "starts", p.starts, "Do not find the starts in FloatZ40Slice!!!");
    require_int_list(node, "ends", p.ends, "Do not find the ends in FloatZ40Slice!!!");
    read_int_list(node, "axes", p.axes);
    read_int_list(node, "steps", p.steps);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40SliceParam& p = op_param_;
    const SliceWindow window = _window(inputs);
    p.in_shape = inputs[0]->shape();
    plan_slice(p.in_shape, window, p.plan);
    p.out_shape = p.output_shape;
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40SliceParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    if (output->size() < 1) return true;
    run_gather(inputs[0]->data<float>(), output->mutable_data<float>(), p.plan);
    return true;
  }

 private:
  SliceWindow _window(const std::vector<const Tensor*>& inputs) const {
    const Z40SliceParam& p = op_param_;
    check_input_count(inputs, 1, kName);
    const Tensor* input = inputs[0];
    KOVRA_ENSURE_MSG(input->dims() == 4 || input->dims() == 5,
                     "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
                     "The shape of input only support  4D or 5D  in FloatZ40Slice!!!");
    check_float(input, kName);
    const std::vector<int>& in = input->shape();
    const int rank = input->dims();
    SliceWindow window;
    window.starts.assign(rank, 0);
    window.steps.assign(rank, 1);
    window.out_shape = in;
    if (!p.split.empty()) {
      _split_piece(in, window);
    } else {
      KOVRA_ENSURE_MSG(p.ends.size() == p.starts.size(), "ends.size() == starts.size()",
                       std::string(kName) + ": " + list_text("starts", p.starts) + " and " +
                           list_text("ends", p.ends) + " differ in length");
      KOVRA_ENSURE_MSG(p.axes.empty() || p.axes.size() == p.starts.size(), "axes.size() == starts.size()",
                       std::string(kName) + ": " + list_text("axes", p.axes) + " does not match " +
                           list_text("starts", p.starts));
      KOVRA_ENSURE_MSG(p.steps.empty() || p.steps.size() == p.starts.size(), "steps.size() == starts.size()",
                       std::string(kName) + ": " + list_text("steps", p.steps) + " does not match " +
                           list_text("starts", p.starts));
      std::vector<bool> seen(rank, false);
      for (size_t i = 0; i < p.starts.size(); ++i) {
        int axis = p.axes.empty() ? static_cast<int>(i) : p.axes[i];
        if (axis < 0) axis += rank;
        KOVRA_ENSURE_MSG(axis >= 0 && axis < rank && !seen[axis], "0 <= axis < rank, each axis once",
                         std::string(kName) + ": axis " + std::to_string(p.axes.empty() ? i : p.axes[i]) +
                             " is out of range or repeated for input " + shape_text(in));
        seen[axis] = true;
        const int step = p.steps.empty() ? 1 : p.steps[i];
        KOVRA_ENSURE_MSG(step != 0, "step != 0",
                         std::string(kName) + ": a step of 0 on axis " + std::to_string(axis));
        _clamp_axis(in[axis], p.starts[i], p.ends[i], step, window, axis);
      }
    }
    check_positive_dims(window.out_shape, "slice", kName);
    KOVRA_ENSURE_MSG(window.out_shape == p.output_shape, "output_shape == slice extent",
                     std::string(kName) + ": output_shape " + shape_text(p.output_shape) +
                         " but the slice of " + shape_text(in) + " is " + shape_text(window.out_shape));
    return window;
  }

  static void _clamp_axis(int dim, long long start, long long end, int step, SliceWindow& window, int axis) {
    if (start < 0) start += dim;
    if (end < 0) end += dim;
    if (step > 0) {
      start = std::min<long long>(std::max<long long>(start, 0), dim);
      end = std::min<long long>(std::max<long long>(end, 0), dim);
    } else {
      start = std::min<long long>(std::max<long long>(start, 0), dim - 1);
      end = std::min<long long>(std::max<long long>(end, -1), dim - 1);
    }
    const long long span = step > 0 ? end - start : start - end;
    const long long magnitude = step > 0 ? step : -static_cast<long long>(step);
    window.starts[axis] = static_cast<int>(start);
    window.steps[axis] = step;
    window.out_shape[axis] = span > 0 ? static_cast<int>((span + magnitude - 1) / magnitude) : 0;
  }

  void _split_piece(const std::vector<int>& in, SliceWindow& window) const {
    const Z40SliceParam& p = op_param_;
    const int rank = static_cast<int>(in.size());
    const int axis = p.axis < 0 ? p.axis + rank : p.axis;
    KOVRA_ENSURE_MSG(axis >= 0 && axis < rank, "0 <= axis < rank",
                     std::string(kName) + ": split axis " + std::to_string(p.axis) + " is out of range for " +
                         shape_text(in));
    KOVRA_ENSURE_MSG(!p.starts.empty() && !p.ends.empty(), "!starts.empty() && !ends.empty()",
                     std::string(kName) + ": a split piece needs starts and ends");
    long long total = 0;
    bool is_piece = false;
    for (int size : p.split) {
      is_piece = is_piece || (total == p.starts[0] && total + size == p.ends[0] && size > 0);
      total += size;
    }
    KOVRA_ENSURE_MSG(total == in[axis] && is_piece, "starts..ends is one piece of split",
                     std::string(kName) + ": " + list_text("split", p.split) + " on axis " +
                         std::to_string(axis) + " of " + shape_text(in) + " has no piece " +
                         std::to_string(p.starts[0]) + ".." + std::to_string(p.ends[0]));
    window.starts[axis] = p.starts[0];
    window.out_shape[axis] = p.ends[0] - p.starts[0];
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    _window(inputs);
    refuse_unprepared(inputs, output, op_param_.output_shape, op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Slice)
