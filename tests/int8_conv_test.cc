#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>

#include "graph_executor.h"
#include "op_executor.h"
#include "ops/kernels/avx_common.h"
#include "ops/kernels/conv2d_int8.h"
#include "ops/kernels/int8_dot_path.h"
#include "support/int8_graph.h"
#include "support/int8_reference.h"
#include "support/int8_tables.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;

struct ConvCase {
  std::string name;
  int n = 1, h = 6, w = 5, cin = 4, cout = 5, kh = 3, kw = 3;
  int sh = 1, sw = 1, dh = 1, dw = 1;
  std::string padding = "SAME";
  std::vector<int> pads;
  int groups = 1;
  bool depthwise = false;
  int code_lo = 0, code_hi = 255;  // input codes
  int weight_lo = -128, weight_hi = 127;
  bool fractional_input = false;
  float pad_value = 0.0f;
  bool bias = true;
  bool first_layer = false;
  int input_offset = 0;
  Int8Stage stage;
};

int out_size(const ConvCase& c, int in, int k, int s, int d, int pad_a, int pad_b) {
  if (c.padding == "SAME") return (int)std::ceil((float)in / (float)s);
  return (in + pad_a + pad_b - ((k - 1) * d + 1)) / s + 1;
}

struct ConvData {
  std::vector<float> input, weight, bias, mean, var;
  int oh = 0, ow = 0;
};

ConvData make_data(const ConvCase& c, unsigned seed) {
  std::mt19937 rng(seed);
  ConvData d;
  std::uniform_int_distribution<int> code(c.code_lo, c.code_hi);
  std::uniform_int_distribution<int> wcode(c.weight_lo, c.weight_hi);
  d.input.resize((size_t)c.n * c.h * c.w * c.cin);
  for (float& v : d.input) v = c.fractional_input ? code(rng) + 0.37f * (code(rng) % 3) : code(rng);
  const int wc = c.depthwise ? c.cin : c.cin / c.groups;
  d.weight.resize((size_t)c.kh * c.kw * wc * (c.depthwise ? c.cout / c.cin : c.cout));
  for (float& v : d.weight) v = wcode(rng);
  std::uniform_int_distribution<int> b(-3000, 3000);
  for (int i = 0; i < c.cout; ++i) d.bias.push_back(c.bias ? b(rng) * 0.5f : 0.0f);
  for (int i = 0; i < c.cin; ++i) {
    d.mean.push_back(100.0f + 7.3f * i);
    d.var.push_back(0.4f + 0.05f * i);
  }
  const int p0 = c.pads.empty() ? 0 : c.pads[0], p1 = c.pads.empty() ? 0 : c.pads[1];
  const int p2 = c.pads.empty() ? 0 : c.pads[2], p3 = c.pads.empty() ? 0 : c.pads[3];
  d.oh = out_size(c, c.h, c.kh, c.sh, c.dh, p0, p1);
  d.ow = out_size(c, c.w, c.kw, c.sw, c.dw, p2, p3);
  return d;
}

float first_code(float x, float mean, float var, int offset) {
  float q = (float)offset + ref_round((x - mean) * var);
  return std::min(std::max(q, 0.0f), 255.0f);
}

