#ifndef KOVRAEXECUTOR_OPS_MATMUL_CPU_H_
#define KOVRAEXECUTOR_OPS_MATMUL_CPU_H_

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The matrix product's own activation forms: "LeakyRelu" is max(y, y * alpha)
// and "Hsigmoid" is the same clamp as "Linear".
enum class MatMulAction { kNone, kRelu, kRelu6, kLeakyMax, kClamp };

struct MatMulArgs {
  int M = 0, K = 0, N = 0;
  MatMulAction action = MatMulAction::kNone;
  float alpha = 1.0f;
  // Integer bounds of the clamp, used as floats.
  int clip_max = 1, clip_min = 0;
};

MatMulAction matmul_action(const char* action_type);

// out[m][n] = act(bias[n] + sum over k of a[m][k] * b[k][n]), the sum taken in
// k order through the float gemm table; a is M x K, b is K x N, both
// row-major. `packed` holds b's panels (pack_panels_f32) or is null.
void matmul_cpu(const float* a, const float* b, const float* bias, float* out, const MatMulArgs& args,
                const float* packed = nullptr);

// Gradients of matmul_cpu given its output and the gradient of that output.
// weight_grad (K x N) is required; input_grad (M x K) and bias_grad (N) are
// filled when not null.
void matmul_backward_cpu(const float* a, const float* b, const float* out, const float* out_grad,
                         float* input_grad, float* weight_grad, float* bias_grad, const MatMulArgs& args);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_MATMUL_CPU_H_
