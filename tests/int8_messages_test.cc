// Every message of the int8 operators, asserted exactly under the throwing
// policy; one death test shows the default line and abort.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/int8_graph.h"
#include "support/int8_tables.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;

// One node carrying every attribute any of the operators below requires;
// each case drops one key, or changes some, and expects the operator's own message.
NodeDef full_node(const std::string& op, const std::string& changes = "") {
  NodeDef n =
      node_of(op,
              "QSCALE=[1.] DEQSCALE=[1.] INPUTSCALE=[1.] INPUT0SCALE=[1.] INPUT1SCALE=[1.] OUTPUTSCALE=[1.] "
              "POOLSCALE=[1.] scale=[1.] bias=[1.] offset=1 input_offset=1 input0_offset=1 input1_offset=1 "
              "maxValue=1 "
              "minValue=1 groups=1 axis=1 hidden_size=1 ksize=[1,1,1,1] strides=[1,1,1,1] pads=[1,1,1,1] "
              "output_shape=[1,1,1,1] perm=[1,1,1,1] starts=[1,1,1,1] ends=[1,1,1,1] kernel_size=[1,1,1,1] "
              "fake_scale=1.0 wh_scale=2.0 mode='constant'");
  set_attrs(&n, changes);
  return n;
}

// The keys each operator requires: without one, "Do not find the <key><in><op>!!!".
struct MissingKeys {
  const char* op;
  const char* keys;
  const char* in;
};
// clang-format off
const MissingKeys kMissingKeys[] = {
    {"Z40Quantize", "QSCALE offset maxValue minValue", " in  "}, {"Z40Dequantize", "QSCALE offset", " in  "},
    {"Z40KovraFakeQuantFeature", "maxValue minValue", " in "},
    {"Z40EltwiseAddInt8", "INPUT0SCALE input0_offset INPUT1SCALE input1_offset maxValue minValue OUTPUTSCALE",
     " in "},
    {"Z40EltwiseSubInt8", "INPUT1SCALE OUTPUTSCALE", " in "},
    {"Z40EltwiseMulInt8", "input0_offset input1_offset maxValue minValue OUTPUTSCALE", " in "},
    {"Z40MaxInt8", "INPUT0SCALE minValue", " in "},
    {"Z40SigmoidInt8", "INPUTSCALE OUTPUTSCALE maxValue minValue input_offset offset", " in "},
    {"Z40TanhInt8", "INPUTSCALE offset", " in "},
    {"Z40BatchNormScaleInt8", "bias scale offset maxValue", " in "},
    {"Z40ChannelShuffleInt8", "groups", " in "}, {"Z40AvgPoolInt8", "ksize maxValue minValue", " in "},
    {"Z40MaxPoolInt8", "ksize maxValue", " in "}, {"Z40GlobalAvgPoolInt8", "maxValue POOLSCALE", " in "},
    {"Z40ResizeBilinearInt8", "wh_scale minValue offset", " in "},
    {"Z40ResizeNearestNeighborInt8", "wh_scale", " in "}, {"Z40Unpool2DInt8", "kernel_size", " in "},
    {"Z40ConcatInt8", "maxValue minValue offset input_offset QSCALE DEQSCALE", " in "},
    {"Z40PadInt8", "pads", " in "}, {"Z40SliceInt8", "output_shape starts ends", " in "},
    {"Z40TransposeInt8", "perm output_shape", " in "}, {"Z40SpaceToDepthInt8", "output_shape", " in "},
};
// Messages worded otherwise.
const struct {
  const char* op;
  const char* key;
  const char* message;
} kMissingOdd[] = {
    {"Z40KovraFakeQuantFeature", "fake_scale", "Do not find the offset in Z40KovraFakeQuantFeature!!!"},
    {"Z40ChannelShuffleInt8", "INPUTSCALE", "Do not find the INPUT1SCALE in Z40ChannelShuffleInt8!!!"},
    {"Z40GlobalAvgPoolInt8", "minValue", "DO not find the minValue in Z40GlobalAvgPoolInt8!!!"},
    {"Z40ResizeBilinearInt8", "maxValue", "Do not find the maxValue in Z40EltwiseMulInt8!!!"},
    {"Z40ReshapeInt8", "output_shape", "Do not find the strides in Z40ReshapeInt8!!!"},
};
// clang-format on

