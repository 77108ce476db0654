#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "support/int8_graph.h"
#include "support/single_op_runner.h"
#include "support/test_util.h"

// Every heap allocation of this test program is counted, so a test can
// assert that an operator's execute makes none.
namespace {
std::atomic<long long> g_heap_allocations{0};
}  // namespace

// The replacements pair malloc with free, which the compiler cannot see
// through the replaced operators.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  ++g_heap_allocations;
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace kovra_test {
namespace {

// A float operator and its int8 twin, run on the same integer codes in a
// graph each. Layout operators move codes without arithmetic, so both must
// give the same shape and the same values; pooling and resizing compute in
// float, and the int8 twin then rounds half to even (kRounded).
enum Relation { kSame, kRounded };

struct TwinCase {
  const char* label;
  const char* float_op;
  const char* int8_op;
  const char* attrs;                     // given to both
  const char* float_attrs;               // given to the float operator only
  const char* int8_attrs;                // given to the int8 operator only
  std::vector<std::vector<int>> shapes;  // one per input
  int step = 1;                          // codes are multiples of step in [-100, 100]
  Relation relation = kSame;
  std::vector<float> expected = {};  // hand-worked float output, where given
};

std::ostream& operator<<(std::ostream& os, const TwinCase& c) { return os << c.label; }

// Integer codes spread over [-100, 100] in an order that is not sorted, so a
// misplaced element shows.
std::vector<float> codes(const std::vector<int>& shape, int step, int salt) {
  int count = 1;
  for (int d : shape) count *= d;
  const int k = 100 / step;
  std::vector<float> v(count);
  for (int i = 0; i < count; ++i)
    v[i] = static_cast<float>(step * ((i * 37 + 11 + salt * 53) % (2 * k + 1) - k));
  return v;
}

std::vector<float> run_model(const char* op, const char* attrs, const char* own_attrs,
                             const std::vector<const Tensor*>& inputs, std::vector<int>* shape) {
  OneOpModel model(op, static_cast<int>(inputs.size()));
  model.node()->MergeFrom(parse_text_node(attrs));
  model.node()->MergeFrom(parse_text_node(own_attrs));
  return model.run(inputs, shape);
}

class LayoutTwinTest : public ::testing::TestWithParam<TwinCase> {};

TEST_P(LayoutTwinTest, FloatAndInt8AgreeOnIntegerCodes) {
  const TwinCase& c = GetParam();
  std::vector<Tensor> tensors;
  for (size_t i = 0; i < c.shapes.size(); ++i) {
    tensors.push_back(make_tensor(c.shapes[i], codes(c.shapes[i], c.step, static_cast<int>(i))));
  }
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);

  std::vector<int> float_shape, int8_shape;
  const std::vector<float> f = run_model(c.float_op, c.attrs, c.float_attrs, inputs, &float_shape);
  const std::vector<float> q = run_model(c.int8_op, c.attrs, c.int8_attrs, inputs, &int8_shape);
  EXPECT_EQ(int8_shape, float_shape);
  ASSERT_EQ(q.size(), f.size());
  if (!c.expected.empty()) {
    EXPECT_EQ(f, c.expected);
  }

  bool any_fraction = false;
  for (size_t i = 0; i < f.size(); ++i) {
    any_fraction = any_fraction || f[i] != std::floor(f[i]);
    // nearbyint rounds half to even in the default rounding mode.
    const float want = c.relation == kSame ? f[i] : std::nearbyint(f[i]);
    EXPECT_EQ(q[i], want) << "element " << i << ", float " << f[i];
  }
  // kSame cases are chosen so that the float results are codes as well;
  // kRounded cases must exercise the rounding.
  EXPECT_EQ(any_fraction, c.relation == kRounded);
}

// What only the int8 twin needs, set so that it neither shifts nor clamps the codes.
#define CODES R"(attr { key: "maxValue" value { i: 127 } } attr { key: "minValue" value { i: -128 } } )"
#define NO_OFFSET R"(attr { key: "offset" value { i: 0 } } )"
#define KSIZE_2 R"(attr { key: "ksize" value { list { i: [1, 2, 2, 1] } } } )"
#define STRIDES(s) "attr { key: \"strides\" value { list { i: [1, " #s ", " #s ", 1] } } } "
#define SAME R"(attr { key: "padding" value { s: "SAME" } } )"
#define OUTPUT_SHAPE(...) "attr { key: \"output_shape\" value { list { i: [" #__VA_ARGS__ "] } } } "
#define WH_SCALE(x) "attr { key: \"wh_scale\" value { f: " #x " } } "
#define LIST(key, ...) "attr { key: \"" #key "\" value { list { i: [" #__VA_ARGS__ "] } } } "
#define FLIST(key, ...) "attr { key: \"" #key "\" value { list { f: [" #__VA_ARGS__ "] } } } "
#define F(key, v) "attr { key: \"" #key "\" value { f: " #v " } } "
#define I(key, v) "attr { key: \"" #key "\" value { i: " #v " } } "
#define S(key, v) "attr { key: \"" #key "\" value { s: \"" #v "\" } } "
#define B(key, v) "attr { key: \"" #key "\" value { b: " #v " } } "
#define ONNX R"(attr { key: "src_framework" value { s: "ONNX" } } )"
#define NEAREST "Z40ResizeNearestNeighbor", "Z40ResizeNearestNeighborInt8"
#define BILINEAR "Z40ResizeBilinear", "Z40ResizeBilinearInt8"

// clang-format off
const TwinCase kTwins[] = {
    // pad: (before, after) per axis, or for H and W alone; codes -89, -52 get one row above,
    // one column after
    {"pad_pairs_per_axis", "Z40Pad", "Z40PadInt8",
        LIST(pads, 0, 0, 1, 0, 0, 1, 0, 0) OUTPUT_SHAPE(1, 2, 3, 1), "", "", {{1, 1, 2, 1}}, 1, kSame,
        {0, 0, 0, -89, -52, 0}},
    // the int8 twin shapes from pads alone
    {"pad_every_axis", "Z40Pad", "Z40PadInt8", LIST(pads, 0, 1, 0, 0, 1, 1, 0, 2), OUTPUT_SHAPE(2, 2, 5, 4),
        "", {{1, 2, 3, 2}}},
    {"pad_hw_pairs", "Z40Pad", "Z40PadInt8", LIST(pads, 1, 0, 0, 2) OUTPUT_SHAPE(1, 3, 5, 2), "", "",
        {{1, 2, 3, 2}}},
    {"transpose_to_channels_first", "Z40Transpose", "Z40TransposeInt8",
        LIST(perm, 0, 3, 1, 2) OUTPUT_SHAPE(1, 2, 2, 3), "", "", {{1, 2, 3, 2}}},
    {"transpose_swap_hw", "Z40Transpose", "Z40TransposeInt8",
        LIST(perm, 0, 2, 1, 3) OUTPUT_SHAPE(2, 3, 2, 2), "", "", {{2, 2, 3, 2}}},
    // reshape, both source frameworks
    {"reshape_plain", "Z40Reshape", "Z40ReshapeInt8", OUTPUT_SHAPE(1, 3, 4), "", "", {{1, 2, 3, 2}}},
    {"reshape_onnx_flatten", "Z40Reshape", "Z40ReshapeInt8", ONNX OUTPUT_SHAPE(1, 12), "", "",
        {{1, 2, 3, 2}}},
    {"reshape_onnx_4d", "Z40Reshape", "Z40ReshapeInt8", ONNX OUTPUT_SHAPE(2, 3, 1, 4), "", "",
        {{2, 2, 3, 2}}},
    // concat along the channels; unit scales keep the codes
    {"concat_channels", "Z40Concat", "Z40ConcatInt8", "", "",
        CODES NO_OFFSET I(input_offset, 0) FLIST(QSCALE, 1, 1) FLIST(DEQSCALE, 1, 1),
        {{1, 2, 2, 3}, {1, 2, 2, 1}}},
    {"slice_axes_steps", "Z40Slice", "Z40SliceInt8",
        OUTPUT_SHAPE(1, 2, 2, 2) LIST(axes, 1, 3) LIST(starts, 1, 0) LIST(ends, 3, 4) LIST(steps, 1, 2), "",
        "", {{1, 3, 2, 4}}},
    {"slice_backwards", "Z40Slice", "Z40SliceInt8",
        OUTPUT_SHAPE(1, 2, 3, 2) LIST(axes, -2) LIST(starts, -1) LIST(ends, -100) LIST(steps, -1), "", "",
        {{1, 2, 3, 2}}},
    // one output of a [1, 2] split of the channels; "axis" is a float in the float family,
    // an integer in the int8 one
    {"slice_split_piece", "Z40Slice", "Z40SliceInt8",
        OUTPUT_SHAPE(1, 2, 2, 2) LIST(split, 1, 2) LIST(starts, 1) LIST(ends, 3), F(axis, 3), I(axis, 3),
        {{1, 2, 2, 3}}},
    // max pooling: the maximum of codes is a code
    {"max_pool_valid", "Z40MaxPool", "Z40MaxPoolInt8", KSIZE_2 STRIDES(2), "", CODES, {{1, 4, 4, 2}}},
    {"max_pool_same", "Z40MaxPool", "Z40MaxPoolInt8", LIST(ksize, 1, 3, 3, 1) STRIDES(2) SAME, "", CODES,
        {{1, 5, 5, 1}}},
    {"max_pool_ceil_mode_pads", "Z40MaxPool", "Z40MaxPoolInt8",
        KSIZE_2 STRIDES(2) LIST(pads, 1, 0, 0, 1) I(ceil_mode, 1), "", CODES, {{1, 4, 5, 2}}},
    // average pooling: integer means on multiples of every window count (SAME: windows of 4, 2 and 1 cells,
    // padding not counted); on any codes the int8 mean is the float mean rounded half to even
    {"avg_pool_valid_integer_means", "Z40AvgPool", "Z40AvgPoolInt8", KSIZE_2 STRIDES(2), "", CODES,
        {{1, 4, 4, 2}}, 4},
    {"avg_pool_same_integer_means", "Z40AvgPool", "Z40AvgPoolInt8", KSIZE_2 STRIDES(2) SAME, "", CODES,
        {{1, 3, 3, 2}}, 4},
    {"avg_pool_rounded_means", "Z40AvgPool", "Z40AvgPoolInt8", KSIZE_2 STRIDES(1), "", CODES, {{1, 3, 4, 2}},
        1, kRounded},
    {"nearest_up", NEAREST, WH_SCALE(2), "", "", {{1, 2, 3, 2}}},
    {"nearest_three_halves", NEAREST, WH_SCALE(1.5), "", "", {{1, 2, 4, 1}}},
    {"nearest_down", NEAREST, WH_SCALE(0.5), "", "", {{1, 4, 4, 2}}},
    // corner-aligned 2 -> 3 takes midpoints: halves of halves of multiples of 4;
    // half-pixel 2 -> 4 weighs by quarters: multiples of 16 stay integral
    {"bilinear_align_corners_exact", BILINEAR, WH_SCALE(1.5) B(align_corners, true), "", CODES NO_OFFSET,
        {{1, 2, 2, 2}}, 4},
    {"bilinear_half_pixel_exact", BILINEAR, WH_SCALE(2), "", CODES NO_OFFSET, {{1, 2, 2, 3}}, 16},
    {"bilinear_rounded", BILINEAR, WH_SCALE(2), "", CODES NO_OFFSET, {{1, 2, 3, 2}}, 1, kRounded},
    // space to depth: the batch follows the input
    {"space_to_depth", "Z40SpaceToDepth", "Z40SpaceToDepthInt8", OUTPUT_SHAPE(1, 1, 2, 8), "", "",
        {{2, 2, 4, 2}}},
    // channel shuffle: "groups" a float in one family, an integer in the other
    {"channel_shuffle", "Z40ChannelShuffle", "Z40ChannelShuffleInt8", "", F(groups, 3),
        I(groups, 3) FLIST(INPUTSCALE, 1), {{1, 2, 1, 6}}},
};
// clang-format on

#undef CODES
#undef NO_OFFSET
#undef KSIZE_2
#undef STRIDES
#undef SAME
#undef OUTPUT_SHAPE
#undef WH_SCALE
#undef ONNX
#undef NEAREST
#undef BILINEAR

INSTANTIATE_TEST_SUITE_P(Twins, LayoutTwinTest, ::testing::ValuesIn(kTwins),
                         [](const ::testing::TestParamInfo<TwinCase>& info) {
                           return std::string(info.param.label);
                         });

// ---- the pad twins refuse the same malformed models ----

std::vector<const Tensor*> one(const Tensor& t) { return {&t}; }

TEST(PadTwinTest, MalformedModelsAndUnpreparedInputsAreRefused) {
  const char* wrong_output = R"(attr { key: "pads" value { list { i: [0, 0, 1, 1, 0, 0, 0, 0] } } }
                                attr { key: "output_shape" value { list { i: [1, 2, 4, 1] } } })";
  const std::string padded = "output_shape == input shape + pads";
  const std::string not_padded =
      ": input [1,2,2,1] padded by [0,0,1,1,0,0,0,0] does not give output_shape [1,2,4,1]";
  Tensor x = make_tensor({1, 2, 2, 1}, {1, 2, 3, 4}, "x");
  std::vector<int> shape;
  auto infer = [&](const char* op, const std::string& attrs) {
    return error_text(
        [&] { SingleOpRunner(op, node_with_attrs(attrs)).op()->inference_shape(one(x), shape); });
  };
  EXPECT_EQ(infer("Z40PadInt8", wrong_output), check_text(padded, "Z40PadInt8" + not_padded));
  EXPECT_EQ(infer("Z40Pad", wrong_output), check_text(padded, "Z40Pad" + not_padded));
  // A negative amount would crop.
  EXPECT_EQ(
      infer("Z40PadInt8", R"(attr { key: "pads" value { list { i: [0, 0, -1, 1] } } })"),
      check_text("op_param_->pads.size() == 2 * rank", "The model only support constant in Z40PadInt8!!!"));

  const char* attrs = R"(attr { key: "pads" value { list { i: [0, 1, 0, 0] } } }
                         attr { key: "output_shape" value { list { i: [1, 2, 2, 1] } } })";
  Tensor small = make_tensor({1, 1, 2, 1}, {1, 2}, "x");
  Tensor out = make_tensor({1, 2, 2, 1}, {0, 0, 0, 0}, "y");
  for (const std::string op : {"Z40Pad", "Z40PadInt8"}) {
    SCOPED_TRACE(op);
    SingleOpRunner runner(op, node_with_attrs(attrs));
    const std::string prepared = "input->shape() == prepared input shape";
    EXPECT_EQ(
        error_text([&] { runner.op()->execute(one(small), &out); }),
        check_text(prepared,
                   op + ": input [1,1,2,1] differs from the input [] that inference_shape prepared for"));
    runner.op()->inference_shape(one(small), shape);
    EXPECT_EQ(shape, (std::vector<int>{1, 2, 2, 1}));
    // Prepared for another shape: refused before anything is read.
    EXPECT_EQ(
        error_text([&] { runner.op()->execute(one(x), &out); }),
        check_text(prepared, op + ": input [1,2,2,1] differs from the input [1,1,2,1] that inference_shape "
                                  "prepared for"));
    runner.op()->execute(one(small), &out);
    EXPECT_EQ(tensor_values(out), (std::vector<float>{1, 2, 0, 0}));
  }
  // Without output_shape the int8 twin shapes from H/W pairs (one row above, one column before);
  // padded cells hold padValue.
  Tensor row = make_tensor({1, 1, 2, 1}, {5, 6}, "x");
  SingleOpRunner runner("Z40PadInt8",
                        node_with_attrs(R"(attr { key: "pads" value { list { i: [1, 0, 1, 0] } } }
                                                         attr { key: "padValue" value { i: -7 } })"));
  EXPECT_EQ(runner.run(one(row), &shape), (std::vector<float>{-7, -7, -7, -7, 5, 6}));
  EXPECT_EQ(shape, (std::vector<int>{1, 2, 3, 1}));
}

