#include <gtest/gtest.h>

#include <climits>
#include <numeric>

#include "support/single_op_runner.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

// Attributes in protobuf text form.
#define LIST(key, ...) "attr { key: \"" #key "\" value { list { i: [" #__VA_ARGS__ "] } } } "
#define F(key, v) "attr { key: \"" #key "\" value { f: " #v " } } "
#define I(key, v) "attr { key: \"" #key "\" value { i: " #v " } } "
#define S(key, v) "attr { key: \"" #key "\" value { s: \"" #v "\" } } "
#define B(key, v) "attr { key: \"" #key "\" value { b: " #v " } } "

std::vector<float> iota(int n, float start = 0.0f) {
  std::vector<float> v(n);
  std::iota(v.begin(), v.end(), start);
  return v;
}

std::vector<float> run_op(const std::string& op, const std::string& attrs,
                          const std::vector<const Tensor*>& inputs, std::vector<int>* shape = nullptr) {
  SingleOpRunner runner(op, node_with_attrs(attrs));
  return runner.run(inputs, shape);
}

// ---- hand-worked small tensors ------------------------------------------

struct LayoutCase {
  const char* label;
  const char* op;
  const char* attrs;
  std::vector<int> in_shape;
  std::vector<float> in;
  std::vector<int> out_shape;
  std::vector<float> out;
  std::vector<std::pair<std::vector<int>, std::vector<float>>> more_inputs = {};
};

class HandWorkedLayoutTest : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(HandWorkedLayoutTest, MatchesHandValues) {
  const LayoutCase& c = GetParam();
  std::vector<Tensor> tensors;
  tensors.push_back(make_tensor(c.in_shape, c.in, "x"));
  for (const auto& more : c.more_inputs) tensors.push_back(make_tensor(more.first, more.second));
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);
  std::vector<int> shape;
  EXPECT_EQ(run_op(c.op, c.attrs, inputs, &shape), c.out);
  EXPECT_EQ(shape, c.out_shape);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Operators, HandWorkedLayoutTest,
    ::testing::Values(
        // channels [0..5] as [2 groups x 3] read column-wise
        LayoutCase{"shuffle_g2", "Z40ChannelShuffle", F(groups, 2), {1, 1, 1, 6}, iota(6), {1, 1, 1, 6},
            {0, 3, 1, 4, 2, 5}},
        LayoutCase{"shuffle_g3_two_pixels", "Z40ChannelShuffle", F(groups, 3.7), {1, 1, 2, 6}, iota(12),
            {1, 1, 2, 6}, {0, 2, 4, 1, 3, 5, 6, 8, 10, 7, 9, 11}},
        LayoutCase{"clone", "Z40Clone", "", {1, 2, 1, 2}, {1.5f, -2, 3, 4}, {1, 2, 1, 2}, {1.5f, -2, 3, 4}},
        // 2x2 image [[1,2],[3,4]]: sub-images (even,even), (odd row,even col), (even,odd), (odd,odd)
        LayoutCase{"focus", "Z40Focus", "", {1, 2, 2, 1}, {1, 2, 3, 4}, {1, 1, 1, 4}, {1, 3, 2, 4}},
        // odd height: the last row is dropped
        LayoutCase{"focus_odd_rows_two_channels", "Z40Focus", "", {1, 3, 2, 2}, iota(12), {1, 1, 1, 8},
            {0, 1, 4, 5, 2, 3, 6, 7}},
        // TensorFlow's documented example; the batch of output_shape follows the input
        LayoutCase{"space_to_depth", "Z40SpaceToDepth", LIST(output_shape, 9, 1, 1, 12), {1, 2, 2, 3},
            iota(12, 1), {1, 1, 1, 12}, iota(12, 1)},
        LayoutCase{"space_to_depth_4x4", "Z40SpaceToDepth", LIST(output_shape, 1, 2, 2, 4), {1, 4, 4, 1},
            iota(16), {1, 2, 2, 4}, {0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 12, 13, 10, 11, 14, 15}},
        // [1, H=1, W=2, C=2] = pixels (a0,a1), (b0,b1): channels-first flat order is a0 b0 a1 b1
        LayoutCase{"reshape_onnx_flatten", "Z40Reshape", S(src_framework, ONNX) LIST(output_shape, 1, 4),
            {1, 1, 2, 2}, {1, 2, 3, 4}, {1, 4}, {1, 3, 2, 4}},
        // every input joins along the channels
        LayoutCase{"concat_three", "Z40Concat", "", {1, 1, 2, 2}, {1, 2, 3, 4}, {1, 1, 2, 6},
            {1, 2, 5, 7, 8, 9, 3, 4, 6, 10, 11, 12},
            {{{1, 1, 2, 1}, {5, 6}}, {{1, 1, 2, 3}, {7, 8, 9, 10, 11, 12}}}},
        LayoutCase{"reshape_plain", "Z40Reshape", LIST(output_shape, 3, 2), {1, 1, 2, 3}, iota(6), {3, 2},
            iota(6)},
        LayoutCase{"squeeze", "Z40Squeeze", LIST(output_shape, 4), {1, 1, 1, 4}, iota(4), {4}, iota(4)},
        LayoutCase{"transpose", "Z40Transpose", LIST(perm, 1, 0) LIST(output_shape, 3, 2), {2, 3}, iota(6),
            {3, 2}, {0, 3, 1, 4, 2, 5}},
        LayoutCase{"transpose_default_reverses", "Z40Transpose", LIST(output_shape, 2, 1, 2), {2, 1, 2},
            iota(4), {2, 1, 2}, {0, 2, 1, 3}},
        // x [1,2,3,2] = 0..11; rows 0..1, columns 1..2
        LayoutCase{"slice_window", "Z40Slice",
            LIST(starts, 0, 0, 1, 0) LIST(ends, 1, 2, 3, 2) LIST(output_shape, 1, 2, 2, 2), {1, 2, 3, 2},
            iota(12), {1, 2, 2, 2}, {2, 3, 4, 5, 8, 9, 10, 11}},
        // axes subset with negative start and an end past the axis (clamped)
        LayoutCase{"slice_axes_negative_start", "Z40Slice",
            LIST(starts, -2) LIST(ends, 2147483647) LIST(axes, 2) LIST(output_shape, 1, 2, 2, 2),
            {1, 2, 3, 2}, iota(12), {1, 2, 2, 2}, {2, 3, 4, 5, 8, 9, 10, 11}},
        // a backward walk over the columns with step -2: columns 2, 0
        LayoutCase{"slice_negative_step", "Z40Slice",
            LIST(starts, -1) LIST(ends, -2147483647) LIST(axes, -2) LIST(steps, -2)
                LIST(output_shape, 1, 2, 2, 2),
            {1, 2, 3, 2}, iota(12), {1, 2, 2, 2}, {4, 5, 0, 1, 10, 11, 6, 7}},
        // channel steps on a 5-D input
        LayoutCase{"slice_5d_step", "Z40Slice",
            LIST(starts, 1) LIST(ends, 4) LIST(axes, 4) LIST(steps, 2) LIST(output_shape, 1, 1, 1, 2, 2),
            {1, 1, 1, 2, 4}, iota(8), {1, 1, 1, 2, 2}, {1, 3, 5, 7}},
        // the second piece of a [1, 2] split of the channels
        LayoutCase{"slice_split_piece", "Z40Slice",
            LIST(split, 1, 2) F(axis, 3) LIST(starts, 1) LIST(ends, 3) LIST(output_shape, 1, 1, 2, 2),
            {1, 1, 2, 3}, iota(6), {1, 1, 2, 2}, {1, 2, 4, 5}},
        // one row above, one column after: [[0,0,0],[1,2,0]]
        LayoutCase{"pad_pairs_per_axis", "Z40Pad",
            LIST(pads, 0, 0, 1, 0, 0, 1, 0, 0) LIST(output_shape, 1, 2, 3, 1), {1, 1, 2, 1}, {1, 2},
            {1, 2, 3, 1}, {0, 0, 0, 1, 2, 0}},
        LayoutCase{"pad_hw_form_with_channels", "Z40Pad",
            LIST(pads, 0, 1, 1, 0) S(mode, constant) LIST(output_shape, 1, 2, 2, 2), {1, 1, 1, 2}, {7, 8},
            {1, 2, 2, 2}, {0, 0, 7, 8, 0, 0, 0, 0}}),
    [](const ::testing::TestParamInfo<LayoutCase>& info) { return std::string(info.param.label); });