TEST(MissingAttributeTest, EachKeyGivesTheOperatorsMessage) {
  std::vector<std::vector<std::string>> rows;
  for (const MissingKeys& m : kMissingKeys) {
    std::istringstream keys(m.keys);
    for (std::string key; keys >> key;) {
      rows.push_back({m.op, key, "Do not find the " + key + m.in + m.op + "!!!"});
    }
  }
  for (const auto& odd : kMissingOdd) rows.push_back({odd.op, odd.key, odd.message});
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0] + " " + row[1]);
    EXPECT_EQ(error_text([&] { make_op(row[0])->parse_parameter(full_node(row[0])); }), "(no error)");
    NodeDef node = full_node(row[0]);
    node.mutable_attr()->erase(row[1]);
    EXPECT_EQ(error_text([&] { make_op(row[0])->parse_parameter(node); }), check_text("suc", row[2]));
  }
}

TEST(MissingAttributeDeathTest, AbortsWithTheLineByDefault) {
  NodeDef node = full_node("Z40Quantize");
  node.mutable_attr()->erase("QSCALE");
  EXPECT_CHECK_FAILED(make_op("Z40Quantize")->parse_parameter(node), "suc",
                      "Do not find the QSCALE in  Z40Quantize!!!");
}

// A model's tensors of the given shapes, filled with ones and named t0, t1, ...
// (a shape of no elements stands for a tensor without a buffer).
struct Inputs {
  std::vector<Tensor> tensors;
  std::vector<const Tensor*> ptrs;
  explicit Inputs(const std::vector<std::vector<int>>& shapes) {
    for (size_t i = 0; i < shapes.size(); ++i) {
      int n = 1;
      for (int d : shapes[i]) n *= d;
      tensors.push_back(shapes[i].empty() || n == 0 ? Tensor()
                                                    : make_tensor(shapes[i], std::vector<float>(n, 1.0f)));
      tensors.back().set_name("t" + std::to_string(i));
    }
    for (const Tensor& t : tensors) ptrs.push_back(&t);
  }
};

// Both steps as a node takes them: shape inference, an output of that shape, execute.
void infer_and_execute(kx::OpExecutor* op, const std::vector<const Tensor*>& inputs) {
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  int n = 1;
  for (int d : shape) n *= d;
  Tensor output = make_tensor(shape, std::vector<float>(n, 0.0f));
  op->execute(inputs, &output);
}

// Inputs, and attribute values, that an operator refuses: each case gives the
// operator's own message, whichever of the two steps detects it.
struct CheckCase {
  std::string op;
  std::vector<std::vector<int>> shapes;  // one tensor per entry
  std::string condition;                 // empty: a plain error line
  std::string message;
  std::string changes = "";  // to the complete node
};
void PrintTo(const CheckCase& c, std::ostream* os) { *os << c.op << ": " << c.message; }

