#include "ops/kernels/matmul_cpu.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "ops/kernels/gemm_f32.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

float activate(float y, const MatMulArgs& args) {
  switch (args.action) {
    case MatMulAction::kRelu: return y > 0.0f ? y : 0.0f;
    case MatMulAction::kRelu6: return y > 0.0f ? std::min(y, 6.0f) : 0.0f;
    case MatMulAction::kLeakyMax: return std::max(y, y * args.alpha);
    case MatMulAction::kClamp:
      return std::min(static_cast<float>(args.clip_max), std::max(static_cast<float>(args.clip_min), y));
    case MatMulAction::kNone: break;
  }
  return y;
}

// d act / d y, read from the activated output.
float activation_slope(float out, const MatMulArgs& args) {
  switch (args.action) {
    case MatMulAction::kRelu: return out > 0.0f ? 1.0f : 0.0f;
    case MatMulAction::kRelu6: return out > 0.0f && out < 6.0f ? 1.0f : 0.0f;
    case MatMulAction::kLeakyMax:
      // max(y, y * alpha) keeps the sign of y for alpha > 0.
      return (out > 0.0f) == (args.alpha <= 1.0f) ? 1.0f : args.alpha;
    case MatMulAction::kClamp:
      return out > static_cast<float>(args.clip_min) && out < static_cast<float>(args.clip_max) ? 1.0f : 0.0f;
    case MatMulAction::kNone: break;
  }
  return 1.0f;
}

}  // namespace

MatMulAction matmul_action(const char* action_type) {
  const std::string name(action_type);
  if (name == "Relu") return MatMulAction::kRelu;
  if (name == "Relu6") return MatMulAction::kRelu6;
  if (name == "LeakyRelu") return MatMulAction::kLeakyMax;
  if (name == "Hsigmoid" || name == "Linear") return MatMulAction::kClamp;
  return MatMulAction::kNone;
}

void matmul_cpu(const float* a, const float* b, const float* bias, float* out, const MatMulArgs& args,
                const float* packed) {
  const int M = args.M, K = args.K, N = args.N;
  // Tasks take slices of columns, whole panels each, one per thread: every
  // output is summed in k order whatever slice computes it, so the thread
  // count never changes a result, and the single-row case splits as well as
  // any. Wide slices keep the rows of B streaming in storage order.
  const int threads = ThreadPool::instance().num_threads();
  const int panels = (N + kGemmPanelWidth - 1) / kGemmPanelWidth;
  const int kSliceColumns = (panels + threads - 1) / threads * kGemmPanelWidth;
  const int slices = (N + kSliceColumns - 1) / kSliceColumns;
  parallel_for(slices, static_cast<long long>(M) * N * K, [&](int slice) {
    const int n0 = slice * kSliceColumns;
    const int cols = std::min(kSliceColumns, N - n0);
    const float* slice_packed = packed ? packed + static_cast<size_t>(n0) * K : nullptr;
    const float* slice_bias = bias ? bias + n0 : nullptr;
    // Rows in blocks of 8, handed over a bounded number at a time.
    constexpr int kBlocksPerCall = 64;
    GemmRowBlock blocks[kBlocksPerCall];
    for (int m0 = 0; m0 < M; m0 += 8 * kBlocksPerCall) {
      int count = 0;
      for (int m = m0; m < M && count < kBlocksPerCall; m += 8) {
        blocks[count++] = {a + static_cast<size_t>(m) * K, out + static_cast<size_t>(m) * N + n0,
                           std::min(8, M - m)};
      }
      // sum + bias there, the same value as bias + sum.
      gemm_f32_blocks(blocks, count, K, N, b + n0, N, cols, K, slice_bias, slice_packed);
    }
    if (args.action == MatMulAction::kNone) return;
    for (int m = 0; m < M; ++m) {
      float* row = out + static_cast<size_t>(m) * N + n0;
      for (int n = 0; n < cols; ++n) row[n] = activate(row[n], args);
    }
  });
}

void matmul_backward_cpu(const float* a, const float* b, const float* out, const float* out_grad,
                         float* input_grad, float* weight_grad, float* bias_grad, const MatMulArgs& args) {
  const int M = args.M, K = args.K, N = args.N;
  std::vector<float> dy(static_cast<size_t>(M) * N);
  for (size_t i = 0; i < dy.size(); ++i) dy[i] = out_grad[i] * activation_slope(out[i], args);
  std::fill(weight_grad, weight_grad + static_cast<size_t>(K) * N, 0.0f);
  for (int m = 0; m < M; ++m) {
    for (int k = 0; k < K; ++k) {
      const float x = a[static_cast<size_t>(m) * K + k];
      float* w = weight_grad + static_cast<size_t>(k) * N;
      for (int n = 0; n < N; ++n) w[n] += x * dy[static_cast<size_t>(m) * N + n];
    }
  }
  if (input_grad != nullptr) {
    for (int m = 0; m < M; ++m) {
      for (int k = 0; k < K; ++k) {
        float sum = 0.0f;
        for (int n = 0; n < N; ++n) sum += dy[static_cast<size_t>(m) * N + n] * b[static_cast<size_t>(k) * N + n];
        input_grad[static_cast<size_t>(m) * K + k] = sum;
      }
    }
  }
  if (bias_grad != nullptr) {
    std::fill(bias_grad, bias_grad + N, 0.0f);
    for (int m = 0; m < M; ++m)
      for (int n = 0; n < N; ++n) bias_grad[n] += dy[static_cast<size_t>(m) * N + n];
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
