#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "op_executor.h"
#include "ops/kernels/avx_common.h"
#include "support/test_util.h"
#include "thread_pool.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::force_isa;
using kovra::trenkit::kovraexecutor::Holder;
using kovra::trenkit::kovraexecutor::isa_name;
using kovra::trenkit::kovraexecutor::KernelIsa;
using kovra::trenkit::kovraexecutor::OpExecutor;
using kovra::trenkit::kovraexecutor::reset_isa;
using kovra::trenkit::kovraexecutor::ThreadPool;

struct ConvCase {
  std::string label;
  int h, w, c, oc, kh, kw;
  int sh = 1, sw = 1, dh = 1, dw = 1;
  std::string padding = "SAME";
  std::vector<int> pads;
  int groups = 1;
  float pad_value = 0.0f;
  std::string action;
  float alpha = 1.0f;
  bool bias = true;
  int batch = 1;
  bool depthwise = false;  // weights [kh, kw, c, oc / c]
};

std::vector<float> random_values(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

// The fused activations as the operator table states them.
double activate(double y, const ConvCase& k) {
  if (k.action == "Relu") return y > 0 ? y : 0;
  if (k.action == "Relu6") return y > 0 ? std::min(y, 6.0) : 0;
  if (k.action == "LeakyRelu") return y > 0 ? y : y * k.alpha;
  if (k.action == "Hsigmoid") return y > 1 ? 1 : std::max(y, 0.0);
  return y;
}

struct Expected {
  int oh, ow, pad_top, pad_left;
};

// Output size and top/left padding, from the rules: the tiled path (more than
// 2 channels, one group) pads SAME without dilation and ignores "pads".
Expected expected_geometry(const ConvCase& k) {
  Expected e;
  const bool tiled = !k.depthwise && k.c > 2 && k.groups == 1;
  if (k.padding == "SAME") {
    e.oh = static_cast<int>(std::ceil(static_cast<float>(k.h) / k.sh));
    e.ow = static_cast<int>(std::ceil(static_cast<float>(k.w) / k.sw));
    auto half_floor = [](int v) { return static_cast<int>(std::floor(v / 2.0)); };
    if (tiled) {
      e.pad_top = half_floor((e.oh - 1) * k.sh + k.kh - k.h);
      e.pad_left = half_floor((e.ow - 1) * k.sw + k.kw - k.w);
    } else {
      e.pad_top = half_floor((e.oh - 1) * k.sh + (k.kh - 1) * k.dh + 1 - k.h);
      e.pad_left = half_floor((e.ow - 1) * k.sw + (k.kw - 1) * k.dw + 1 - k.w);
    }
  } else {
    std::vector<int> p = k.pads.empty() ? std::vector<int>{0, 0, 0, 0} : k.pads;
    e.oh = (k.h + p[0] + p[1] - ((k.kh - 1) * k.dh + 1)) / k.sh + 1;
    e.ow = (k.w + p[2] + p[3] - ((k.kw - 1) * k.dw + 1)) / k.sw + 1;
    e.pad_top = tiled ? 0 : p[0];
    e.pad_left = tiled ? 0 : p[2];
  }
  return e;
}

// Plain loop in double; also returns the sum of |terms| for the tolerance.
void reference_conv(const ConvCase& k, const std::vector<float>& x, const std::vector<float>& w,
                    const std::vector<float>& b, std::vector<double>& out, std::vector<double>& mag) {
  const Expected e = expected_geometry(k);
  out.assign(static_cast<size_t>(k.batch) * e.oh * e.ow * k.oc, 0.0);
  mag.assign(out.size(), 0.0);
  const int in_per_group = k.depthwise ? 1 : k.c / k.groups;
  const int out_per_group = k.depthwise ? k.oc / k.c : k.oc / k.groups;
  size_t at = 0;
  for (int n = 0; n < k.batch; ++n)
    for (int oy = 0; oy < e.oh; ++oy)
      for (int ox = 0; ox < e.ow; ++ox)
        for (int o = 0; o < k.oc; ++o, ++at) {
          const int g = o / out_per_group;
          double sum = 0, m = 0;
          for (int ky = 0; ky < k.kh; ++ky)
            for (int kx = 0; kx < k.kw; ++kx)
              for (int c = 0; c < in_per_group; ++c) {
                const int iy = oy * k.sh + ky * k.dh - e.pad_top;
                const int ix = ox * k.sw + kx * k.dw - e.pad_left;
                const int ch = g * in_per_group + c;
                const double v = (iy >= 0 && iy < k.h && ix >= 0 && ix < k.w)
                                     ? x[((static_cast<size_t>(n) * k.h + iy) * k.w + ix) * k.c + ch]
                                     : k.pad_value;
                const double wt = k.depthwise ? w[(ky * k.kw + kx) * k.oc + o]
                                              : w[((ky * k.kw + kx) * in_per_group + c) * k.oc + o];
                sum += v * wt;
                m += std::fabs(v * wt);
              }
          const double bias = k.bias ? b[o] : 0.0;
          out[at] = activate(sum + bias, k);
          mag[at] = m + std::fabs(bias);
        }
}

GraphDef conv_graph(const ConvCase& k, const std::vector<float>& w, const std::vector<float>& b) {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  const int last = k.depthwise ? k.oc / k.c : k.oc;
  const int third = k.depthwise ? k.c : k.c / k.groups;
  add_float_const(graph, "w", {k.kh, k.kw, third, last}, w);
  std::vector<std::string> inputs = {"input", "w"};
  if (k.bias) {
    add_float_const(graph, "b", {k.oc}, b);
    inputs.push_back("b");
  }
  NodeDef* node = add_node(graph, "conv", k.depthwise ? "Z40DepthwiseConv2dNative" : "Z40Conv2D", inputs);
  set_attr_ints(node, "strides", {1, k.sh, k.sw, 1});
  set_attr_ints(node, "dilations", {1, k.dh, k.dw, 1});
  set_attr_s(node, "padding", k.padding);
  if (!k.pads.empty()) set_attr_ints(node, "pads", k.pads);
  if (k.groups != 1) set_attr_f(node, "groups", static_cast<float>(k.groups));
  if (k.pad_value != 0.0f) set_attr_f(node, "pad_value", k.pad_value);
  if (!k.action.empty()) set_attr_s(node, "ActionType", k.action);
  if (k.alpha != 1.0f) set_attr_f(node, "alpha", k.alpha);
  return graph;
}

struct ConvRun {
  std::vector<float> input, weight, bias;
  GraphDef graph;
};

ConvRun make_run(const ConvCase& k, unsigned seed = 7) {
  ConvRun r;
  r.input = random_values(static_cast<size_t>(k.batch) * k.h * k.w * k.c, seed);
  const int third = k.depthwise ? 1 : k.c / k.groups;
  r.weight = random_values(static_cast<size_t>(k.kh) * k.kw * third * k.oc, seed + 1);
  r.bias = random_values(k.oc, seed + 2);
  r.graph = conv_graph(k, r.weight, r.bias);
  return r;
}

std::vector<float> run_conv(const ConvRun& r, const ConvCase& k, std::vector<int>* shape = nullptr) {
  Tensor input = make_tensor({k.batch, k.h, k.w, k.c}, r.input);
  return run_single_op(r.graph, input, "conv", shape);
}

void expect_matches_reference(const ConvCase& k, const std::vector<float>& got, const ConvRun& r) {
  std::vector<double> want, mag;
  reference_conv(k, r.input, r.weight, r.bias, want, mag);
  ASSERT_EQ(got.size(), want.size()) << k.label;
  for (size_t i = 0; i < want.size(); ++i) {
    ASSERT_NEAR(got[i], want[i], 2e-6 * (mag[i] + 1.0)) << k.label << " at " << i;
  }
}

// Each case on each instruction set the processor has; the others are
// reported skipped.
class ConvReferenceTest : public ::testing::TestWithParam<std::tuple<ConvCase, KernelIsa>> {
 protected:
  void TearDown() override { reset_isa(); }
};

TEST_P(ConvReferenceTest, MatchesPlainLoop) {
  const ConvCase& k = std::get<0>(GetParam());
  const KernelIsa isa = std::get<1>(GetParam());
  if (!force_isa(isa)) GTEST_SKIP() << "the processor lacks " << isa_name(isa);
  const ConvRun r = make_run(k);
  const Expected e = expected_geometry(k);
  std::vector<int> shape;
  const std::vector<float> got = run_conv(r, k, &shape);
  EXPECT_EQ(shape, (std::vector<int>{k.batch, e.oh, e.ow, k.oc})) << k.label;
  expect_matches_reference(k, got, r);
  // The two vector paths sum every output in the same order.
  if (isa == KernelIsa::kAvx2 && force_isa(KernelIsa::kAvx512)) {
    const std::vector<float> wide = run_conv(r, k);
    ASSERT_EQ(got.size(), wide.size());
    EXPECT_EQ(0, std::memcmp(got.data(), wide.data(), got.size() * sizeof(float))) << k.label;
  }
}

ConvCase make_case(std::string label, int h, int w, int c, int oc, int kh, int kw) {
  ConvCase k;
  k.label = std::move(label);
  k.h = h, k.w = w, k.c = c, k.oc = oc, k.kh = kh, k.kw = kw;
  return k;
}

// Chained changes to a case, one row per case below.
struct Row : ConvCase {
  Row(std::string label, int h, int w, int c, int oc, int kh, int kw)
      : ConvCase(make_case(std::move(label), h, w, c, oc, kh, kw)) {}
  Row& s(int y, int x) { return sh = y, sw = x, *this; }
  Row& d(int y, int x) { return dh = y, dw = x, *this; }
  Row& valid(std::vector<int> p = {}) { return padding = "VALID", pads = std::move(p), *this; }
  Row& pv(float v) { return pad_value = v, *this; }
  Row& act(const std::string& a, float al) { return action = a, alpha = al, *this; }
  Row& dwise() { return depthwise = true, *this; }
  Row& no_bias() { return bias = false, *this; }
  Row& g(int n) { return groups = n, *this; }
  Row& n(int b) { return batch = b, *this; }
};

std::vector<ConvCase> conv_cases() {
  std::vector<ConvCase> v = {
      Row("same_odd_s2", 5, 5, 3, 4, 3, 3).s(2, 2), Row("same_even_k2", 4, 4, 3, 5, 2, 2),
      Row("same_even_s2", 6, 8, 8, 20, 3, 3).s(2, 2), Row("same_odd_s2_direct", 7, 5, 2, 3, 3, 3).s(2, 2),
      Row("one_by_one", 9, 7, 16, 40, 1, 1), Row("one_by_one_s2", 9, 8, 16, 33, 1, 1).s(2, 2),
      // Dilation: the direct path pads with it, the tiled path without it.
      Row("dilated_direct", 9, 8, 2, 3, 3, 3).d(2, 3),
      Row("dilated_tiled", 9, 8, 5, 7, 3, 3).d(2, 3).pv(0.25f), Row("groups", 6, 5, 6, 9, 3, 3).g(3),
      Row("tile_remainder_batch", 3, 7, 5, 37, 3, 3).n(2),
      // Explicit pads: honoured by the direct path, ignored by the tiled one.
      Row("pads_direct", 5, 6, 1, 4, 3, 3).valid({1, 1, 1, 1}).pv(-0.75f),
      Row("pads_direct_asym", 6, 6, 2, 4, 3, 2).valid({2, 0, 0, 1}).s(2, 1),
      Row("pads_tiled_ignored", 5, 5, 3, 4, 3, 3).valid({1, 1, 1, 1}).pv(0.5f),
      Row("valid_plain", 7, 6, 4, 8, 3, 2).valid(), Row("pad_value_tiled", 5, 6, 3, 5, 3, 3).pv(1.5f),
      Row("no_bias_tiled", 5, 7, 3, 6, 3, 3).no_bias(), Row("no_bias_direct", 5, 7, 2, 6, 3, 3).no_bias(),
      Row("wide_reduction", 4, 5, 40, 70, 3, 3),  // 360 taps: two reduction blocks
      Row("one_pixel", 1, 1, 3, 2, 3, 3), Row("eight_by_sixteen", 8, 16, 4, 5, 3, 3),
      Row("hundred", 100, 100, 3, 4, 3, 3),
      // 3x3, unit steps, 32 channels or more: the Winograd path, edges of
      // odd sizes, several blocks of tiles, padding values and activations.
      Row("winograd_same", 12, 12, 32, 40, 3, 3), Row("winograd_odd_edges", 11, 13, 33, 36, 3, 3).n(2),
      Row("winograd_valid", 18, 12, 32, 32, 3, 3).valid(),
      Row("winograd_pad_value", 12, 13, 40, 32, 3, 3).pv(0.5f).act("LeakyRelu", 0.1f).no_bias(),
      Row("winograd_blocks", 40, 38, 32, 48, 3, 3).act("Relu", 1.0f),
      // Blocks of 8 tiles for 272 outputs: 33 tiles leave one alone.
      Row("winograd_lone_tile", 6, 22, 32, 272, 3, 3),
      // Depthwise: (ky, kx)-ordered taps per channel, multiplier 1 and 2.
      Row("dw_same_s1", 9, 20, 19, 19, 3, 3).dwise().pv(0.5f),
      Row("dw_same_s2_dilated", 12, 23, 33, 33, 3, 3).dwise().s(2, 2).d(2, 2).act("Relu6", 1.0f),
      Row("dw_valid_pads", 7, 30, 16, 16, 3, 5).dwise().valid({1, 2, 2, 1}).no_bias(),
      Row("dw_multiplier", 6, 6, 3, 6, 3, 3).dwise().act("LeakyRelu", 0.2f)};
  for (const char* act : {"Relu", "Relu6", "LeakyRelu", "Hsigmoid"}) {
    v.push_back(Row(std::string("act_") + act, 6, 6, 4, 8, 3, 3).act(act, 0.1f));
    v.push_back(Row(std::string("act_direct_") + act, 6, 6, 1, 8, 3, 3).act(act, 0.3f));
  }
  return v;
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, ConvReferenceTest,
    ::testing::Combine(::testing::ValuesIn(conv_cases()),
                       ::testing::Values(KernelIsa::kPortable, KernelIsa::kAvx2, KernelIsa::kAvx512)),
    [](const auto& info) { return std::get<0>(info.param).label + "_" + isa_name(std::get<1>(info.param)); });

TEST(ConvTest, HandWorkedSamePaddingFallsAtTheBottom) {
  // H = 4, kernel 2 x 1, stride 1: OH = 4 and pad_top = 0, so the last output
  // reads the padding row below the image (pad_value 0.5).
  const ConvCase k = Row("hand", 4, 1, 1, 1, 2, 1).pv(0.5f);
  GraphDef graph = conv_graph(k, {1.0f, 10.0f}, {0.0f});
  Tensor input = make_tensor({1, 4, 1, 1}, {1, 2, 3, 4});
  std::vector<int> shape;
  EXPECT_EQ(run_single_op(graph, input, "conv", &shape), (std::vector<float>{21, 32, 43, 9}));
  EXPECT_EQ(shape, (std::vector<int>{1, 4, 1, 1}));
}

TEST(ConvTest, HandWorkedOddSamePaddingOnTheTiledPath) {
  // H = W = 5, 3 channels, stride 2, kernel 3: OH = 3, pad_top = pad_left = 1.
  // All-ones weights and input: corners see 2 x 2 pixels, edges 2 x 3, the
  // centre 3 x 3, times 3 channels.
  const ConvCase k = Row("hand", 5, 5, 3, 1, 3, 3).s(2, 2);
  GraphDef graph = conv_graph(k, std::vector<float>(27, 1.0f), {0.5f});
  Tensor input = make_tensor({1, 5, 5, 3}, std::vector<float>(75, 1.0f));
  EXPECT_EQ(run_single_op(graph, input, "conv"),
            (std::vector<float>{12.5, 18.5, 12.5, 18.5, 27.5, 18.5, 12.5, 18.5, 12.5}));
}

TEST(ConvTest, ResultsDoNotDependOnThreadCount) {
  for (ConvCase k : {make_case("one", 1, 1, 8, 40, 3, 3), make_case("tiles16", 8, 16, 8, 40, 3, 3),
                     make_case("big", 100, 100, 4, 24, 3, 3)}) {
    const ConvRun r = make_run(k, 11);
    std::vector<std::vector<float>> results;
    for (int threads : {1, 2, 16}) {
      ThreadPool::instance().set_num_threads(threads);
      results.push_back(run_conv(r, k));
    }
    ThreadPool::instance().set_num_threads(2);
    expect_matches_reference(k, results[0], r);
    EXPECT_EQ(results[0], results[1]) << k.label;
    EXPECT_EQ(results[0], results[2]) << k.label;
  }
}

// ---- gradients ----

// Central differences of L = sum(output * seed_grad) against backward().
void check_gradients(const ConvCase& k) {
  ConvRun r = make_run(k, 21);
  const Expected e = expected_geometry(k);
  const std::string op_name = k.depthwise ? "Z40DepthwiseConv2dNative" : "Z40Conv2D";
  std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at(op_name)());
  op->parse_parameter(r.graph.node(r.graph.node_size() - 1));
  const int third = k.depthwise ? k.c : k.c / k.groups;
  const int last = k.depthwise ? k.oc / k.c : k.oc;
  auto forward = [&](const std::vector<float>& x, const std::vector<float>& w, const std::vector<float>& b) {
    Tensor tx = make_tensor({k.batch, k.h, k.w, k.c}, x);
    Tensor tw = make_tensor({k.kh, k.kw, third, last}, w);
    Tensor tb = make_tensor({k.oc}, b);
    std::vector<const Tensor*> in = {&tx, &tw, &tb};
    std::vector<int> shape;
    op->inference_shape(in, shape);
    Tensor out = make_tensor(shape, std::vector<float>(static_cast<size_t>(k.batch) * e.oh * e.ow * k.oc));
    op->execute(in, &out);
    return tensor_values(out);
  };
  const std::vector<float> seed = random_values(static_cast<size_t>(k.batch) * e.oh * e.ow * k.oc, 5);
  auto loss = [&](const std::vector<float>& x, const std::vector<float>& w, const std::vector<float>& b) {
    const std::vector<float> y = forward(x, w, b);
    double s = 0;
    for (size_t i = 0; i < y.size(); ++i) s += static_cast<double>(y[i]) * seed[i];
    return s;
  };
  Tensor tx = make_tensor({k.batch, k.h, k.w, k.c}, r.input);
  Tensor tw = make_tensor({k.kh, k.kw, third, last}, r.weight);
  Tensor tb = make_tensor({k.oc}, r.bias);
  Tensor out = make_tensor({k.batch, e.oh, e.ow, k.oc}, forward(r.input, r.weight, r.bias));
  Tensor out_grad = make_tensor({k.batch, e.oh, e.ow, k.oc}, seed);
  Tensor dx, dw, db;
  std::vector<Tensor*> grads = {&dx, &dw, &db};
  op->backward({&tx, &tw, &tb}, &out, &out_grad, grads);
  const float h = 1e-2f;
  auto numeric = [&](std::vector<float>& v, size_t i, int which) {
    const float keep = v[i];
    v[i] = keep + h;
    const double up = which == 0   ? loss(v, r.weight, r.bias)
                      : which == 1 ? loss(r.input, v, r.bias)
                                   : loss(r.input, r.weight, v);
    v[i] = keep - h;
    const double down = which == 0   ? loss(v, r.weight, r.bias)
                        : which == 1 ? loss(r.input, v, r.bias)
                                     : loss(r.input, r.weight, v);
    v[i] = keep;
    return (up - down) / (2 * h);
  };
  std::vector<float> x = r.input, w = r.weight, b = r.bias;
  const std::vector<float> gx = tensor_values(dx), gw = tensor_values(dw), gb = tensor_values(db);
  ASSERT_EQ(gx.size(), x.size());
  ASSERT_EQ(gw.size(), w.size());
  ASSERT_EQ(gb.size(), b.size());
  for (size_t i = 0; i < x.size(); ++i) EXPECT_NEAR(gx[i], numeric(x, i, 0), 5e-3) << k.label << " dx " << i;
  for (size_t i = 0; i < w.size(); ++i) EXPECT_NEAR(gw[i], numeric(w, i, 1), 5e-3) << k.label << " dw " << i;
  for (size_t i = 0; i < b.size(); ++i) EXPECT_NEAR(gb[i], numeric(b, i, 2), 5e-3) << k.label << " db " << i;
}