// The convolution written out: each output sums kernel rows, kernel columns,
// then input channels in float, then takes the output stage.
std::vector<float> reference_conv(const ConvCase& c, const ConvData& d) {
  const int pixels = d.oh * d.ow;
  std::vector<float> out((size_t)c.n * pixels * c.cout);
  int pad_top = 0, pad_left = 0;
  if (c.padding == "SAME") {
    pad_top = (int)std::floor(((d.oh - 1) * c.sh + c.kh - c.h) / 2.0);
    pad_left = (int)std::floor(((d.ow - 1) * c.sw + c.kw - c.w) / 2.0);
  } else if (!c.pads.empty()) {
    pad_top = c.pads[0];
    pad_left = c.pads[2];
  }
  const int groups = c.depthwise ? c.cin : c.groups;
  const int in_g = c.cin / groups, out_g = c.cout / groups;
  for (int b = 0; b < c.n; ++b)
    for (int oy = 0; oy < d.oh; ++oy)
      for (int ox = 0; ox < d.ow; ++ox)
        for (int o = 0; o < c.cout; ++o) {
          const int g = o / out_g;
          float sum = 0.0f;
          for (int ky = 0; ky < c.kh; ++ky)
            for (int kx = 0; kx < c.kw; ++kx)
              for (int i = 0; i < in_g; ++i) {
                const int ch = g * in_g + i;
                const int iy = oy * c.sh - pad_top + ky * c.dh;
                const int ix = ox * c.sw - pad_left + kx * c.dw;
                float x;
                if (iy >= 0 && iy < c.h && ix >= 0 && ix < c.w) {
                  x = d.input[(((size_t)b * c.h + iy) * c.w + ix) * c.cin + ch];
                } else if (c.first_layer) {
                  x = c.cin == 3 ? d.mean[ch] : ref_round(d.mean[ch]);
                } else {
                  x = c.pad_value;
                }
                if (c.first_layer) x = first_code(x, d.mean[ch], d.var[ch], c.input_offset);
                float w;
                if (c.depthwise) {
                  w = d.weight[((size_t)(ky * c.kw + kx) * c.cin + ch) * out_g + o % out_g];
                } else {
                  w = d.weight[((size_t)(ky * c.kw + kx) * in_g + i) * c.cout + o];
                }
                sum += x * w;
              }
          out[(((size_t)b * d.oh + oy) * d.ow + ox) * c.cout + o] =
              ref_output(c.stage, sum, d.bias[o], o, c.cout);
        }
  return out;
}

GraphDef build_graph(const ConvCase& c, const ConvData& d) {
  GraphDef g;
  add_node(g, "input", "ZxxNOp");
  const int wc = c.depthwise ? c.cin : c.cin / c.groups;
  add_float_const(g, "w", {c.kh, c.kw, wc, c.depthwise ? c.cout / c.cin : c.cout}, d.weight);
  std::vector<std::string> inputs = {"input", "w"};
  if (c.bias) {
    add_float_const(g, "b", {c.cout}, d.bias);
    inputs.push_back("b");
  }
  NodeDef* node = add_node(g, "conv", c.depthwise ? "Z40DepthwiseConv2dNativeInt8" : "Z40Conv2DInt8", inputs);
  set_attr_s(node, "padding", c.padding);
  set_attr_ints(node, "strides", {1, c.sh, c.sw, 1});
  set_attr_ints(node, "dilations", {1, c.dh, c.dw, 1});
  if (!c.pads.empty()) set_attr_ints(node, "pads", c.pads);
  if (c.groups != 1) set_attr_i(node, "groups", c.groups);
  set_attr_f(node, "pad_value", c.pad_value);
  const Int8Stage& s = c.stage;
  set_attr_s(node, "ActionType", s.action);
  set_attr_floats(node, "OUTPUTSCALE", s.output_scale);
  if (!s.sum_scale.empty()) {
    set_attr_floats(node, "SUMSCALE", s.sum_scale);
    set_attr_floats(node, "QSCALE", s.q_scale);
  }
  set_attr_ints(node, "multify_factor", {s.m});
  set_attr_i(node, "maxValue", s.hi);
  set_attr_i(node, "minValue", s.lo);
  set_attr_i(node, "offset", s.offset);
  set_attr_f(node, "alpha", s.alpha);
  set_attr_f(node, "elu_alpha", s.elu_alpha);
  set_attr_f(node, "hswish_add_scalar_value", s.hswish_add);
  set_attr_f(node, "hswish_mul_scalar_value", s.hswish_mul);
  set_attr_i(node, "output_bitwidth", s.bits32 ? 32 : 8);
  if (c.first_layer) {
    set_attr_floats(node, "input_mean", d.mean);
    set_attr_floats(node, "input_var", d.var);
    set_attr_i(node, "input_offset", c.input_offset);
  }
  return g;
}

std::vector<float> scales(int count, float base, float step) {
  std::vector<float> v;
  for (int i = 0; i < count; ++i) v.push_back(base + step * (i % 7));
  return v;
}

Int8Stage stage_for(const std::string& action, int cout, float scale) {
  Int8Stage s;
  s.action = action;
  const bool split = action == "LeakyRelu" || action == "PRelu";
  s.output_scale = scales(split ? 2 * cout : cout, scale, scale * 0.13f);
  if (split) {
    for (int i = cout; i < 2 * cout; ++i) s.output_scale[i] *= 0.1f;
  }
  if (!split && action != "None" && action != "Relu" && action != "Relu6") {
    s.sum_scale = scales(cout, scale * 0.02f, scale * 0.003f);
    s.q_scale = scales(cout, 40.0f, 3.5f);
  }
  return s;
}

