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

// Pooling, resizing and layout operators: hand-worked codes.

OneOpModel pool_model(const char* op, std::vector<int> ksize, std::vector<int> strides,
                      const char* padding, std::vector<int> pads, int max_value, int min_value) {
  OneOpModel m(op, 1);
  set_attr_ints(m.node(), "ksize", ksize);
  set_attr_ints(m.node(), "strides", strides);
  set_attr_s(m.node(), "padding", padding);
  set_attr_ints(m.node(), "pads", pads);
  set_attr_i(m.node(), "maxValue", max_value);
  set_attr_i(m.node(), "minValue", min_value);
  return m;
}

TEST(AvgPoolInt8Test, MeansRoundHalfToEvenAndClamp) {
  OneOpModel m = pool_model("Z40AvgPoolInt8", {1, 2, 2, 1}, {1, 1, 1, 1}, "VALID", {0, 0, 0, 0},
                            50, -60);
  // Six channels over one 2x2 window: means 2.75, 2.5, 3.5, -2.5, 100, -100.
  const std::vector<std::vector<float>> cells = {
      {1, 2, 3, -2, 100, -100}, {2, 3, 4, -3, 100, -100}, {3, 2, 3, -2, 100, -100},
      {5, 3, 4, -3, 100, -100}};
  std::vector<float> values;
  for (const auto& cell : cells) values.insert(values.end(), cell.begin(), cell.end());
  Tensor x = make_tensor({1, 2, 2, 6}, values);
  std::vector<int> shape;
  EXPECT_EQ(m.run({&x}, &shape), (std::vector<float>{3, 2, 4, -2, 50, -60}));
  EXPECT_EQ(shape, (std::vector<int>{1, 1, 1, 6}));
}

TEST(AvgPoolInt8Test, SamePaddingCountsOnlyInputCells) {
  OneOpModel m = pool_model("Z40AvgPoolInt8", {1, 2, 2, 1}, {1, 2, 2, 1}, "SAME", {0, 0, 0, 0},
                            127, -128);
  Tensor x = make_tensor({1, 3, 3, 1}, iota_values(9));
  // Windows {0,1,3,4} = 2, {2,5} = 3.5 -> 4, {6,7} = 6.5 -> 6, {8} = 8.
  EXPECT_EQ(m.run({&x}), (std::vector<float>{2, 4, 6, 8}));
}

TEST(MaxPoolInt8Test, PaddedCellsTakePadValue) {
  Tensor x = make_tensor({1, 2, 2, 1}, {1, 2, 3, 4});
  for (int pad_value : {5, -7}) {
    OneOpModel m = pool_model("Z40MaxPoolInt8", {1, 2, 2, 1}, {1, 1, 1, 1}, "VALID",
                              {1, 0, 1, 0}, 127, -128);
    set_attr_i(m.node(), "padValue", pad_value);
    const std::vector<float> expected =
        pad_value == 5 ? std::vector<float>{5, 5, 5, 4} : std::vector<float>{1, 2, 3, 4};
    EXPECT_EQ(m.run({&x}), expected) << pad_value;
  }
}

TEST(MaxPoolInt8Test, CeilModeAddsThePartialWindowAndClamps) {
  Tensor x = make_tensor({1, 4, 4, 1}, iota_values(16));
  OneOpModel floor_mode = pool_model("Z40MaxPoolInt8", {1, 3, 3, 1}, {1, 2, 2, 1}, "VALID",
                                     {0, 0, 0, 0}, 14, -128);
  EXPECT_EQ(floor_mode.run({&x}), (std::vector<float>{10}));
  OneOpModel ceil_mode = pool_model("Z40MaxPoolInt8", {1, 3, 3, 1}, {1, 2, 2, 1}, "VALID",
                                    {0, 0, 0, 0}, 14, -128);
  set_attr_i(ceil_mode.node(), "ceil_mode", 1);
  std::vector<int> shape;
  EXPECT_EQ(ceil_mode.run({&x}, &shape), (std::vector<float>{10, 11, 14, 14}));
  EXPECT_EQ(shape, (std::vector<int>{1, 2, 2, 1}));
}

