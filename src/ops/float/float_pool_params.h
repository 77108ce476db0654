#ifndef KOVRAEXECUTOR_OPS_FLOAT_POOL_PARAMS_H_
#define KOVRAEXECUTOR_OPS_FLOAT_POOL_PARAMS_H_

#include <string>
#include <vector>

#include "common.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/pool_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Attributes shared by the float average and maximum pooling operators.
// ksize and strides are NHWC-ordered ([1, kh, kw, 1]); pads are
// [top, bottom, left, right] and apply to "VALID" only.
struct PoolAttributes {
  std::vector<int> ksize;
  std::vector<int> strides;
  std::vector<int> pads;
  std::string padding = "VALID";
  bool ceil_mode = false;  // read by the maximum pooling only
};

// Reads the attributes; a missing "ksize" fails with `ksize_message`.
void read_pool_attributes(const NodeDef& node, PoolAttributes& attrs, const std::string& ksize_message);

// Validates the attributes against a 4-D input and returns the window
// geometry, output size included.
PoolGeometry plan_pool(const std::vector<int>& in_shape, const PoolAttributes& attrs, const char* op);

// The record of both float poolings: the attributes and what inference_shape
// planned from them.
struct FloatPoolParam : BaseParam, PoolAttributes, PreparedShapes {
  PoolGeometry geometry;
};

// Both float poolings. `Op` supplies kName, kKsizeMessage, kKernel and
// `static void check_input(const Tensor* input)` (its rank and type checks);
// `Param` derives from FloatPoolParam.
template <typename Op, typename Param>
class FloatPoolOpExecutor : public ParamOpExecutor<Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    read_pool_attributes(node, this->op_param_, Op::kKsizeMessage);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    FloatPoolParam& p = this->op_param_;
    p.geometry = _plan(inputs);
    const PoolGeometry& g = p.geometry;
    p.in_shape = inputs[0]->shape();
    p.out_shape = {g.n, g.out_h, g.out_w, g.c};
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, this->op_param_))) _refuse(inputs, output);
    if (inputs[0]->size() < 1) return true;
    Op::kKernel(inputs[0]->template data<float>(), output->template mutable_data<float>(),
                this->op_param_.geometry);
    return true;
  }

 private:
  PoolGeometry _plan(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, Op::kName);
    Op::check_input(inputs[0]);
    return plan_pool(inputs[0]->shape(), this->op_param_, Op::kName);
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    const PoolGeometry g = _plan(inputs);
    refuse_unprepared(inputs, output, {g.n, g.out_h, g.out_w, g.c}, this->op_param_, Op::kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_POOL_PARAMS_H_