// clang-format on

TEST(FloatConcatTest, ConstantOperandInAGraph) {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  add_float_const(graph, "bias_map", {1, 2, 1, 1}, {-1, -2});
  add_node(graph, "cat", "Z40Concat", {"input", "bias_map"});
  Tensor input = make_tensor({1, 2, 1, 2}, {1, 2, 3, 4});
  std::vector<int> shape;
  EXPECT_EQ(run_single_op(graph, input, "cat", &shape), (std::vector<float>{1, 2, -1, 3, 4, -2}));
  EXPECT_EQ(shape, (std::vector<int>{1, 2, 1, 3}));
}

// An "ONNX" reshape is the channels-first reshape of the same tensor.
// Reference: build the NCHW copy by index, reshape it flat, and read it back
// into channels-last order by index.
std::vector<float> onnx_reshape_reference(const std::vector<float>& nhwc, const std::vector<int>& in,
                                          const std::vector<int>& out) {
  std::vector<float> nchw(nhwc.size());
  if (in.size() == 4) {
    const int N = in[0], H = in[1], W = in[2], C = in[3];
    for (int n = 0; n < N; ++n)
      for (int c = 0; c < C; ++c)
        for (int h = 0; h < H; ++h)
          for (int w = 0; w < W; ++w)
            nchw[((n * C + c) * H + h) * W + w] = nhwc[((n * H + h) * W + w) * C + c];
  } else {
    nchw = nhwc;
  }
  if (out.size() != 4) return nchw;
  std::vector<float> result(nhwc.size());
  const int N = out[0], H = out[1], W = out[2], C = out[3];
  for (int n = 0; n < N; ++n)
    for (int h = 0; h < H; ++h)
      for (int w = 0; w < W; ++w)
        for (int c = 0; c < C; ++c)
          result[((n * H + h) * W + w) * C + c] = nchw[((n * C + c) * H + h) * W + w];
  return result;
}

struct OnnxReshapeCase {
  std::vector<int> in;
  std::vector<int> out;
};

class OnnxReshapeTest : public ::testing::TestWithParam<OnnxReshapeCase> {};

TEST_P(OnnxReshapeTest, ReordersThroughChannelsFirst) {
  const OnnxReshapeCase& c = GetParam();
  int count = 1;
  for (int d : c.in) count *= d;
  Tensor input = make_tensor(c.in, iota(count, 10), "x");
  std::string shape_attr;
  for (int d : c.out) shape_attr += " i: " + std::to_string(d);
  const std::string attrs =
      R"(attr { key: "src_framework" value { s: "ONNX" } } attr { key: "output_shape" value { list {)" +
      shape_attr + " } } }";
  EXPECT_EQ(run_op("Z40Reshape", attrs, {&input}), onnx_reshape_reference(iota(count, 10), c.in, c.out));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Shapes, OnnxReshapeTest,
    ::testing::Values(OnnxReshapeCase{{1, 2, 2, 3}, {1, 12}},  // flatten before a dense layer
                      OnnxReshapeCase{{2, 2, 3, 2}, {2, 1, 6, 2}},
                      OnnxReshapeCase{{1, 2, 2, 2}, {1, 1, 4, 2}}, OnnxReshapeCase{{2, 6}, {2, 1, 3, 2}}));
// clang-format on

// ---- every missing-attribute and rank message ---------------------------

// kRun is inference_shape then execute, as a node runs. kExecute runs execute
// alone, into a [1,1,1,1] output. kUnprepared does the same into the output
// that inference_shape would give, which is never called; kChanged calls
// inference_shape on `prepared` first.
enum Stage { kParse, kInfer, kRun, kExecute, kUnprepared, kChanged };

struct FatalCase {
  std::string label;
  std::string op;
  std::string attrs;
  std::vector<std::vector<int>> inputs;  // an empty shape is a rank-0 tensor
  const char* condition;                 // null for a plain error line
  std::string message;
  Stage stage = kInfer;
  std::vector<std::vector<int>> prepared = {};
  float fill = 0.5f;  // every input value
};