TEST(GlobalAvgPoolInt8Test, SumTimesPoolScalePerChannel) {
  OneOpModel m("Z40GlobalAvgPoolInt8", 1);
  set_attr_floats(m.node(), "POOLSCALE", {0.25f, 0.25f, 1.0f});
  set_attr_i(m.node(), "maxValue", 100);
  set_attr_i(m.node(), "minValue", -100);
  // Channel sums 10, 5, 400: 2.5 -> 2, 1.25 -> 1, 400 -> 100.
  Tensor x = make_tensor({1, 2, 2, 3}, {1, 1, 100, 2, 1, 100, 3, 1, 100, 4, 2, 100});
  std::vector<int> shape;
  EXPECT_EQ(m.run({&x}, &shape), (std::vector<float>{2, 1, 100}));
  EXPECT_EQ(shape, (std::vector<int>{1, 1, 1, 3}));
}

OneOpModel bilinear_model(float scale, bool align_corners) {
  OneOpModel m("Z40ResizeBilinearInt8", 1);
  set_attr_f(m.node(), "wh_scale", scale);
  set_attr_b(m.node(), "align_corners", align_corners);
  set_attr_i(m.node(), "maxValue", 20);
  set_attr_i(m.node(), "minValue", -5);
  set_attr_i(m.node(), "offset", 2);
  return m;
}

TEST(ResizeBilinearInt8Test, HalfPixelCentresRoundAndClampAtMaxPlusOffset) {
  Tensor x = make_tensor({1, 2, 2, 1}, {0, 10, 20, 30});
  std::vector<int> shape;
  // Source rows/columns -0.25 (-> 0), 0.25, 0.75, 1.25; values above 22 clamp.
  EXPECT_EQ(bilinear_model(2.0f, false).run({&x}, &shape),
            (std::vector<float>{0, 2, 8, 10, 5, 8, 12, 15, 15, 18, 22, 22, 20, 22, 22, 22}));
  EXPECT_EQ(shape, (std::vector<int>{1, 4, 4, 1}));
  // Corners aligned, 3 = round(2 * 1.5): sources 0, 0.5, 1.
  EXPECT_EQ(bilinear_model(1.5f, true).run({&x}),
            (std::vector<float>{0, 5, 10, 10, 15, 20, 20, 22, 22}));
}

TEST(ResizeNearestNeighborInt8Test, FloorOfTheScaledIndex) {
  Tensor x = make_tensor({1, 2, 2, 1}, {1, 2, 3, 4});
  OneOpModel m("Z40ResizeNearestNeighborInt8", 1);
  set_attr_f(m.node(), "wh_scale", 1.5f);
  // Three outputs per side read rows/columns floor(d * 2/3) = 0, 0, 1.
  EXPECT_EQ(m.run({&x}), (std::vector<float>{1, 1, 2, 1, 1, 2, 3, 3, 4}));
}

TEST(Unpool2DInt8Test, RepeatsEachCodeOverTheKernel) {
  Tensor x = make_tensor({1, 1, 2, 1}, {5, 6});
  OneOpModel m("Z40Unpool2DInt8", 1);
  set_attr_ints(m.node(), "kernel_size", {2, 3});
  std::vector<int> shape;
  EXPECT_EQ(m.run({&x}, &shape), (std::vector<float>{5, 5, 5, 6, 6, 6, 5, 5, 5, 6, 6, 6}));
  EXPECT_EQ(shape, (std::vector<int>{1, 2, 6, 1}));
}

TEST(ConcatInt8Test, EachInputRequantizedThenJoined) {
  OneOpModel m("Z40ConcatInt8", 2);
  set_attr_i(m.node(), "axis", 3);
  set_attr_floats(m.node(), "QSCALE", {2.0f, 0.5f});
  set_attr_floats(m.node(), "DEQSCALE", {0.5f, 3.0f});
  set_attr_i(m.node(), "input_offset", 1);
  set_attr_i(m.node(), "offset", 10);
  set_attr_i(m.node(), "maxValue", 5);
  set_attr_i(m.node(), "minValue", -5);
  Tensor a = make_tensor({1, 1, 1, 2}, {3, -20});
  Tensor b = make_tensor({1, 1, 1, 1}, {2});
  // 4 * 0.5 * 2 = 4; -19 -> -5; 3 * 3 * 0.5 = 4.5 -> 4; each plus 10.
  std::vector<int> shape;
  EXPECT_EQ(m.run({&a, &b}, &shape), (std::vector<float>{14, 5, 14}));
  EXPECT_EQ(shape, (std::vector<int>{1, 1, 1, 3}));
}

