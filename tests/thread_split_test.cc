// Operators whose work the pool splits: each case is large enough to be split,
// gives the reference values, and gives the same bits at any thread count.
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/float_compare.h"
#include "support/single_op_runner.h"
#include "support/test_util.h"
#include "thread_pool.h"

namespace {

using kovra::trenkit::kovraexecutor::ThreadPool;
using kovra_test::make_tensor;
using kovra_test::node_with_attrs;
using kovra_test::SingleOpRunner;
using kovra_test::Tensor;

std::vector<float> random_values(size_t count, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(count);
  for (float& x : v) x = dist(gen);
  return v;
}

struct SplitCase {
  std::string name;
  std::string op;
  std::string attrs;
  std::vector<std::vector<int>> shapes;  // of the inputs, filled with seeded values
  // Plain loops over the inputs, or null when the operator's own test file holds them.
  std::function<std::vector<float>(const std::vector<std::vector<float>>&)> reference;
};

// y[r][n] = relu(sum_k a[r][k] * b[k][n] + bias[n]).
std::vector<float> matmul_reference(const std::vector<std::vector<float>>& in, int M, int K, int N) {
  std::vector<float> y(static_cast<size_t>(M) * N);
  for (int r = 0; r < M; ++r)
    for (int n = 0; n < N; ++n) {
      double s = in[2][n];
      for (int k = 0; k < K; ++k) s += static_cast<double>(in[0][r * K + k]) * in[1][k * N + n];
      y[r * N + n] = static_cast<float>(std::max(s, 0.0));
    }
  return y;
}

// 3x3 depthwise, stride 1, SAME padding with zeros, on [1, H, W, C].
std::vector<float> depthwise_reference(const std::vector<std::vector<float>>& in, int H, int W, int C) {
  std::vector<float> y(static_cast<size_t>(H) * W * C);
  for (int oy = 0; oy < H; ++oy)
    for (int ox = 0; ox < W; ++ox)
      for (int c = 0; c < C; ++c) {
        double s = in[2][c];
        for (int ky = 0; ky < 3; ++ky)
          for (int kx = 0; kx < 3; ++kx) {
            const int iy = oy + ky - 1, ix = ox + kx - 1;
            if (iy < 0 || iy >= H || ix < 0 || ix >= W) continue;
            s += static_cast<double>(in[0][(iy * W + ix) * C + c]) * in[1][(ky * 3 + kx) * C + c];
          }
        y[(oy * W + ox) * C + c] = static_cast<float>(s);
      }
  return y;
}

// 3x3 convolution, stride 1, SAME padding with zeros, on [1, H, W, C] into O channels, then Relu.
std::vector<float> conv_reference(const std::vector<std::vector<float>>& in, int H, int W, int C, int O) {
  std::vector<float> y(static_cast<size_t>(H) * W * O);
  for (int oy = 0; oy < H; ++oy)
    for (int ox = 0; ox < W; ++ox)
      for (int o = 0; o < O; ++o) {
        double s = in[2][o];
        for (int ky = 0; ky < 3; ++ky)
          for (int kx = 0; kx < 3; ++kx) {
            const int iy = oy + ky - 1, ix = ox + kx - 1;
            if (iy < 0 || iy >= H || ix < 0 || ix >= W) continue;
            for (int c = 0; c < C; ++c)
              s += static_cast<double>(in[0][(iy * W + ix) * C + c]) * in[1][((ky * 3 + kx) * C + c) * O + o];
          }
        y[(oy * W + ox) * O + o] = static_cast<float>(std::max(s, 0.0));
      }
  return y;
}

const char* kRelu = R"(attr { key: "ActionType" value { s: "Relu" } })";
const char* kQuantize = R"(attr { key: "QSCALE" value { list { f: 30 f: 70 f: 110 } } }
  attr { key: "maxValue" value { i: 127 } } attr { key: "minValue" value { i: -128 } }
  attr { key: "offset" value { i: 0 } })";
const char* kDepthwise = R"(attr { key: "strides" value { list { i: 1 i: 1 i: 1 i: 1 } } }
  attr { key: "dilations" value { list { i: 1 i: 1 i: 1 i: 1 } } }
  attr { key: "padding" value { s: "SAME" } })";
const char* kPool = R"(attr { key: "ksize" value { list { i: 1 i: 3 i: 3 i: 1 } } }
  attr { key: "strides" value { list { i: 1 i: 2 i: 2 i: 1 } } }
  attr { key: "padding" value { s: "SAME" } })";