// Tensors in0, in1, ... of the given shapes, every value `fill`.
std::vector<Tensor> filled_tensors(const std::vector<std::vector<int>>& shapes, float fill = 0.5f) {
  std::vector<Tensor> tensors;
  for (size_t i = 0; i < shapes.size(); ++i) {
    if (shapes[i].empty()) {
      tensors.emplace_back();
      continue;
    }
    int count = 1;
    for (int d : shapes[i]) count *= d;
    tensors.push_back(make_tensor(shapes[i], std::vector<float>(count, fill), "in" + std::to_string(i)));
  }
  return tensors;
}

std::vector<const Tensor*> pointers(const std::vector<Tensor>& tensors) {
  std::vector<const Tensor*> p;
  for (const Tensor& t : tensors) p.push_back(&t);
  return p;
}

void run_to_stage(const FatalCase& c) {
  const std::vector<Tensor> tensors = filled_tensors(c.inputs, c.fill);
  const std::vector<const Tensor*> inputs = pointers(tensors);
  SingleOpRunner runner(c.op, node_with_attrs(c.attrs, "n"));
  std::vector<int> shape;
  if (c.stage == kInfer) {
    runner.op()->inference_shape(inputs, shape);
  } else if (c.stage == kRun) {
    runner.run(inputs);
  } else if (c.stage == kExecute) {
    runner.output().set_data({1, 1, 1, 1}, Tensor::DT_FLOAT, nullptr);
    runner.op()->execute(inputs, &runner.output());
  } else if (c.stage == kUnprepared || c.stage == kChanged) {
    if (c.stage == kChanged) {
      const std::vector<Tensor> earlier = filled_tensors(c.prepared);
      runner.op()->inference_shape(pointers(earlier), shape);
    }
    SingleOpRunner other(c.op, node_with_attrs(c.attrs));
    other.op()->inference_shape(inputs, shape);
    runner.output().set_data(shape, Tensor::DT_FLOAT, nullptr);
    runner.op()->execute(inputs, &runner.output());
  }
}

class FloatLayoutFatalTest : public ::testing::TestWithParam<FatalCase> {};

TEST_P(FloatLayoutFatalTest, StopsWithExactMessage) {
  const FatalCase& c = GetParam();
  EXPECT_EQ(error_text([&] { run_to_stage(c); }),
            c.condition == nullptr ? c.message : check_text(c.condition, c.message));
}

// The default policy prints the line and aborts.
TEST(FloatLayoutDeathTest, DefaultPolicyAborts) {
  EXPECT_CHECK_FAILED(SingleOpRunner("Z40Pad", node_with_attrs("")), "suc",
                      "Do not find the strides in FloatZ40Pad!!!");
}

const char* const kShape4 = LIST(output_shape, 1, 1, 1, 1);
const char* const kPool = LIST(ksize, 1, 2, 2, 1) LIST(strides, 1, 1, 1, 1);
const char* const kSlice = LIST(starts, 0) LIST(ends, 1) LIST(output_shape, 1, 1, 1, 1);
const char* const kGru = F(hidden_size, 1);
const char* const kGruLens = F(hidden_size, 1) B(exist_sequence_lens, true);
const std::vector<std::vector<int>> kGruShapes = {{2, 1, 1}, {1, 3, 1}, {1, 3, 1}, {1, 6}};
const char* const kPool4x2 = LIST(ksize, 1, 4, 2, 1) LIST(strides, 1, 1, 1, 1);
const char* const kPoolStride0 = LIST(ksize, 1, 2, 2, 1) LIST(strides, 1, 0, 1, 1);
const char* const kBilinear = F(wh_scale, 2);
const char* const kAdaRound = F(weight_bitwidth, 8);
const char* const kScalarCond = "input_tensor->shape().size() > 0";