TEST(ConvGradientTest, MatchesNumericDifferences) {
  check_gradients(Row("direct_padvalue", 4, 3, 2, 3, 3, 2).pv(0.5f));
  check_gradients(Row("tiled_s2", 5, 4, 3, 2, 3, 3).s(2, 2));
  check_gradients(Row("groups_valid", 4, 4, 4, 2, 2, 2).g(2).valid({1, 0, 0, 1}));
  check_gradients(Row("dw", 4, 5, 3, 6, 3, 3).dwise().pv(-0.5f));
}

TEST(ConvGradientTest, ReluPassesGradientOnlyWherePositive) {
  const ConvCase k = Row("relu", 3, 3, 1, 1, 1, 1).act("Relu", 1.0f);
  GraphDef graph = conv_graph(k, {2.0f}, {0.0f});
  std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at("Z40Conv2D")());
  op->parse_parameter(graph.node(graph.node_size() - 1));
  Tensor x = make_tensor({1, 3, 3, 1}, {1, -1, 2, -2, 3, -3, 4, -4, 5});
  Tensor w = make_tensor({1, 1, 1, 1}, {2});
  Tensor b = make_tensor({1}, {0});
  Tensor y = make_tensor({1, 3, 3, 1}, {2, 0, 4, 0, 6, 0, 8, 0, 10});
  Tensor dy = make_tensor({1, 3, 3, 1}, std::vector<float>(9, 1.0f));
  Tensor dx, dw, db;
  std::vector<Tensor*> grads = {&dx, &dw, &db};
  op->backward({&x, &w, &b}, &y, &dy, grads);
  EXPECT_EQ(tensor_values(dx), (std::vector<float>{2, 0, 2, 0, 2, 0, 2, 0, 2}));
  EXPECT_EQ(tensor_values(dw), (std::vector<float>{15}));
  EXPECT_EQ(tensor_values(db), (std::vector<float>{5}));
}

