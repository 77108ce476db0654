#include <climits>
#include <numeric>

#include <gtest/gtest.h>

#include "support/single_op_runner.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

std::vector<float> iota(int n, float start = 0.0f) {
  std::vector<float> v(n);
  std::iota(v.begin(), v.end(), start);
  return v;
}

std::vector<float> run_op(const std::string& op, const std::string& attrs, const std::vector<const Tensor*>& inputs,
                          std::vector<int>* shape = nullptr) {
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
};

class HandWorkedLayoutTest : public ::testing::TestWithParam<LayoutCase> {};

TEST_P(HandWorkedLayoutTest, MatchesHandValues) {
  const LayoutCase& c = GetParam();
  Tensor input = make_tensor(c.in_shape, c.in, "x");
  std::vector<int> shape;
  EXPECT_EQ(run_op(c.op, c.attrs, {&input}, &shape), c.out);
  EXPECT_EQ(shape, c.out_shape);
}

INSTANTIATE_TEST_SUITE_P(
    Operators, HandWorkedLayoutTest,
    ::testing::Values(
        // channels [0..5] as [2 groups x 3] read column-wise
        LayoutCase{"shuffle_g2", "Z40ChannelShuffle", R"(attr { key: "groups" value { f: 2 } })", {1, 1, 1, 6},
                   iota(6), {1, 1, 1, 6}, {0, 3, 1, 4, 2, 5}},
        LayoutCase{"shuffle_g3_two_pixels", "Z40ChannelShuffle", R"(attr { key: "groups" value { f: 3.7 } })",
                   {1, 1, 2, 6}, iota(12), {1, 1, 2, 6}, {0, 2, 4, 1, 3, 5, 6, 8, 10, 7, 9, 11}},
        LayoutCase{"clone", "Z40Clone", "", {1, 2, 1, 2}, {1.5f, -2, 3, 4}, {1, 2, 1, 2}, {1.5f, -2, 3, 4}},
        // 2x2 image [[1,2],[3,4]]: sub-images (even,even), (odd row,even col), (even,odd), (odd,odd)
        LayoutCase{"focus", "Z40Focus", "", {1, 2, 2, 1}, {1, 2, 3, 4}, {1, 1, 1, 4}, {1, 3, 2, 4}},
        // odd height: the last row is dropped
        LayoutCase{"focus_odd_rows_two_channels", "Z40Focus", "", {1, 3, 2, 2}, iota(12), {1, 1, 1, 8},
                   {0, 1, 4, 5, 2, 3, 6, 7}},
        // TensorFlow's documented example; the batch of output_shape follows the input
        LayoutCase{"space_to_depth", "Z40SpaceToDepth", R"(attr { key: "output_shape" value { list { i: 9 i: 1 i: 1 i: 12 } } })",
                   {1, 2, 2, 3}, iota(12, 1), {1, 1, 1, 12}, iota(12, 1)},
        LayoutCase{"space_to_depth_4x4", "Z40SpaceToDepth", R"(attr { key: "output_shape" value { list { i: 1 i: 2 i: 2 i: 4 } } })",
                   {1, 4, 4, 1}, iota(16), {1, 2, 2, 4},
                   {0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 12, 13, 10, 11, 14, 15}},
        LayoutCase{"reshape_plain", "Z40Reshape", R"(attr { key: "output_shape" value { list { i: 3 i: 2 } } })",
                   {1, 1, 2, 3}, iota(6), {3, 2}, iota(6)},
        LayoutCase{"squeeze", "Z40Squeeze", R"(attr { key: "output_shape" value { list { i: 4 } } })", {1, 1, 1, 4},
                   iota(4), {4}, iota(4)},
        LayoutCase{"transpose", "Z40Transpose",
                   R"(attr { key: "perm" value { list { i: 1 i: 0 } } } attr { key: "output_shape" value { list { i: 3 i: 2 } } })",
                   {2, 3}, iota(6), {3, 2}, {0, 3, 1, 4, 2, 5}},
        LayoutCase{"transpose_default_reverses", "Z40Transpose", R"(attr { key: "output_shape" value { list { i: 2 i: 1 i: 2 } } })",
                   {2, 1, 2}, iota(4), {2, 1, 2}, {0, 2, 1, 3}},
        // x [1,2,3,2] = 0..11; rows 0..1, columns 1..2
        LayoutCase{"slice_window", "Z40Slice",
                   R"(attr { key: "starts" value { list { i: 0 i: 0 i: 1 i: 0 } } }
                      attr { key: "ends" value { list { i: 1 i: 2 i: 3 i: 2 } } }
                      attr { key: "output_shape" value { list { i: 1 i: 2 i: 2 i: 2 } } })",
                   {1, 2, 3, 2}, iota(12), {1, 2, 2, 2}, {2, 3, 4, 5, 8, 9, 10, 11}},
        // axes subset with negative start and an end past the axis (clamped)
        LayoutCase{"slice_axes_negative_start", "Z40Slice",
                   R"(attr { key: "starts" value { list { i: -2 } } } attr { key: "ends" value { list { i: 2147483647 } } }
                      attr { key: "axes" value { list { i: 2 } } }
                      attr { key: "output_shape" value { list { i: 1 i: 2 i: 2 i: 2 } } })",
                   {1, 2, 3, 2}, iota(12), {1, 2, 2, 2}, {2, 3, 4, 5, 8, 9, 10, 11}},
        // a backward walk over the columns with step -2: columns 2, 0
        LayoutCase{"slice_negative_step", "Z40Slice",
                   R"(attr { key: "starts" value { list { i: -1 } } } attr { key: "ends" value { list { i: -2147483647 } } }
                      attr { key: "axes" value { list { i: -2 } } } attr { key: "steps" value { list { i: -2 } } }
                      attr { key: "output_shape" value { list { i: 1 i: 2 i: 2 i: 2 } } })",
                   {1, 2, 3, 2}, iota(12), {1, 2, 2, 2}, {4, 5, 0, 1, 10, 11, 6, 7}},
        // channel steps on a 5-D input
        LayoutCase{"slice_5d_step", "Z40Slice",
                   R"(attr { key: "starts" value { list { i: 1 } } } attr { key: "ends" value { list { i: 4 } } }
                      attr { key: "axes" value { list { i: 4 } } } attr { key: "steps" value { list { i: 2 } } }
                      attr { key: "output_shape" value { list { i: 1 i: 1 i: 1 i: 2 i: 2 } } })",
                   {1, 1, 1, 2, 4}, iota(8), {1, 1, 1, 2, 2}, {1, 3, 5, 7}},
        // the second piece of a [1, 2] split of the channels
        LayoutCase{"slice_split_piece", "Z40Slice",
                   R"(attr { key: "split" value { list { i: 1 i: 2 } } } attr { key: "axis" value { f: 3 } }
                      attr { key: "starts" value { list { i: 1 } } } attr { key: "ends" value { list { i: 3 } } }
                      attr { key: "output_shape" value { list { i: 1 i: 1 i: 2 i: 2 } } })",
                   {1, 1, 2, 3}, iota(6), {1, 1, 2, 2}, {1, 2, 4, 5}},
        // one row above, one column after: [[0,0,0],[1,2,0]]
        LayoutCase{"pad_pairs_per_axis", "Z40Pad",
                   R"(attr { key: "pads" value { list { i: 0 i: 0 i: 1 i: 0 i: 0 i: 1 i: 0 i: 0 } } }
                      attr { key: "output_shape" value { list { i: 1 i: 2 i: 3 i: 1 } } })",
                   {1, 1, 2, 1}, {1, 2}, {1, 2, 3, 1}, {0, 0, 0, 1, 2, 0}},
        LayoutCase{"pad_hw_form_with_channels", "Z40Pad",
                   R"(attr { key: "pads" value { list { i: 0 i: 1 i: 1 i: 0 } } } attr { key: "mode" value { s: "constant" } }
                      attr { key: "output_shape" value { list { i: 1 i: 2 i: 2 i: 2 } } })",
                   {1, 1, 1, 2}, {7, 8}, {1, 2, 2, 2}, {0, 0, 7, 8, 0, 0, 0, 0}}),
    [](const ::testing::TestParamInfo<LayoutCase>& info) { return std::string(info.param.label); });

