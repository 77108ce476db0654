#ifndef KOVRAEXECUTOR_OPS_FLOAT_POOL_PARAMS_H_
#define KOVRAEXECUTOR_OPS_FLOAT_POOL_PARAMS_H_

#include <string>
#include <vector>

#include "op_executor.h"
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

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_POOL_PARAMS_H_
