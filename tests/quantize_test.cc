#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "support/int8_graph.h"

namespace kovra_test {
namespace {

OneOpModel quantize_model(const std::vector<float>& qscale, int offset, int max_value, int min_value) {
  OneOpModel m("Z40Quantize", 1);
  set_attr_floats(m.node(), "QSCALE", qscale);
  set_attr_i(m.node(), "offset", offset);
  set_attr_i(m.node(), "maxValue", max_value);
  set_attr_i(m.node(), "minValue", min_value);
  return m;
}

// Plain reference of the quantizer: scale, round half to even, clamp the code,
// add the zero point.
std::vector<float> reference_quantize(const std::vector<float>& x, const std::vector<float>& s, float offset,
                                      float hi, float lo) {
  std::vector<float> y(x.size());
  for (size_t i = 0; i < x.size(); ++i) {
    float q = std::nearbyint(s[i % s.size()] * x[i]);
    q = std::min(q, hi);
    q = std::max(q, lo);
    y[i] = offset + q;
  }
  return y;
}

struct RankCase {
  std::vector<int> shape;
};

class QuantizeRankTest : public ::testing::TestWithParam<RankCase> {};

TEST_P(QuantizeRankTest, PerChannelScalesFollowTheLastDimension) {
  const std::vector<int>& shape = GetParam().shape;
  const int channels = shape.back();
  std::vector<float> qscale(channels), dqscale(channels);
  for (int c = 0; c < channels; ++c) {
    qscale[c] = 0.5f + 0.75f * c;
    dqscale[c] = 1.0f / qscale[c];
  }
  int n = 1;
  for (int d : shape) n *= d;
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> dist(-200.0f, 200.0f);
  std::vector<float> values(n);
  for (float& v : values) v = dist(rng);
  values[0] = 2.5f;  // a tie, channel 0 scale 0.5: 1.25 rounds to 1
  Tensor x = make_tensor(shape, values);

  OneOpModel q = quantize_model(qscale, -3, 100, -90);
  const std::vector<float> codes = q.run({&x});
  EXPECT_EQ(codes, reference_quantize(values, qscale, -3.0f, 100.0f, -90.0f));

  OneOpModel d("Z40Dequantize", 1);
  set_attr_floats(d.node(), "QSCALE", dqscale);
  set_attr_i(d.node(), "offset", 3);
  Tensor code_tensor = make_tensor(shape, codes);
  const std::vector<float> back = d.run({&code_tensor});
  for (int i = 0; i < n; ++i) {
    EXPECT_EQ(back[i], (3.0f + codes[i]) * dqscale[i % channels]) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Ranks, QuantizeRankTest,
                         ::testing::Values(RankCase{{2, 5, 3}}, RankCase{{1, 4, 4, 19}},
                                           RankCase{{1, 2, 3, 2, 40}}, RankCase{{1, 3, 3, 1}}));

TEST(FakeQuantTest, WorkedExamplesDivideRoundClampAndRescale) {
  OneOpModel m("Z40KovraFakeQuantFeature", 1);
  set_attr_f(m.node(), "fake_scale", 0.5f);
  set_attr_i(m.node(), "maxValue", 127);
  set_attr_i(m.node(), "minValue", -128);
  // 0.75/0.5 = 1.5 -> 2; 100/0.5 = 200 -> 127; -100/0.5 -> -128; 0.25/0.5 = 0.5 -> 0.
  Tensor x = make_tensor({4}, {0.75f, 100.0f, -100.0f, 0.25f});
  EXPECT_EQ(m.run({&x}), (std::vector<float>{1.0f, 63.5f, -64.0f, 0.0f}));
}

}  // namespace
}  // namespace kovra_test
