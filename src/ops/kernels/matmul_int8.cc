#include "ops/kernels/matmul_int8.h"

#include <algorithm>
#include <memory>

#include "ops/common/op_checks.h"
#include "ops/kernels/activate_int8.h"
#include "ops/kernels/int8_dot_path.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const char kOp[] = "Z40MatMulInt8";
}  // namespace

void prepare_matmul_int8(const std::vector<const Tensor*>& inputs, Z40MatMulInt8Param* param) {
  check_input_count(inputs, 2, kOp);
  check_input_not_scalar(inputs[0], kOp);
  const Tensor* a = inputs[0];
  const Tensor* b = inputs[1];
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
  if (inputs.size() >= 3) {
    check_float(inputs[2], kOp);
    check_min_size(inputs[2], n, kOp);
  }
  check_int8_output_param(*param, n, kOp);
  // A product is a 1 x 1 convolution over an M x 1 image of K channels.
  ConvGeometry& shape = param->prepared.geometry;
  shape = ConvGeometry();
  shape.batch = 1;
  shape.in_h = shape.out_h = m;
  shape.in_w = shape.out_w = 1;
  shape.in_c = k;
  shape.kernel_h = shape.kernel_w = 1;
  shape.out_c = n;
  param->prepared.multiplier = int8_multiplier(*param, kOp);
  record_int8_inputs(inputs, {m, n}, n, param);
}

void run_matmul_int8(const Tensor* a, const Tensor* b, const float* bias, Tensor* output,
                     Z40MatMulInt8Param* param) {
  const Int8Prepared& prep = param->prepared;
  const ConvGeometry& shape = prep.geometry;
  const int m = shape.in_h, k = shape.in_c, n = shape.out_c;
  KOVRA_ENSURE_MSG(output->size() == static_cast<long long>(m) * n, "output->size() == rows * columns",
                   std::string(kOp) + ": the output tensor does not have the inferred shape");
  check_float(b, kOp);
  const Int8FloatView input(a, kOp);
  Int8OutputBuffer out(output, kOp);
  const Int8OutputStage stage = make_int8_output_stage(*param, bias, prep.multiplier, n);
  if (!param->packed_weights) param->packed_weights = std::make_shared<Int8PackedWeights>();
  if (conv_int8_integer_path(shape, input.data(), nullptr, b, param->packed_weights.get(), stage,
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

void matmul_int8(const std::vector<const Tensor*>& inputs, Tensor* output, Z40MatMulInt8Param* param) {
  check_input_count(inputs, 3, kOp);
  if (!int8_prepared_for(param->prepared, inputs)) prepare_matmul_int8(inputs, param);
  run_matmul_int8(inputs[0], inputs[1], inputs[2]->data<float>(), output, param);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
