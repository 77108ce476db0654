#include "ops/kernels/matmul_int8.h"

#include <algorithm>

#include "ops/kernels/activate_int8.h"
#include "ops/kernels/int8_dot_path.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const char kOp[] = "Z40MatMulInt8";
}  // namespace

void matmul_int8(const std::vector<const Tensor*>& inputs, Tensor* output, Z40MatMulInt8Param* param) {
  check_input_count(inputs, 3, kOp);
  check_input_not_scalar(inputs[0], kOp);
  const Tensor* a = inputs[0];
  const Tensor* b = inputs[1];
  const Tensor* bias = inputs[2];
  KOVRA_ENSURE_MSG(b->shape().size() == 2, "weight->shape().size() == 2",
                   "Wrong weight shape in Z40MatMulInt8!!!");
  const int m = a->shape()[0];
  const int k = a->shape().back();
  const int n = b->shape()[1];
  KOVRA_ENSURE_MSG(m > 0 && static_cast<long long>(m) * k == a->size(), "a->size() == rows * depth",
                   std::string(kOp) + ": input of " + std::to_string(a->size()) + " values is not " +
                       std::to_string(m) + " rows of " + std::to_string(k));
  KOVRA_ENSURE_MSG(b->shape()[0] == k, "weight->shape()[0] == depth",
                   std::string(kOp) + ": weights have " + std::to_string(b->shape()[0]) +
                       " rows, the input has depth " + std::to_string(k));
  check_float(b, kOp);
  check_float(bias, kOp);
  check_min_size(bias, n, kOp);
  check_int8_output_param(*param, n, kOp);
  KOVRA_ENSURE_MSG(output->size() == static_cast<long long>(m) * n, "output->size() == rows * columns",
                   std::string(kOp) + ": the output tensor does not have the inferred shape");

  const Int8FloatView input(a, kOp);
  Int8OutputBuffer out(output, kOp);
  const Int8OutputStage stage =
      make_int8_output_stage(*param, bias->data<float>(), int8_multiplier(*param, kOp), n);
  // A product is a 1 x 1 convolution over an M x 1 image of K channels.
  ConvGeometry shape;
  shape.batch = 1;
  shape.in_h = shape.out_h = m;
  shape.in_w = shape.out_w = 1;
  shape.in_c = k;
  shape.kernel_h = shape.kernel_w = 1;
  shape.out_c = n;
  if (conv_int8_integer_path(shape, input.data(), nullptr, b, &param->packed_weights, stage,
                             out.data())) {
    out.finish();
    return;
  }
  const float* x = input.data();
  const float* w = b->data<float>();
  for (int row = 0; row < m; ++row) {
    float* dst = out.data() + static_cast<long long>(row) * n;
    std::fill(dst, dst + n, 0.0f);
    for (int i = 0; i < k; ++i) {
      const float v = x[static_cast<long long>(row) * k + i];
      const float* wi = w + static_cast<long long>(i) * n;
      for (int j = 0; j < n; ++j) dst[j] += v * wi[j];
    }
    int8_output_rows(stage, dst, dst, 1);
  }
  out.finish();
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