std::vector<ConvCase> conv_cases() {
  std::vector<ConvCase> cases;
  auto add = [&](ConvCase c) { cases.push_back(c); };
  ConvCase base;
  base.stage = stage_for("None", base.cout, 1.0f / 4096);
  // clang-format off
  { ConvCase c = base; c.name = "same_unsigned"; add(c); }
  { ConvCase c = base; c.name = "same_signed"; c.code_lo = -128; c.code_hi = 127; add(c); }
  { ConvCase c = base; c.name = "valid_pads_stride2"; c.padding = "VALID"; c.pads = {1, 2, 2, 1};
    c.sh = 2; c.sw = 2; c.h = 9; c.w = 11; add(c); }
  { ConvCase c = base; c.name = "dilated_same"; c.dh = 2; c.dw = 3; c.h = 9; c.w = 10; add(c); }
  { ConvCase c = base; c.name = "tiles_remainder_batch2"; c.n = 2; c.h = 7; c.w = 9; c.cout = 37;
    c.stage = stage_for("Relu6", 37, 1.0f / 3000); c.stage.lo = 0; c.stage.hi = 6; add(c); }
  { ConvCase c = base; c.name = "wide_output_channels"; c.cin = 19; c.cout = 130; c.h = 11; c.w = 13;
    c.stage = stage_for("Relu", 130, 1.0f / 20000); c.stage.lo = 0; c.stage.offset = -7; add(c); }
  { ConvCase c = base; c.name = "pad_value_multiplier"; c.pad_value = 3.0f; c.stage.m = 3; add(c); }
  { ConvCase c = base; c.name = "no_bias_negative_m"; c.bias = false; c.stage.m = -1; add(c); }
  { ConvCase c = base; c.name = "leaky"; c.stage = stage_for("LeakyRelu", 5, 1.0f / 2048); add(c); }
  { ConvCase c = base; c.name = "prelu_signed"; c.code_lo = -128; c.code_hi = 127;
    c.stage = stage_for("PRelu", 5, 1.0f / 2048); add(c); }
  for (const char* act : {"Swish", "Sigmoid", "Selu", "Tanh", "Elu", "HardSwish", "Mish", "Softplus",
                          "Softsign", "NoSuchActivation"}) {
    ConvCase c = base;
    c.name = std::string("act_") + act;
    c.code_lo = -128;
    c.code_hi = 127;
    c.stage = stage_for(act, 5, 1.0f / 1024);
    c.stage.elu_alpha = 0.7f;
    c.stage.hswish_add = 2.5f;
    c.stage.hswish_mul = 0.2f;
    add(c);
  }
  for (const char* act : {"Relu", "Relu6", "LeakyRelu", "None"}) {
    ConvCase c = base;
    c.name = std::string("bits32_") + act;
    c.code_lo = -128;
    c.code_hi = 127;
    c.stage = stage_for(act, 5, 1.0f / 8192);
    c.stage.bits32 = true;
    c.stage.alpha = 0.25f;
    add(c);
  }
  { ConvCase c = base; c.name = "groups_direct"; c.cin = 6; c.cout = 9; c.groups = 3;
    c.stage = stage_for("None", 9, 1.0f / 1024); add(c); }
  { ConvCase c = base; c.name = "two_channels_direct"; c.cin = 2; c.padding = "VALID"; c.pads = {1, 1, 1, 1};
    add(c); }
  { ConvCase c = base; c.name = "first_layer_rgb"; c.cin = 3; c.first_layer = true; c.input_offset = 3;
    c.fractional_input = true; c.code_lo = 0; c.code_hi = 255; c.weight_lo = -20; c.weight_hi = 20;
    c.stage.hi = 120; add(c); }
  { ConvCase c = base; c.name = "first_layer_4ch"; c.cin = 4; c.first_layer = true; c.input_offset = -2;
    c.fractional_input = true; add(c); }
  { ConvCase c = base; c.name = "first_layer_2ch_direct"; c.cin = 2; c.first_layer = true;
    c.input_offset = 1; add(c); }
  // Beyond the exact bound: sum |x| |w| reaches 2^24 and float rounding in
  // the stated order decides the result.
  { ConvCase c = base; c.name = "beyond_bound"; c.cin = 300; c.cout = 20; c.h = 4; c.w = 4;
    c.code_lo = 200; c.code_hi = 255; c.weight_lo = 100; c.weight_hi = 127;
    c.stage = stage_for("None", 20, 1.0f / (1 << 23)); add(c); }
  { ConvCase c = base; c.name = "fractional_codes"; c.fractional_input = true; add(c); }
  { ConvCase c = base; c.name = "depthwise"; c.depthwise = true; c.cin = 7; c.cout = 7; c.h = 9; c.w = 8;
    c.stage = stage_for("LeakyRelu", 7, 1.0f / 256); add(c); }
  { ConvCase c = base; c.name = "depthwise_mult2_valid"; c.depthwise = true; c.cin = 3; c.cout = 6;
    c.padding = "VALID"; c.pads = {0, 1, 1, 0}; c.sh = 2; c.h = 8; c.w = 7; c.pad_value = -5.0f;
    c.stage = stage_for("Swish", 6, 1.0f / 512); add(c); }
  // clang-format on
  return cases;
}

