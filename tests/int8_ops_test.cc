#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <new>
#include <numeric>
#include <string>
#include <vector>

#include "ops/kernels/avx_common.h"
#include "support/int8_graph.h"

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

using Attrs = void (*)(NodeDef*);

// One operator on hand-worked codes: the expected values are worked out in
// the comment of each case.
struct HandCase {
  const char* name;
  const char* op;
  Attrs attrs;
  std::vector<Input> inputs;
  std::vector<float> expected;
  std::vector<int> shape;
};
void PrintTo(const HandCase& c, std::ostream* os) { *os << c.name; }

// Sum, difference and maximum: scales 0.5 / 0.25, output scale 2, offsets
// 1 / -2, output offset 3, so the sum is 3 + (x0 + 0.5 x1) and the difference
// 5 + (x0 - 0.5 x1), both clamped to [0, maxValue + offset = 103].
void requant_attrs(NodeDef* n) {
  set_attr_floats(n, "INPUT0SCALE", {0.5f});
  set_attr_floats(n, "INPUT1SCALE", {0.25f});
  set_attr_floats(n, "OUTPUTSCALE", {2.0f});
  set_attr_i(n, "input0_offset", 1);
  set_attr_i(n, "input1_offset", -2);
  set_attr_i(n, "offset", 3);
  set_attr_i(n, "maxValue", 100);
  set_attr_i(n, "minValue", -128);
}

void requant_action(NodeDef* n, const char* action) {
  requant_attrs(n);
  set_attr_s(n, "ActionType", action);
}

// With O = 0.75 and a one-element second input the shortcut round(O x0 + x1) runs.
void shortcut_attrs(NodeDef* n) {
  requant_attrs(n);
  set_attr_floats(n, "OUTPUTSCALE", {0.75f});
}

void pool_attrs(NodeDef* n, std::vector<int> ksize, std::vector<int> strides, const char* padding,
                std::vector<int> pads, int max_value, int min_value) {
  set_attr_ints(n, "ksize", ksize);
  set_attr_ints(n, "strides", strides);
  set_attr_s(n, "padding", padding);
  set_attr_ints(n, "pads", pads);
  set_attr_i(n, "maxValue", max_value);
  set_attr_i(n, "minValue", min_value);
}

void bilinear_attrs(NodeDef* n, float scale, bool align_corners) {
  set_attr_f(n, "wh_scale", scale);
  set_attr_b(n, "align_corners", align_corners);
  set_attr_i(n, "maxValue", 20);
  set_attr_i(n, "minValue", -5);
  set_attr_i(n, "offset", 2);
}

void slice_attrs(NodeDef* n, std::vector<int> axes, std::vector<int> starts, std::vector<int> ends,
                 std::vector<int> steps, std::vector<int> shape) {
  set_attr_ints(n, "output_shape", shape);
  set_attr_ints(n, "axes", axes);
  set_attr_ints(n, "starts", starts);
  set_attr_ints(n, "ends", ends);
  set_attr_ints(n, "steps", steps);
}

const std::vector<Input> kSumInputs = {{{1, 1, 6, 1}, {10, 2, 3, -20, 200, -3}},
                                       {{1, 1, 6, 1}, {4, 3, 3, 0, 0, -1}}};
const Input kIota24 = {{2, 2, 2, 3}, iota_values(24, -12.0f)};
const Input kSlice12 = {{1, 2, 3, 2}, iota_values(12)};