TEST(FloatConcatTest, JoinsChannelsOfEveryInput) {
  Tensor a = make_tensor({1, 1, 2, 2}, {1, 2, 3, 4}, "a");
  Tensor b = make_tensor({1, 1, 2, 1}, {5, 6}, "b");
  Tensor c = make_tensor({1, 1, 2, 3}, {7, 8, 9, 10, 11, 12}, "c");
  std::vector<int> shape;
  EXPECT_EQ(run_op("Z40Concat", "", {&a, &b, &c}, &shape),
            (std::vector<float>{1, 2, 5, 7, 8, 9, 3, 4, 6, 10, 11, 12}));
  EXPECT_EQ(shape, (std::vector<int>{1, 1, 2, 6}));
}

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
          for (int w = 0; w < W; ++w) nchw[((n * C + c) * H + h) * W + w] = nhwc[((n * H + h) * W + w) * C + c];
  } else {
    nchw = nhwc;
  }
  if (out.size() != 4) return nchw;
  std::vector<float> result(nhwc.size());
  const int N = out[0], H = out[1], W = out[2], C = out[3];
  for (int n = 0; n < N; ++n)
    for (int h = 0; h < H; ++h)
      for (int w = 0; w < W; ++w)
        for (int c = 0; c < C; ++c) result[((n * H + h) * W + w) * C + c] = nchw[((n * C + c) * H + h) * W + w];
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
  const std::string attrs = R"(attr { key: "src_framework" value { s: "ONNX" } } attr { key: "output_shape" value { list {)" +
                            shape_attr + " } } }";
  EXPECT_EQ(run_op("Z40Reshape", attrs, {&input}), onnx_reshape_reference(iota(count, 10), c.in, c.out));
}

