#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "support/single_op_runner.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

std::vector<float> random_values(int n, unsigned seed, float range = 1.0f) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-range, range);
  std::vector<float> v(n);
  for (float& x : v) x = dist(gen);
  return v;
}

double sigmoid(double v) { return 1.0 / (1.0 + std::exp(-v)); }

// The ONNX GRU written out for one direction in double precision.
// W [3H, I], R [3H, H], Wb/Rb [3H] with gates ordered z, r, h.
struct Reference {
  std::vector<double> y;    // [T, D, B, H]
  std::vector<double> y_h;  // [D, B, H]
};

Reference reference_gru(const std::vector<float>& x, const std::vector<float>& w, const std::vector<float>& r,
                        const std::vector<float>& bias, const std::vector<int>& lens, int T, int B, int I, int H,
                        const std::string& direction, bool linear_before_reset) {
  const int D = direction == "bidirectional" ? 2 : 1;
  Reference ref{std::vector<double>(T * D * B * H, 0.0), std::vector<double>(D * B * H, 0.0)};
  for (int d = 0; d < D; ++d) {
    const bool backwards = direction == "reverse" || d == 1;
    auto W = [&](int gate, int j, int i) { return w[((d * 3 + gate) * H + j) * I + i]; };
    auto R = [&](int gate, int j, int k) { return r[((d * 3 + gate) * H + j) * H + k]; };
    auto Wb = [&](int gate, int j) { return bias[d * 6 * H + gate * H + j]; };
    auto Rb = [&](int gate, int j) { return bias[d * 6 * H + 3 * H + gate * H + j]; };
    for (int b = 0; b < B; ++b) {
      std::vector<double> h(H, 0.0);
      const int len = lens.empty() ? T : lens[b];
      for (int step = 0; step < len; ++step) {
        const int t = backwards ? len - 1 - step : step;
        std::vector<double> z(H), rg(H), hn(H);
        for (int j = 0; j < H; ++j) {
          double az = Wb(0, j) + Rb(0, j), ar = Wb(1, j) + Rb(1, j);
          for (int i = 0; i < I; ++i) {
            az += x[(t * B + b) * I + i] * W(0, j, i);
            ar += x[(t * B + b) * I + i] * W(1, j, i);
          }
          for (int k = 0; k < H; ++k) {
            az += h[k] * R(0, j, k);
            ar += h[k] * R(1, j, k);
          }
          z[j] = sigmoid(az);
          rg[j] = sigmoid(ar);
        }
        for (int j = 0; j < H; ++j) {
          double xin = Wb(2, j);
          for (int i = 0; i < I; ++i) xin += x[(t * B + b) * I + i] * W(2, j, i);
          double rec = Rb(2, j);
          if (linear_before_reset) {
            for (int k = 0; k < H; ++k) rec += h[k] * R(2, j, k);
            rec *= rg[j];
          } else {
            for (int k = 0; k < H; ++k) rec += rg[k] * h[k] * R(2, j, k);
          }
          const double c = std::tanh(xin + rec);
          hn[j] = (1 - z[j]) * c + z[j] * h[j];
        }
        h = hn;
        for (int j = 0; j < H; ++j) ref.y[((t * D + d) * B + b) * H + j] = h[j];
      }
      for (int j = 0; j < H; ++j) ref.y_h[(d * B + b) * H + j] = h[j];
    }
  }
  return ref;
}

std::string gru_attrs(int hidden, const std::string& direction, bool lbr, bool with_lens) {
  return "attr { key: \"hidden_size\" value { f: " + std::to_string(hidden) + " } } " +
         "attr { key: \"direction\" value { s: \"" + direction + "\" } } " +
         "attr { key: \"linear_before_reset\" value { i: " + (lbr ? "1" : "0") + " } } " +
         "attr { key: \"exist_sequence_lens\" value { b: " + (with_lens ? "true" : "false") + " } }";
}

const Tensor* slave(const Tensor& output, const std::string& name) {
  for (const Tensor* t : output.get_slave_tensors())
    if (t->name() == name) return t;
  return nullptr;
}

TEST(FloatGruTest, SingleStepHandValue) {
  // Only W_h = 1 and x = 1: z = r = sigmoid(0) = 0.5, c = tanh(1), h = 0.5 * tanh(1).
  Tensor x = make_tensor({1, 1, 1}, {1}, "x");
  Tensor w = make_tensor({1, 3, 1}, {0, 0, 1}, "W");
  Tensor r = make_tensor({1, 3, 1}, {0, 0, 0}, "R");
  Tensor b = make_tensor({1, 6}, {0, 0, 0, 0, 0, 0}, "B");
  SingleOpRunner runner("Z40GRU", node_with_attrs(gru_attrs(1, "forward", false, false), "gru"));
  std::vector<int> shape;
  const std::vector<float> y = runner.run({&x, &w, &r, &b}, &shape);
  EXPECT_EQ(shape, (std::vector<int>{1, 1, 1, 1}));
  ASSERT_EQ(y.size(), 1u);
  EXPECT_NEAR(y[0], 0.3807970779778824, 1e-6);
  const Tensor* y_h = slave(runner.output(), "gru:1");
  ASSERT_NE(y_h, nullptr);
  EXPECT_EQ(y_h->shape(), (std::vector<int>{1, 1, 1}));
  EXPECT_NEAR(y_h->data<float>()[0], 0.3807970779778824, 1e-6);
}