// The operator parsed without attribute `key`.
FatalCase missing(const std::string& op, const char* attrs, const std::string& key, const std::string& name) {
  return {op + "_" + key, op, attrs, {}, "suc", "Do not find the " + key + " in " + name + "!!!", kParse};
}
// The operator given a rank-0 tensor (with `inputs` as the other inputs).
FatalCase scalar(const std::string& op, const char* attrs, const std::vector<std::vector<int>>& inputs,
                 const std::string& name) {
  return {op + "_scalar", op, attrs, inputs, kScalarCond, "The shape of input is 0 in " + name + "!!!"};
}
const char* const kRank4Cond = "input_tensor->shape().size() == 4";

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    MissingAttributeAndRank, FloatLayoutFatalTest,
    ::testing::ValuesIn(std::vector<FatalCase>{
        missing("Z40ChannelShuffle", "", "groups", "FloatZ40ChannelShuffle"),
        missing("Z40SpaceToDepth", "", "strides", "FloatZ40SpaceToDepth"),
        missing("Z40AvgPool", "", "ksize", "FloatZ40AvgPool"),
        missing("Z40MaxPool", "", "ksize", "FloatZ40MaxPool"),
        missing("Z40ResizeBilinear", "", "wh_scale", "FloatZ40ResizeBilinear"),
        missing("Z40ResizeNearestNeighbor", "", "wh_scale", "FloatZ40ResizeNearestNeighbor"),
        missing("Z40Pad", "", "strides", "FloatZ40Pad"),
        missing("Z40Reshape", "", "strides", "FloatZ40Reshape"),
        missing("Z40Squeeze", "", "output_shape", "FloatZ40squeeze"),
        missing("Z40Transpose", "", "output_shape", "FloatZ40Transpose"),
        missing("Z40Slice", LIST(starts, 0) LIST(ends, 1), "output_shape", "FloatZ40Slice"),
        missing("Z40Slice", LIST(output_shape, 1) LIST(ends, 1), "starts", "FloatZ40Slice"),
        missing("Z40Slice", LIST(output_shape, 1) LIST(starts, 0), "ends", "FloatZ40Slice"),
        missing("Z40GRU", "", "hidden_size", "FloatZ40GRU"),
        missing("Z40AdaRoundQuantizeWeight", "", "weight_bitwidth", "Z40QuantizeWeight"),
        {"shuffle_rank", "Z40ChannelShuffle", F(groups, 1), {{1, 2, 3}}, kRank4Cond,
            "Wrong input_shape in channel shuffle!!!"},
        {"clone_rank", "Z40Clone", "", {{2, 3}}, kRank4Cond, "Wrong input shape in FloatZ40Clone!!!"},
        {"concat_one_input", "Z40Concat", "", {{1, 1, 1, 1}}, "inputs.size() > 1",
            "Z40Concat operator inputs must greater than 1."},
        {"concat_output_rank", "Z40Concat", "", {{1, 2, 3}, {1, 2, 1}}, "output_shape.size() > 3",
            "Wrong output shape in concat.", kExecute},
        scalar("Z40Concat", "", {{}, {1}}, "FloatZ40Concat"), scalar("Z40Focus", "", {{}}, "FloatZ40Focus"),
        scalar("Z40SpaceToDepth", kShape4, {{}}, "FloatZ40SpaceToDepth"),
        scalar("Z40GlobalAvgPool", "", {{}}, "FloatZ40GlobalAvgPool"),
        {"avg_rank", "Z40AvgPool", kPool, {{1, 4, 4}}, kRank4Cond, "Wrong input shape in z40_avg_pool."},
        {"avg_ksize_size", "Z40AvgPool", LIST(ksize, 2, 2), {{1, 4, 4, 1}}, "op_param_->ksize.size() > 2",
            "Wrong kernel size."},
        {"avg_strides_size", "Z40AvgPool", LIST(ksize, 1, 2, 2, 1), {{1, 4, 4, 1}},
            "op_param_->strides.size() > 2", "Wrong strides size."},
        {"max_ksize_size", "Z40MaxPool", LIST(ksize, 2), {{1, 4, 4, 1}}, "op_param_->ksize.size() > 2",
            "Wrong kernel size."},
        scalar("Z40MaxPool", kPool, {{}}, "FloatZ40MaxPool"),
        scalar("Z40Unpool2D", "", {{}}, "FloatZ40Unpool2D"),
        scalar("Z40ResizeBilinear", F(wh_scale, 2), {{}}, "FloatZ40ResizeBilinear"),
        scalar("Z40ResizeNearestNeighbor", F(wh_scale, 2), {{}}, "FloatZ40ResizeNearestNeighbor"),
        {"pad_rank5", "Z40Pad", kShape4, {{1, 1, 1, 1, 1}}, kRank4Cond,
            "The shape of input only support 4D or 5D in FloatZ40Pad!!!"},
        {"pad_mode_infer", "Z40Pad", S(mode, reflect) LIST(output_shape, 1), {{1, 1, 1, 1}},
            "op_param_->mode == \"constant\"", "The mode only support constant in FloatZ40Pad!!!"},
        {"pad_mode_execute", "Z40Pad", S(mode, edge) LIST(output_shape, 1), {{1, 1, 1, 1}},
            "op_param_->mode == \"constant\"", "The model only support constant in FloatZ40Pad!!!", kExecute},
        scalar("Z40Reshape", kShape4, {{}}, "FloatZ40Reshape"),
        scalar("Z40Squeeze", kShape4, {{}}, "FloatZ40Squeeze"),
        scalar("Z40Transpose", kShape4, {{}}, "FloatZ40Transpose"),
        {"slice_rank3", "Z40Slice", kSlice, {{1, 1, 1}},
            "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
            "The shape of input only support  4D or 5D  in FloatZ40Slice!!!"},
        scalar("Z40GRU", kGru, {{}, {3}, {3}, {6}}, "FloatZ40GRU"),
        scalar("Z40AdaRoundQuantizeWeight", F(weight_bitwidth, 8), {{}, {1}}, "Z40QuantizeWeight"),
        {"avg_unknown_padding", "Z40AvgPool",
            LIST(ksize, 1, 2, 2, 1) LIST(strides, 1, 1, 1, 1) S(padding, FULL), {{1, 4, 4, 1}}, nullptr,
            "Check failed: false"},
        {"max_unknown_padding", "Z40MaxPool",
            LIST(ksize, 1, 2, 2, 1) LIST(strides, 1, 1, 1, 1) S(padding, same), {{1, 4, 4, 1}}, nullptr,
            "Check failed: false"}}),
    [](const ::testing::TestParamInfo<FatalCase>& info) { return info.param.label; });
// clang-format on

