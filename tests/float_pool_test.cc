#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "support/single_op_runner.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

std::vector<float> random_values(int n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-4.0f, 4.0f);
  std::vector<float> v(n);
  for (float& x : v) x = dist(gen);
  return v;
}

std::string ints(const char* key, const std::vector<int>& values) {
  std::string text = std::string("attr { key: \"") + key + "\" value { list {";
  for (int v : values) text += " i: " + std::to_string(v);
  return text + " } } } ";
}

std::string pool_attrs(int kh, int kw, int sh, int sw, const std::string& padding, const std::vector<int>& pads,
                       bool ceil_mode) {
  std::string text = ints("ksize", {1, kh, kw, 1}) + ints("strides", {1, sh, sw, 1}) +
                     "attr { key: \"padding\" value { s: \"" + padding + "\" } } ";
  if (!pads.empty()) text += ints("pads", pads);
  if (ceil_mode) text += "attr { key: \"ceil_mode\" value { i: 1 } } ";
  return text;
}

void expect_near(const std::vector<float>& actual, const std::vector<float>& expected, float tol) {
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], expected[i], tol) << "element " << i;
}

// ---- hand-worked pooling and resizing ----------------------------------------

struct HandCase {
  const char* label;
  const char* op;
  std::string attrs;
  std::vector<int> in_shape;
  std::vector<float> in;
  std::vector<int> out_shape;
  std::vector<float> out;
};

class HandTest : public ::testing::TestWithParam<HandCase> {};

TEST_P(HandTest, MatchesHandValues) {
  const HandCase& c = GetParam();
  Tensor input = make_tensor(c.in_shape, c.in, "x");
  SingleOpRunner runner(c.op, node_with_attrs(c.attrs));
  std::vector<int> shape;
  expect_near(runner.run({&input}, &shape), c.out, 1e-6f);
  EXPECT_EQ(shape, c.out_shape);
}

std::vector<float> ramp(int n) {
  std::vector<float> v(n);
  for (int i = 0; i < n; ++i) v[i] = static_cast<float>(i);
  return v;
}

const char* const kScale2 = R"(attr { key: "wh_scale" value { f: 2 } })";

INSTANTIATE_TEST_SUITE_P(
    Pools, HandTest,
    ::testing::Values(
        // 5x5 ramp, 3x3 windows every 2: each maximum is the window's last cell
        HandCase{"max_3x3_s2_valid", "Z40MaxPool", pool_attrs(3, 3, 2, 2, "VALID", {}, false), {1, 5, 5, 1}, ramp(25),
                     {1, 2, 2, 1}, {12, 14, 22, 24}},
        // SAME on 3x3 with 2x2 windows: the one padding row/column is at the bottom/right,
        // and the padded cells are not counted in the mean
        HandCase{"avg_same_pad_after", "Z40AvgPool", pool_attrs(2, 2, 2, 2, "SAME", {}, false), {1, 3, 3, 1}, ramp(9),
                     {1, 2, 2, 1}, {2, 3.5f, 6.5f, 8}},
        // SAME, H = 5, kernel 3, stride 2: one padding row on top, one at the bottom
        HandCase{"max_same_pad_split", "Z40MaxPool", pool_attrs(3, 1, 2, 1, "SAME", {}, false), {1, 5, 1, 1},
                     {5, 1, 4, 2, 3}, {1, 3, 1, 1}, {5, 4, 3}},
        HandCase{"avg_same_pad_split", "Z40AvgPool", pool_attrs(3, 1, 2, 1, "SAME", {}, false), {1, 5, 1, 1},
                     {5, 1, 4, 2, 3}, {1, 3, 1, 1}, {3, 7.0f / 3, 2.5f}},
        // explicit pads with VALID: top 1, bottom 0
        HandCase{"avg_explicit_pads", "Z40AvgPool", pool_attrs(2, 1, 2, 1, "VALID", {1, 0, 0, 0}, false), {1, 3, 1, 1},
                     {2, 4, 8}, {1, 2, 1, 1}, {2, 6}},
        // ceil_mode keeps the partial last window (rows 4..5 -> row 4)
        HandCase{"max_ceil_partial_window", "Z40MaxPool", pool_attrs(2, 1, 2, 1, "VALID", {}, true), {1, 5, 1, 1},
                     {3, 1, 4, 1, 5}, {1, 3, 1, 1}, {3, 4, 5}},
        HandCase{"max_floor_drops_partial_window", "Z40MaxPool", pool_attrs(2, 1, 2, 1, "VALID", {}, false), {1, 5, 1, 1},
                     {3, 1, 4, 1, 5}, {1, 2, 1, 1}, {3, 4}},
        // ceil would give 3 windows, but the third would start at row 5, past input and top pad: dropped
        HandCase{"max_ceil_correction", "Z40MaxPool", pool_attrs(2, 1, 3, 1, "VALID", {1, 1, 0, 0}, true), {1, 4, 1, 1},
                     {1, 5, 2, 7}, {1, 2, 1, 1}, {1, 7}},
        HandCase{"max_lowest_values", "Z40MaxPool", pool_attrs(2, 2, 1, 1, "VALID", {}, false), {1, 2, 2, 1},
                     {-3e38f, -3.4e38f, -2e38f, -3.4e38f}, {1, 1, 1, 1}, {-2e38f}},
        // channels are pooled independently
        HandCase{"avg_two_channels", "Z40AvgPool", pool_attrs(2, 2, 2, 2, "VALID", {}, false), {1, 2, 2, 2},
                     {1, 10, 2, 20, 3, 30, 4, 40}, {1, 1, 1, 2}, {2.5f, 25}},
        HandCase{"global_avg_4d", "Z40GlobalAvgPool", "", {2, 1, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 9}, {2, 1, 1, 2},
                     {2, 3, 6, 7.5f}},
        HandCase{"global_avg_3d", "Z40GlobalAvgPool", "", {1, 3, 1}, {1, 2, 6}, {1, 1, 1, 1}, {3}}),
    [](const ::testing::TestParamInfo<HandCase>& info) { return std::string(info.param.label); });

