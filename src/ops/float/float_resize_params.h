#ifndef KOVRAEXECUTOR_OPS_FLOAT_RESIZE_PARAMS_H_
#define KOVRAEXECUTOR_OPS_FLOAT_RESIZE_PARAMS_H_

#include <string>
#include <vector>

#include "ops/kernels/resize_kernels.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Geometry of a resize of the 4-D input of `inputs` whose H and W are
// multiplied by scale_h and scale_w, each size rounded half to even.
// Checks the input (label as in the operator's messages) and that the
// resized image is not empty.
ResizeGeometry plan_resize(const std::vector<const Tensor*>& inputs, float scale_h, float scale_w,
                           const char* op);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_RESIZE_PARAMS_H_
