#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <new>
#include <numeric>
#include <string>
#include <vector>

#include "ops/kernels/avx_common.h"
#include "support/int8_graph.h"
#include "support/int8_tables.h"

// Counts the heap allocations made while `g_count_allocations` is set, so a
// test can tell that execute allocates nothing.
namespace {
bool g_count_allocations = false;
long g_allocations = 0;
}  // namespace

// Out of line, so the compiler pairs each delete with this new and not with malloc.
__attribute__((noinline)) void* operator new(std::size_t size) {
  if (g_count_allocations) ++g_allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace kovra_test {
namespace {

std::vector<float> iota_values(int n, float start = 0.0f) {
  std::vector<float> v(n);
  std::iota(v.begin(), v.end(), start);
  return v;
}

struct Input {
  std::vector<int> shape;
  std::vector<float> values;
};

// One operator on hand-worked codes: the expected values are worked out in
// the comment of each case.
struct HandCase {
  const char* name;
  const char* op;
  std::string attrs;
  std::vector<Input> inputs;
  std::vector<float> expected;
  std::vector<int> shape;
};
void PrintTo(const HandCase& c, std::ostream* os) { *os << c.name; }

// Sum, difference and maximum: scales 0.5 / 0.25, output scale 2, offsets
// 1 / -2, output offset 3, so the sum is 3 + (x0 + 0.5 x1) and the difference
// 5 + (x0 - 0.5 x1), both clamped to [0, maxValue + offset = 103].
const std::string kRequant =
    "INPUT0SCALE=[0.5] INPUT1SCALE=[0.25] OUTPUTSCALE=[2.] input0_offset=1 input1_offset=-2 offset=3 "
    "maxValue=100 minValue=-128 ";
// With O = 0.75 and a one-element second input the shortcut round(O x0 + x1) runs.
const std::string kShortcut = kRequant + "OUTPUTSCALE=[0.75]";
const std::string kBilinear = "maxValue=20 minValue=-5 offset=2 ";
const std::string kPool = "padding='VALID' pads=[0,0,0,0] minValue=-128 ";

const std::vector<Input> kSumInputs = {{{1, 1, 6, 1}, {10, 2, 3, -20, 200, -3}},
                                       {{1, 1, 6, 1}, {4, 3, 3, 0, 0, -1}}};
const std::vector<Input> kShortcutInputs = {{{1, 1, 4, 1}, {2, -2, -300, 300}}, {{1}, {5}}};
const Input kIota24 = {{2, 2, 2, 3}, iota_values(24, -12.0f)};
const Input kSlice12 = {{1, 2, 3, 2}, iota_values(12)};
const Input kSquare = {{1, 2, 2, 1}, {0, 10, 20, 30}};
const Input kFour = {{1, 2, 2, 1}, {1, 2, 3, 4}};
const Input kIota16 = {{1, 4, 4, 1}, iota_values(16)};

// clang-format off
const HandCase kHandCases[] = {
    // QSCALE 1, offset 128, bounds [-128, 127]: 300 -> 127 + 128; -300 -> -128 + 128; 2.5 rounds
    // to 2; -0.5 to -0; 3.5 to 4: the zero point is added after the clamp.
    {"QuantizeClampsBeforeTheOffset", "Z40Quantize", "QSCALE=[1.] offset=128 maxValue=127 minValue=-128",
     {{{1, 5, 1}, {300, -300, 2.5f, -0.5f, 3.5f}}}, {255, 0, 130, 128, 132}, {1, 5, 1}},
    // (offset + q) * QSCALE with offset -128, QSCALE 0.5: 130 -> 1; 0 -> -64; 255 -> 63.5.
    {"DequantizeAddsTheOffsetFirst", "Z40Dequantize", "QSCALE=[0.5] offset=-128",
     {{{1, 1, 3, 1}, {130, 0, 255}}}, {1, -64, 63.5f}, {1, 1, 3, 1}},
    // 15; 6.5 -> 6; 7.5 -> 8; -17 -> 0 although minValue is -128; 203 -> 103; -0.5 -> 0.
    // "None", "Relu" and "Relu6" keep the direct requantization.
    {"AddClampsAtZeroAndMaxPlusOffset", "Z40EltwiseAddInt8", kRequant, kSumInputs, {15, 6, 8, 0, 103, 0},
     {1, 1, 6, 1}},
    {"AddNone", "Z40EltwiseAddInt8", kRequant + "ActionType='None'", kSumInputs, {15, 6, 8, 0, 103, 0},
     {1, 1, 6, 1}},
    {"AddRelu", "Z40EltwiseAddInt8", kRequant + "ActionType='Relu'", kSumInputs, {15, 6, 8, 0, 103, 0},
     {1, 1, 6, 1}},
    {"AddRelu6", "Z40EltwiseAddInt8", kRequant + "ActionType='Relu6'", kSumInputs, {15, 6, 8, 0, 103, 0},
     {1, 1, 6, 1}},
    // 5 + 10 - 2 = 13; 5 + 2 - 1.5 = 5.5 -> 6; -15 -> 0; 205 -> 103.
    {"SubDifferences", "Z40EltwiseSubInt8", kRequant,
     {{{1, 1, 4, 1}, {10, 2, -20, 200}}, {{1, 1, 4, 1}, {4, 3, 0, 0}}}, {13, 6, 0, 103}, {1, 1, 4, 1}},
    // 1.5 + 5 = 6.5 -> 6; -1.5 + 5 = 3.5 -> 4; -220 -> -128 (minValue); 230 -> 103.
    {"AddShortcutClampsAtMinValue", "Z40EltwiseAddInt8", kShortcut, kShortcutInputs, {6, 4, -128, 103},
     {1, 1, 4, 1}},
    // The difference subtracts the scalar: 1.5 - 5 = -3.5 -> -4.
    {"SubShortcut", "Z40EltwiseSubInt8", kShortcut, kShortcutInputs, {-4, -6, -128, 103}, {1, 1, 4, 1}},
    // max(11, 1) + 3 = 14; max(-4, 3.5) + 3 = 6.5 -> 6; -23 -> -7 (minValue + offset); 204 -> 103.
    {"MaxOfTheRequantizedInputs", "Z40MaxInt8", kRequant + "minValue=-10",
     {{{1, 1, 4, 1}, {10, -5, -50, 200}}, {{1, 1, 4, 1}, {4, 9, -50, 0}}}, {14, 6, -7, 103}, {1, 1, 4, 1}},
    // (x0 + 1)(x1 - 2) * 0.5 + 3: 9; 7.5 -> 8; 3; 4952 -> 103; -192 -> -7 (minValue + offset).
    {"MulShiftsBothBounds", "Z40EltwiseMulInt8",
     "input0_offset=1 input1_offset=-2 OUTPUTSCALE=[0.5] offset=3 maxValue=100 minValue=-10",
     {{{1, 1, 5, 1}, {3, 2, -1, 100, -40}}, {{1, 1, 5, 1}, {5, 5, 7, 100, 12}}}, {9, 8, 3, 103, -7},
     {1, 1, 5, 1}},
    // The short second input repeats: channel 0 x * 2; channel 1 x * 3 * 0.25 (1.5 -> 2, 3, 4.5 -> 4).
    {"MulShortSecondInputRepeats", "Z40EltwiseMulInt8",
     "input0_offset=0 input1_offset=0 OUTPUTSCALE=[1.,0.25] maxValue=127 minValue=-128",
     {{{1, 1, 3, 2}, {1, 2, 3, 4, 5, 6}}, {{2}, {2, 3}}}, {2, 2, 6, 3, 10, 4}, {1, 1, 3, 2}},
    // -5 + 5 = 0: sigmoid 0.5 * 101 = 50.5 -> 50, plus the offset -50.
    {"SigmoidAtZero", "Z40SigmoidInt8",
     "INPUTSCALE=[0.1] OUTPUTSCALE=[101.] maxValue=127 minValue=-128 input_offset=5 offset=-50",
     {{{1, 1, 1, 1}, {-5}}}, {0}, {1, 1, 1, 1}},
    // -5 + 5 = 0: tanh 0 = 0, plus the offset -50; 15 * 0.1 = 1.5: tanh 0.905148 * 101 = 91.42 -> 91,
    // clamped to maxValue 90, minus 50.
    {"TanhAtZeroAndClamped", "Z40TanhInt8",
     "INPUTSCALE=[0.1] OUTPUTSCALE=[101.] maxValue=90 minValue=-128 input_offset=5 offset=-50",
     {{{1, 1, 2, 1}, {-5, 10}}}, {-50, 40}, {1, 1, 2, 1}},
    // 2.5 -> 2; 5; 51 -> 20; 197 -> 20; -49 (no lower bound); -5; each plus 10.
    {"BatchNormClampedAboveOnly", "Z40BatchNormScaleInt8",
     "scale=[0.5,2.] bias=[1.,-3.] offset=10 maxValue=20",
     {{{1, 1, 3, 2}, {3, 4, 100, 100, -100, -1}}}, {12, 15, 30, 30, -39, 5}, {1, 1, 3, 2}},
    {"PowOfTheFirstExponent", "Z40PowInt8", "", {{{1, 1, 1, 4}, {2, -3, 0.5f, 5}}, {{2}, {3, 9}}},
     {8, -27, 0.125f, 125}, {1, 1, 1, 4}},
    // Codes pass through; flatten keeps the batch.
    {"Clone", "Z40CloneInt8", "", {kIota24}, iota_values(24, -12.0f), {2, 2, 2, 3}},
    {"LeakyRelu", "Z40LeakyReluInt8", "", {kIota24}, iota_values(24, -12.0f), {2, 2, 2, 3}},
    {"Flatten", "Z40FlattenInt8", "", {kIota24}, iota_values(24, -12.0f), {2, 12}},
    // Channels [groups, C / groups] transposed to [C / groups, groups].
    {"ShuffleTwoGroups", "Z40ChannelShuffleInt8", "groups=2 INPUTSCALE=[1.]",
     {{{1, 1, 2, 6}, iota_values(12)}}, {0, 3, 1, 4, 2, 5, 6, 9, 7, 10, 8, 11}, {1, 1, 2, 6}},
    {"ShuffleThreeGroups", "Z40ChannelShuffleInt8", "groups=3 INPUTSCALE=[1.]",
     {{{1, 1, 2, 6}, iota_values(12)}}, {0, 2, 4, 1, 3, 5, 6, 8, 10, 7, 9, 11}, {1, 1, 2, 6}},
    // Six channels over one 2x2 window: means 2.75, 2.5, 3.5, -2.5, 100, -100, clamped to [-60, 50].
    {"AvgPoolRoundsHalfToEvenAndClamps", "Z40AvgPoolInt8",
     kPool + "ksize=[1,2,2,1] strides=[1,1,1,1] maxValue=50 minValue=-60",
     {{{1, 2, 2, 6},
       {1, 2, 3, -2, 100, -100, 2, 3, 4, -3, 100, -100, 3, 2, 3, -2, 100, -100, 5, 3, 4, -3, 100, -100}}},
     {3, 2, 4, -2, 50, -60}, {1, 1, 1, 6}},
    // Windows {0,1,3,4} = 2, {2,5} = 3.5 -> 4, {6,7} = 6.5 -> 6, {8} = 8: padding is not counted.
    {"AvgPoolSameCountsOnlyInputCells", "Z40AvgPoolInt8",
     kPool + "ksize=[1,2,2,1] strides=[1,2,2,1] padding='SAME' maxValue=127",
     {{{1, 3, 3, 1}, iota_values(9)}}, {2, 4, 6, 8}, {1, 2, 2, 1}},
    // One row and column of padding in front: the three padded windows see padValue 5.
    {"MaxPoolPadValueWins", "Z40MaxPoolInt8",
     kPool + "ksize=[1,2,2,1] strides=[1,1,1,1] pads=[1,0,1,0] maxValue=127 padValue=5",
     {kFour}, {5, 5, 5, 4}, {1, 2, 2, 1}},
    {"MaxPoolPadValueLoses", "Z40MaxPoolInt8",
     kPool + "ksize=[1,2,2,1] strides=[1,1,1,1] pads=[1,0,1,0] maxValue=127 padValue=-7",
     {kFour}, {1, 2, 3, 4}, {1, 2, 2, 1}},
    // 3x3 windows, stride 2 over 4x4: one window (max 10), or with ceil_mode the
    // partial ones too (11, 14, 15 -> 14 by maxValue).
    {"MaxPoolFloorMode", "Z40MaxPoolInt8", kPool + "ksize=[1,3,3,1] strides=[1,2,2,1] maxValue=14",
     {kIota16}, {10}, {1, 1, 1, 1}},
    {"MaxPoolCeilMode", "Z40MaxPoolInt8", kPool + "ksize=[1,3,3,1] strides=[1,2,2,1] maxValue=14 ceil_mode=1",
     {kIota16}, {10, 11, 14, 14}, {1, 2, 2, 1}},
    // Channel sums 10, 5, 400: 2.5 -> 2, 1.25 -> 1, 400 -> 100.
    {"GlobalAvgPoolSumTimesPoolScale", "Z40GlobalAvgPoolInt8",
     "POOLSCALE=[0.25,0.25,1.] maxValue=100 minValue=-100",
     {{{1, 2, 2, 3}, {1, 1, 100, 2, 1, 100, 3, 1, 100, 4, 2, 100}}}, {2, 1, 100}, {1, 1, 1, 3}},
    // Source rows/columns -0.25 (-> 0), 0.25, 0.75, 1.25; values above 22 clamp.
    {"BilinearHalfPixelCentres", "Z40ResizeBilinearInt8", kBilinear + "wh_scale=2.0 align_corners=false",
     {kSquare}, {0, 2, 8, 10, 5, 8, 12, 15, 15, 18, 22, 22, 20, 22, 22, 22}, {1, 4, 4, 1}},
    // Corners aligned, 3 = round(2 * 1.5): sources 0, 0.5, 1.
    {"BilinearAlignedCorners", "Z40ResizeBilinearInt8", kBilinear + "wh_scale=1.5 align_corners=true",
     {kSquare}, {0, 5, 10, 10, 15, 20, 20, 22, 22}, {1, 3, 3, 1}},
    // Three outputs per side read rows/columns floor(d * 2/3) = 0, 0, 1.
    {"NearestFloorOfTheScaledIndex", "Z40ResizeNearestNeighborInt8", "wh_scale=1.5", {kFour},
     {1, 1, 2, 1, 1, 2, 3, 3, 4}, {1, 3, 3, 1}},
    {"UnpoolRepeatsOverTheKernel", "Z40Unpool2DInt8", "kernel_size=[2,3]", {{{1, 1, 2, 1}, {5, 6}}},
     {5, 5, 5, 6, 6, 6, 5, 5, 5, 6, 6, 6}, {1, 2, 6, 1}},
    // 4 * 0.5 * 2 = 4; -19 -> -5; 3 * 3 * 0.5 = 4.5 -> 4; each plus 10.
    {"ConcatRequantizesEachInput", "Z40ConcatInt8",
     "axis=3 QSCALE=[2.,0.5] DEQSCALE=[0.5,3.] input_offset=1 offset=10 maxValue=5 minValue=-5",
     {{{1, 1, 1, 2}, {3, -20}}, {{1, 1, 1, 1}, {2}}}, {14, 5, 14}, {1, 1, 1, 3}},
    // Along H: both rows of input 0 (x1), then input 1 (x2).
    {"ConcatAlongRows", "Z40ConcatInt8",
     "axis=1 QSCALE=[1.,2.] DEQSCALE=[1.,1.] input_offset=0 offset=0 maxValue=127 minValue=-128",
     {{{1, 2, 1, 2}, {1, 2, 3, 4}}, {{1, 1, 1, 2}, {5, 6}}}, {1, 2, 3, 4, 10, 12}, {1, 3, 1, 2}},
    {"PadWithPadValue", "Z40PadInt8", "pads=[0,0,1,0,0,1,0,0] padValue=-3", {{{1, 1, 2, 1}, {1, 2}}},
     {-3, -3, -3, 1, 2, -3}, {1, 2, 3, 1}},
    // Row 1; columns from -3 (= 0) to past the end, every second one.
    {"SliceStepsAndClampedEnds", "Z40SliceInt8",
     "axes=[1,2] starts=[1,-3] ends=[2,100] steps=[1,2] output_shape=[1,1,2,2]", {kSlice12},
     {6, 7, 10, 11}, {1, 1, 2, 2}},
    {"SliceReversed", "Z40SliceInt8", "axes=[2] starts=[-1] ends=[-100] steps=[-1] output_shape=[1,2,3,2]",
     {kSlice12}, {4, 5, 2, 3, 0, 1, 10, 11, 8, 9, 6, 7}, {1, 2, 3, 2}},
    {"SliceLastChannel", "Z40SliceInt8", "axes=[3] starts=[1] ends=[2] steps=[1] output_shape=[1,2,3,1]",
     {kSlice12}, {1, 3, 5, 7, 9, 11}, {1, 2, 3, 1}},
    {"TransposePermutesAxes", "Z40TransposeInt8", "perm=[0,2,1,3] output_shape=[1,3,2,1]",
     {{{1, 2, 3, 1}, iota_values(6)}}, {0, 3, 1, 4, 2, 5}, {1, 3, 2, 1}},
    {"ReshapeKeepsTheOrder", "Z40ReshapeInt8", "output_shape=[1,4]", {{{1, 1, 2, 2}, {0, 1, 2, 3}}},
     {0, 1, 2, 3}, {1, 4}},
    // Channels first: channel 0 holds 0, 2 and channel 1 holds 1, 3.
    {"ReshapeOnnxReadsChannelsFirst", "Z40ReshapeInt8", "output_shape=[1,4] src_framework='ONNX'",
     {{{1, 1, 2, 2}, {0, 1, 2, 3}}}, {0, 2, 1, 3}, {1, 4}},
    // [1, 2, 2, 1] -> channels first [1, 1, 2, 2] = 0 1 2 3, read as [N, C=2, 1, 2] = (0 1)(2 3)
    // and stored channels last: 0 2 1 3.
    {"ReshapeOnnxBackToChannelsLast", "Z40ReshapeInt8", "output_shape=[1,1,2,2] src_framework='ONNX'",
     {{{1, 2, 2, 1}, {0, 1, 2, 3}}}, {0, 2, 1, 3}, {1, 1, 2, 2}},
    {"SpaceToDepthMovesBlocksIntoChannels", "Z40SpaceToDepthInt8", "output_shape=[1,1,2,4]",
     {{{1, 2, 4, 1}, iota_values(8)}}, {0, 1, 4, 5, 2, 3, 6, 7}, {1, 1, 2, 4}},
};
// clang-format on

class HandWorkedTest : public ::testing::TestWithParam<HandCase> {};

TEST_P(HandWorkedTest, CodesAndShape) {
  const HandCase& c = GetParam();
  OneOpModel m(c.op, static_cast<int>(c.inputs.size()));
  set_attrs(m.node(), c.attrs);
  std::vector<Tensor> tensors;
  for (const Input& in : c.inputs) tensors.push_back(make_tensor(in.shape, in.values));
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);
  std::vector<int> shape;
  EXPECT_EQ(m.run(inputs, &shape), c.expected);
  EXPECT_EQ(shape, c.shape);
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, HandWorkedTest, ::testing::ValuesIn(kHandCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(PowInt8Test, FractionalExponentInDouble) {
  OneOpModel m("Z40PowInt8", 2);
  Tensor x = make_tensor({1, 1, 1, 4}, {2, -3, 0.5f, 5});
  Tensor half = make_tensor({1}, {0.5f});
  const std::vector<float> roots = m.run({&x, &half});
  EXPECT_EQ(roots[0], static_cast<float>(std::sqrt(2.0)));
  EXPECT_TRUE(std::isnan(roots[1]));
}

// Nine axes of two, reversed: output k reads input bit-reverse(k), through
// the odometer kept in the record for plans of more than eight axes.
TEST(TransposeInt8Test, ManyAxesReversed) {
  OneOpModel m("Z40TransposeInt8", 1);
  set_attr_ints(m.node(), "perm", {8, 7, 6, 5, 4, 3, 2, 1, 0});
  set_attr_ints(m.node(), "output_shape", std::vector<int>(9, 2));
  Tensor x = make_tensor(std::vector<int>(9, 2), iota_values(512));
  const std::vector<float> got = m.run({&x});
  ASSERT_EQ(got.size(), 512u);
  for (int k = 0; k < 512; ++k) {
    int reversed = 0;
    for (int bit = 0; bit < 9; ++bit) reversed |= ((k >> bit) & 1) << (8 - bit);
    EXPECT_EQ(got[k], static_cast<float>(reversed)) << k;
  }
}

// Once prepared, execute allocates nothing. The portable kernels run:
// the AVX-512 element-wise kernels build a table of repeated factors on each
// call when there are fewer than 16 channels, which is their family's affair.
TEST_P(HandWorkedTest, ExecuteAllocatesNothing) {
  const HandCase& c = GetParam();
  const NodeDef node = node_of(c.op, c.attrs);
  auto op = make_op(c.op);
  op->parse_parameter(node);
  std::vector<Tensor> tensors;
  for (const Input& in : c.inputs) tensors.push_back(make_tensor(in.shape, in.values));
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  Tensor output = make_tensor(shape, c.expected);
  kovra::trenkit::kovraexecutor::force_isa(kovra::trenkit::kovraexecutor::KernelIsa::kPortable);
  g_allocations = 0;
  g_count_allocations = true;
  op->execute(inputs, &output);
  g_count_allocations = false;
  kovra::trenkit::kovraexecutor::reset_isa();
  EXPECT_EQ(g_allocations, 0) << c.op;
  EXPECT_EQ(tensor_values(output), c.expected);
}

// One executor prepared again for other input shapes (as the graph does when
// its inputs change) computes what a fresh executor computes: nothing of the
// first preparation (channel factors, geometry, tables, offsets) is left over.
struct ReprepareCase {
  const char* op;
  std::string attrs;
  std::vector<Input> first, second;
};
void PrintTo(const ReprepareCase& c, std::ostream* os) { *os << c.op; }

std::vector<float> run_direct(kovra::trenkit::kovraexecutor::OpExecutor* op, const std::vector<Input>& ins) {
  std::vector<Tensor> tensors;
  for (const Input& in : ins) tensors.push_back(make_tensor(in.shape, in.values));
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  int n = 1;
  for (int d : shape) n *= d;
  Tensor output = make_tensor(shape, std::vector<float>(n, 0.0f));
  op->execute(inputs, &output);
  return tensor_values(output);
}

// The attributes of the hand-worked case `name`.
std::string hand_attrs(const char* name) {
  for (const HandCase& c : kHandCases) {
    if (std::string(c.name) == name) return c.attrs;
  }
  ADD_FAILURE() << "no hand-worked case " << name;
  return "";
}

// Two channels with their own scales, for a second shape with more channels than the first.
const std::string kTwoChannelRequant =
    kRequant + "INPUT0SCALE=[0.5,1.5] INPUT1SCALE=[0.25,-0.75] OUTPUTSCALE=[2.,0.5]";

const std::vector<float> kA = {7, -3, 12, 5, -8, 2, 9, -1}, kB = {4, 6, -2, 3, 1, -5, 0, 8};

// clang-format off
const ReprepareCase kReprepare[] = {
    {"Z40EltwiseAddInt8", kTwoChannelRequant, {{{1, 1, 2, 1}, {1, 2}}, {{1, 1, 2, 1}, {3, 4}}},
     {{{1, 2, 2, 2}, kA}, {{1, 2, 2, 2}, kB}}},
    {"Z40EltwiseSubInt8", kTwoChannelRequant, {{{1, 1, 2, 1}, {1, 2}}, {{1}, {3}}},
     {{{1, 2, 2, 2}, kA}, {{1, 2, 2, 2}, kB}}},
    {"Z40MaxInt8", kTwoChannelRequant, {{{1, 1, 1, 1}, {1}}, {{1, 1, 1, 1}, {2}}},
     {{{1, 1, 4, 2}, kA}, {{1, 1, 4, 2}, kB}}},
    {"Z40EltwiseMulInt8", hand_attrs("MulShortSecondInputRepeats"),
     {{{1, 1, 4, 1}, {1, 2, 3, 4}}, {{1}, {3}}}, {{{1, 2, 2, 2}, kA}, {{2}, {2, 3}}}},
    {"Z40Quantize", "QSCALE=[1.,0.5] offset=1 maxValue=100 minValue=-100", {{{1, 8, 1}, kA}},
     {{{1, 4, 2}, kA}}},
    {"Z40GlobalAvgPoolInt8", hand_attrs("GlobalAvgPoolSumTimesPoolScale"), {{{1, 1, 1, 3}, {1, 2, 3}}},
     {{{1, 2, 2, 2}, kA}}},
    {"Z40AvgPoolInt8", hand_attrs("AvgPoolSameCountsOnlyInputCells"), {{{1, 3, 3, 1}, iota_values(9)}},
     {{{1, 2, 4, 1}, kA}}},
    {"Z40MaxPoolInt8", hand_attrs("MaxPoolCeilMode"), {{{1, 4, 4, 1}, iota_values(16)}},
     {{{1, 3, 4, 2}, iota_values(24, -5.0f)}}},
    {"Z40ResizeBilinearInt8", hand_attrs("BilinearHalfPixelCentres"), {{{1, 2, 2, 1}, {0, 10, 20, 30}}},
     {{{1, 1, 4, 2}, kA}}},
    {"Z40ResizeNearestNeighborInt8", hand_attrs("NearestFloorOfTheScaledIndex"),
     {{{1, 2, 2, 1}, {1, 2, 3, 4}}}, {{{1, 1, 4, 2}, kA}}},
    {"Z40Unpool2DInt8", hand_attrs("UnpoolRepeatsOverTheKernel"), {{{1, 1, 2, 1}, {5, 6}}},
     {{{1, 2, 2, 2}, kA}}},
    {"Z40ConcatInt8", hand_attrs("ConcatRequantizesEachInput"),
     {{{1, 1, 1, 2}, {3, -20}}, {{1, 1, 1, 1}, {2}}},
     {{{1, 2, 1, 2}, {1, 2, 3, 4}}, {{1, 2, 1, 3}, {5, 6, 7, 8, 9, 10}}}},
    {"Z40ChannelShuffleInt8", hand_attrs("ShuffleTwoGroups"), {{{1, 1, 2, 6}, iota_values(12)}},
     {{{1, 1, 2, 4}, kA}}},
    {"Z40SliceInt8", hand_attrs("SliceStepsAndClampedEnds"), {kSlice12}, {{{1, 2, 4, 1}, kA}}},
    {"Z40TransposeInt8", hand_attrs("TransposePermutesAxes"), {{{1, 2, 3, 1}, iota_values(6)}},
     {{{2, 2, 2, 1}, kA}}},
    {"Z40ReshapeInt8", hand_attrs("ReshapeOnnxBackToChannelsLast"), {{{1, 2, 2, 1}, {0, 1, 2, 3}}},
     {{{1, 1, 1, 4}, {0, 1, 2, 3}}}},
    {"Z40SpaceToDepthInt8", hand_attrs("SpaceToDepthMovesBlocksIntoChannels"),
     {{{1, 2, 4, 1}, iota_values(8)}}, {{{1, 2, 4, 1}, kA}}},
};
// clang-format on

class ReprepareTest : public ::testing::TestWithParam<ReprepareCase> {};

TEST_P(ReprepareTest, NothingOfTheFirstShapeIsLeftOver) {
  const ReprepareCase& c = GetParam();
  const NodeDef node = node_of(c.op, c.attrs);
  auto reused = make_op(c.op), fresh = make_op(c.op);
  reused->parse_parameter(node);
  fresh->parse_parameter(node);
  run_direct(reused.get(), c.first);
  EXPECT_EQ(run_direct(reused.get(), c.second), run_direct(fresh.get(), c.second));
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, ReprepareTest, ::testing::ValuesIn(kReprepare), [](const auto& info) {
  return std::string(info.param.op) + "_" + std::to_string(info.index);
});

}  // namespace
}  // namespace kovra_test