struct GruCase {
  const char* label;
  int T, B, I, H;
  const char* direction;
  bool linear_before_reset;
  std::vector<int> lens;  // empty: every sequence is T long
};

class FloatGruRandomTest : public ::testing::TestWithParam<GruCase> {};

TEST_P(FloatGruRandomTest, MatchesOnnxEquations) {
  const GruCase& c = GetParam();
  const int D = std::string(c.direction) == "bidirectional" ? 2 : 1;
  const std::vector<float> xv = random_values(c.T * c.B * c.I, 1, 2.0f);
  const std::vector<float> wv = random_values(D * 3 * c.H * c.I, 2);
  const std::vector<float> rv = random_values(D * 3 * c.H * c.H, 3);
  const std::vector<float> bv = random_values(D * 6 * c.H, 4);
  Tensor x = make_tensor({c.T, c.B, c.I}, xv, "x");
  Tensor w = make_tensor({D, 3 * c.H, c.I}, wv, "W");
  Tensor r = make_tensor({D, 3 * c.H, c.H}, rv, "R");
  Tensor b = make_tensor({D, 6 * c.H}, bv, "B");
  Tensor lens({c.B}, Tensor::DT_INT32, nullptr, "cpu");
  for (int i = 0; i < static_cast<int>(c.lens.size()); ++i) lens.mutable_data<int>()[i] = c.lens[i];
  std::vector<const Tensor*> inputs = {&x, &w, &r, &b};
  if (!c.lens.empty()) inputs.push_back(&lens);
  SingleOpRunner runner("Z40GRU", node_with_attrs(gru_attrs(c.H, c.direction, c.linear_before_reset, !c.lens.empty()), "gru"));
  std::vector<int> shape;
  const std::vector<float> y = runner.run(inputs, &shape);
  EXPECT_EQ(shape, (std::vector<int>{c.T, D, c.B, c.H}));
  const Reference ref = reference_gru(xv, wv, rv, bv, c.lens, c.T, c.B, c.I, c.H, c.direction, c.linear_before_reset);
  ASSERT_EQ(y.size(), ref.y.size());
  for (size_t i = 0; i < y.size(); ++i) EXPECT_NEAR(y[i], ref.y[i], 2e-5) << "Y element " << i;
  const Tensor* y_h = slave(runner.output(), "gru:1");
  ASSERT_NE(y_h, nullptr);
  ASSERT_EQ(static_cast<size_t>(y_h->size()), ref.y_h.size());
  for (size_t i = 0; i < ref.y_h.size(); ++i) EXPECT_NEAR(y_h->data<float>()[i], ref.y_h[i], 2e-5) << "Y_h element " << i;
  // The hidden-state intermediate of direction 0 is Y's first direction.
  const Tensor* hidden = slave(runner.output(), "gru_middle_7");
  ASSERT_NE(hidden, nullptr);
  for (int t = 0; t < c.T; ++t)
    for (int i = 0; i < c.B * c.H; ++i) EXPECT_EQ(hidden->data<float>()[t * c.B * c.H + i], y[(t * D) * c.B * c.H + i]);
  for (int k = 0; k < 16; ++k) EXPECT_NE(slave(runner.output(), "gru_middle_" + std::to_string(k)), nullptr) << k;
}

INSTANTIATE_TEST_SUITE_P(
    Directions, FloatGruRandomTest,
    ::testing::Values(GruCase{"forward", 5, 2, 3, 4, "forward", false, {}},
                      GruCase{"reverse", 4, 3, 2, 3, "reverse", false, {}},
                      GruCase{"bidirectional", 6, 2, 5, 4, "bidirectional", false, {}},
                      GruCase{"linear_before_reset", 5, 2, 3, 4, "forward", true, {}},
                      GruCase{"bidirectional_lbr", 3, 1, 4, 6, "bidirectional", true, {}},
                      GruCase{"sequence_lengths", 5, 3, 2, 3, "bidirectional", false, {5, 2, 0}}),
    [](const ::testing::TestParamInfo<GruCase>& info) { return std::string(info.param.label); });

TEST(FloatGruTest, LastStateIsASecondOutputInAGraph) {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  add_float_const(graph, "W", {1, 3, 1}, {0, 0, 1});
  add_float_const(graph, "R", {1, 3, 1}, {0, 0, 0});
  add_float_const(graph, "B", {1, 6}, {0, 0, 0, 0, 0, 0});
  NodeDef* gru = add_node(graph, "gru", "Z40GRU", {"input", "W", "R", "B"});
  set_attr_f(gru, "hidden_size", 1);
  set_attr_ints(gru, "output_shape", {1, 2, 1, 1});
  set_attr_ints(gru, "output_shape1", {1, 1, 1, 1});
  NodeDef* last = add_node(graph, "last", "Z40Squeeze", {"gru:1"});
  set_attr_ints(last, "output_shape", {1});
  // Two steps of x = 1: h1 = 0.5 tanh(1), h2 = 0.5 tanh(1) + 0.5 h1.
  Tensor x = make_tensor({2, 1, 1}, {1, 1});
  std::vector<int> shape;
  const std::vector<float> out = run_single_op(graph, x, "last", &shape);
  EXPECT_EQ(shape, (std::vector<int>{1}));
  ASSERT_EQ(out.size(), 1u);
  const double h1 = 0.5 * std::tanh(1.0);
  EXPECT_NEAR(out[0], 0.5 * std::tanh(1.0) + 0.5 * h1, 1e-6);
}

}  // namespace
}  // namespace kovra_test