INSTANTIATE_TEST_SUITE_P(Shapes, OnnxReshapeTest,
                         ::testing::Values(OnnxReshapeCase{{1, 2, 2, 3}, {1, 12}},   // flatten before a dense layer
                                           OnnxReshapeCase{{2, 2, 3, 2}, {2, 1, 6, 2}},
                                           OnnxReshapeCase{{1, 2, 2, 2}, {1, 1, 4, 2}},
                                           OnnxReshapeCase{{2, 6}, {2, 1, 3, 2}}));

TEST(OnnxReshapeTest, FlattenHandValues) {
  // [1, H=1, W=2, C=2] = pixels (a0,a1), (b0,b1): channels-first flat order is a0 b0 a1 b1.
  Tensor input = make_tensor({1, 1, 2, 2}, {1, 2, 3, 4});
  EXPECT_EQ(run_op("Z40Reshape",
                   R"(attr { key: "src_framework" value { s: "ONNX" } } attr { key: "output_shape" value { list { i: 1 i: 4 } } })",
                   {&input}),
            (std::vector<float>{1, 3, 2, 4}));
}

// ---- every missing-attribute and rank message ---------------------------

enum Stage { kParse, kInfer, kExecute };

struct FatalCase {
  const char* label;
  const char* op;
  const char* attrs;
  std::vector<std::vector<int>> inputs;  // an empty shape is a rank-0 tensor
  Stage stage;
  const char* condition;  // null for a plain "Error: <message>" line
  std::string message;
};

void run_to_stage(const FatalCase& c) {
  std::vector<Tensor> tensors;
  for (size_t i = 0; i < c.inputs.size(); ++i) {
    if (c.inputs[i].empty()) {
      tensors.emplace_back();
      continue;
    }
    int count = 1;
    for (int d : c.inputs[i]) count *= d;
    tensors.push_back(make_tensor(c.inputs[i], std::vector<float>(count, 0.5f), "in" + std::to_string(i)));
  }
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);
  SingleOpRunner runner(c.op, node_with_attrs(c.attrs));
  if (c.stage == kInfer) {
    std::vector<int> shape;
    runner.op()->inference_shape(inputs, shape);
  } else if (c.stage == kExecute) {
    runner.output().set_data({1, 1, 1, 1}, Tensor::DT_FLOAT, nullptr);
    runner.op()->execute(inputs, &runner.output());
  }
}

class FloatLayoutFatalTest : public ::testing::TestWithParam<FatalCase> {};

TEST_P(FloatLayoutFatalTest, AbortsWithExactMessage) {
  const FatalCase& c = GetParam();
  if (c.condition == nullptr) {
    EXPECT_FATAL(run_to_stage(c), c.message);
  } else {
    EXPECT_CHECK_FAILED(run_to_stage(c), c.condition, c.message);
  }
}