// clang-format off
const CheckCase kChecks[] = {
    // Ranks and empty inputs.
    {"Z40Quantize", {{1, 4}}, "", "\"The shape of input only support 3D ,4D or 5D in Z40Quantize!!!\""},
    {"Z40Quantize", {{1, 1, 1, 1, 1, 1}}, "",
     "\"The shape of input only support 3D ,4D or 5D in Z40Quantize!!!\""},
    {"Z40Dequantize", {{4}}, "", "\"The shape of input only support 3D ,4D or 5D in Z40Dequantize!!!\""},
    {"Z40EltwiseAddInt8", {{1, 2}}, "inputs.size() >= 2", "Z40EltwiseAddInt8 needs 2 inputs but has 1"},
    {"Z40Quantize", {}, "inputs.size() >= 1", "Z40Quantize needs 1 inputs but has 0"},
    {"Z40BatchNormScaleInt8", {{1, 2}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in z40 batch norm!!!"},
    {"Z40ChannelShuffleInt8", {{1, 2, 3}}, "input_tensor->shape().size() == 4",
     "Wrong input_shape in channel shuffle!!!"},
    {"Z40MaxInt8", {{1, 2, 3}, {1, 2, 3}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40MaxInt8."},
    {"Z40EltwiseMulInt8", {{1, 2}, {1, 2}, {1, 2}}, "", "Unspport input size :3in Z40EltwiseMulInt8."},
    {"Z40EltwiseMulInt8", {{1, 2}}, "", "Unspport input size :1in Z40EltwiseMulInt8."},
    {"Z40PowInt8", {{1, 2}}, "inputs.size() >= 2", "Z40PowInt8 needs 2 inputs but has 1"},
    {"Z40GlobalAvgPoolInt8", {{1, 2}}, "input_tensor->shape().size() == 3 || 4",
     "Wrong input shape in Z40GlobalAvgPoolInt8!!!"},
    {"Z40ConcatInt8", {{1, 1, 1, 2}}, "inputs.size() > 1",
     "Z40ConcatInt8 operator inputs must greater than 1."},
    {"Z40ConcatInt8", {{1, 2, 3}, {1, 2, 3}}, "output_shape.size() > 3", "Wrong output shape in concat."},
    {"Z40PadInt8", {{1, 2, 2}}, "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
     "The shape of input only support 4D or 5D in Z40PadInt8!!!"},
    {"Z40PadInt8", {{1, 1, 1, 1, 1}}, "op_param_->pads.size() == 2 * rank",
     "The model only support constant in Z40PadInt8!!!"},
    {"Z40SliceInt8", {{1, 2, 2}}, "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
     "The shape of input only support  4D or 5D  in Z40SliceInt8!!!"},
    {"Z40ReshapeInt8", {{1, 2, 2, 2}}, "product(output_shape) == input->size()",
     "Z40ReshapeInt8: output_shape does not hold the input's 8 elements"},
    {"Z40TransposeInt8", {{1, 2, 2, 2}}, "is_permutation(perm, rank)",
     "Z40TransposeInt8: perm is not a permutation of the input's 4 axes"},
    // Per-channel attributes shorter than the channels, and inputs shorter than the data.
    {"Z40Quantize", {{1, 2, 3}}, "values.size() >= 3", "Z40Quantize: attribute QSCALE has 1 values, needs 3"},
    {"Z40Dequantize", {{1, 2, 2, 4}}, "values.size() >= 4",
     "Z40Dequantize: attribute QSCALE has 1 values, needs 4"},
    {"Z40EltwiseAddInt8", {{1, 1, 2, 2}, {1, 1, 2, 2}}, "values.size() >= 2",
     "Z40EltwiseAddInt8: attribute INPUT0SCALE has 1 values, needs 2"},
    {"Z40EltwiseAddInt8", {{1, 1, 4, 1}, {1, 1, 2, 1}}, "tensor->size() >= 4",
     "Z40EltwiseAddInt8: t1 has 2 elements, needs 4"},
    {"Z40EltwiseMulInt8", {{1, 1, 1, 2}, {1}}, "values.size() >= 2",
     "Z40EltwiseMulInt8: attribute OUTPUTSCALE has 1 values, needs 2"},
    {"Z40EltwiseMulInt8", {{1, 1, 1, 1}, {0}}, "tensor->data_type() == DT_FLOAT",
     "Z40EltwiseMulInt8 reads t1 as float but it holds type 0"},
    {"Z40MaxInt8", {{1, 1, 2, 1}, {1, 1, 1, 1}}, "tensor->size() >= 2",
     "Z40MaxInt8: t1 has 1 elements, needs 2"},
    {"Z40SigmoidInt8", {{1, 1, 1, 3}}, "values.size() >= 3",
     "Z40SigmoidInt8: attribute INPUTSCALE has 1 values, needs 3"},
    {"Z40BatchNormScaleInt8", {{1, 1, 1, 2}}, "values.size() >= 2",
     "Z40BatchNormScaleInt8: attribute scale has 1 values, needs 2"},
    {"Z40PowInt8", {{1, 2}, {0}}, "tensor->data_type() == DT_FLOAT",
     "Z40PowInt8 reads t1 as float but it holds type 0"},
    {"Z40GlobalAvgPoolInt8", {{1, 2, 2, 3}}, "values.size() >= 3",
     "Z40GlobalAvgPoolInt8: attribute POOLSCALE has 1 values, needs 3"},
    {"Z40ConcatInt8", {{1, 1, 1, 1}, {1, 1, 1, 1}}, "values.size() >= 2",
     "Z40ConcatInt8: attribute DEQSCALE has 1 values, needs 2", "QSCALE=[1.,1.]"},
    {"Z40ConcatInt8", {{1, 1, 1, 1}, {1, 1, 2, 1}}, "inputs agree off the axis",
     "Z40ConcatInt8: input 1 differs from input 0 off the concatenation axis"},
    // Attribute values the operators refuse.
    {"Z40ChannelShuffleInt8", {{1, 1, 1, 6}}, "channels % groups == 0",
     "Z40ChannelShuffleInt8: 6 channels in 4 groups", "groups=4"},
    {"Z40ChannelShuffleInt8", {{1, 1, 1, 6}}, "channels % groups == 0",
     "Z40ChannelShuffleInt8: 6 channels in 0 groups", "groups=0"},
    {"Z40AvgPoolInt8", {{1, 2, 2, 1}}, "op_param_->ksize.size() > 2",
     "Wrong kernel size in Z40AvgPoolInt8!!!", "ksize=[1,2]"},
    {"Z40AvgPoolInt8", {{1, 2, 2, 1}}, "op_param_->strides.size() > 2",
     "Wrong strides size in Z40AvgPoolInt8!!!", "strides=[1,2]"},
    {"Z40MaxPoolInt8", {{1, 2, 2, 1}}, "op_param_->ksize.size() > 2",
     "Wrong kernel size in Z40MaxPoolInt8!!!", "ksize=[2]"},
    {"Z40AvgPoolInt8", {{1, 2, 2, 1}}, "false", "Worng padding type.", "padding='FULL'"},
    {"Z40MaxPoolInt8", {{1, 2, 2, 1}}, "kernel <= padded input",
     "Z40MaxPoolInt8: the window is larger than the padded input", "ksize=[1,5,5,1]"},
    {"Z40PadInt8", {{1, 2, 2, 1}}, "op_param_->mode == \"constant\"",
     "The mode only support constant in Z40PadInt8!!!", "mode='reflect'"},
    {"Z40SliceInt8", {{1, 2, 2, 1}}, "slice extent > 0", "Z40SliceInt8: empty slice on axis 0"},
    {"Z40Unpool2DInt8", {{1, 2, 2, 1}}, "kernel_size == [kernel_h, kernel_w] > 0",
     "Z40Unpool2DInt8: kernel_size is not two positive factors", "kernel_size=[2,0]"},
    {"Z40SpaceToDepthInt8", {{1, 2, 2, 1}}, "output_shape == space_to_depth(input_shape)",
     "Z40SpaceToDepthInt8: output_shape does not fit the input by a square block", "output_shape=[1,1,1,3]"},
};
// clang-format on

// Those worded alike: an input without a buffer, or of a rank other than four.
std::vector<CheckCase> checks() {
  std::vector<CheckCase> rows(std::begin(kChecks), std::end(kChecks));
  for (std::string op : {"Z40Quantize", "Z40Dequantize", "Z40KovraFakeQuantFeature", "Z40LeakyReluInt8",
                         "Z40FlattenInt8", "Z40SigmoidInt8", "Z40TanhInt8", "Z40EltwiseAddInt8",
                         "Z40EltwiseSubInt8", "Z40EltwiseMulInt8", "Z40PowInt8"}) {
    const bool two = op.find("Eltwise") != std::string::npos || op == "Z40PowInt8";
    rows.push_back({op, two ? std::vector<std::vector<int>>{{}, {1}} : std::vector<std::vector<int>>{{}},
                    "input_tensor->shape().size() > 0", "The shape of input is 0 in " + op + "!!!"});
  }
  for (std::string op : {"Z40CloneInt8", "Z40AvgPoolInt8", "Z40MaxPoolInt8", "Z40ResizeBilinearInt8",
                         "Z40ResizeNearestNeighborInt8", "Z40Unpool2DInt8", "Z40SpaceToDepthInt8"}) {
    rows.push_back(
        {op, {{1, 2, 2}}, "input_tensor->shape().size() == 4", "Wrong input shape in " + op + "!!!"});
    rows.push_back({op, {{2, 2}}, "input_tensor->shape().size() == 4", "Wrong input shape in " + op + "!!!"});
  }
  return rows;
}

class InputCheckTest : public ::testing::TestWithParam<CheckCase> {};

TEST_P(InputCheckTest, FailsWithTheOperatorsMessage) {
  const CheckCase& c = GetParam();
  const NodeDef node = full_node(c.op, c.changes);
  Inputs inputs(c.shapes);
  const std::string failure = error_text([&] {
    auto op = make_op(c.op);
    op->parse_parameter(node);
    infer_and_execute(op.get(), inputs.ptrs);
  });
  EXPECT_EQ(failure, c.condition.empty() ? c.message : check_text(c.condition, c.message));
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, InputCheckTest, ::testing::ValuesIn(checks()));

// A caller that runs execute on inputs other than those inference_shape
// prepared for (larger, or with other channels) is stopped before the
// prepared factors or geometry are applied to them.
struct ChangedInputCase {
  const char* op;
  std::vector<std::vector<int>> prepared;
  std::vector<std::vector<int>> run;
  const char* message;
  const char* changes = "";
};
void PrintTo(const ChangedInputCase& c, std::ostream* os) { *os << c.message; }

const char* const kIdentityLists =
    "perm=[0,1,2,3] starts=[0,0,0,0] kernel_size=[1,1] QSCALE=[1.,1.] DEQSCALE=[1.,1.]";

// clang-format off
const ChangedInputCase kChangedInputs[] = {
    {"Z40Quantize", {{1, 2, 1}}, {{1, 3, 1}},
     "Z40Quantize: t0 has shape [1, 3, 1] but was prepared for [1, 2, 1]"},
    {"Z40Dequantize", {{1, 2, 1}}, {{2, 2, 1}},
     "Z40Dequantize: t0 has shape [2, 2, 1] but was prepared for [1, 2, 1]"},
    {"Z40EltwiseAddInt8", {{1, 2, 1}, {1, 2, 1}}, {{1, 2, 1}, {1}},
     "Z40EltwiseAddInt8: t1 has shape [1] but was prepared for [1, 2, 1]"},
    {"Z40EltwiseSubInt8", {{1, 2, 1}, {1}}, {{1, 4, 1}, {1}},
     "Z40EltwiseSubInt8: t0 has shape [1, 4, 1] but was prepared for [1, 2, 1]"},
    {"Z40EltwiseMulInt8", {{1, 2, 1}, {1}}, {{1, 2, 1}, {2}},
     "Z40EltwiseMulInt8: t1 has shape [2] but was prepared for [1]"},
    {"Z40MaxInt8", {{1, 1, 2, 1}, {1, 1, 2, 1}}, {{1, 1, 4, 1}, {1, 1, 4, 1}},
     "Z40MaxInt8: t0 has shape [1, 1, 4, 1] but was prepared for [1, 1, 2, 1]"},
    {"Z40PowInt8", {{2}, {1}}, {{3}, {1}}, "Z40PowInt8: t0 has shape [3] but was prepared for [2]"},
    {"Z40SigmoidInt8", {{1, 2, 1}}, {{1, 2, 2}},
     "Z40SigmoidInt8: t0 has shape [1, 2, 2] but was prepared for [1, 2, 1]"},
    {"Z40TanhInt8", {{1, 2, 1}}, {{1, 3, 1}},
     "Z40TanhInt8: t0 has shape [1, 3, 1] but was prepared for [1, 2, 1]"},
    {"Z40CloneInt8", {{1, 1, 1, 1}}, {{1, 2, 1, 1}},
     "Z40CloneInt8: t0 has shape [1, 2, 1, 1] but was prepared for [1, 1, 1, 1]"},
    {"Z40LeakyReluInt8", {{2}}, {{3}}, "Z40LeakyReluInt8: t0 has shape [3] but was prepared for [2]"},
    {"Z40FlattenInt8", {{1, 2}}, {{2, 2}}, "Z40FlattenInt8: t0 has shape [2, 2] but was prepared for [1, 2]"},
    {"Z40ChannelShuffleInt8", {{1, 1, 1, 2}}, {{1, 2, 1, 2}},
     "Z40ChannelShuffleInt8: t0 has shape [1, 2, 1, 2] but was prepared for [1, 1, 1, 2]"},
    {"Z40AvgPoolInt8", {{1, 2, 2, 1}}, {{1, 3, 3, 1}},
     "Z40AvgPoolInt8: t0 has shape [1, 3, 3, 1] but was prepared for [1, 2, 2, 1]"},
    {"Z40MaxPoolInt8", {{1, 2, 2, 1}}, {{1, 2, 2, 2}},
     "Z40MaxPoolInt8: t0 has shape [1, 2, 2, 2] but was prepared for [1, 2, 2, 1]"},
    {"Z40GlobalAvgPoolInt8", {{1, 2, 2, 1}}, {{1, 4, 4, 1}},
     "Z40GlobalAvgPoolInt8: t0 has shape [1, 4, 4, 1] but was prepared for [1, 2, 2, 1]"},
    {"Z40ResizeBilinearInt8", {{1, 2, 2, 1}}, {{1, 3, 3, 1}},
     "Z40ResizeBilinearInt8: t0 has shape [1, 3, 3, 1] but was prepared for [1, 2, 2, 1]"},
    {"Z40ResizeNearestNeighborInt8", {{1, 2, 2, 1}}, {{1, 2, 3, 1}},
     "Z40ResizeNearestNeighborInt8: t0 has shape [1, 2, 3, 1] but was prepared for [1, 2, 2, 1]"},
    {"Z40Unpool2DInt8", {{1, 2, 2, 1}}, {{2, 2, 2, 1}},
     "Z40Unpool2DInt8: t0 has shape [2, 2, 2, 1] but was prepared for [1, 2, 2, 1]", kIdentityLists},
    {"Z40ConcatInt8", {{1, 1, 1, 1}, {1, 1, 1, 1}}, {{1, 1, 1, 1}, {1, 1, 1, 3}},
     "Z40ConcatInt8: t1 has shape [1, 1, 1, 3] but was prepared for [1, 1, 1, 1]", kIdentityLists},
    {"Z40SliceInt8", {{1, 1, 1, 1}}, {{1, 1, 1, 2}},
     "Z40SliceInt8: t0 has shape [1, 1, 1, 2] but was prepared for [1, 1, 1, 1]", kIdentityLists},
    {"Z40TransposeInt8", {{1, 1, 1, 1}}, {{1, 1, 2, 1}},
     "Z40TransposeInt8: t0 has shape [1, 1, 2, 1] but was prepared for [1, 1, 1, 1]", kIdentityLists},
    {"Z40ReshapeInt8", {{1, 1, 1, 1}}, {{2, 1, 1, 1}},
     "Z40ReshapeInt8: t0 has shape [2, 1, 1, 1] but was prepared for [1, 1, 1, 1]"},
    {"Z40SpaceToDepthInt8", {{1, 1, 1, 1}}, {{1, 2, 2, 1}},
     "Z40SpaceToDepthInt8: t0 has shape [1, 2, 2, 1] but was prepared for [1, 1, 1, 1]"},
    // execute without inference_shape: nothing was prepared.
    {"Z40Quantize", {}, {{1, 2, 1}}, "Z40Quantize: t0 has shape [1, 2, 1] but was prepared for []"},
};
// clang-format on

class ChangedInputTest : public ::testing::TestWithParam<ChangedInputCase> {};

TEST_P(ChangedInputTest, ExecuteStopsBeforeUsingThePreparedRecord) {
  const ChangedInputCase& c = GetParam();
  auto op = make_op(c.op);
  op->parse_parameter(full_node(c.op, c.changes));
  Inputs prepared(c.prepared), changed(c.run);
  std::vector<int> shape;
  if (!c.prepared.empty()) op->inference_shape(prepared.ptrs, shape);
  // An output large enough for anything the operator could write.
  Tensor output = make_tensor({1 << 12}, std::vector<float>(1 << 12, 0.0f));
  EXPECT_EQ(error_text([&] { op->execute(changed.ptrs, &output); }),
            check_text("input->shape() == prepared", c.message));
  // The prepared inputs still run.
  if (!c.prepared.empty()) op->execute(prepared.ptrs, &output);
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, ChangedInputTest, ::testing::ValuesIn(kChangedInputs));

TEST(ChangedInputTest, ConcatInputCountAndAShortOutput) {
  auto concat = make_op("Z40ConcatInt8");
  concat->parse_parameter(full_node("Z40ConcatInt8", "QSCALE=[1.,1.,1.] DEQSCALE=[1.,1.,1.]"));
  Inputs two({{1, 1, 1, 1}, {1, 1, 1, 1}}), three({{1, 1, 1, 1}, {1, 1, 1, 1}, {1, 1, 1, 1}});
  std::vector<int> shape;
  concat->inference_shape(two.ptrs, shape);
  Tensor output = make_tensor({3}, {0, 0, 0});
  EXPECT_EQ(error_text([&] { concat->execute(three.ptrs, &output); }),
            check_text("inputs.size() == prepared inputs", "Z40ConcatInt8: 3 inputs but prepared for 2"));

  auto quantize = make_op("Z40Quantize");
  quantize->parse_parameter(full_node("Z40Quantize"));
  Inputs x({{1, 4, 1}});
  quantize->inference_shape(x.ptrs, shape);
  Tensor short_output = make_tensor({2}, {0, 0}, "out");
  EXPECT_EQ(error_text([&] { quantize->execute(x.ptrs, &short_output); }),
            check_text("tensor->size() >= 4", "Z40Quantize: out has 2 elements, needs 4"));
}

}  // namespace
}  // namespace kovra_test