// Every case on every path: the float kernels (integer path off) and each
// instruction set's integer kernels, on one thread and on many. Paths the
// processor lacks are reported skipped.
struct PathRun {
  const char* name;
  bool integer;
  kx::KernelIsa isa;
  int threads;
};
void PrintTo(const PathRun& p, std::ostream* os) { *os << p.name; }
void PrintTo(const ConvCase& c, std::ostream* os) { *os << c.name; }
// clang-format off
const PathRun kPaths[] = {
    {"float_1", false, kx::KernelIsa::kAvx512Vnni, 1},   {"float_16", false, kx::KernelIsa::kAvx512Vnni, 16},
    {"float_portable", false, kx::KernelIsa::kPortable, 1}, {"portable", true, kx::KernelIsa::kPortable, 1},
    {"avx2_16", true, kx::KernelIsa::kAvx2, 16},            {"avx512_1", true, kx::KernelIsa::kAvx512, 1},
    {"vnni_1", true, kx::KernelIsa::kAvx512Vnni, 1},        {"vnni_16", true, kx::KernelIsa::kAvx512Vnni, 16},
};
// clang-format on

class Int8ConvTest : public ::testing::TestWithParam<std::tuple<ConvCase, PathRun>> {
 protected:
  void TearDown() override {
    kx::reset_isa();
    kx::set_int8_integer_path_enabled(true);
    kx::GraphExecutor::set_num_threads(2);
  }
};

TEST_P(Int8ConvTest, MatchesReference) {
  const ConvCase& c = std::get<0>(GetParam());
  const PathRun& run = std::get<1>(GetParam());
  if (!kx::force_isa(run.isa)) GTEST_SKIP() << "the processor lacks " << kx::isa_name(run.isa);
  kx::set_int8_integer_path_enabled(run.integer);
  kx::GraphExecutor::set_num_threads(run.threads);
  const ConvData d = make_data(c, 1234);
  const std::vector<float> expected = reference_conv(c, d);
  const GraphDef g = build_graph(c, d);
  const Tensor input = make_tensor({c.n, c.h, c.w, c.cin}, d.input);
  std::vector<int> shape;
  const std::vector<float> got = run_single_op(g, input, "conv", &shape);
  EXPECT_EQ(shape, (std::vector<int>{c.n, d.oh, d.ow, c.cout}));
  ASSERT_EQ(got.size(), expected.size());
  int mismatches = 0;
  for (size_t i = 0; i < got.size(); ++i) {
    if (got[i] != expected[i] && ++mismatches <= 3) {
      ADD_FAILURE() << "element " << i << ": got " << got[i] << " expected " << expected[i];
    }
  }
  EXPECT_EQ(mismatches, 0);
}

INSTANTIATE_TEST_SUITE_P(Cases, Int8ConvTest,
                         ::testing::Combine(::testing::ValuesIn(conv_cases()), ::testing::ValuesIn(kPaths)),
                         [](const auto& info) {
                           return std::get<0>(info.param).name + "_" + std::get<1>(info.param).name;
                         });