const char* const kShape4 = R"(attr { key: "output_shape" value { list { i: 1 i: 1 i: 1 i: 1 } } })";
const char* const kPool = R"(attr { key: "ksize" value { list { i: 1 i: 2 i: 2 i: 1 } } }
                             attr { key: "strides" value { list { i: 1 i: 1 i: 1 i: 1 } } })";
const char* const kSlice = R"(attr { key: "starts" value { list { i: 0 } } } attr { key: "ends" value { list { i: 1 } } }
                              attr { key: "output_shape" value { list { i: 1 i: 1 i: 1 i: 1 } } })";
const char* const kGru = R"(attr { key: "hidden_size" value { f: 1 } })";
const char* const kScalarCond = "input_tensor->shape().size() > 0";
const char* const kRank4Cond = "input_tensor->shape().size() == 4";

INSTANTIATE_TEST_SUITE_P(
    MissingAttributeAndRank, FloatLayoutFatalTest,
    ::testing::Values(
        FatalCase{"shuffle_groups", "Z40ChannelShuffle", "", {}, kParse, "suc", "Do not find the groups in FloatZ40ChannelShuffle!!!"},
        FatalCase{"s2d_shape", "Z40SpaceToDepth", "", {}, kParse, "suc", "Do not find the strides in FloatZ40SpaceToDepth!!!"},
        FatalCase{"avg_ksize", "Z40AvgPool", "", {}, kParse, "suc", "Do not find the ksize in FloatZ40AvgPool!!!"},
        FatalCase{"max_ksize", "Z40MaxPool", "", {}, kParse, "suc", "Do not find the ksize in FloatZ40MaxPool!!!"},
        FatalCase{"bilinear_scale", "Z40ResizeBilinear", "", {}, kParse, "suc", "Do not find the wh_scale in FloatZ40ResizeBilinear!!!"},
        FatalCase{"nearest_scale", "Z40ResizeNearestNeighbor", "", {}, kParse, "suc",
                  "Do not find the wh_scale in FloatZ40ResizeNearestNeighbor!!!"},
        FatalCase{"pad_shape", "Z40Pad", "", {}, kParse, "suc", "Do not find the strides in FloatZ40Pad!!!"},
        FatalCase{"reshape_shape", "Z40Reshape", "", {}, kParse, "suc", "Do not find the strides in FloatZ40Reshape!!!"},
        FatalCase{"squeeze_shape", "Z40Squeeze", "", {}, kParse, "suc", "Do not find the output_shape in FloatZ40squeeze!!!"},
        FatalCase{"transpose_shape", "Z40Transpose", "", {}, kParse, "suc", "Do not find the output_shape in FloatZ40Transpose!!!"},
        FatalCase{"slice_shape", "Z40Slice", R"(attr { key: "starts" value { list { i: 0 } } } attr { key: "ends" value { list { i: 1 } } })",
                  {}, kParse, "suc", "Do not find the output_shape in FloatZ40Slice!!!"},
        FatalCase{"slice_starts", "Z40Slice", R"(attr { key: "output_shape" value { list { i: 1 } } } attr { key: "ends" value { list { i: 1 } } })",
                  {}, kParse, "suc", "Do not find the starts in FloatZ40Slice!!!"},
        FatalCase{"slice_ends", "Z40Slice", R"(attr { key: "output_shape" value { list { i: 1 } } } attr { key: "starts" value { list { i: 0 } } })",
                  {}, kParse, "suc", "Do not find the ends in FloatZ40Slice!!!"},
        FatalCase{"gru_hidden", "Z40GRU", "", {}, kParse, "suc", "Do not find the hidden_size in FloatZ40GRU!!!"},
        FatalCase{"adaround_bits", "Z40AdaRoundQuantizeWeight", "", {}, kParse, "suc",
                  "Do not find the weight_bitwidth in Z40QuantizeWeight!!!"},
        FatalCase{"shuffle_rank", "Z40ChannelShuffle", R"(attr { key: "groups" value { f: 1 } })", {{1, 2, 3}}, kInfer,
                  kRank4Cond, "Wrong input_shape in channel shuffle!!!"},
        FatalCase{"clone_rank", "Z40Clone", "", {{2, 3}}, kInfer, kRank4Cond, "Wrong input shape in FloatZ40Clone!!!"},
        FatalCase{"concat_one_input", "Z40Concat", "", {{1, 1, 1, 1}}, kInfer, "inputs.size() > 1",
                  "Z40Concat operator inputs must greater than 1."},
        FatalCase{"concat_output_rank", "Z40Concat", "", {{1, 2, 3}, {1, 2, 1}}, kExecute, "output_shape.size() > 3",
                  "Wrong output shape in concat."},
        FatalCase{"concat_scalar", "Z40Concat", "", {{}, {1}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40Concat!!!"},
        FatalCase{"focus_scalar", "Z40Focus", "", {{}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40Focus!!!"},
        FatalCase{"s2d_scalar", "Z40SpaceToDepth", kShape4, {{}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40SpaceToDepth!!!"},
        FatalCase{"gap_scalar", "Z40GlobalAvgPool", "", {{}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40GlobalAvgPool!!!"},
        FatalCase{"avg_rank", "Z40AvgPool", kPool, {{1, 4, 4}}, kInfer, kRank4Cond, "Wrong input shape in z40_avg_pool."},
        FatalCase{"avg_ksize_size", "Z40AvgPool", R"(attr { key: "ksize" value { list { i: 2 i: 2 } } })", {{1, 4, 4, 1}}, kInfer,
                  "op_param_->ksize.size() > 2", "Wrong kernel size."},
        FatalCase{"avg_strides_size", "Z40AvgPool", R"(attr { key: "ksize" value { list { i: 1 i: 2 i: 2 i: 1 } } })", {{1, 4, 4, 1}},
                  kInfer, "op_param_->strides.size() > 2", "Wrong strides size."},
        FatalCase{"max_ksize_size", "Z40MaxPool", R"(attr { key: "ksize" value { list { i: 2 } } })", {{1, 4, 4, 1}}, kInfer,
                  "op_param_->ksize.size() > 2", "Wrong kernel size."},
        FatalCase{"max_scalar", "Z40MaxPool", kPool, {{}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40MaxPool!!!"},
        FatalCase{"unpool_scalar", "Z40Unpool2D", "", {{}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40Unpool2D!!!"},
        FatalCase{"bilinear_scalar", "Z40ResizeBilinear", R"(attr { key: "wh_scale" value { f: 2 } })", {{}}, kInfer, kScalarCond,
                  "The shape of input is 0 in FloatZ40ResizeBilinear!!!"},
        FatalCase{"nearest_scalar", "Z40ResizeNearestNeighbor", R"(attr { key: "wh_scale" value { f: 2 } })", {{}}, kInfer,
                  kScalarCond, "The shape of input is 0 in FloatZ40ResizeNearestNeighbor!!!"},
        FatalCase{"pad_rank5", "Z40Pad", kShape4, {{1, 1, 1, 1, 1}}, kInfer, kRank4Cond,
                  "The shape of input only support 4D or 5D in FloatZ40Pad!!!"},
        FatalCase{"pad_mode_infer", "Z40Pad", R"(attr { key: "mode" value { s: "reflect" } } attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "op_param_->mode == \"constant\"", "The mode only support constant in FloatZ40Pad!!!"},
        FatalCase{"pad_mode_execute", "Z40Pad", R"(attr { key: "mode" value { s: "edge" } } attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kExecute, "op_param_->mode == \"constant\"", "The model only support constant in FloatZ40Pad!!!"},
        FatalCase{"reshape_scalar", "Z40Reshape", kShape4, {{}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40Reshape!!!"},
        FatalCase{"squeeze_scalar", "Z40Squeeze", kShape4, {{}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40Squeeze!!!"},
        FatalCase{"transpose_scalar", "Z40Transpose", kShape4, {{}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40Transpose!!!"},
        FatalCase{"slice_rank3", "Z40Slice", kSlice, {{1, 1, 1}}, kInfer,
                  "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
                  "The shape of input only support  4D or 5D  in FloatZ40Slice!!!"},
        FatalCase{"gru_scalar", "Z40GRU", kGru, {{}, {3}, {3}, {6}}, kInfer, kScalarCond, "The shape of input is 0 in FloatZ40GRU!!!"},
        FatalCase{"adaround_scalar", "Z40AdaRoundQuantizeWeight", R"(attr { key: "weight_bitwidth" value { f: 8 } })", {{}, {1}}, kInfer,
                  kScalarCond, "The shape of input is 0 in Z40QuantizeWeight!!!"},
        FatalCase{"avg_unknown_padding", "Z40AvgPool",
                  R"(attr { key: "ksize" value { list { i: 1 i: 2 i: 2 i: 1 } } } attr { key: "strides" value { list { i: 1 i: 1 i: 1 i: 1 } } }
                     attr { key: "padding" value { s: "FULL" } })",
                  {{1, 4, 4, 1}}, kInfer, nullptr, "Check failed: false"},
        FatalCase{"max_unknown_padding", "Z40MaxPool",
                  R"(attr { key: "ksize" value { list { i: 1 i: 2 i: 2 i: 1 } } } attr { key: "strides" value { list { i: 1 i: 1 i: 1 i: 1 } } }
                     attr { key: "padding" value { s: "same" } })",
                  {{1, 4, 4, 1}}, kInfer, nullptr, "Check failed: false"}),
    [](const ::testing::TestParamInfo<FatalCase>& info) { return std::string(info.param.label); });

// ---- malformed models stop with a message, never read out of bounds -------

INSTANTIATE_TEST_SUITE_P(
    MalformedModels, FloatLayoutFatalTest,
    ::testing::Values(
        FatalCase{"shuffle_groups_not_dividing", "Z40ChannelShuffle", R"(attr { key: "groups" value { f: 4 } })", {{1, 1, 1, 6}},
                  kInfer, "channels % groups == 0", "Z40ChannelShuffle: 6 channels cannot be split into 4 groups"},
        FatalCase{"shuffle_groups_zero", "Z40ChannelShuffle", R"(attr { key: "groups" value { i: 2 } })", {{1, 1, 1, 6}}, kInfer,
                  "channels % groups == 0", "Z40ChannelShuffle: 6 channels cannot be split into 0 groups"},
        FatalCase{"clone_wrong_output", "Z40Clone", "", {{1, 1, 1, 2}}, kExecute, "output->shape() == inferred shape",
                  "Z40Clone: output tensor [1,1,1,1] but the inputs give [1,1,1,2]"},
        FatalCase{"concat_mismatch", "Z40Concat", "", {{1, 2, 2, 1}, {1, 2, 3, 1}}, kInfer, "inputs agree on every axis but the last",
                  "Z40Concat cannot join in1 [1,2,3,1] to in0 [1,2,2,1]"},
        FatalCase{"concat_rank_mismatch", "Z40Concat", "", {{1, 2, 2, 1}, {1, 2, 2}}, kInfer, "inputs agree on every axis but the last",
                  "Z40Concat cannot join in1 [1,2,2] to in0 [1,2,2,1]"},
        FatalCase{"focus_rank", "Z40Focus", "", {{2, 2, 2}}, kInfer, "input->dims() == 4", "Z40Focus needs a 4-D input but got [2,2,2]"},
        FatalCase{"focus_too_small", "Z40Focus", "", {{1, 1, 2, 1}}, kInfer, "all dimensions > 0",
                  "Z40Focus: output [1,0,1,0] has an empty dimension"},
        FatalCase{"s2d_not_4d", "Z40SpaceToDepth", R"(attr { key: "output_shape" value { list { i: 1 i: 4 } } })", {{1, 2, 2, 1}},
                  kInfer, "output_shape.size() == 4", "Z40SpaceToDepth: output_shape [1,4] is not 4-D"},
        FatalCase{"s2d_bad_block", "Z40SpaceToDepth", R"(attr { key: "output_shape" value { list { i: 1 i: 1 i: 2 i: 2 } } })",
                  {{1, 2, 2, 1}}, kInfer, "output_shape == [N, H/block, W/block, C*block*block]",
                  "Z40SpaceToDepth: output_shape [1,1,2,2] is no space-to-depth of [1,2,2,1]"},
        FatalCase{"s2d_zero_dim", "Z40SpaceToDepth", R"(attr { key: "output_shape" value { list { i: 1 i: 0 i: 1 i: 4 } } })",
                  {{1, 2, 2, 1}}, kInfer, "all dimensions > 0", "Z40SpaceToDepth: output_shape [1,0,1,4] has an empty dimension"},
        FatalCase{"reshape_count", "Z40Reshape", R"(attr { key: "output_shape" value { list { i: 5 } } })", {{1, 2, 2, 1}}, kInfer,
                  "element_count(output_shape) == input->size()",
                  "Z40Reshape: output_shape [5] does not hold the 4 elements of input [1,2,2,1]"},
        FatalCase{"reshape_negative", "Z40Reshape", R"(attr { key: "output_shape" value { list { i: -1 i: -4 } } })", {{1, 2, 2, 1}},
                  kInfer, "all dimensions > 0", "Z40Reshape: output_shape [-1,-4] has an empty dimension"},
        FatalCase{"squeeze_count", "Z40Squeeze", R"(attr { key: "output_shape" value { list { i: 3 } } })", {{1, 1, 1, 4}}, kInfer,
                  "element_count(output_shape) == input->size()",
                  "Z40Squeeze: output_shape [3] does not hold the 4 elements of input [1,1,1,4]"},
        FatalCase{"transpose_not_permutation", "Z40Transpose",
                  R"(attr { key: "perm" value { list { i: 0 i: 0 } } } attr { key: "output_shape" value { list { i: 2 i: 2 } } })",
                  {{2, 3}}, kInfer, "is_permutation_of_rank(perm, rank)",
                  "Z40Transpose: perm [0,0] is no permutation of the axes of [2,3]"},
        FatalCase{"transpose_wrong_shape", "Z40Transpose",
                  R"(attr { key: "perm" value { list { i: 1 i: 0 } } } attr { key: "output_shape" value { list { i: 2 i: 3 } } })",
                  {{2, 3}}, kInfer, "output_shape == input shape permuted by perm",
                  "Z40Transpose: output_shape [2,3] but perm gives [3,2]"},
        FatalCase{"slice_length_mismatch", "Z40Slice",
                  R"(attr { key: "starts" value { list { i: 0 i: 0 } } } attr { key: "ends" value { list { i: 1 } } } attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "ends.size() == starts.size()", "Z40Slice: starts [0,0] and ends [1] differ in length"},
        FatalCase{"slice_axes_mismatch", "Z40Slice",
                  R"(attr { key: "starts" value { list { i: 0 } } } attr { key: "ends" value { list { i: 1 } } } attr { key: "axes" value { list { i: 0 i: 1 } } }
                     attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "axes.size() == starts.size()", "Z40Slice: axes [0,1] does not match starts [0]"},
        FatalCase{"slice_steps_mismatch", "Z40Slice",
                  R"(attr { key: "starts" value { list { i: 0 } } } attr { key: "ends" value { list { i: 1 } } } attr { key: "steps" value { list { i: 1 i: 1 } } }
                     attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "steps.size() == starts.size()", "Z40Slice: steps [1,1] does not match starts [0]"},
        FatalCase{"slice_axis_range", "Z40Slice",
                  R"(attr { key: "starts" value { list { i: 0 } } } attr { key: "ends" value { list { i: 1 } } } attr { key: "axes" value { list { i: 4 } } }
                     attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "0 <= axis < rank, each axis once",
                  "Z40Slice: axis 4 is out of range or repeated for input [1,1,1,1]"},
        FatalCase{"slice_step_zero", "Z40Slice",
                  R"(attr { key: "starts" value { list { i: 0 } } } attr { key: "ends" value { list { i: 1 } } } attr { key: "steps" value { list { i: 0 } } }
                     attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "step != 0", "Z40Slice: a step of 0 on axis 0"},
        FatalCase{"slice_empty", "Z40Slice",
                  R"(attr { key: "starts" value { list { i: 3 } } } attr { key: "ends" value { list { i: 1 } } } attr { key: "axes" value { list { i: 3 } } }
                     attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 4}}, kInfer, "all dimensions > 0", "Z40Slice: slice [1,1,1,0] has an empty dimension"},
        FatalCase{"slice_wrong_output", "Z40Slice",
                  R"(attr { key: "starts" value { list { i: 1 } } } attr { key: "ends" value { list { i: 3 } } } attr { key: "axes" value { list { i: 3 } } }
                     attr { key: "output_shape" value { list { i: 1 i: 1 i: 1 i: 3 } } })",
                  {{1, 1, 1, 4}}, kInfer, "output_shape == slice extent",
                  "Z40Slice: output_shape [1,1,1,3] but the slice of [1,1,1,4] is [1,1,1,2]"},
        FatalCase{"slice_split_axis", "Z40Slice",
                  R"(attr { key: "split" value { list { i: 1 } } } attr { key: "axis" value { f: 7 } } )"
                  R"(attr { key: "starts" value { list { i: 0 } } } attr { key: "ends" value { list { i: 1 } } } attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "0 <= axis < rank", "Z40Slice: split axis 7 is out of range for [1,1,1,1]"},
        FatalCase{"slice_split_bounds", "Z40Slice",
                  R"(attr { key: "split" value { list { i: 2 i: 2 } } } attr { key: "axis" value { f: -1 } } )"
                  R"(attr { key: "starts" value { list { i: 1 } } } attr { key: "ends" value { list { i: 3 } } } attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 4}}, kInfer, "starts..ends is one piece of split",
                  "Z40Slice: split [2,2] on axis 3 of [1,1,1,4] has no piece 1..3"},
        FatalCase{"slice_split_empty_starts", "Z40Slice",
                  R"(attr { key: "split" value { list { i: 4 } } } attr { key: "axis" value { f: 3 } } )"
                  R"(attr { key: "starts" value { list { } } } attr { key: "ends" value { list { i: 4 } } } attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 4}}, kInfer, "!starts.empty() && !ends.empty()", "Z40Slice: a split piece needs starts and ends"},
        FatalCase{"pad_pairs", "Z40Pad", R"(attr { key: "pads" value { list { i: 1 i: 1 i: 1 } } } attr { key: "output_shape" value { list { i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "pads.size() is 0, 4 or 8",
                  "Z40Pad: pads [1,1,1] must pair (before, after) for H, W or for all four axes"},
        FatalCase{"pad_wrong_output", "Z40Pad",
                  R"(attr { key: "pads" value { list { i: 1 i: 1 i: 0 i: 0 } } } attr { key: "output_shape" value { list { i: 1 i: 2 i: 1 i: 1 } } })",
                  {{1, 1, 1, 1}}, kInfer, "output_shape == input shape + pads",
                  "Z40Pad: input [1,1,1,1] padded by [1,1,0,0] does not give output_shape [1,2,1,1]"},
        FatalCase{"pad_negative", "Z40Pad",
                  R"(attr { key: "pads" value { list { i: 0 i: 0 i: -1 i: 1 } } } attr { key: "output_shape" value { list { i: 1 i: 2 i: 2 i: 1 } } })",
                  {{1, 2, 2, 1}}, kInfer, "output_shape == input shape + pads",
                  "Z40Pad: input [1,2,2,1] padded by [0,0,-1,1] does not give output_shape [1,2,2,1]"},
        FatalCase{"missing_input", "Z40Squeeze", kShape4, {}, kInfer, "inputs.size() >= 1", "Z40Squeeze needs 1 inputs but has 0"}),
    [](const ::testing::TestParamInfo<FatalCase>& info) { return std::string(info.param.label); });

TEST(FloatLayoutFatalTest, ConcatChannelsBeyondIntAreRefused) {
  // Shapes only: borrowed one-float buffers never read by shape inference.
  float cell = 0.0f;
  // Each stays below the tensor's own byte-size limit; together they pass int.
  Tensor part({1, 1, 1, 500000000}, Tensor::DT_FLOAT, &cell, "cpu");
  SingleOpRunner runner("Z40Concat", node_with_attrs(""));
  std::vector<int> shape;
  EXPECT_CHECK_FAILED(runner.op()->inference_shape({&part, &part, &part, &part, &part}, shape),
                      "joined channels fit in int", "Z40Concat: the inputs join to 2500000000 channels");
}

TEST(FloatLayoutFatalTest, NonFloatInputIsRefused) {
  Tensor ints({1, 1, 1, 2}, Tensor::DT_INT32, nullptr, "cpu");
  ints.set_name("codes");
  SingleOpRunner runner("Z40Clone", node_with_attrs(""));
  std::vector<int> shape;
  EXPECT_CHECK_FAILED(runner.op()->inference_shape({&ints}, shape), "tensor->data_type() == DT_FLOAT",
                      "Z40Clone reads codes as float but it holds type 3");
}

}  // namespace
}  // namespace kovra_test