// ---- malformed models stop with a message, never read out of bounds -------

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    MalformedModels, FloatLayoutFatalTest,
    ::testing::ValuesIn(std::vector<FatalCase>{
        {"shuffle_groups_not_dividing", "Z40ChannelShuffle", F(groups, 4), {{1, 1, 1, 6}},
            "channels % groups == 0", "Z40ChannelShuffle: 6 channels cannot be split into 4 groups"},
        {"shuffle_groups_zero", "Z40ChannelShuffle", I(groups, 2), {{1, 1, 1, 6}}, "channels % groups == 0",
            "Z40ChannelShuffle: 6 channels cannot be split into 0 groups"},
        {"clone_wrong_output", "Z40Clone", "", {{1, 1, 1, 2}}, "output->shape() == inferred shape",
            "Z40Clone: output tensor [1,1,1,1] but the inputs give [1,1,1,2]", kExecute},
        {"concat_mismatch", "Z40Concat", "", {{1, 2, 2, 1}, {1, 2, 3, 1}},
            "inputs agree on every axis but the last",
            "Z40Concat cannot join in1 [1,2,3,1] to in0 [1,2,2,1]"},
        {"concat_rank_mismatch", "Z40Concat", "", {{1, 2, 2, 1}, {1, 2, 2}},
            "inputs agree on every axis but the last", "Z40Concat cannot join in1 [1,2,2] to in0 [1,2,2,1]"},
        {"focus_rank", "Z40Focus", "", {{2, 2, 2}}, "input->dims() == 4",
            "Z40Focus needs a 4-D input but got [2,2,2]"},
        {"focus_too_small", "Z40Focus", "", {{1, 1, 2, 1}}, "all dimensions > 0",
            "Z40Focus: output [1,0,1,0] has an empty dimension"},
        {"s2d_not_4d", "Z40SpaceToDepth", LIST(output_shape, 1, 4), {{1, 2, 2, 1}},
            "output_shape.size() == 4", "Z40SpaceToDepth: output_shape [1,4] is not 4-D"},
        {"s2d_bad_block", "Z40SpaceToDepth", LIST(output_shape, 1, 1, 2, 2), {{1, 2, 2, 1}},
            "output_shape == [N, H/block, W/block, C*block*block]",
            "Z40SpaceToDepth: output_shape [1,1,2,2] is no space-to-depth of [1,2,2,1]"},
        {"s2d_zero_dim", "Z40SpaceToDepth", LIST(output_shape, 1, 0, 1, 4), {{1, 2, 2, 1}},
            "all dimensions > 0", "Z40SpaceToDepth: output_shape [1,0,1,4] has an empty dimension"},
        {"reshape_count", "Z40Reshape", LIST(output_shape, 5), {{1, 2, 2, 1}},
            "element_count(output_shape) == input->size()",
            "Z40Reshape: output_shape [5] does not hold the 4 elements of input [1,2,2,1]"},
        {"reshape_negative", "Z40Reshape", LIST(output_shape, -1, -4), {{1, 2, 2, 1}}, "all dimensions > 0",
            "Z40Reshape: output_shape [-1,-4] has an empty dimension"},
        {"squeeze_count", "Z40Squeeze", LIST(output_shape, 3), {{1, 1, 1, 4}},
            "element_count(output_shape) == input->size()",
            "Z40Squeeze: output_shape [3] does not hold the 4 elements of input [1,1,1,4]"},
        {"transpose_not_permutation", "Z40Transpose", LIST(perm, 0, 0) LIST(output_shape, 2, 2), {{2, 3}},
            "is_permutation_of_rank(perm, rank)",
            "Z40Transpose: perm [0,0] is no permutation of the axes of [2,3]"},
        {"transpose_wrong_shape", "Z40Transpose", LIST(perm, 1, 0) LIST(output_shape, 2, 3), {{2, 3}},
            "output_shape == input shape permuted by perm",
            "Z40Transpose: output_shape [2,3] but perm gives [3,2]"},
        {"slice_length_mismatch", "Z40Slice", LIST(starts, 0, 0) LIST(ends, 1) LIST(output_shape, 1),
            {{1, 1, 1, 1}}, "ends.size() == starts.size()",
            "Z40Slice: starts [0,0] and ends [1] differ in length"},
        {"slice_axes_mismatch", "Z40Slice",
            LIST(starts, 0) LIST(ends, 1) LIST(axes, 0, 1) LIST(output_shape, 1), {{1, 1, 1, 1}},
            "axes.size() == starts.size()", "Z40Slice: axes [0,1] does not match starts [0]"},
        {"slice_steps_mismatch", "Z40Slice",
            LIST(starts, 0) LIST(ends, 1) LIST(steps, 1, 1) LIST(output_shape, 1), {{1, 1, 1, 1}},
            "steps.size() == starts.size()", "Z40Slice: steps [1,1] does not match starts [0]"},
        {"slice_axis_range", "Z40Slice", LIST(starts, 0) LIST(ends, 1) LIST(axes, 4) LIST(output_shape, 1),
            {{1, 1, 1, 1}}, "0 <= axis < rank, each axis once",
            "Z40Slice: axis 4 is out of range or repeated for input [1,1,1,1]"},
        {"slice_step_zero", "Z40Slice", LIST(starts, 0) LIST(ends, 1) LIST(steps, 0) LIST(output_shape, 1),
            {{1, 1, 1, 1}}, "step != 0", "Z40Slice: a step of 0 on axis 0"},
        {"slice_empty", "Z40Slice", LIST(starts, 3) LIST(ends, 1) LIST(axes, 3) LIST(output_shape, 1),
            {{1, 1, 1, 4}}, "all dimensions > 0", "Z40Slice: slice [1,1,1,0] has an empty dimension"},
        {"slice_wrong_output", "Z40Slice",
            LIST(starts, 1) LIST(ends, 3) LIST(axes, 3) LIST(output_shape, 1, 1, 1, 3), {{1, 1, 1, 4}},
            "output_shape == slice extent",
            "Z40Slice: output_shape [1,1,1,3] but the slice of [1,1,1,4] is [1,1,1,2]"},
        {"slice_split_axis", "Z40Slice",
            LIST(split, 1) F(axis, 7) LIST(starts, 0) LIST(ends, 1) LIST(output_shape, 1), {{1, 1, 1, 1}},
            "0 <= axis < rank", "Z40Slice: split axis 7 is out of range for [1,1,1,1]"},
        {"slice_split_bounds", "Z40Slice",
            LIST(split, 2, 2) F(axis, -1) LIST(starts, 1) LIST(ends, 3) LIST(output_shape, 1),
            {{1, 1, 1, 4}}, "starts..ends is one piece of split",
            "Z40Slice: split [2,2] on axis 3 of [1,1,1,4] has no piece 1..3"},
        {"slice_split_empty_starts", "Z40Slice",
            LIST(split, 4) F(axis, 3) LIST(starts) LIST(ends, 4) LIST(output_shape, 1), {{1, 1, 1, 4}},
            "!starts.empty() && !ends.empty()", "Z40Slice: a split piece needs starts and ends"},
        {"pad_pairs", "Z40Pad", LIST(pads, 1, 1, 1) LIST(output_shape, 1), {{1, 1, 1, 1}},
            "pads.size() is 0, 4 or 8",
            "Z40Pad: pads [1,1,1] must pair (before, after) for H, W or for all four axes"},
        {"pad_wrong_output", "Z40Pad", LIST(pads, 1, 1, 0, 0) LIST(output_shape, 1, 2, 1, 1), {{1, 1, 1, 1}},
            "output_shape == input shape + pads",
            "Z40Pad: input [1,1,1,1] padded by [1,1,0,0] does not give output_shape [1,2,1,1]"},
        {"pad_negative", "Z40Pad", LIST(pads, 0, 0, -1, 1) LIST(output_shape, 1, 2, 2, 1), {{1, 2, 2, 1}},
            "output_shape == input shape + pads",
            "Z40Pad: input [1,2,2,1] padded by [0,0,-1,1] does not give output_shape [1,2,2,1]"},
        {"missing_input", "Z40Squeeze", kShape4, {}, "inputs.size() >= 1",
            "Z40Squeeze needs 1 inputs but has 0"},
        // pooling and resizing
        {"pool_kernel_larger_than_input", "Z40MaxPool", kPool4x2, {{1, 3, 3, 1}}, "kernel <= padded input",
            "Z40MaxPool: ksize [1,4,2,1] is larger than the padded input [1,3,3,1]"},
        {"pool_zero_stride", "Z40AvgPool", kPoolStride0, {{1, 3, 3, 1}}, "kernel and strides > 0",
            "Z40AvgPool: ksize [1,2,2,1] and strides [1,0,1,1] must be positive"},
        {"pool_short_pads", "Z40AvgPool", std::string(kPool) + LIST(pads, 1, 1), {{1, 3, 3, 1}},
            "pads.size() >= 4", "Z40AvgPool: pads [1,1] needs top, bottom, left and right"},
        {"pool_pad_as_large_as_kernel", "Z40MaxPool", std::string(kPool) + LIST(pads, 0, 0, 2, 0),
            {{1, 3, 3, 1}}, "0 <= pad < kernel",
            "Z40MaxPool: pads [0,0,2,0] must be smaller than ksize [1,2,2,1]"},
        {"max_pool_rank", "Z40MaxPool", kPool, {{3, 3, 1}}, "input->dims() == 4",
            "Z40MaxPool needs a 4-D input but got [3,3,1]"},
        {"global_pool_rank", "Z40GlobalAvgPool", "", {{1, 1, 1, 1, 1}},
            "input->dims() == 3 || input->dims() == 4",
            "Z40GlobalAvgPool needs a 3-D or 4-D input but got [1,1,1,1,1]"},
        {"resize_rank", "Z40ResizeBilinear", kBilinear, {{2, 2}}, "input->dims() == 4",
            "Z40ResizeBilinear needs a 4-D input but got [2,2]"},
        {"resize_to_nothing", "Z40ResizeBilinear", F(wh_scale, 0.1), {{1, 4, 4, 1}}, "all dimensions > 0",
            "Z40ResizeBilinear: resized shape [1,0,0,1] has an empty dimension"},
        {"resize_scale_of_wrong_kind", "Z40ResizeNearestNeighbor", I(wh_scale, 2), {{1, 4, 4, 1}},
            "all dimensions > 0", "Z40ResizeNearestNeighbor: resized shape [1,0,0,1] has an empty dimension"},
        {"nearest_mode", "Z40ResizeNearestNeighbor", std::string(kBilinear) + S(mode, linear),
            {{1, 2, 2, 1}}, "op_param_->mode == \"nearest\"",
            "Z40ResizeNearestNeighbor only supports mode nearest, not linear"},
        {"unpool_mode", "Z40Unpool2D", S(mode, max), {{1, 2, 2, 1}}, "op_param_->mode == \"nearest\"",
            "Z40Unpool2D only supports mode nearest, not max"},
        {"unpool_kernel", "Z40Unpool2D", LIST(kernel_size, 2, 0), {{1, 2, 2, 1}},
            "kernel_size == [kernel_h, kernel_w] > 0",
            "Z40Unpool2D: kernel_size [2,0] is not two positive factors"},
        // recurrence
        {"gru_too_few_inputs", "Z40GRU", kGru, {{2, 1, 1}, {1, 3, 1}}, "inputs.size() >= 4",
            "Z40GRU needs 4 inputs but has 2"},
        {"gru_lens_missing", "Z40GRU", kGruLens, kGruShapes, "inputs.size() >= 5",
            "Z40GRU needs 5 inputs but has 4"},
        {"gru_x_rank", "Z40GRU", kGru, {{2, 1}, {1, 3, 1}, {1, 3, 1}, {1, 6}}, "input->dims() >= 3",
            "Z40GRU needs x as [seq_len, batch, input_size] but got [2,1]"},
        {"gru_direction", "Z40GRU", std::string(kGru) + S(direction, sideways), kGruShapes,
            "direction is forward, reverse or bidirectional", "Z40GRU: unknown direction sideways"},
        {"gru_hidden_zero", "Z40GRU", F(hidden_size, 0), kGruShapes, "all dimensions > 0",
            "Z40GRU: [seq_len, batch, input_size, hidden_size] [2,1,1,0] has an empty dimension"},
        {"gru_short_w", "Z40GRU", std::string(kGru) + S(direction, bidirectional), kGruShapes,
            "weight->size() == expected", "Z40GRU: W (in1) holds 3 values, the attributes need 6"},
        {"gru_short_r", "Z40GRU", F(hidden_size, 2), {{2, 1, 1}, {1, 6, 1}, {1, 6, 1}, {1, 12}},
            "weight->size() == expected", "Z40GRU: R (in2) holds 6 values, the attributes need 12"},
        {"gru_short_b", "Z40GRU", kGru, {{2, 1, 1}, {1, 3, 1}, {1, 3, 1}, {1, 3}},
            "weight->size() == expected", "Z40GRU: B (in3) holds 3 values, the attributes need 6"},
        {"gru_output_shape_count", "Z40GRU", std::string(kGru) + LIST(output_shape, 3), kGruShapes,
            "element_count(shape) == expected", "Z40GRU: output_shape [3] does not hold 2 values"},
        {"gru_output_shape1_count", "Z40GRU", std::string(kGru) + LIST(output_shape1, 2), kGruShapes,
            "element_count(shape) == expected", "Z40GRU: output_shape1 [2] does not hold 1 values"},
        // the sequence lengths are values, read on every run
        {"gru_lens_count", "Z40GRU", kGruLens, {{2, 1, 1}, {1, 3, 1}, {1, 3, 1}, {1, 6}, {2}},
            "sequence_lens->size() == batch", "Z40GRU: 2 sequence lengths for a batch of 1", kRun},
        {"gru_lens_too_long", "Z40GRU", kGruLens, {{2, 1, 1}, {1, 3, 1}, {1, 3, 1}, {1, 6}, {1}},
            "0 <= sequence_len <= seq_len", "Z40GRU: sequence length 9.000000 outside 0..2", kRun, {}, 9.0f},
        // weight rounding
        {"adaround_rounding_count", "Z40AdaRoundQuantizeWeight", kAdaRound, {{2, 2}, {3}},
            "rounding->size() == weight->size()",
            "Z40QuantizeWeight: in1 has 3 rounding variables for 4 weights"},
        {"adaround_bitwidth", "Z40AdaRoundQuantizeWeight", F(weight_bitwidth, 1), {{2, 2}, {2, 2}},
            "2 <= weight_bitwidth <= 16", "Z40QuantizeWeight: weight_bitwidth 1 is not supported"},
        {"adaround_bitwidth_of_wrong_kind", "Z40AdaRoundQuantizeWeight", I(weight_bitwidth, 8),
            {{2, 2}, {2, 2}}, "2 <= weight_bitwidth <= 16",
            "Z40QuantizeWeight: weight_bitwidth 0 is not supported"}}),
    [](const ::testing::TestParamInfo<FatalCase>& info) { return info.param.label; });