// Reference pooling written from the definition: output (y, x) covers padded
// rows y*sh .. y*sh+kh-1 (input row = padded row - pad_top); only cells inside
// the input count.
std::vector<float> reference_pool(const std::vector<float>& in, const std::vector<int>& s, int kh, int kw, int sh, int sw,
                                  int pad_top, int pad_left, int oh, int ow, bool is_max) {
  const int N = s[0], H = s[1], W = s[2], C = s[3];
  std::vector<float> out;
  for (int n = 0; n < N; ++n)
    for (int y = 0; y < oh; ++y)
      for (int x = 0; x < ow; ++x)
        for (int c = 0; c < C; ++c) {
          double sum = 0;
          float best = -std::numeric_limits<float>::infinity();
          int count = 0;
          for (int ky = 0; ky < kh; ++ky)
            for (int kx = 0; kx < kw; ++kx) {
              const int iy = y * sh + ky - pad_top, ix = x * sw + kx - pad_left;
              if (iy < 0 || iy >= H || ix < 0 || ix >= W) continue;
              const float v = in[((n * H + iy) * W + ix) * C + c];
              sum += v;
              best = std::max(best, v);
              ++count;
            }
          out.push_back(is_max ? best : static_cast<float>(sum / count));
        }
  return out;
}

struct PoolRandomCase {
  std::vector<int> shape;
  int kh, kw, sh, sw;
  const char* padding;
  std::vector<int> pads;  // VALID only
  bool ceil_mode;
  int oh, ow;             // worked out by hand from the size rules
};

class PoolRandomTest : public ::testing::TestWithParam<std::tuple<PoolRandomCase, bool>> {};

TEST_P(PoolRandomTest, MatchesReferenceLoop) {
  const PoolRandomCase& c = std::get<0>(GetParam());
  const bool is_max = std::get<1>(GetParam());
  int count = 1;
  for (int d : c.shape) count *= d;
  const std::vector<float> values = random_values(count, 7u + count);
  Tensor input = make_tensor(c.shape, values, "x");
  const bool same = std::string(c.padding) == "SAME";
  int pad_top = 0, pad_left = 0;
  if (same) {
    pad_top = std::max(0, (c.oh - 1) * c.sh + c.kh - c.shape[1]) / 2;
    pad_left = std::max(0, (c.ow - 1) * c.sw + c.kw - c.shape[2]) / 2;
  } else if (!c.pads.empty()) {
    pad_top = c.pads[0];
    pad_left = c.pads[2];
  }
  SingleOpRunner runner(is_max ? "Z40MaxPool" : "Z40AvgPool",
                        node_with_attrs(pool_attrs(c.kh, c.kw, c.sh, c.sw, c.padding, c.pads, c.ceil_mode)));
  std::vector<int> shape;
  const std::vector<float> out = runner.run({&input}, &shape);
  ASSERT_EQ(shape, (std::vector<int>{c.shape[0], c.oh, c.ow, c.shape[3]}));
  expect_near(out, reference_pool(values, c.shape, c.kh, c.kw, c.sh, c.sw, pad_top, pad_left, c.oh, c.ow, is_max), 1e-5f);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, PoolRandomTest,
    ::testing::Combine(
        ::testing::Values(PoolRandomCase{{1, 7, 9, 3}, 3, 3, 2, 2, "VALID", {}, false, 3, 4},
                          PoolRandomCase{{2, 7, 9, 5}, 3, 3, 2, 2, "SAME", {}, false, 4, 5},
                          PoolRandomCase{{1, 6, 6, 17}, 2, 3, 1, 2, "SAME", {}, false, 6, 3},
                          PoolRandomCase{{1, 8, 7, 4}, 3, 3, 2, 2, "VALID", {1, 1, 1, 1}, false, 4, 4},
                          // large enough that rows are spread over the thread pool
                          PoolRandomCase{{2, 40, 40, 32}, 3, 3, 1, 1, "SAME", {}, false, 40, 40}),
        ::testing::Bool()));

