#include "ops/kernels/dwconv2d_int8.h"

#include <algorithm>

#include "ops/kernels/activate_int8.h"
#include "ops/common/op_checks.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const char kOp[] = "Z40DepthwiseConv2dNativeInt8";
constexpr int kMaxTasks = 16;
}  // namespace

void dwconv2d_int8(const std::vector<const Tensor*>& inputs, Tensor* output,
                   Z40DepthwiseConv2dNativeInt8Param* param) {
  check_input_count(inputs, 3, kOp);
  check_input_not_scalar(inputs[0], kOp);
  const Tensor* weight = inputs[1];
  const Tensor* bias = inputs[2];
  KOVRA_ENSURE_MSG(weight->shape().size() == 4, "weight->shape().size() == 4",
                   "Wrong kernel shape in Z40DepthwiseConv2dNativeInt8!!!");
  check_float(weight, kOp);
  check_float(bias, kOp);
  const std::vector<int>& ws = weight->shape();
  const int multiplier_c = ws[3];
  const ConvGeometry s =
      int8_conv_shape(*param, inputs[0]->shape(), ws[0], ws[1], ws[2] * ws[3], kOp);
  KOVRA_ENSURE_MSG(ws[2] == s.in_c, "weight->shape()[2] == in_channels",
                   std::string(kOp) + ": weights hold " + std::to_string(ws[2]) +
                       " channels, the input has " + std::to_string(s.in_c));
  check_min_size(bias, s.out_c, kOp);
  check_int8_output_param(*param, s.out_c, kOp);
  const std::vector<int> expected = {s.batch, s.out_h, s.out_w, s.out_c};
  KOVRA_ENSURE_MSG(output->shape() == expected, "output->shape() == inferred shape",
                   std::string(kOp) + ": the output tensor does not have the inferred shape");

  const Int8FloatView input(inputs[0], kOp);
  Int8OutputBuffer out(output, kOp);
  const Int8OutputStage stage =
      make_int8_output_stage(*param, bias->data<float>(), int8_multiplier(*param, kOp), s.out_c);
  const float* w = weight->data<float>();
  const float pad_value = param->pad_value;
  const int rows = s.batch * s.out_h;
  const int tasks = std::min(kMaxTasks, rows);
  ThreadPool::instance().run(tasks, [&](int task) {
    std::vector<float> acc(s.out_c);
    std::vector<float> pad_row(s.in_c, pad_value);
    for (int row = task; row < rows; row += tasks) {
      const int b = row / s.out_h, oy = row % s.out_h;
      const float* image = input.data() + static_cast<long long>(b) * s.in_h * s.in_w * s.in_c;
      float* dst = out.data() + static_cast<long long>(row) * s.out_w * s.out_c;
      for (int ox = 0; ox < s.out_w; ++ox, dst += s.out_c) {
        std::fill(acc.begin(), acc.end(), 0.0f);
        for (int ky = 0; ky < s.kernel_h; ++ky) {
          const int iy = oy * s.stride_h - s.pad_top + ky * s.dilation_h;
          for (int kx = 0; kx < s.kernel_w; ++kx) {
            const int ix = ox * s.stride_w - s.pad_left + kx * s.dilation_w;
            const bool inside = iy >= 0 && iy < s.in_h && ix >= 0 && ix < s.in_w;
            const float* px =
                inside ? image + (static_cast<long long>(iy) * s.in_w + ix) * s.in_c : pad_row.data();
            const float* wk = w + static_cast<long long>(ky * s.kernel_w + kx) * s.out_c;
            // Channels are independent sums, so this loop vectorises without
            // changing any sum's order.
            if (multiplier_c == 1) {
              for (int c = 0; c < s.out_c; ++c) acc[c] += px[c] * wk[c];
            } else {
              for (int c = 0; c < s.out_c; ++c) acc[c] += px[c / multiplier_c] * wk[c];
            }
          }
        }
        int8_output_rows(stage, acc.data(), dst, 1);
      }
    }
  });
  out.finish();
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