// clang-format on

// ---- execute runs on what inference_shape prepared -----------------------
// A direct caller that skips inference_shape, or changes an input after it,
// is stopped before anything is read; element-wise operators compare element
// counts, the others shapes.

const char* const kNotPrepared = "inference_shape before execute";
const char* const kOtherSize = "input->size() == prepared size";
const char* const kOtherShape = "input->shape() == prepared shape";
const char* const kOnnxFlatten = S(src_framework, ONNX) LIST(output_shape, 1, 4);

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    ExecuteOnWhatWasPrepared, FloatLayoutFatalTest,
    ::testing::ValuesIn(std::vector<FatalCase>{{"relu_unprepared", "Z40Relu", "", {{1, 4}}, kNotPrepared,
                          "Z40Relu: execute called before inference_shape", kUnprepared},
                      {"add_unprepared", "Z40Add", "", {{1, 4}, {1}}, kNotPrepared,
                          "Z40Add: execute called before inference_shape", kUnprepared},
                      {"clone_unprepared", "Z40Clone", "", {{1, 1, 1, 2}}, kNotPrepared,
                          "Z40Clone: execute called before inference_shape", kUnprepared},
                      {"concat_unprepared", "Z40Concat", "", {{1, 1, 1, 1}, {1, 1, 1, 2}}, kNotPrepared,
                          "Z40Concat: execute called before inference_shape", kUnprepared},
                      {"gru_unprepared", "Z40GRU", kGru, kGruShapes, kNotPrepared,
                          "Z40GRU: execute called before inference_shape", kUnprepared},
                      {"relu_smaller", "Z40Relu", "", {{1, 3}}, kOtherSize,
                          "Z40Relu: input in0 has 3 elements but inference_shape prepared 4", kChanged,
                          {{1, 4}}},
                      {"linear_larger", "Z40Linear", "", {{5}}, kOtherSize,
                          "Z40Linear: input in0 has 5 elements but inference_shape prepared 4", kChanged,
                          {{2, 2}}},
                      // b may be one value or one per channel, but not another one than prepared
                      {"add_other_b", "Z40Add", "", {{1, 1, 1, 3}, {1}}, kOtherSize,
                          "Z40Add: input in1 has 1 elements but inference_shape prepared 3", kChanged,
                          {{1, 1, 1, 3}, {3}}},
                      {"mul_smaller", "Z40Mul", "", {{1, 1, 1, 3}, {3}}, kOtherSize,
                          "Z40Mul: input in0 has 3 elements but inference_shape prepared 6", kChanged,
                          {{1, 1, 2, 3}, {3}}},
                      {"prelu_larger", "Z40PRelu", "", {{1, 2, 2, 3}, {3}}, kOtherSize,
                          "Z40PRelu: input in0 has 12 elements but inference_shape prepared 6", kChanged,
                          {{1, 1, 2, 3}, {3}}},
                      {"max_pool_smaller", "Z40MaxPool", kPool, {{1, 3, 3, 1}}, kOtherShape,
                          "Z40MaxPool: input in0 is [1,3,3,1] but inference_shape prepared [1,4,4,1]",
                          kChanged, {{1, 4, 4, 1}}},
                      {"bilinear_larger", "Z40ResizeBilinear", kBilinear, {{1, 3, 3, 1}}, kOtherShape,
                          "Z40ResizeBilinear: input in0 is [1,3,3,1] but inference_shape prepared [1,2,2,1]",
                          kChanged, {{1, 2, 2, 1}}},
                      // the same elements in another layout would be reordered otherwise
                      {"onnx_reshape_layout", "Z40Reshape", kOnnxFlatten, {{1, 2, 1, 2}}, kOtherShape,
                          "Z40Reshape: input in0 is [1,2,1,2] but inference_shape prepared [1,1,2,2]",
                          kChanged, {{1, 1, 2, 2}}},
                      {"concat_other_part", "Z40Concat", "", {{1, 1, 1, 1}, {1, 1, 1, 3}}, kOtherShape,
                          "Z40Concat: input in1 is [1,1,1,3] but inference_shape prepared [1,1,1,2]",
                          kChanged, {{1, 1, 1, 1}, {1, 1, 1, 2}}},
                      {"concat_more_parts", "Z40Concat", "", {{1, 1, 1, 1}, {1, 1, 1, 2}, {1, 1, 1, 1}},
                          "inputs.size() == prepared inputs",
                          "Z40Concat: execute on 3 inputs but inference_shape prepared 2", kChanged,
                          {{1, 1, 1, 1}, {1, 1, 1, 2}}},
                      {"gru_longer", "Z40GRU", kGru, {{3, 1, 1}, {1, 3, 1}, {1, 3, 1}, {1, 6}}, kOtherShape,
                          "Z40GRU: input in0 is [3,1,1] but inference_shape prepared [2,1,1]", kChanged,
                          kGruShapes},
                      {"adaround_other_weight", "Z40AdaRoundQuantizeWeight", kAdaRound, {{4}, {4}},
                          kOtherShape,
                          "Z40QuantizeWeight: input in0 is [4] but inference_shape prepared [2,2]", kChanged,
                          {{2, 2}, {2, 2}}}}),
    [](const ::testing::TestParamInfo<FatalCase>& info) { return info.param.label; });