TEST(ThreadSplitTest, SplitOperatorsMatchTheirReferenceAtAnyThreadCount) {
  const std::vector<SplitCase> cases = {
      // 1000 columns: seven whole slices and a part one; one row takes the matrix-vector kernel.
      {"matmul_single_row", "Z40MatMul", kRelu, {{1, 300}, {300, 1000}, {1000}},
       [](const std::vector<std::vector<float>>& in) { return matmul_reference(in, 1, 300, 1000); }},
      {"matmul_rows", "Z40MatMul", kRelu, {{11, 70}, {70, 290}, {290}},
       [](const std::vector<std::vector<float>>& in) { return matmul_reference(in, 11, 70, 290); }},
      {"depthwise", "Z40DepthwiseConv2dNative", kDepthwise, {{1, 37, 29, 24}, {3, 3, 24, 1}, {24}},
       [](const std::vector<std::vector<float>>& in) { return depthwise_reference(in, 37, 29, 24); }},
      // A small map with many channels: few tiles; 70 channels are two whole panels and a part one.
      {"conv_small_map", "Z40Conv2D", std::string(kDepthwise) + kRelu,
       {{1, 7, 5, 40}, {3, 3, 40, 70}, {70}},
       [](const std::vector<std::vector<float>>& in) { return conv_reference(in, 7, 5, 40, 70); }},
      // Winograd: 49 tiles of two outputs square, cut into runs at multiples of 8.
      {"conv_winograd", "Z40Conv2D", std::string(kDepthwise) + kRelu, {{1, 14, 13, 32}, {3, 3, 32, 40}, {40}},
       [](const std::vector<std::vector<float>>& in) { return conv_reference(in, 14, 13, 32, 40); }},
      {"eltwise_add", "Z40EltwiseAdd", kRelu, {{1, 64, 64, 80}, {1, 64, 64, 80}},
       [](const std::vector<std::vector<float>>& in) {
         std::vector<float> y(in[0].size());
         for (size_t i = 0; i < y.size(); ++i) y[i] = std::max(in[0][i] + in[1][i], 0.0f);
         return y;
       }},
      // Codes: the chunks start over with the per-channel factors. The reference runs the
      // operator one image row at a time, each far below the size that is split.
      {"quantize", "Z40Quantize", kQuantize, {{1, 300, 300, 3}},
       [](const std::vector<std::vector<float>>& in) {
         std::vector<float> y;
         for (int row = 0; row < 300; ++row) {
           const std::vector<float> part(in[0].begin() + row * 900, in[0].begin() + (row + 1) * 900);
           Tensor t = make_tensor({1, 1, 300, 3}, part);
           const std::vector<float> codes = SingleOpRunner("Z40Quantize", node_with_attrs(kQuantize)).run({&t});
           y.insert(y.end(), codes.begin(), codes.end());
         }
         return y;
       }},
      {"max_pool", "Z40MaxPool", kPool, {{1, 64, 48, 32}}, nullptr},
      {"avg_pool", "Z40AvgPool", kPool, {{1, 64, 48, 32}}, nullptr},
      {"resize_bilinear", "Z40ResizeBilinear", R"(attr { key: "wh_scale" value { f: 2 } })",
       {{1, 40, 30, 16}}, nullptr},
  };
  ThreadPool& pool = ThreadPool::instance();
  for (const SplitCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::vector<float>> values;
    std::vector<Tensor> tensors;
    for (size_t i = 0; i < c.shapes.size(); ++i) {
      size_t count = 1;
      for (int d : c.shapes[i]) count *= d;
      values.push_back(random_values(count, 40 + static_cast<unsigned>(i)));
      tensors.push_back(make_tensor(c.shapes[i], values.back()));
    }
    std::vector<const Tensor*> inputs;
    for (const Tensor& t : tensors) inputs.push_back(&t);
    std::vector<std::vector<float>> results;
    for (int threads : {1, 2, 5}) {
      pool.set_num_threads(threads);
      SingleOpRunner runner(c.op, node_with_attrs(c.attrs));
      results.push_back(runner.run(inputs));
    }
    pool.set_num_threads(2);
    if (c.reference) kovra_test::expect_floats_near(results[0], c.reference(values), 1e-5f, 1e-5f, c.name);
    EXPECT_EQ(results[0], results[1]);
    EXPECT_EQ(results[0], results[2]);
  }
}

}  // namespace