const HandCase kHandCases[] = {
    // QSCALE 1, offset 128, bounds [-128, 127]: 300 -> 127 + 128; -300 -> -128 + 128; 2.5 rounds
    // to 2; -0.5 to -0; 3.5 to 4: the zero point is added after the clamp.
    {"QuantizeClampsBeforeTheOffset", "Z40Quantize",
     [](NodeDef* n) {
       set_attr_floats(n, "QSCALE", {1.0f});
       set_attr_i(n, "offset", 128), set_attr_i(n, "maxValue", 127), set_attr_i(n, "minValue", -128);
     },
     {{{1, 5, 1}, {300, -300, 2.5f, -0.5f, 3.5f}}}, {255, 0, 130, 128, 132}, {1, 5, 1}},
    // (offset + q) * QSCALE with offset -128, QSCALE 0.5: 130 -> 1; 0 -> -64; 255 -> 63.5.
    {"DequantizeAddsTheOffsetFirst", "Z40Dequantize",
     [](NodeDef* n) { set_attr_floats(n, "QSCALE", {0.5f}), set_attr_i(n, "offset", -128); },
     {{{1, 1, 3, 1}, {130, 0, 255}}}, {1, -64, 63.5f}, {1, 1, 3, 1}},
    // 15; 6.5 -> 6; 7.5 -> 8; -17 -> 0 although minValue is -128; 203 -> 103; -0.5 -> 0.
    // "None", "Relu" and "Relu6" keep the direct requantization.
    {"AddClampsAtZeroAndMaxPlusOffset", "Z40EltwiseAddInt8", requant_attrs,
     kSumInputs, {15, 6, 8, 0, 103, 0}, {1, 1, 6, 1}},
    {"AddNone", "Z40EltwiseAddInt8", [](NodeDef* n) { requant_action(n, "None"); },
     kSumInputs, {15, 6, 8, 0, 103, 0}, {1, 1, 6, 1}},
    {"AddRelu", "Z40EltwiseAddInt8", [](NodeDef* n) { requant_action(n, "Relu"); },
     kSumInputs, {15, 6, 8, 0, 103, 0}, {1, 1, 6, 1}},
    {"AddRelu6", "Z40EltwiseAddInt8", [](NodeDef* n) { requant_action(n, "Relu6"); },
     kSumInputs, {15, 6, 8, 0, 103, 0}, {1, 1, 6, 1}},
    // 5 + 10 - 2 = 13; 5 + 2 - 1.5 = 5.5 -> 6; -15 -> 0; 205 -> 103.
    {"SubDifferences", "Z40EltwiseSubInt8", requant_attrs,
     {{{1, 1, 4, 1}, {10, 2, -20, 200}}, {{1, 1, 4, 1}, {4, 3, 0, 0}}}, {13, 6, 0, 103}, {1, 1, 4, 1}},
    // 1.5 + 5 = 6.5 -> 6; -1.5 + 5 = 3.5 -> 4; -220 -> -128 (minValue); 230 -> 103.
    {"AddShortcutClampsAtMinValue", "Z40EltwiseAddInt8", shortcut_attrs,
     {{{1, 1, 4, 1}, {2, -2, -300, 300}}, {{1}, {5}}}, {6, 4, -128, 103}, {1, 1, 4, 1}},
    // The difference subtracts the scalar: 1.5 - 5 = -3.5 -> -4.
    {"SubShortcut", "Z40EltwiseSubInt8", shortcut_attrs,
     {{{1, 1, 4, 1}, {2, -2, -300, 300}}, {{1}, {5}}}, {-4, -6, -128, 103}, {1, 1, 4, 1}},
    // max(11, 1) + 3 = 14; max(-4, 3.5) + 3 = 6.5 -> 6; -23 -> -7 (minValue + offset); 204 -> 103.
    {"MaxOfTheRequantizedInputs", "Z40MaxInt8",
     [](NodeDef* n) { requant_attrs(n), set_attr_i(n, "minValue", -10); },
     {{{1, 1, 4, 1}, {10, -5, -50, 200}}, {{1, 1, 4, 1}, {4, 9, -50, 0}}}, {14, 6, -7, 103}, {1, 1, 4, 1}},
    // (x0 + 1)(x1 - 2) * 0.5 + 3: 9; 7.5 -> 8; 3; 4952 -> 103; -192 -> -7 (minValue + offset).
    {"MulShiftsBothBounds", "Z40EltwiseMulInt8",
     [](NodeDef* n) {
       set_attr_i(n, "input0_offset", 1);
       set_attr_i(n, "input1_offset", -2);
       set_attr_floats(n, "OUTPUTSCALE", {0.5f});
       set_attr_i(n, "offset", 3);
       set_attr_i(n, "maxValue", 100);
       set_attr_i(n, "minValue", -10);
     },
     {{{1, 1, 5, 1}, {3, 2, -1, 100, -40}}, {{1, 1, 5, 1}, {5, 5, 7, 100, 12}}},
     {9, 8, 3, 103, -7}, {1, 1, 5, 1}},
    // The short second input repeats: channel 0 x * 2; channel 1 x * 3 * 0.25 (1.5 -> 2, 3, 4.5 -> 4).
    {"MulShortSecondInputRepeats", "Z40EltwiseMulInt8",
     [](NodeDef* n) {
       set_attr_i(n, "input0_offset", 0);
       set_attr_i(n, "input1_offset", 0);
       set_attr_floats(n, "OUTPUTSCALE", {1.0f, 0.25f});
       set_attr_i(n, "maxValue", 127);
       set_attr_i(n, "minValue", -128);
     },
     {{{1, 1, 3, 2}, {1, 2, 3, 4, 5, 6}}, {{2}, {2, 3}}}, {2, 2, 6, 3, 10, 4}, {1, 1, 3, 2}},
    // -5 + 5 = 0: sigmoid 0.5 * 101 = 50.5 -> 50, plus the offset -50.
    {"SigmoidAtZero", "Z40SigmoidInt8",
     [](NodeDef* n) {
       set_attr_floats(n, "INPUTSCALE", {0.1f});
       set_attr_floats(n, "OUTPUTSCALE", {101.0f});
       set_attr_i(n, "maxValue", 127);
       set_attr_i(n, "minValue", -128);
       set_attr_i(n, "input_offset", 5);
       set_attr_i(n, "offset", -50);
     },
     {{{1, 1, 1, 1}, {-5}}}, {0}, {1, 1, 1, 1}},
    // -5 + 5 = 0: tanh 0 = 0, plus the offset -50; 15 * 0.1 = 1.5: tanh 0.905148 * 101 = 91.42 -> 91,
    // clamped to maxValue 90, minus 50.
    {"TanhAtZeroAndClamped", "Z40TanhInt8",
     [](NodeDef* n) {
       set_attr_floats(n, "INPUTSCALE", {0.1f});
       set_attr_floats(n, "OUTPUTSCALE", {101.0f});
       set_attr_i(n, "maxValue", 90);
       set_attr_i(n, "minValue", -128);
       set_attr_i(n, "input_offset", 5);
       set_attr_i(n, "offset", -50);
     },
     {{{1, 1, 2, 1}, {-5, 10}}}, {-50, 40}, {1, 1, 2, 1}},
    // 2.5 -> 2; 5; 51 -> 20; 197 -> 20; -49 (no lower bound); -5; each plus 10.
    {"BatchNormClampedAboveOnly", "Z40BatchNormScaleInt8",
     [](NodeDef* n) {
       set_attr_floats(n, "scale", {0.5f, 2.0f});
       set_attr_floats(n, "bias", {1.0f, -3.0f});
       set_attr_i(n, "offset", 10);
       set_attr_i(n, "maxValue", 20);
     },
     {{{1, 1, 3, 2}, {3, 4, 100, 100, -100, -1}}}, {12, 15, 30, 30, -39, 5}, {1, 1, 3, 2}},
    {"PowOfTheFirstExponent", "Z40PowInt8", nullptr, {{{1, 1, 1, 4}, {2, -3, 0.5f, 5}}, {{2}, {3, 9}}},
     {8, -27, 0.125f, 125}, {1, 1, 1, 4}},
    // Codes pass through; flatten keeps the batch.
    {"Clone", "Z40CloneInt8", nullptr, {kIota24}, iota_values(24, -12.0f), {2, 2, 2, 3}},
    {"LeakyRelu", "Z40LeakyReluInt8", nullptr, {kIota24}, iota_values(24, -12.0f), {2, 2, 2, 3}},
    {"Flatten", "Z40FlattenInt8", nullptr, {kIota24}, iota_values(24, -12.0f), {2, 12}},
    // Channels [groups, C / groups] transposed to [C / groups, groups].
    {"ShuffleTwoGroups", "Z40ChannelShuffleInt8",
     [](NodeDef* n) { set_attr_i(n, "groups", 2), set_attr_floats(n, "INPUTSCALE", {1.0f}); },
     {{{1, 1, 2, 6}, iota_values(12)}}, {0, 3, 1, 4, 2, 5, 6, 9, 7, 10, 8, 11}, {1, 1, 2, 6}},
    {"ShuffleThreeGroups", "Z40ChannelShuffleInt8",
     [](NodeDef* n) { set_attr_i(n, "groups", 3), set_attr_floats(n, "INPUTSCALE", {1.0f}); },
     {{{1, 1, 2, 6}, iota_values(12)}}, {0, 2, 4, 1, 3, 5, 6, 8, 10, 7, 9, 11}, {1, 1, 2, 6}},
    // Six channels over one 2x2 window: means 2.75, 2.5, 3.5, -2.5, 100, -100, clamped to [-60, 50].
    {"AvgPoolRoundsHalfToEvenAndClamps", "Z40AvgPoolInt8",
     [](NodeDef* n) { pool_attrs(n, {1, 2, 2, 1}, {1, 1, 1, 1}, "VALID", {0, 0, 0, 0}, 50, -60); },
     {{{1, 2, 2, 6},
       {1, 2, 3, -2, 100, -100, 2, 3, 4, -3, 100, -100, 3, 2, 3, -2, 100, -100, 5, 3, 4, -3, 100, -100}}},
     {3, 2, 4, -2, 50, -60}, {1, 1, 1, 6}},
    // Windows {0,1,3,4} = 2, {2,5} = 3.5 -> 4, {6,7} = 6.5 -> 6, {8} = 8: padding is not counted.
    {"AvgPoolSameCountsOnlyInputCells", "Z40AvgPoolInt8",
     [](NodeDef* n) { pool_attrs(n, {1, 2, 2, 1}, {1, 2, 2, 1}, "SAME", {0, 0, 0, 0}, 127, -128); },
     {{{1, 3, 3, 1}, iota_values(9)}}, {2, 4, 6, 8}, {1, 2, 2, 1}},
    // One row and column of padding in front: the three padded windows see padValue 5.
    {"MaxPoolPadValueWins", "Z40MaxPoolInt8",
     [](NodeDef* n) {
       pool_attrs(n, {1, 2, 2, 1}, {1, 1, 1, 1}, "VALID", {1, 0, 1, 0}, 127, -128);
       set_attr_i(n, "padValue", 5);
     },
     {{{1, 2, 2, 1}, {1, 2, 3, 4}}}, {5, 5, 5, 4}, {1, 2, 2, 1}},
    {"MaxPoolPadValueLoses", "Z40MaxPoolInt8",
     [](NodeDef* n) {
       pool_attrs(n, {1, 2, 2, 1}, {1, 1, 1, 1}, "VALID", {1, 0, 1, 0}, 127, -128);
       set_attr_i(n, "padValue", -7);
     },
     {{{1, 2, 2, 1}, {1, 2, 3, 4}}}, {1, 2, 3, 4}, {1, 2, 2, 1}},
    // 3x3 windows, stride 2 over 4x4: one window (max 10), or with ceil_mode the
    // partial ones too (11, 14, 15 -> 14 by maxValue).
    {"MaxPoolFloorMode", "Z40MaxPoolInt8",
     [](NodeDef* n) { pool_attrs(n, {1, 3, 3, 1}, {1, 2, 2, 1}, "VALID", {0, 0, 0, 0}, 14, -128); },
     {{{1, 4, 4, 1}, iota_values(16)}}, {10}, {1, 1, 1, 1}},
    {"MaxPoolCeilMode", "Z40MaxPoolInt8",
     [](NodeDef* n) {
       pool_attrs(n, {1, 3, 3, 1}, {1, 2, 2, 1}, "VALID", {0, 0, 0, 0}, 14, -128);
       set_attr_i(n, "ceil_mode", 1);
     },
     {{{1, 4, 4, 1}, iota_values(16)}}, {10, 11, 14, 14}, {1, 2, 2, 1}},
    // Channel sums 10, 5, 400: 2.5 -> 2, 1.25 -> 1, 400 -> 100.
    {"GlobalAvgPoolSumTimesPoolScale", "Z40GlobalAvgPoolInt8",
     [](NodeDef* n) {
       set_attr_floats(n, "POOLSCALE", {0.25f, 0.25f, 1.0f});
       set_attr_i(n, "maxValue", 100);
       set_attr_i(n, "minValue", -100);
     },
     {{{1, 2, 2, 3}, {1, 1, 100, 2, 1, 100, 3, 1, 100, 4, 2, 100}}}, {2, 1, 100}, {1, 1, 1, 3}},
    // Source rows/columns -0.25 (-> 0), 0.25, 0.75, 1.25; values above 22 clamp.
    {"BilinearHalfPixelCentres", "Z40ResizeBilinearInt8", [](NodeDef* n) { bilinear_attrs(n, 2.0f, false); },
     {{{1, 2, 2, 1}, {0, 10, 20, 30}}},
     {0, 2, 8, 10, 5, 8, 12, 15, 15, 18, 22, 22, 20, 22, 22, 22}, {1, 4, 4, 1}},
    // Corners aligned, 3 = round(2 * 1.5): sources 0, 0.5, 1.
    {"BilinearAlignedCorners", "Z40ResizeBilinearInt8", [](NodeDef* n) { bilinear_attrs(n, 1.5f, true); },
     {{{1, 2, 2, 1}, {0, 10, 20, 30}}}, {0, 5, 10, 10, 15, 20, 20, 22, 22}, {1, 3, 3, 1}},
    // Three outputs per side read rows/columns floor(d * 2/3) = 0, 0, 1.
    {"NearestFloorOfTheScaledIndex", "Z40ResizeNearestNeighborInt8",
     [](NodeDef* n) { set_attr_f(n, "wh_scale", 1.5f); }, {{{1, 2, 2, 1}, {1, 2, 3, 4}}},
     {1, 1, 2, 1, 1, 2, 3, 3, 4}, {1, 3, 3, 1}},
    {"UnpoolRepeatsOverTheKernel", "Z40Unpool2DInt8",
     [](NodeDef* n) { set_attr_ints(n, "kernel_size", {2, 3}); },
     {{{1, 1, 2, 1}, {5, 6}}}, {5, 5, 5, 6, 6, 6, 5, 5, 5, 6, 6, 6}, {1, 2, 6, 1}},
    // 4 * 0.5 * 2 = 4; -19 -> -5; 3 * 3 * 0.5 = 4.5 -> 4; each plus 10.
    {"ConcatRequantizesEachInput", "Z40ConcatInt8",
     [](NodeDef* n) {
       set_attr_i(n, "axis", 3);
       set_attr_floats(n, "QSCALE", {2.0f, 0.5f});
       set_attr_floats(n, "DEQSCALE", {0.5f, 3.0f});
       set_attr_i(n, "input_offset", 1);
       set_attr_i(n, "offset", 10);
       set_attr_i(n, "maxValue", 5);
       set_attr_i(n, "minValue", -5);
     },
     {{{1, 1, 1, 2}, {3, -20}}, {{1, 1, 1, 1}, {2}}}, {14, 5, 14}, {1, 1, 1, 3}},
    // Along H: both rows of input 0 (x1), then input 1 (x2).
    {"ConcatAlongRows", "Z40ConcatInt8",
     [](NodeDef* n) {
       set_attr_i(n, "axis", 1);
       set_attr_floats(n, "QSCALE", {1.0f, 2.0f});
       set_attr_floats(n, "DEQSCALE", {1.0f, 1.0f});
       set_attr_i(n, "input_offset", 0);
       set_attr_i(n, "offset", 0);
       set_attr_i(n, "maxValue", 127);
       set_attr_i(n, "minValue", -128);
     },
     {{{1, 2, 1, 2}, {1, 2, 3, 4}}, {{1, 1, 1, 2}, {5, 6}}}, {1, 2, 3, 4, 10, 12}, {1, 3, 1, 2}},
    {"PadWithPadValue", "Z40PadInt8",
     [](NodeDef* n) {
       set_attr_ints(n, "pads", {0, 0, 1, 0, 0, 1, 0, 0});
       set_attr_i(n, "padValue", -3);
     },
     {{{1, 1, 2, 1}, {1, 2}}}, {-3, -3, -3, 1, 2, -3}, {1, 2, 3, 1}},
    // Row 1; columns from -3 (= 0) to past the end, every second one.
    {"SliceStepsAndClampedEnds", "Z40SliceInt8",
     [](NodeDef* n) { slice_attrs(n, {1, 2}, {1, -3}, {2, 100}, {1, 2}, {1, 1, 2, 2}); }, {kSlice12},
     {6, 7, 10, 11}, {1, 1, 2, 2}},
    {"SliceReversed", "Z40SliceInt8",
     [](NodeDef* n) { slice_attrs(n, {2}, {-1}, {-100}, {-1}, {1, 2, 3, 2}); }, {kSlice12},
     {4, 5, 2, 3, 0, 1, 10, 11, 8, 9, 6, 7}, {1, 2, 3, 2}},
    {"SliceLastChannel", "Z40SliceInt8", [](NodeDef* n) { slice_attrs(n, {3}, {1}, {2}, {1}, {1, 2, 3, 1}); },
     {kSlice12}, {1, 3, 5, 7, 9, 11}, {1, 2, 3, 1}},
    {"TransposePermutesAxes", "Z40TransposeInt8",
     [](NodeDef* n) {
       set_attr_ints(n, "perm", {0, 2, 1, 3});
       set_attr_ints(n, "output_shape", {1, 3, 2, 1});
     },
     {{{1, 2, 3, 1}, iota_values(6)}}, {0, 3, 1, 4, 2, 5}, {1, 3, 2, 1}},
    {"ReshapeKeepsTheOrder", "Z40ReshapeInt8", [](NodeDef* n) { set_attr_ints(n, "output_shape", {1, 4}); },
     {{{1, 1, 2, 2}, {0, 1, 2, 3}}}, {0, 1, 2, 3}, {1, 4}},
    // Channels first: channel 0 holds 0, 2 and channel 1 holds 1, 3.
    {"ReshapeOnnxReadsChannelsFirst", "Z40ReshapeInt8",
     [](NodeDef* n) {
       set_attr_ints(n, "output_shape", {1, 4});
       set_attr_s(n, "src_framework", "ONNX");
     },
     {{{1, 1, 2, 2}, {0, 1, 2, 3}}}, {0, 2, 1, 3}, {1, 4}},
    // [1, 2, 2, 1] -> channels first [1, 1, 2, 2] = 0 1 2 3, read as [N, C=2, 1, 2] = (0 1)(2 3)
    // and stored channels last: 0 2 1 3.
    {"ReshapeOnnxBackToChannelsLast", "Z40ReshapeInt8",
     [](NodeDef* n) {
       set_attr_ints(n, "output_shape", {1, 1, 2, 2});
       set_attr_s(n, "src_framework", "ONNX");
     },
     {{{1, 2, 2, 1}, {0, 1, 2, 3}}}, {0, 2, 1, 3}, {1, 1, 2, 2}},
    {"SpaceToDepthMovesBlocksIntoChannels", "Z40SpaceToDepthInt8",
     [](NodeDef* n) { set_attr_ints(n, "output_shape", {1, 1, 2, 4}); }, {{{1, 2, 4, 1}, iota_values(8)}},
     {0, 1, 4, 5, 2, 3, 6, 7}, {1, 1, 2, 4}},
};