// The integer kernels only run where they are exact: these checks make sure
// the table above has cases on both sides of the bound.
TEST(Int8DotPlanTest, IntegerPathOnlyWhereExact) {
  struct Expect {
    const char* name;
    bool integer;
    bool signed_input;
  };
  for (Expect e : {Expect{"same_unsigned", true, false}, Expect{"same_signed", true, true},
                   Expect{"beyond_bound", false, false}, Expect{"fractional_codes", false, false}}) {
    for (const ConvCase& c : conv_cases()) {
      if (c.name != e.name) continue;
      const ConvData d = make_data(c, 1234);
      const Tensor w = make_tensor({c.kh * c.kw * c.cin, c.cout}, d.weight);
      kx::Int8PackedWeights cache;
      const kx::Int8PackedWeights& packed = kx::pack_int8_weights(&w, c.kh * c.kw * c.cin, c.cout, &cache);
      const std::vector<float> pad(c.cin, c.pad_value);
      const kx::Int8DotPlan plan =
          kx::plan_int8_dot(d.input.data(), (long long)d.input.size(), pad.data(), c.cin, packed);
      EXPECT_EQ(plan.integer, e.integer) << e.name;
      if (e.integer) {
        EXPECT_EQ(plan.signed_input, e.signed_input) << e.name;
      }
    }
  }
}

// In the case beyond the bound, summing in another order gives other floats,
// so the test above really checks the order.
TEST(Int8DotPlanTest, BeyondBoundCaseIsOrderSensitive) {
  float forward = 0.0f, backward = 0.0f;
  for (const ConvCase& c : conv_cases()) {
    if (c.name != "beyond_bound") continue;
    const ConvData d = make_data(c, 1234);
    // Output pixel (1, 1), channel 0: a full 3 x 3 window.
    std::vector<float> terms;
    for (int ky = 0; ky < 3; ++ky)
      for (int kx2 = 0; kx2 < 3; ++kx2)
        for (int i = 0; i < c.cin; ++i)
          terms.push_back(d.input[((size_t)ky * c.w + kx2) * c.cin + i] *
                          d.weight[((size_t)(ky * 3 + kx2) * c.cin + i) * c.cout]);
    for (float t : terms) forward += t;
    for (auto it = terms.rbegin(); it != terms.rend(); ++it) backward += *it;
  }
  EXPECT_NE(forward, backward);
}

// Hand-worked first-layer and 32-bit cases.
TEST(Int8ConvHandTest, FirstLayerCodesAndPadding) {
  // 1 x 1 image of 3 channels, 3 x 3 kernel, SAME: only the centre tap reads
  // the pixel. Output channel j reads input channel j at the centre, and
  // output channel 3 reads channel 0 at the top-left (a padded cell).
  GraphDef g;
  add_node(g, "input", "ZxxNOp");
  std::vector<float> w(3 * 3 * 3 * 4, 0.0f);
  for (int j = 0; j < 3; ++j) w[((1 * 3 + 1) * 3 + j) * 4 + j] = 1.0f;
  w[(0 * 3 + 0) * 4 + 3] = 1.0f;
  add_float_const(g, "w", {3, 3, 3, 4}, w);
  // The codes are clamped to 255, not to maxValue.
  set_attrs(add_node(g, "conv", "Z40Conv2DInt8", {"input", "w"}),
            "padding='SAME' strides=[1,1,1,1] OUTPUTSCALE=[1.,1.,1.,1.] maxValue=100 minValue=-100 "
            "output_bitwidth=32 input_mean=[10.,10.,10.] input_var=[2.,2.,2.] input_offset=5");
  const Tensor input = make_tensor({1, 1, 1, 3}, {-1000.0f, 1000.0f, 11.25f});
  // (11.25 - 10) * 2 = 2.5 rounds to 2; plus offset 5.
  EXPECT_EQ(run_single_op(g, input, "conv"), (std::vector<float>{0.0f, 255.0f, 7.0f, 5.0f}));
}

