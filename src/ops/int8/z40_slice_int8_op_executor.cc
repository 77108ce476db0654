#include <algorithm>
#include <string>
#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SliceInt8Param : BaseParam {
  std::vector<int> split;  // piece sizes of a split along "axis"
  int axis = 0;
  std::vector<int> output_shape;
  std::vector<int> starts, ends, axes, steps;
  // Prepared: the input shape and the strided gather of the window.
  std::vector<int> input_shape;
  GatherPlan plan;
};

// Strided slice of 4-D or 5-D codes with ONNX Slice semantics: negative
// starts and ends count from the end, both are clamped to the axis, "axes"
// defaults to the leading axes and "steps" to 1.
class Z40SliceInt8OpExecutor : public ParamOpExecutor<Z40SliceInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    Z40SliceInt8Param& p = op_param_;
    read_int_list(node, "split", p.split);
    read_int(node, "axis", p.axis);
    require_int_list(node, "output_shape", p.output_shape, missing_message("output_shape", kName));
    require_int_list(node, "starts", p.starts, missing_message("starts", kName));
    require_int_list(node, "ends", p.ends, missing_message("ends", kName));
    read_int_list(node, "axes", p.axes);
    read_int_list(node, "steps", p.steps);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const SliceWindow w = window(inputs);
    const std::vector<int>& in_shape = inputs[0]->shape();
    plan_slice(in_shape, w, op_param_.plan);
    op_param_.input_shape = in_shape;
    shape = w.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    GatherPlan& plan = op_param_.plan;
    const Tensor* input = prepared_input(inputs, op_param_.input_shape, output, plan.count, kName);
    run_gather(input->data<float>(), output->mutable_data<float>(), plan);
    return true;
  }

 private:
  SliceWindow window(const std::vector<const Tensor*>& inputs) const {
    const Tensor* input = first_input(inputs, kName);
    const int rank = input->dims();
    KOVRA_ENSURE_MSG(rank == 4 || rank == 5,
                     "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
                     "The shape of input only support  4D or 5D  in Z40SliceInt8!!!");
    const Z40SliceInt8Param& p = op_param_;
    const size_t count = p.starts.size();
    const bool lists_fit = p.ends.size() == count && count <= static_cast<size_t>(rank) &&
                           (p.axes.empty() || p.axes.size() == count) &&
                           (p.steps.empty() || p.steps.size() == count);
    KOVRA_ENSURE_MSG(lists_fit, "starts, ends, axes and steps agree",
                     std::string(kName) + ": starts, ends, axes and steps differ in length");
    const std::vector<int>& shape = input->shape();
    SliceWindow w;
    w.starts.assign(rank, 0);
    w.steps.assign(rank, 1);
    w.out_shape = shape;
    std::vector<bool> seen(rank, false);
    for (size_t i = 0; i < count; ++i) {
      // One output of a split slices along "axis", as the float slice does.
      int axis = !p.axes.empty() ? p.axes[i] : p.split.empty() ? static_cast<int>(i) : p.axis;
      if (axis < 0) axis += rank;
      const int step = p.steps.empty() ? 1 : p.steps[i];
      KOVRA_ENSURE_MSG(axis >= 0 && axis < rank && !seen[axis] && step != 0, "valid axis and step",
                       std::string(kName) + ": bad axis or zero step in entry " + std::to_string(i));
      seen[axis] = true;
      const long long dim = shape[axis];
      long long start = p.starts[i], end = p.ends[i];
      if (start < 0) start += dim;
      if (end < 0) end += dim;
      long long extent;
      if (step > 0) {
        start = std::min(std::max(start, 0LL), dim);
        end = std::min(std::max(end, 0LL), dim);
        extent = end > start ? (end - start + step - 1) / step : 0;
      } else {
        start = std::min(std::max(start, 0LL), dim - 1);
        end = std::min(std::max(end, -1LL), dim - 1);
        extent = start > end ? (start - end - step - 1) / -static_cast<long long>(step) : 0;
      }
      KOVRA_ENSURE_MSG(extent > 0, "slice extent > 0",
                       std::string(kName) + ": empty slice on axis " + std::to_string(axis));
      w.starts[axis] = static_cast<int>(start);
      w.steps[axis] = step;
      w.out_shape[axis] = static_cast<int>(extent);
    }
    return w;
  }

  static constexpr const char* kName = "Z40SliceInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40SliceInt8)