// ---- failures ----

struct ConvFailure {
  std::string label;
  std::string node_text;  // attributes of the conv node
  std::vector<int> input_shape, weight_shape;
  int bias_size;  // -1: no bias input
  std::string condition, message;
  bool depthwise = false;
};

class ConvFailureTest : public ::testing::TestWithParam<ConvFailure> {};

void run_failure(const ConvFailure& f) {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  std::vector<std::string> inputs = {"input"};
  if (!f.weight_shape.empty()) {
    size_t n = 1;
    for (int d : f.weight_shape) n *= d;
    add_float_const(graph, "w", f.weight_shape, std::vector<float>(n, 1.0f));
    inputs.push_back("w");
  }
  if (f.bias_size >= 0) {
    add_float_const(graph, "b", {f.bias_size}, std::vector<float>(f.bias_size, 1.0f));
    inputs.push_back("b");
  }
  NodeDef* node = add_node(graph, "conv", f.depthwise ? "Z40DepthwiseConv2dNative" : "Z40Conv2D", inputs);
  NodeDef attrs = parse_text_node(f.node_text);
  node->mutable_attr()->insert(attrs.attr().begin(), attrs.attr().end());
  size_t n = 1;
  for (int d : f.input_shape) n *= d;
  Tensor input = make_tensor(f.input_shape, std::vector<float>(n, 1.0f));
  run_single_op(graph, input, "conv");
}