TEST(Int8ConvHandTest, Relu6OnThe32BitPathHasNoLowerBound) {
  GraphDef g;
  add_node(g, "input", "ZxxNOp");
  add_float_const(g, "w", {1, 1, 1, 1}, {1.0f});
  set_attrs(add_node(g, "conv", "Z40Conv2DInt8", {"input", "w"}),
            "padding='VALID' strides=[1,1,1,1] OUTPUTSCALE=[1.] ActionType='Relu6' output_bitwidth=32");
  const Tensor input = make_tensor({1, 1, 3, 1}, {-3.0f, 2.5f, 9.0f});
  EXPECT_EQ(run_single_op(g, input, "conv"), (std::vector<float>{-3.0f, 2.5f, 6.0f}));
}

// ---- errors ----

// One graph per failure: a node with 1 x 1 weights of ones on a 1 x 2 x 2 x 4
// input unless stated, attributes set over SAME padding and unit strides.
struct Failure {
  std::string name;
  std::string op;
  std::vector<int> weight_shape;
  std::string attrs;
  std::string condition, message;  // no condition: a plain error line
  std::string erase = "";          // attribute removed
  int bias_size = -1;              // -1: no bias input
  std::vector<int> input_shape = {1, 2, 2, 4};
};

void run_failure(const Failure& f) {
  GraphDef g;
  add_node(g, "input", "ZxxNOp");
  int wsize = 1;
  for (int v : f.weight_shape) wsize *= v;
  add_float_const(g, "w", f.weight_shape, std::vector<float>(wsize, 1.0f));
  std::vector<std::string> inputs = {"input", "w"};
  if (f.bias_size >= 0) {
    add_float_const(g, "b", {f.bias_size}, std::vector<float>(f.bias_size, 0.0f));
    inputs.push_back("b");
  }
  NodeDef* node = add_node(g, "conv", f.op, inputs);
  set_attrs(node, "padding='SAME' strides=[1,1,1,1] output_bitwidth=8 " + f.attrs);
  node->mutable_attr()->erase(f.erase);
  int n = 1;
  for (int v : f.input_shape) n *= v;
  run_single_op(g, make_tensor(f.input_shape, std::vector<float>(n, 1.0f)), "conv");
}

const char kConv[] = "Z40Conv2DInt8";
const char kDw[] = "Z40DepthwiseConv2dNativeInt8";
const std::string kTwo = "OUTPUTSCALE=[1.,1.] ";