// ceil_mode belongs to the maximum pooling only.
INSTANTIATE_TEST_SUITE_P(
    CeilMode, PoolRandomTest,
    ::testing::Combine(::testing::Values(PoolRandomCase{{1, 8, 7, 4}, 3, 3, 2, 2, "VALID", {1, 1, 1, 1}, true, 5, 4},
                                         PoolRandomCase{{1, 6, 8, 3}, 3, 3, 2, 2, "VALID", {}, true, 3, 4},
                                         PoolRandomCase{{1, 7, 7, 2}, 1, 1, 3, 3, "VALID", {}, true, 3, 3}),
                       ::testing::Values(true)));

TEST(GlobalAvgPoolTest, BackwardSpreadsTheMeanGradient) {
  Tensor input = make_tensor({1, 2, 2, 2}, std::vector<float>(8, 1.0f), "x");
  Tensor grad = make_tensor({1, 1, 1, 2}, {4, -8}, "g");
  SingleOpRunner runner("Z40GlobalAvgPool", node_with_attrs(""));
  runner.run({&input});
  Tensor input_grad;
  std::vector<Tensor*> grads = {&input_grad};
  runner.op()->backward({&input}, &runner.output(), &grad, grads);
  EXPECT_EQ(input_grad.shape(), input.shape());
  EXPECT_EQ(tensor_values(input_grad), (std::vector<float>{1, -2, 1, -2, 1, -2, 1, -2}));
}

TEST(GlobalAvgPoolTest, BackwardRefusesMismatchedGradient) {
  Tensor input = make_tensor({1, 2, 2, 2}, std::vector<float>(8, 1.0f), "x");
  Tensor grad = make_tensor({1, 1, 1, 3}, {1, 2, 3}, "g");
  SingleOpRunner runner("Z40GlobalAvgPool", node_with_attrs(""));
  Tensor input_grad;
  std::vector<Tensor*> grads = {&input_grad};
  EXPECT_CHECK_FAILED(runner.op()->backward({&input}, nullptr, &grad, grads), "output_grad->size() == N * C",
                      "Z40GlobalAvgPool: the output gradient does not match [1,1,1,2]");
  std::vector<Tensor*> none;
  Tensor good = make_tensor({1, 1, 1, 2}, {1, 2}, "g");
  EXPECT_CHECK_ERROR(runner.op()->backward({&input}, nullptr, &good, none), "input_grads[0] != nullptr",
                     "Z40GlobalAvgPool: no tensor to receive the input gradient");
}

// ---- resizing ---------------------------------------------------------------

INSTANTIATE_TEST_SUITE_P(
    Resizes, HandTest,
    ::testing::Values(
        // half-pixel centres: source rows/cols -0.25(->0), 0.25, 0.75, 1.25(->hi clamps to 1)
        HandCase{"bilinear_half_pixel", "Z40ResizeBilinear", kScale2, {1, 2, 2, 1}, {1, 2, 3, 4}, {1, 4, 4, 1},
                       {1, 1.25f, 1.75f, 2, 1.5f, 1.75f, 2.25f, 2.5f, 2.5f, 2.75f, 3.25f, 3.5f, 3, 3.25f, 3.75f, 4}},
        // corners map to corners: sources 0, 0.5, 1
        HandCase{"bilinear_align_corners", "Z40ResizeBilinear",
                       R"(attr { key: "wh_scale" value { f: 1.5 } } attr { key: "align_corners" value { b: true } })",
                       {1, 2, 2, 1}, {1, 2, 3, 4}, {1, 3, 3, 1}, {1, 1.5f, 2, 2, 2.5f, 3, 3, 3.5f, 4}},
        // 3 * 0.5 = 1.5 rounds to 2, 5 * 0.5 = 2.5 rounds to 2 (half to even)
        HandCase{"bilinear_downscale_sizes", "Z40ResizeBilinear", R"(attr { key: "wh_scale" value { f: 0.5 } })",
                       {1, 3, 5, 1}, std::vector<float>(15, 2.0f), {1, 2, 2, 1}, {2, 2, 2, 2}},
        HandCase{"nearest_x2", "Z40ResizeNearestNeighbor", kScale2, {1, 2, 2, 1}, {1, 2, 3, 4}, {1, 4, 4, 1},
                       {1, 1, 2, 2, 1, 1, 2, 2, 3, 3, 4, 4, 3, 3, 4, 4}},
        // 2 * 1.5 = 3: sources floor(o * 2 / 3) = 0, 0, 1
        HandCase{"nearest_x1_5", "Z40ResizeNearestNeighbor", R"(attr { key: "wh_scale" value { f: 1.5 } })",
                       {1, 2, 2, 2}, {1, 10, 2, 20, 3, 30, 4, 40}, {1, 3, 3, 2},
                       {1, 10, 1, 10, 2, 20, 1, 10, 1, 10, 2, 20, 3, 30, 3, 30, 4, 40}},
        HandCase{"unpool_2x3", "Z40Unpool2D", R"(attr { key: "kernel_size" value { list { i: 2 i: 3 } } })",
                       {1, 1, 2, 1}, {5, 6}, {1, 2, 6, 1}, {5, 5, 5, 6, 6, 6, 5, 5, 5, 6, 6, 6}},
        HandCase{"unpool_default_2x2", "Z40Unpool2D", "", {1, 1, 1, 2}, {7, 8}, {1, 2, 2, 2},
                       {7, 8, 7, 8, 7, 8, 7, 8}}),
    [](const ::testing::TestParamInfo<HandCase>& info) { return std::string(info.param.label); });