// clang-format on

// ---- a new input shape is planned afresh ---------------------------------
// The same operator run on inputs of one shape, then of another (as the graph
// does when its fed shapes change), gives exactly what a fresh operator gives
// for the second: nothing of the first plan (geometry, taps, strides, scratch)
// survives inference_shape.

struct ReplanCase {
  const char* label;
  const char* op;
  const char* attrs;
  std::vector<std::vector<int>> first, second;
};

std::vector<Tensor> seeded_tensors(const std::vector<std::vector<int>>& shapes, unsigned seed) {
  std::vector<Tensor> tensors;
  for (size_t i = 0; i < shapes.size(); ++i) {
    int count = 1;
    for (int d : shapes[i]) count *= d;
    std::vector<float> values(count);
    for (int k = 0; k < count; ++k)
      values[k] = static_cast<float>((k * 7919 + seed * 104729 + i * 31) % 97) / 24.0f - 2.0f;
    tensors.push_back(make_tensor(shapes[i], values, "in" + std::to_string(i)));
  }
  return tensors;
}

class ReplanTest : public ::testing::TestWithParam<ReplanCase> {};

TEST_P(ReplanTest, SecondShapeGivesWhatAFreshOperatorGives) {
  const ReplanCase& c = GetParam();
  const std::vector<Tensor> first = seeded_tensors(c.first, 1);
  const std::vector<Tensor> second = seeded_tensors(c.second, 2);
  SingleOpRunner reused(c.op, node_with_attrs(c.attrs, "n"));
  reused.run(pointers(first));
  std::vector<int> reused_shape, fresh_shape;
  const std::vector<float> again = reused.run(pointers(second), &reused_shape);
  SingleOpRunner fresh(c.op, node_with_attrs(c.attrs, "n"));
  EXPECT_EQ(again, fresh.run(pointers(second), &fresh_shape));
  EXPECT_EQ(reused_shape, fresh_shape);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Operators, ReplanTest,
    ::testing::Values(
        ReplanCase{"relu", "Z40Relu", "", {{1, 4}}, {{2, 3, 5}}},
        ReplanCase{"add", "Z40Add", "", {{1, 1, 2, 3}, {3}}, {{1, 2, 2, 4}, {4}}},
        ReplanCase{"mul_broadcast", "Z40Mul", "", {{1, 1, 2, 3}, {3}}, {{2, 3}, {2, 1}}},
        ReplanCase{"prelu", "Z40PRelu", "", {{1, 1, 2, 3}, {3}}, {{1, 2, 2, 2}, {2}}},
        ReplanCase{"max_pool", "Z40MaxPool", kPool, {{1, 4, 4, 1}}, {{2, 5, 3, 2}}},
        ReplanCase{"avg_pool", "Z40AvgPool", kPool, {{1, 4, 4, 1}}, {{2, 5, 3, 2}}},
        ReplanCase{"global_avg_pool", "Z40GlobalAvgPool", "", {{1, 2, 2, 3}}, {{2, 3, 4}}},
        ReplanCase{"bilinear", "Z40ResizeBilinear", kBilinear, {{1, 2, 2, 1}}, {{1, 3, 5, 2}}},
        ReplanCase{"nearest", "Z40ResizeNearestNeighbor", kBilinear, {{1, 2, 2, 1}}, {{1, 3, 5, 2}}},
        ReplanCase{"unpool", "Z40Unpool2D", "", {{1, 2, 2, 1}}, {{1, 3, 1, 2}}},
        ReplanCase{"shuffle", "Z40ChannelShuffle", F(groups, 2), {{1, 1, 1, 4}}, {{1, 2, 1, 6}}},
        ReplanCase{"focus", "Z40Focus", "", {{1, 2, 2, 1}}, {{1, 4, 6, 2}}},
        ReplanCase{"clone", "Z40Clone", "", {{1, 1, 1, 2}}, {{1, 2, 3, 1}}},
        ReplanCase{"onnx_reshape", "Z40Reshape", kOnnxFlatten, {{1, 1, 2, 2}}, {{1, 2, 1, 2}}},
        ReplanCase{"concat", "Z40Concat", "", {{1, 1, 1, 1}, {1, 1, 1, 2}},
            {{1, 2, 1, 2}, {1, 2, 1, 1}, {1, 2, 1, 3}}},
        ReplanCase{"gru", "Z40GRU", kGru, kGruShapes, {{3, 2, 1}, {1, 3, 1}, {1, 3, 1}, {1, 6}}},
        ReplanCase{"adaround", "Z40AdaRoundQuantizeWeight", kAdaRound, {{2, 2}, {2, 2}},
            {{3, 1, 4}, {3, 1, 4}}}),
    [](const ::testing::TestParamInfo<ReplanCase>& info) { return std::string(info.param.label); });