// clang-format off
const std::vector<Failure> kFailures = {
    {"short_output_scale", kConv, {1, 1, 4, 2}, "OUTPUTSCALE=[1.]", "values.size() >= 2",
     "Z40Conv2DInt8: attribute OUTPUTSCALE has 1 values, needs 2"},
    {"prelu_needs_twice_the_scales", kConv, {1, 1, 4, 2}, "OUTPUTSCALE=[1.,1.,1.] ActionType='PRelu'",
     "values.size() >= 4", "Z40Conv2DInt8: attribute OUTPUTSCALE has 3 values, needs 4"},
    {"swish_short_qscale", kConv, {1, 1, 4, 2},
     "OUTPUTSCALE=[1.,1.] SUMSCALE=[1.,1.] QSCALE=[1.] ActionType='Swish'",
     "values.size() >= 2", "Z40Conv2DInt8: attribute QSCALE has 1 values, needs 2"},
    {"mish_without_sumscale", kConv, {1, 1, 4, 2}, kTwo + "ActionType='Mish'", "values.size() >= 2",
     "Z40Conv2DInt8: attribute SUMSCALE has 0 values, needs 2"},
    {"missing_outputscale", kConv, {1, 1, 4, 2}, "", "suc",
     "Do not find the OUTPUTSCALE in Z40Conv2DInt8!!!"},
    {"dw_missing_strides", kDw, {1, 1, 4, 1}, "OUTPUTSCALE=[1.,1.,1.,1.]", "suc",
     "Do not find the strides in Z40DepthwiseConv2dNativeInt8!!!", "strides"},
    {"missing_padding", kConv, {1, 1, 4, 2}, kTwo, "suc", "Do not find the padding in Z40Conv2DInt8!!!",
     "padding"},
    {"weight_channels", kConv, {1, 1, 3, 2}, kTwo, "weight->shape()[2] == in_channels / groups",
     "Z40Conv2DInt8: weights take 3 input channels per group, the input gives 4"},
    {"groups_do_not_split", kConv, {1, 1, 4, 2}, kTwo + "groups=3",
     "in_channels % groups == 0 && out_channels % groups == 0",
     "Z40Conv2DInt8: 4 input and 2 output channels do not split into 3 groups"},
    {"short_bias", kConv, {1, 1, 4, 3}, "OUTPUTSCALE=[1.,1.,1.]", "tensor->size() >= 3",
     "Z40Conv2DInt8: b has 2 elements, needs 3", "", 2},
    {"rank2_kernel", kConv, {4, 2}, kTwo, "weight->shape().size() == 4",
     "Wrong kernel shape in Z40Conv2DInt8!!!"},
    {"dw_rank2_kernel", kDw, {4, 1}, "OUTPUTSCALE=[1.,1.,1.,1.]", "weight->shape().size() == 4",
     "Wrong kernel shape in Z40DepthwiseConv2dNativeInt8!!!"},
    {"dw_channels", kDw, {1, 1, 3, 1}, "OUTPUTSCALE=[1.,1.,1.]", "weight->shape()[2] == in_channels",
     "Z40DepthwiseConv2dNativeInt8: weights hold 3 channels, the input has 4"},
    {"rank3_input", kConv, {1, 1, 4, 2}, kTwo, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40Conv2DInt8!!!", "", -1, {2, 2, 4}},
    {"kernel_too_big", kConv, {3, 3, 4, 2}, kTwo + "padding='VALID'", "out_h > 0 && out_w > 0",
     "Z40Conv2DInt8: the kernel does not fit the padded input"},
    {"short_pads", kConv, {3, 3, 4, 2}, kTwo + "padding='VALID' pads=[1,1]", "values.size() >= 4",
     "Z40Conv2DInt8: attribute pads has 2 values, needs 4"},
    {"zero_stride", kConv, {3, 3, 4, 2}, kTwo + "strides=[1,0,1,1]",
     "strides[1] > 0 && strides[2] > 0",
     "Z40Conv2DInt8: strides must be positive"},
    {"short_strides", kConv, {3, 3, 4, 2}, kTwo + "strides=[1,1]", "values.size() >= 4",
     "Z40Conv2DInt8: attribute strides has 2 values, needs 4"},
    {"zero_dilation", kConv, {3, 3, 4, 2}, kTwo + "dilations=[1,0,1,1]",
     "dilations[1] > 0 && dilations[2] > 0", "Z40Conv2DInt8: dilations must be positive"},
    {"multiplier_out_of_range", kConv, {3, 3, 4, 2}, kTwo + "multify_factor=[31]",
     "multify_factor[0] <= 30", "Z40Conv2DInt8: multify_factor 31 is out of range"},
    {"first_layer_short_var", kConv, {1, 1, 4, 2},
     kTwo + "input_mean=[0.,0.,0.,0.] input_var=[1.,1.]",
     "values.size() >= 4", "Z40Conv2DInt8: attribute input_var has 2 values, needs 4"},
    {"unknown_padding", kConv, {3, 3, 4, 2}, kTwo + "padding='FULL'", "", "Check failed: false"},
};
// clang-format on

TEST(Int8ConvFailureTest, EachEndsWithItsMessage) {
  for (const Failure& f : kFailures) {
    SCOPED_TRACE(f.name);
    EXPECT_EQ(error_text([&] { run_failure(f); }),
              f.condition.empty() ? f.message : check_text(f.condition, f.message));
  }
  auto conv = make_op("Z40Conv2DInt8");
  const Tensor input = make_tensor({1, 2, 2, 4}, std::vector<float>(16, 1.0f));
  std::vector<int> shape;
  EXPECT_EQ(error_text([&] { conv->inference_shape({&input}, shape); }),
            check_text("inputs.size() >= 2", "Z40Conv2DInt8 needs 2 inputs but has 1"));
}

TEST(Int8ConvFailureDeathTest, AbortsWithTheLineByDefault) {
  EXPECT_CHECK_FAILED(run_failure(kFailures[0]), kFailures[0].condition, kFailures[0].message);
}

// Direct calls: what a graph cannot feed (other element types, kernels called
// with fewer inputs or a mis-shaped output) still ends in a clear message.
class Int8ConvDirectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    node_ = parse_text_node(R"(name: "c" op: "Z40Conv2DInt8"
      attr { key: "padding" value { s: "SAME" } }
      attr { key: "strides" value { list { i: 1 i: 1 i: 1 i: 1 } } }
      attr { key: "OUTPUTSCALE" value { list { f: 0.5 f: 0.25 } } })");
    op_.reset(kx::Holder::new_op_creator().at("Z40Conv2DInt8")());
    op_->parse_parameter(node_);
  }
  NodeDef node_;
  std::unique_ptr<kx::OpExecutor> op_;
  Tensor weight_ = make_tensor({1, 1, 4, 2}, {1, 2, 3, 4, 5, 6, 7, 8}, "w");
};