TEST_P(ConvFailureTest, StopsWithItsMessage) {
  const ConvFailure& f = GetParam();
  EXPECT_EQ(error_text([&] { run_failure(f); }),
            f.condition.empty() ? f.message : check_text(f.condition, f.message));
}

#define LIST(key, ...) "attr { key: \"" #key "\" value { list { i: [" #__VA_ARGS__ "] } } } "
#define S(key, v) "attr { key: \"" #key "\" value { s: \"" #v "\" } } "
const char* const kGoodAttrs = LIST(strides, 1, 1, 1, 1) LIST(dilations, 1, 1, 1, 1) S(padding, SAME);

// clang-format off
std::vector<ConvFailure> failures() {
  const std::string good = kGoodAttrs;
  const char* const strides = LIST(strides, 1, 1, 1, 1);
  return {
      {"missing_strides", S(padding, SAME), {1, 4, 4, 3}, {3, 3, 3, 2}, -1, "suc",
          "Do not find the strides in FloatZ40Conv2D!!!"},
      {"missing_padding", strides, {1, 4, 4, 3}, {3, 3, 3, 2}, -1, "suc",
          "Do not find the padding in FloatZ40Conv2D!!!"},
      {"too_few_inputs", good, {1, 4, 4, 3}, {}, -1, "inputs.size() >= 2",
          "FloatZ40Conv2D needs 2 inputs but has 1"},
      {"weight_rank", good, {1, 4, 4, 3}, {9, 3, 2}, -1, "weight->shape().size() == 4",
          "FloatZ40Conv2D: weight must be [kernel_h, kernel_w, in_channels / groups, out_channels]"},
      {"weight_channels", good, {1, 4, 4, 3}, {3, 3, 4, 2}, -1,
          "weight_in_channels * groups == input_channels",
          "FloatZ40Conv2D: weight in-channels 4 x groups 1 != input channels 3"},
      {"groups_divide", good + R"( attr { key: "groups" value { f: 2 } })", {1, 4, 4, 4}, {3, 3, 2, 3}, -1,
       "groups > 0 && out_channels % groups == 0", "FloatZ40Conv2D: groups 2 do not divide out_channels 3"},
      {"bias_short", good, {1, 4, 4, 3}, {3, 3, 3, 4}, 3, "tensor->size() >= 4",
          "FloatZ40Conv2D: b has 3 elements, needs 4"},
      {"kernel_too_big", std::string(strides) + S(padding, VALID), {1, 2, 2, 3}, {5, 5, 3, 1}, -1,
          "out_h > 0 && out_w > 0", "FloatZ40Conv2D: the kernel does not fit the padded input"},
      {"short_strides", LIST(strides, 1, 1) S(padding, SAME), {1, 4, 4, 3}, {3, 3, 3, 2}, -1,
          "values.size() >= 4", "FloatZ40Conv2D: attribute strides has 2 values, needs 4"},
      {"zero_stride", LIST(strides, 1, 0, 1, 1) S(padding, SAME), {1, 4, 4, 3}, {3, 3, 3, 2}, -1,
          "strides[1] > 0 && strides[2] > 0", "FloatZ40Conv2D: strides must be positive"},
      {"zero_dilation", std::string(strides) + LIST(dilations, 1, 1, 0, 1) S(padding, SAME), {1, 4, 4, 3},
          {3, 3, 3, 2}, -1, "dilations[1] > 0 && dilations[2] > 0",
          "FloatZ40Conv2D: dilations must be positive"},
      {"huge_pads", std::string(strides) + LIST(pads, 1, 1, 1, 2000000000) S(padding, VALID), {1, 4, 4, 3},
          {3, 3, 3, 2}, -1, "steps within limits", "FloatZ40Conv2D: strides, dilations or pads out of range"},
      {"huge_dilation", std::string(strides) + LIST(dilations, 1, 16000000, 1, 1) S(padding, SAME),
          {1, 4, 4, 3}, {20, 1, 3, 2}, -1, "kernel * dilation < 2^28",
          "FloatZ40Conv2D: dilated kernel too large"},
      {"dw_missing_padding", LIST(dilations, 1, 1, 1, 1), {1, 4, 4, 3}, {3, 3, 3, 1}, -1, "suc",
          "Do not find the padding in FloatZ40DepthwiseConv2dNative!!!", true},
      {"dw_missing_dilations", S(padding, SAME), {1, 4, 4, 3}, {3, 3, 3, 1}, -1, "suc",
          "Do not find the dilations in FloatZ40DepthwiseConv2dNative!!!", true},
      {"dw_no_kernel", good, {1, 4, 4, 3}, {}, -1, "op_param_->kernel_shape.size() > 0",
          "The shape of kernel is 0 in FloatZ40DepthwiseConv2dNative!!!", true},
      {"dw_weight_rank", good, {1, 4, 4, 3}, {3, 3, 3}, -1, "weight->shape().size() == 4",
          "FloatZ40DepthwiseConv2dNative: weight must be [kernel_h, kernel_w, channels, multiplier]", true},
      {"dw_channels", good, {1, 4, 4, 3}, {3, 3, 4, 1}, -1, "weight_channels == input_channels",
          "FloatZ40DepthwiseConv2dNative: weight channels 4 != input channels 3", true},
      {"dw_bias_short", good, {1, 4, 4, 3}, {3, 3, 3, 2}, 5, "tensor->size() >= 6",
          "FloatZ40DepthwiseConv2dNative: b has 5 elements, needs 6", true},
      // The default policy's check of an unknown padding.
      {"bad_padding", std::string(strides) + S(padding, FULL), {1, 4, 4, 3}, {3, 3, 3, 2}, -1, "",
          "Check failed: false"},
  };
}
// clang-format on