// TensorFlow's bilinear resize written out per output element.
std::vector<float> reference_bilinear(const std::vector<float>& in, const std::vector<int>& s, int oh, int ow,
                                      bool align) {
  const int N = s[0], H = s[1], W = s[2], C = s[3];
  auto source = [&](int o, int in_size, int out_size) {
    if (align) return out_size > 1 ? o * static_cast<float>(in_size - 1) / static_cast<float>(out_size - 1) : 0.0f;
    return std::max(0.0f, (o + 0.5f) * static_cast<float>(in_size) / static_cast<float>(out_size) - 0.5f);
  };
  std::vector<float> out;
  for (int n = 0; n < N; ++n)
    for (int y = 0; y < oh; ++y)
      for (int x = 0; x < ow; ++x)
        for (int c = 0; c < C; ++c) {
          const float sy = source(y, H, oh), sx = source(x, W, ow);
          const int y0 = std::min(static_cast<int>(sy), H - 1), x0 = std::min(static_cast<int>(sx), W - 1);
          const int y1 = std::min(y0 + 1, H - 1), x1 = std::min(x0 + 1, W - 1);
          const float fy = sy - y0, fx = sx - x0;
          auto at = [&](int yy, int xx) { return in[((n * H + yy) * W + xx) * C + c]; };
          out.push_back((1 - fy) * ((1 - fx) * at(y0, x0) + fx * at(y0, x1)) +
                        fy * ((1 - fx) * at(y1, x0) + fx * at(y1, x1)));
        }
  return out;
}

struct BilinearRandomCase {
  std::vector<int> shape;
  float scale;
  bool align;
  int oh, ow;
};

class BilinearRandomTest : public ::testing::TestWithParam<BilinearRandomCase> {};

TEST_P(BilinearRandomTest, MatchesReferenceLoop) {
  const BilinearRandomCase& c = GetParam();
  int count = 1;
  for (int d : c.shape) count *= d;
  const std::vector<float> values = random_values(count, 11u + count);
  Tensor input = make_tensor(c.shape, values, "x");
  const std::string attrs = "attr { key: \"wh_scale\" value { f: " + std::to_string(c.scale) + " } } " +
                            "attr { key: \"align_corners\" value { b: " + (c.align ? "true" : "false") + " } }";
  SingleOpRunner runner("Z40ResizeBilinear", node_with_attrs(attrs));
  std::vector<int> shape;
  const std::vector<float> out = runner.run({&input}, &shape);
  ASSERT_EQ(shape, (std::vector<int>{c.shape[0], c.oh, c.ow, c.shape[3]}));
  expect_near(out, reference_bilinear(values, c.shape, c.oh, c.ow, c.align), 1e-5f);
}

INSTANTIATE_TEST_SUITE_P(Shapes, BilinearRandomTest,
                         ::testing::Values(BilinearRandomCase{{1, 5, 7, 3}, 2.0f, false, 10, 14},
                                           BilinearRandomCase{{2, 5, 7, 3}, 1.5f, true, 8, 10},
                                           BilinearRandomCase{{1, 9, 6, 4}, 0.5f, false, 4, 3},
                                           BilinearRandomCase{{1, 1, 3, 2}, 3.0f, true, 3, 9},
                                           BilinearRandomCase{{1, 24, 24, 40}, 2.0f, false, 48, 48}));

}  // namespace
}  // namespace kovra_test
