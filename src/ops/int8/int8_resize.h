#ifndef KOVRAEXECUTOR_OPS_INT8_RESIZE_H_
#define KOVRAEXECUTOR_OPS_INT8_RESIZE_H_

#include <string>
#include <vector>

#include "ops/kernels/resize_kernels.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The geometry of resizing the first input by `scale` on H and W, each side
// rounded half to even as the float resizes do, after the checks every
// resize makes: a 4-D input ("input_tensor->shape().size() == 4" with
// `rank_message`) and output sides of at least one.
ResizeGeometry int8_resize_geometry(const std::vector<const Tensor*>& inputs, float scale, const char* op,
                                    const std::string& rank_message);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_RESIZE_H_
