#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "support/int8_graph.h"

namespace kovra_test {
namespace {

std::vector<float> iota_values(int n, float start = 0.0f) {
  std::vector<float> v(n);
  std::iota(v.begin(), v.end(), start);
  return v;
}

TEST(CopyOpsTest, CodesPassThroughAndFlattenKeepsTheBatch) {
  Tensor x = make_tensor({2, 2, 2, 3}, iota_values(24, -12.0f));
  for (const char* op : {"Z40CloneInt8", "Z40LeakyReluInt8", "Z40FlattenInt8"}) {
    OneOpModel m(op, 1);
    std::vector<int> shape;
    EXPECT_EQ(m.run({&x}, &shape), iota_values(24, -12.0f)) << op;
    const std::vector<int> expected =
        std::string(op) == "Z40FlattenInt8" ? std::vector<int>{2, 12} : x.shape();
    EXPECT_EQ(shape, expected) << op;
  }
}

struct ShuffleCase {
  int groups;
  std::vector<float> expected;
};

class ChannelShuffleTest : public ::testing::TestWithParam<ShuffleCase> {};

TEST_P(ChannelShuffleTest, GroupsAreInterleaved) {
  OneOpModel m("Z40ChannelShuffleInt8", 1);
  set_attr_i(m.node(), "groups", GetParam().groups);
  set_attr_floats(m.node(), "INPUTSCALE", {1.0f});
  Tensor x = make_tensor({1, 1, 2, 6}, iota_values(12));
  std::vector<float> expected = GetParam().expected;
  for (int i = 0; i < 6; ++i) expected.push_back(GetParam().expected[i] + 6);
  EXPECT_EQ(m.run({&x}), expected);
}

INSTANTIATE_TEST_SUITE_P(Groups, ChannelShuffleTest,
                         ::testing::Values(ShuffleCase{2, {0, 3, 1, 4, 2, 5}},
                                           ShuffleCase{3, {0, 2, 4, 1, 3, 5}},
                                           ShuffleCase{1, {0, 1, 2, 3, 4, 5}}));

}  // namespace
}  // namespace kovra_test