TEST(PadInt8Test, ConstantPaddingWithPadValue) {
  OneOpModel m("Z40PadInt8", 1);
  set_attr_ints(m.node(), "pads", {0, 0, 1, 0, 0, 1, 0, 0});  // (before, after) per axis
  set_attr_i(m.node(), "padValue", -3);
  Tensor x = make_tensor({1, 1, 2, 1}, {1, 2});
  std::vector<int> shape;
  EXPECT_EQ(m.run({&x}, &shape), (std::vector<float>{-3, -3, -3, 1, 2, -3}));
  EXPECT_EQ(shape, (std::vector<int>{1, 2, 3, 1}));
}

struct SliceCase {
  std::vector<int> axes, starts, ends, steps;
  std::vector<int> shape;
  std::vector<float> expected;
};

class SliceInt8Test : public ::testing::TestWithParam<SliceCase> {};

TEST_P(SliceInt8Test, OnnxSliceSemantics) {
  const SliceCase& c = GetParam();
  OneOpModel m("Z40SliceInt8", 1);
  set_attr_ints(m.node(), "output_shape", c.shape);
  set_attr_ints(m.node(), "axes", c.axes);
  set_attr_ints(m.node(), "starts", c.starts);
  set_attr_ints(m.node(), "ends", c.ends);
  set_attr_ints(m.node(), "steps", c.steps);
  Tensor x = make_tensor({1, 2, 3, 2}, iota_values(12));
  std::vector<int> shape;
  EXPECT_EQ(m.run({&x}, &shape), c.expected);
  EXPECT_EQ(shape, c.shape);
}

INSTANTIATE_TEST_SUITE_P(
    Windows, SliceInt8Test,
    ::testing::Values(
        // Row 1; columns from -3 (= 0) to past the end, every second one.
        SliceCase{{1, 2}, {1, -3}, {2, 100}, {1, 2}, {1, 1, 2, 2}, {6, 7, 10, 11}},
        // Columns reversed.
        SliceCase{{2}, {-1}, {-100}, {-1}, {1, 2, 3, 2}, {4, 5, 2, 3, 0, 1, 10, 11, 8, 9, 6, 7}},
        // The last channel only.
        SliceCase{{3}, {1}, {2}, {1}, {1, 2, 3, 1}, {1, 3, 5, 7, 9, 11}}));

TEST(TransposeInt8Test, PermutesAxes) {
  OneOpModel m("Z40TransposeInt8", 1);
  set_attr_ints(m.node(), "perm", {0, 2, 1, 3});
  set_attr_ints(m.node(), "output_shape", {1, 3, 2, 1});
  Tensor x = make_tensor({1, 2, 3, 1}, iota_values(6));
  std::vector<int> shape;
  EXPECT_EQ(m.run({&x}, &shape), (std::vector<float>{0, 3, 1, 4, 2, 5}));
  EXPECT_EQ(shape, (std::vector<int>{1, 3, 2, 1}));
}

TEST(ReshapeInt8Test, PlainOrOnnxChannelsFirstOrder) {
  Tensor x = make_tensor({1, 1, 2, 2}, {0, 1, 2, 3});
  OneOpModel plain("Z40ReshapeInt8", 1);
  set_attr_ints(plain.node(), "output_shape", {1, 4});
  EXPECT_EQ(plain.run({&x}), (std::vector<float>{0, 1, 2, 3}));
  OneOpModel onnx("Z40ReshapeInt8", 1);
  set_attr_ints(onnx.node(), "output_shape", {1, 4});
  set_attr_s(onnx.node(), "src_framework", "ONNX");
  // Channels first: channel 0 holds 0, 2 and channel 1 holds 1, 3.
  EXPECT_EQ(onnx.run({&x}), (std::vector<float>{0, 2, 1, 3}));
}

TEST(SpaceToDepthInt8Test, BlocksMoveIntoChannels) {
  OneOpModel m("Z40SpaceToDepthInt8", 1);
  set_attr_ints(m.node(), "output_shape", {1, 1, 2, 4});
  Tensor x = make_tensor({1, 2, 4, 1}, iota_values(8));
  std::vector<int> shape;
  EXPECT_EQ(m.run({&x}, &shape), (std::vector<float>{0, 1, 4, 5, 2, 3, 6, 7}));
  EXPECT_EQ(shape, (std::vector<int>{1, 1, 2, 4}));
}

}  // namespace
}  // namespace kovra_test
