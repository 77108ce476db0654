#include "ops/kernels/dwconv2d_int8.h"

#include <algorithm>

#include "ops/common/op_checks.h"
#include "ops/kernels/activate_int8.h"
#include "ops/kernels/gemm_f32.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const char kOp[] = "Z40DepthwiseConv2dNativeInt8";
constexpr int kMaxTasks = 16;

struct RowJob {
  const ConvGeometry* s;
  const float* input;
  const float* weight;
  float* output;
  const Int8OutputStage* stage;
  float pad_value;
  int multiplier_c, rows, tasks;
};

void run_rows(const RowJob& job, int task) {
  const ConvGeometry& s = *job.s;
  float* acc = scratch_floats(ScratchSlot::kPatches, static_cast<size_t>(s.out_c) + s.in_c);
  float* pad_row = acc + s.out_c;
  std::fill(pad_row, pad_row + s.in_c, job.pad_value);
  const int multiplier_c = job.multiplier_c;
  for (int row = task; row < job.rows; row += job.tasks) {
    const int b = row / s.out_h, oy = row % s.out_h;
    const float* image = job.input + static_cast<long long>(b) * s.in_h * s.in_w * s.in_c;
    float* dst = job.output + static_cast<long long>(row) * s.out_w * s.out_c;
    for (int ox = 0; ox < s.out_w; ++ox, dst += s.out_c) {
      std::fill(acc, acc + s.out_c, 0.0f);
      for (int ky = 0; ky < s.kernel_h; ++ky) {
        const int iy = oy * s.stride_h - s.pad_top + ky * s.dilation_h;
        for (int kx = 0; kx < s.kernel_w; ++kx) {
          const int ix = ox * s.stride_w - s.pad_left + kx * s.dilation_w;
          const bool inside = iy >= 0 && iy < s.in_h && ix >= 0 && ix < s.in_w;
          const float* px = inside ? image + (static_cast<long long>(iy) * s.in_w + ix) * s.in_c : pad_row;
          const float* wk = job.weight + static_cast<long long>(ky * s.kernel_w + kx) * s.out_c;
          // Channels are independent sums, so this loop vectorises without
          // changing any sum's order.
          if (multiplier_c == 1) {
            for (int c = 0; c < s.out_c; ++c) acc[c] += px[c] * wk[c];
          } else {
            for (int c = 0; c < s.out_c; ++c) acc[c] += px[c / multiplier_c] * wk[c];
          }
        }
      }
      int8_output_rows(*job.stage, acc, dst, 1);
    }
  }
}

}  // namespace

void prepare_dwconv2d_int8(const std::vector<const Tensor*>& inputs,
                           Z40DepthwiseConv2dNativeInt8Param* param) {
  check_input_count(inputs, 2, kOp);
  check_input_not_scalar(inputs[0], kOp);
  const Tensor* weight = inputs[1];
  const std::vector<int>& ws = weight->shape();
  KOVRA_ENSURE_MSG(ws.size() == 4, "weight->shape().size() == 4",
                   "Wrong kernel shape in Z40DepthwiseConv2dNativeInt8!!!");
  check_float(weight, kOp);
  if (inputs.size() >= 3) check_float(inputs[2], kOp);
  const ConvGeometry s = int8_conv_shape(*param, inputs[0]->shape(), ws[0], ws[1], ws[2] * ws[3], kOp);
  KOVRA_ENSURE_MSG(ws[2] == s.in_c, "weight->shape()[2] == in_channels",
                   std::string(kOp) + ": weights hold " + std::to_string(ws[2]) +
                       " channels, the input has " + std::to_string(s.in_c));
  if (inputs.size() >= 3) check_min_size(inputs[2], s.out_c, kOp);
  check_int8_output_param(*param, s.out_c, kOp);
  param->prepared.geometry = s;
  param->prepared.multiplier = int8_multiplier(*param, kOp);
  record_int8_inputs(inputs, {s.batch, s.out_h, s.out_w, s.out_c}, s.out_c, param);
}

void run_dwconv2d_int8(const Tensor* input, const Tensor* weight, const float* bias, Tensor* output,
                       const Z40DepthwiseConv2dNativeInt8Param* param) {
  const Int8Prepared& prep = param->prepared;
  const ConvGeometry& s = prep.geometry;
  KOVRA_ENSURE_MSG(output->shape() == prep.output_shape, "output->shape() == inferred shape",
                   std::string(kOp) + ": the output tensor does not have the inferred shape");
  check_float(weight, kOp);
  const Int8FloatView in(input, kOp);
  Int8OutputBuffer out(output, kOp);
  const Int8OutputStage stage = make_int8_output_stage(*param, bias, prep.multiplier, s.out_c);
  const int rows = s.batch * s.out_h;
  RowJob job{&s,
             in.data(),
             weight->data<float>(),
             out.data(),
             &stage,
             param->pad_value,
             prep.weight_shape[3],
             rows,
             std::min(kMaxTasks, rows)};
  const RowJob* j = &job;
  ThreadPool::instance().run(job.tasks, [j](int task) { run_rows(*j, task); });
  out.finish();
}

void dwconv2d_int8(const std::vector<const Tensor*>& inputs, Tensor* output,
                   Z40DepthwiseConv2dNativeInt8Param* param) {
  check_input_count(inputs, 3, kOp);
  if (!int8_prepared_for(param->prepared, inputs)) prepare_dwconv2d_int8(inputs, param);
  run_dwconv2d_int8(inputs[0], inputs[1], inputs[2]->data<float>(), output, param);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