// ---- prepare once: after shape inference, execute allocates nothing ----

struct PreparedCase {
  const char* op;
  const char* attrs;
  std::vector<int> shape;
};

std::ostream& operator<<(std::ostream& os, const PreparedCase& c) { return os << c.op; }

class PreparedExecuteTest : public ::testing::TestWithParam<PreparedCase> {};

TEST_P(PreparedExecuteTest, ExecuteAllocatesNothing) {
  const PreparedCase& c = GetParam();
  Tensor x = make_tensor(c.shape, codes(c.shape, 1, 0), "x");
  const std::vector<const Tensor*> inputs = {&x};
  SingleOpRunner runner(c.op, node_with_attrs(c.attrs));
  const std::vector<float> first = runner.run(inputs);
  const long long before = g_heap_allocations.load();
  runner.op()->execute(inputs, &runner.output());
  EXPECT_EQ(g_heap_allocations.load() - before, 0);
  EXPECT_EQ(tensor_values(runner.output()), first);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Operators, PreparedExecuteTest,
    ::testing::Values(
        PreparedCase{"Z40Pad", LIST(pads, 0, 1, 2, 0) LIST(output_shape, 1, 3, 4, 2), {1, 2, 2, 2}},
        PreparedCase{"Z40PadInt8", LIST(pads, 0, 0, 0, 1, 2, 0, 0, 0, 0, 0) I(padValue, 3), {1, 2, 2, 1, 2}},
        PreparedCase{"Z40BatchNormScale", FLIST(scale, 0.5, -2) FLIST(bias, 1, 3) S(ActionType, Relu6),
            {1, 2, 2, 2}},
        PreparedCase{"Z40BatchNormScaleInt8",
            FLIST(scale, 0.5, -2) FLIST(bias, 1, 3) I(offset, 4) I(maxValue, 60), {1, 2, 2, 2}},
        PreparedCase{"Z40KovraFakeQuantFeature", F(fake_scale, 8) F(maxValue, 7) I(minValue, -8), {2, 3}}),
    [](const ::testing::TestParamInfo<PreparedCase>& info) { return std::string(info.param.op); });
// clang-format on

#undef LIST
#undef FLIST
#undef F
#undef I
#undef S
#undef B

}  // namespace
}  // namespace kovra_test
