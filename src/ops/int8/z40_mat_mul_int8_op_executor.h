#ifndef KOVRAEXECUTOR_OPS_Z40_MAT_MUL_INT8_OP_EXECUTOR_H_
#define KOVRAEXECUTOR_OPS_Z40_MAT_MUL_INT8_OP_EXECUTOR_H_

#include <memory>
#include <vector>

#include "ops/int8/int8_conv_param.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// a is [M, K] or [M, 1, 1, K], b is [K, N], the optional bias has N values.
struct Int8PackedWeights;

struct Z40MatMulInt8Param : Int8OutputParam {
  std::shared_ptr<Int8PackedWeights> packed_weights;
};

class Z40MatMulInt8OpExecutor : public ParamOpExecutor<Z40MatMulInt8Param> {
 public:
  static constexpr const char* kName = "Z40MatMulInt8";
  void parse_parameter(const NodeDef& node_def) override;
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override;
  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_Z40_MAT_MUL_INT8_OP_EXECUTOR_H_