TEST_F(Int8ConvDirectTest, Int32InputsGiveInt32Codes) {
  std::vector<int32_t> codes = {1, 2, 3, 4, -5, 6, 7, 8, 9, 10, 11, -12, 13, 14, 15, 16};
  Tensor input({1, 2, 2, 4}, Tensor::DT_INT32, codes.data(), "cpu");
  std::vector<int> shape;
  op_->inference_shape({&input, &weight_}, shape);
  ASSERT_EQ(shape, (std::vector<int>{1, 2, 2, 2}));
  Tensor output(shape, Tensor::DT_INT32, nullptr, "cpu");
  op_->execute({&input, &weight_}, &output);
  std::vector<int32_t> want;
  for (int p = 0; p < 4; ++p) {
    for (int o = 0; o < 2; ++o) {
      float sum = 0.0f;
      for (int i = 0; i < 4; ++i) sum += (float)codes[p * 4 + i] * (float)(1 + i * 2 + o);
      want.push_back((int32_t)std::min(127.0f, std::max(-128.0f, ref_round(sum * (o ? 0.25f : 0.5f)))));
    }
  }
  const int32_t* got = output.data<int32_t>();
  EXPECT_EQ(std::vector<int32_t>(got, got + 8), want);
}

TEST_F(Int8ConvDirectTest, OtherElementTypesAreRefused) {
  std::vector<uint8_t> bytes(16, 1);
  Tensor input({1, 2, 2, 4}, Tensor::DT_UINT8, bytes.data(), "cpu");
  input.set_name("x");
  Tensor output({1, 2, 2, 2}, Tensor::DT_FLOAT, nullptr, "cpu");
  EXPECT_EQ(
      error_text([&] {
        op_->execute({&input, &weight_}, &output);
      }),
      check_text("tensor->data_type() == DT_FLOAT", "Z40Conv2DInt8 reads x as float but it holds type 4"));
  const Tensor good = make_tensor({1, 2, 2, 4}, std::vector<float>(16, 1.0f));
  std::vector<int32_t> ints(8, 1);
  Tensor int_weight({1, 1, 4, 2}, Tensor::DT_INT32, ints.data(), "cpu");
  int_weight.set_name("iw");
  EXPECT_EQ(
      error_text([&] {
        op_->execute({&good, &int_weight}, &output);
      }),
      check_text("tensor->data_type() == DT_FLOAT", "Z40Conv2DInt8 reads iw as float but it holds type 3"));
}

TEST_F(Int8ConvDirectTest, KernelArgumentErrors) {
  auto* param = static_cast<kx::Z40Conv2DInt8OpExecutor*>(op_.get())->param();
  const Tensor input = make_tensor({1, 2, 2, 4}, std::vector<float>(16, 1.0f));
  const Tensor bias = make_tensor({2}, {0, 0});
  Tensor output({1, 2, 2, 2}, Tensor::DT_FLOAT, nullptr, "cpu");
  EXPECT_EQ(error_text([&] {
              kx::conv2d_int8({&input, &weight_}, &output, param);
            }),
            check_text("inputs.size() >= 3", "Z40Conv2DInt8 needs 3 inputs but has 2"));
  Tensor wrong({1, 2, 2, 3}, Tensor::DT_FLOAT, nullptr, "cpu");
  EXPECT_EQ(error_text([&] {
              kx::conv2d_avx_int8({&input, &weight_, &bias}, &wrong, param);
            }),
            check_text("output->shape() == inferred shape",
                       "Z40Conv2DInt8: the output tensor does not have the inferred shape"));
  param->groups = 2;
  EXPECT_EQ(error_text([&] {
              kx::conv2d_avx_int8({&input, &weight_, &bias}, &output, param);
            }),
            check_text("groups == 1", "conv2d_avx_int8 computes ungrouped convolutions only"));
  param->groups = 1;
}

}  // namespace
}  // namespace kovra_test