class HandWorkedTest : public ::testing::TestWithParam<HandCase> {};

TEST_P(HandWorkedTest, CodesAndShape) {
  const HandCase& c = GetParam();
  OneOpModel m(c.op, static_cast<int>(c.inputs.size()));
  if (c.attrs != nullptr) c.attrs(m.node());
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
  NodeDef node;
  if (c.attrs != nullptr) c.attrs(&node);
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
  Attrs attrs;
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
Attrs hand_attrs(const char* name) {
  for (const HandCase& c : kHandCases) {
    if (std::string(c.name) == name) return c.attrs;
  }
  return nullptr;
}

// Two channels with their own scales, for a second shape with more channels than the first.
void two_channel_requant(NodeDef* n) {
  requant_attrs(n);
  set_attr_floats(n, "INPUT0SCALE", {0.5f, 1.5f});
  set_attr_floats(n, "INPUT1SCALE", {0.25f, -0.75f});
  set_attr_floats(n, "OUTPUTSCALE", {2.0f, 0.5f});
}

const std::vector<float> kA = {7, -3, 12, 5, -8, 2, 9, -1}, kB = {4, 6, -2, 3, 1, -5, 0, 8};

// clang-format off
const ReprepareCase kReprepare[] = {
    {"Z40EltwiseAddInt8", two_channel_requant, {{{1, 1, 2, 1}, {1, 2}}, {{1, 1, 2, 1}, {3, 4}}},
     {{{1, 2, 2, 2}, kA}, {{1, 2, 2, 2}, kB}}},
    {"Z40EltwiseSubInt8", two_channel_requant, {{{1, 1, 2, 1}, {1, 2}}, {{1}, {3}}},
     {{{1, 2, 2, 2}, kA}, {{1, 2, 2, 2}, kB}}},
    {"Z40MaxInt8", two_channel_requant, {{{1, 1, 1, 1}, {1}}, {{1, 1, 1, 1}, {2}}},
     {{{1, 1, 4, 2}, kA}, {{1, 1, 4, 2}, kB}}},
    {"Z40EltwiseMulInt8", hand_attrs("MulShortSecondInputRepeats"),
     {{{1, 1, 4, 1}, {1, 2, 3, 4}}, {{1}, {3}}}, {{{1, 2, 2, 2}, kA}, {{2}, {2, 3}}}},
    {"Z40Quantize",
     [](NodeDef* n) {
       set_attr_floats(n, "QSCALE", {1.0f, 0.5f});
       set_attr_i(n, "offset", 1), set_attr_i(n, "maxValue", 100), set_attr_i(n, "minValue", -100);
     },
     {{{1, 8, 1}, kA}},
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
  ASSERT_NE(c.attrs, nullptr) << c.op;
  NodeDef node;
  node.set_op(c.op);
  c.attrs(&node);
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