INSTANTIATE_TEST_SUITE_P(Cases, ConvFailureTest, ::testing::ValuesIn(failures()),
                         [](const ::testing::TestParamInfo<ConvFailure>& info) { return info.param.label; });

// The default policy prints the line and aborts.
TEST(ConvFailureDeathTest, DefaultPolicyAborts) {
  EXPECT_FATAL(run_failure(failures().back()), "Check failed: false");
}

// Calls no graph makes, on both convolutions.
TEST(ConvFailureTest, DirectCallsWithWrongTensors) {
  for (const std::string name : {"Z40Conv2D", "Z40DepthwiseConv2dNative"}) {
    SCOPED_TRACE(name);
    const bool conv = name == "Z40Conv2D";
    const std::string label = "Float" + name;
    std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at(name)());
    std::vector<Tensor*> no_grads;
    EXPECT_EQ(error_text([&] { op->backward({}, nullptr, nullptr, no_grads); }),
              check_text("weight_gradient != NULL", conv ? "Please set conv weight grad tesnor."
                                                         : "Please set dwconv weight grad tesnor."));
    op->parse_parameter(parse_text_node(kGoodAttrs));
    std::vector<int> shape;
    Tensor scalar;
    Tensor weight = make_tensor({1, 1, 3, 1}, {1, 1, 1}, "w");
    EXPECT_EQ(error_text([&] {
                op->inference_shape({&scalar, &weight}, shape);
              }),
              check_text("input_tensor->shape().size() == 4",
                         std::string("Wrong input shape in ") + (conv ? "z40 conv2d" : label) + "!!!"));
    float buffer[4] = {};
    Tensor empty({1, 2, 0, 3}, Tensor::DT_FLOAT, buffer, "cpu");
    empty.set_name("x");
    EXPECT_EQ(error_text([&] {
                op->inference_shape({&empty, &weight}, shape);
              }),
              check_text("dim > 0", label + ": x has an empty dimension"));
    // Outputs and gradients of the wrong size.
    Tensor x = make_tensor({1, 2, 2, 3}, std::vector<float>(12, 1.0f), "x");
    const int out_c = conv ? 1 : 3;
    const std::string too_small =
        check_text("tensor->size() >= " + std::to_string(4 * out_c),
                   label + ": y has 3 elements, needs " + std::to_string(4 * out_c));
    Tensor small = make_tensor({1, 3}, {0, 0, 0}, "y");
    EXPECT_EQ(error_text([&] { op->execute({&x, &weight}, &small); }), too_small);
    Tensor out = make_tensor({1, 2, 2, out_c}, std::vector<float>(4 * out_c, 0.0f), "y");
    Tensor dw;
    std::vector<Tensor*> grads = {nullptr, &dw};
    EXPECT_EQ(error_text([&] { op->backward({&x, &weight}, &out, &small, grads); }), too_small);
    EXPECT_EQ(error_text([&] { op->backward({&x, &weight}, &small, &out, grads); }), too_small);
    // Shapes whose output would not fit an int element count; borrowed buffers, only shapes are read.
    Tensor huge({1, 1 << 14, 1 << 14, 1}, Tensor::DT_FLOAT, buffer, "cpu");
    Tensor wide({1, 1, 1, 8}, Tensor::DT_FLOAT, buffer, "cpu");
    EXPECT_EQ(error_text([&] {
                op->inference_shape({&huge, &wide}, shape);
              }),
              check_text("output_size <= INT_MAX", label + ": output too large"));
  }
  std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at("Z40Conv2D")());
  op->parse_parameter(parse_text_node(kGoodAttrs));
  Tensor input({1, 2, 2, 3}, Tensor::DT_INT8, nullptr, "cpu");
  input.set_name("x");
  Tensor weight = make_tensor({1, 1, 3, 1}, {1, 1, 1});
  std::vector<int> shape;
  EXPECT_EQ(
      error_text([&] {
        op->inference_shape({&input, &weight}, shape);
      }),
      check_text("tensor->data_type() == DT_FLOAT", "FloatZ40Conv2D reads x as float but it holds type 6"));
}

}  // namespace
}  // namespace kovra_test