// clang-format on

TEST(FloatLayoutFatalTest, ConcatChannelsBeyondIntAreRefused) {
  // Shapes only: borrowed one-float buffers never read by shape inference.
  float cell = 0.0f;
  // Each stays below the tensor's own byte-size limit; together they pass int.
  Tensor part({1, 1, 1, 500000000}, Tensor::DT_FLOAT, &cell, "cpu");
  SingleOpRunner runner("Z40Concat", node_with_attrs(""));
  std::vector<int> shape;
  EXPECT_EQ(error_text([&] {
              runner.op()->inference_shape({&part, &part, &part, &part, &part}, shape);
            }),
            check_text("joined channels fit in int", "Z40Concat: the inputs join to 2500000000 channels"));
}

TEST(FloatLayoutFatalTest, NonFloatInputIsRefused) {
  Tensor ints({1, 1, 1, 2}, Tensor::DT_INT32, nullptr, "cpu");
  ints.set_name("codes");
  SingleOpRunner runner("Z40Clone", node_with_attrs(""));
  std::vector<int> shape;
  EXPECT_EQ(
      error_text([&] { runner.op()->inference_shape({&ints}, shape); }),
      check_text("tensor->data_type() == DT_FLOAT", "Z40Clone reads codes as float but it holds type 3"));
}

}  // namespace
}  // namespace kovra_test
