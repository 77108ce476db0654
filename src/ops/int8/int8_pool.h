#ifndef KOVRAEXECUTOR_OPS_INT8_POOL_H_
#define KOVRAEXECUTOR_OPS_INT8_POOL_H_

#include <string>
#include <vector>

#include "op_executor.h"
#include "ops/kernels/pool_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Window attributes shared by the int8 average and maximum pooling: "ksize"
// and "strides" in NHWC order ([1, kh, kw, 1]), "padding" "SAME" or "VALID",
// "pads" as [top, bottom, left, right].
struct Int8PoolAttrs {
  std::vector<int> ksize;
  std::vector<int> strides = {1, 1, 1, 1};
  std::string padding = "VALID";
  std::vector<int> pads = {0, 0, 0, 0};
  int max_value = 0;
  int min_value = 0;
  bool ceil_mode = false;
};

// Reads the window attributes; "ksize", "maxValue" and "minValue" are required.
void parse_pool_attrs(const NodeDef& node, const char* op, Int8PoolAttrs& attrs);

// The record of both int8 poolings: the attributes and what inference_shape
// prepares from them.
struct Int8PoolParam : BaseParam {
  Int8PoolAttrs attrs;
  std::vector<int> input_shape;
  PoolGeometry geometry;
  long long out_count = 0;
};

// Checks the input (4-D, `rank_message`) and the window lists, then sizes the
// output as the float pooling operators do: "SAME" gives ceil(H / stride) with
// the padding split as in TensorFlow; "VALID" uses the explicit pads, rounding
// the window count down, or up with "ceil_mode" as in ONNX (dropping a last
// window that would start in the bottom or right padding). Fills the
// geometry, the input shape and the output count into `param`; `shape`
// receives the output shape.
void prepare_pool(const std::vector<const Tensor*>& inputs, const char* op, const char* rank_message,
                  Int8PoolParam& param, std::vector<int>& shape);

// Windows reaching outside the input see `pad_value` in their padded cells.
void apply_pad_value(float* y, const PoolGeometry& g, float pad_value);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_POOL_H_
