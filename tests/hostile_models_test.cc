// Models built to break the executor: attribute values near the limits of an
// int, shapes whose sizes overflow, and runs that would hold more memory than
// allowed. Each is refused with its message, naming the node, before anything
// is sized from the bad value; the few that are valid compute the right result.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "checked_size.h"
#include "errors.h"
#include "graph_executor.h"
#include "model_check.h"
#include "support/test_util.h"

namespace {

using kovra::trenkit::kovraexecutor::check_model;
using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::Error;
using kovra::trenkit::kovraexecutor::ErrorPolicy;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::MessageLevel;
using kovra::trenkit::kovraexecutor::ModelIssue;
using kovra::trenkit::kovraexecutor::ModelReport;
using kovra::trenkit::kovraexecutor::RunPlan;
using kovra::trenkit::kovraexecutor::ScopedErrorPolicy;
using kovra::trenkit::kovraexecutor::set_message_sink;
using kovra::trenkit::kovraexecutor::shape_count;
using kovra_test::check_text;
using kovra_test::make_tensor;
using kovra_test::parse_text_graph;
using kovra_test::tensor_values;

std::string ints(const std::string& key, const std::vector<long long>& values) {
  std::string list;
  for (long long v : values) list += " i: " + std::to_string(v);
  return "attr { key: \"" + key + "\" value { list {" + list + " } } } ";
}

std::string attr_i(const std::string& key, long long value) {
  return "attr { key: \"" + key + "\" value { i: " + std::to_string(value) + " } } ";
}

std::string node(const std::string& name, const std::string& op, const std::string& input,
                 const std::string& attrs) {
  return "node { name: \"" + name + "\" op: \"" + op + "\" input: \"" + input + "\" " + attrs + "} ";
}

const std::string kInput = R"(node { name: "input" op: "ZxxNOp" } )";
const std::string kInt8 = attr_i("output_bitwidth", 8);
const std::string kInt8Pool = kInt8 + attr_i("maxValue", 127) + attr_i("minValue", -128);
const long long kIntMax = 2147483647;

struct HostileCase {
  const char* label;
  std::string nodes;       // after the input node
  std::vector<int> shape;  // of the fed input, counting 0, 1, 2 ...
  long long budget;        // 0: the default
  bool inplace;
  std::string end;       // node whose output a successful run returns
  std::string expected;  // "node|message" of the refusal, or the output values
};

std::string run(const HostileCase& c) {
  const kovra_test::GraphDef graph = parse_text_graph(kInput + c.nodes);
  std::vector<float> values(static_cast<size_t>(shape_count(c.shape)));
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i);
  kovra_test::Tensor input = make_tensor(c.shape, values, "input");
  ScopedErrorPolicy policy(ErrorPolicy::kThrow);
  try {
    GraphExecutor executor(&graph, CPU);
    if (c.budget > 0) executor.set_memory_budget(c.budget);
    executor.set_inplace(c.inplace);
    executor.set_input("input", &input);
    executor.work();
    std::string out;
    for (float v : tensor_values(*executor.get_output_tensor(c.end))) out += std::to_string(v) + " ";
    return out;
  } catch (const Error& e) {
    return e.node() + "|" + e.message();
  }
}

class HostileModelTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileModelTest, RefusedOrRight) { EXPECT_EQ(run(GetParam()), GetParam().expected); }

std::string size_refusal(const std::string& node, const std::string& what, const std::string& op,
                         long long value) {
  return node + "|" +
         check_text("0 <= " + what + " <= 2147483647", op + ": " + what + " is " + std::to_string(value) +
                                                           ", outside the 32-bit size of a tensor");
}

// Three Z40Relu after the input: 64 bytes each on a 1x4x4x1 input.
const std::string kRelus =
    node("r1", "Z40Relu", "input", "") + node("r2", "Z40Relu", "r1", "") + node("r3", "Z40Relu", "r2", "");

// The small model that grew 1x2x2x1 to 1x23000x23000x1 (2116000000 bytes of
// floats) and then ran three Z40Relu on it.
const std::string kGrowingPad =
    node(
        "pad", "Z40Pad", "input",
        ints("output_shape", {1, 23000, 23000, 1}) + ints("pads", {0, 0, 11499, 11499, 11499, 11499, 0, 0})) +
    node("r1", "Z40Relu", "pad", "") + node("r2", "Z40Relu", "r1", "") + node("r3", "Z40Relu", "r2", "");

INSTANTIATE_TEST_SUITE_P(
    Findings, HostileModelTest,
    ::testing::Values(
        // 3 + 2 * (2^31 - 1) wrapped to 1 in an int, which matched output_shape.
        HostileCase{"PadWraps",
                    node("pad", "Z40Pad", "input",
                         ints("output_shape", {1, 1, 2, 1}) + ints("pads", {kIntMax, kIntMax, 0, 0})),
                    {1, 3, 2, 1},
                    0,
                    false,
                    "pad",
                    size_refusal("pad", "padded size", "Z40Pad", 4294967297LL)},
        HostileCase{
            "PadInt8Wraps",
            node("pad", "Z40PadInt8", "input", kInt8 + ints("pads", {0, 0, kIntMax, kIntMax, 0, 0, 0, 0})),
            {1, 3, 2, 1},
            0,
            false,
            "pad",
            size_refusal("pad", "padded size", "Z40PadInt8", 4294967297LL)},
        // Each axis fits, the element count does not.
        HostileCase{"PadInt8CountOverflows",
                    node("pad", "Z40PadInt8", "input",
                         kInt8 + ints("pads", {0, 0, 50000, 50000, 50000, 50000, 0, 0})),
                    {1, 1, 1, 1},
                    0,
                    false,
                    "pad",
                    "pad|" + check_text("0 <= element count of [1,100001,100001,1] <= 2147483647",
                                        "Z40PadInt8: element count of [1,100001,100001,1] is negative or "
                                        "exceeds 2147483647")},
        // A scale of -1e30 made a size of -inf, converted to int unchecked.
        HostileCase{
            "ResizeInt8NegativeHuge",
            node("rs", "Z40ResizeBilinearInt8", "input",
                 kInt8Pool + attr_i("offset", 0) + "attr { key: \"wh_scale\" value { f: -1e30 } } "),
            {1, 2, 2, 1},
            0,
            false,
            "rs",
            "rs|" + check_text("out_h > 0 && out_w > 0",
                               "Z40ResizeBilinearInt8: wh_scale -1000000015047466219876688855040.000000 "
                               "leaves no output")},
        // Sizes saturate at 2^31 - 1; their product once overflowed a long long.
        HostileCase{"ResizeHuge",
                    node("rs", "Z40ResizeBilinear", "input", "attr { key: \"wh_scale\" value { f: 1e30 } } "),
                    {3, 2, 2, 1},
                    0,
                    false,
                    "rs",
                    "rs|" + check_text("0 <= element count of [3,2147483647,2147483647,1] <= 2147483647",
                                       "Z40ResizeBilinear: element count of [3,2147483647,2147483647,1] is "
                                       "negative or exceeds 2147483647")},
        // 1.06e9 elements fit an int, their 4.2e9 bytes do not.
        HostileCase{
            "OutputBytesOverflow",
            node("pad", "Z40Pad", "input",
                 ints("output_shape", {1, 23000, 23000, 2}) +
                     ints("pads", {0, 0, 11499, 11499, 11499, 11499, 0, 0})),
            {1, 2, 2, 2},
            0,
            false,
            "pad",
            "pad|The node:pad inferred an output shape [1,23000,23000,2] of 4232000000 bytes, more than "
            "the 2147483647 a tensor holds"},
        // Window span 3 + 2 * (2^31 - 2) - (2^31 - 1) = 2^31 once overflowed an int.
        HostileCase{"MaxPoolSpan",
                    node("mp", "Z40MaxPool", "input",
                         ints("ksize", {1, kIntMax, 1, 1}) + ints("strides", {1, 1, 1, 1}) +
                             "attr { key: \"padding\" value { s: \"VALID\" } } " +
                             ints("pads", {kIntMax - 1, kIntMax - 1, 0, 0})),
                    {1, 3, 3, 1},
                    0,
                    false,
                    "mp",
                    size_refusal("mp", "pooled size", "Z40MaxPool", 2147483649LL)},
        // A window of (2^31 - 1)^2 cells: its work estimate once overflowed.
        // The one window clipped to the input averages the single pixel.
        HostileCase{"AvgPoolHugeWindow",
                    node("ap", "Z40AvgPool", "input",
                         ints("ksize", {1, kIntMax, kIntMax, 1}) + ints("strides", {1, kIntMax, kIntMax, 1}) +
                             "attr { key: \"padding\" value { s: \"VALID\" } } " +
                             ints("pads", {kIntMax - 1, kIntMax - 1, kIntMax - 1, kIntMax - 1})),
                    {1, 1, 1, 2},
                    0,
                    false,
                    "ap",
                    "0.000000 1.000000 "},
        HostileCase{"MaxPoolInt8Span",
                    node("mp", "Z40MaxPoolInt8", "input",
                         kInt8Pool + ints("ksize", {1, 1, 1, 1}) + ints("strides", {1, 1, 1, 1}) +
                             "attr { key: \"padding\" value { s: \"VALID\" } } " +
                             ints("pads", {kIntMax, kIntMax, 0, 0})),
                    {1, 3, 3, 1},
                    0,
                    false,
                    "mp",
                    size_refusal("mp", "pooled size", "Z40MaxPoolInt8", 4294967297LL)},
        // SAME with a stride near INT_MAX: h + stride - 1 once overflowed; one
        // window over the 3x3 input takes its maximum, 8.
        HostileCase{"MaxPoolInt8SameHugeStride",
                    node("mp", "Z40MaxPoolInt8", "input",
                         kInt8Pool + ints("ksize", {1, 3, 3, 1}) + ints("strides", {1, kIntMax, kIntMax, 1}) +
                             "attr { key: \"padding\" value { s: \"SAME\" } } "),
                    {1, 3, 3, 1},
                    0,
                    false,
                    "mp",
                    "8.000000 "},
        // The product of output_shape once overflowed while it was compared.
        HostileCase{"ReshapeInt8Product",
                    node("rs", "Z40ReshapeInt8", "input",
                         kInt8 + ints("output_shape", {kIntMax, kIntMax, kIntMax, 4})),
                    {1, 2, 2, 1},
                    0,
                    false,
                    "rs",
                    "rs|" + check_text("product(output_shape) == input->size()",
                                       "Z40ReshapeInt8: output_shape does not hold the input's 4 elements")},
        HostileCase{
            "ReshapeProduct",
            node("rs", "Z40Reshape", "input", ints("output_shape", {kIntMax, kIntMax, kIntMax, 4})),
            {1, 2, 2, 1},
            0,
            false,
            "rs",
            "rs|" + check_text("element_count(output_shape) == input->size()",
                               "Z40Reshape: output_shape [2147483647,2147483647,2147483647,4] does not "
                               "hold the 4 elements of input [1,2,2,1]")},
        // A step of INT_MIN was negated in an int; from index 3 backwards it
        // takes the one element 3.
        HostileCase{"SliceInt8MinStep",
                    node("sl", "Z40SliceInt8", "input",
                         kInt8 + ints("output_shape", {1, 1, 1, 1}) + ints("starts", {3}) +
                             ints("ends", {0}) + ints("axes", {1}) + ints("steps", {-2147483648LL})),
                    {1, 4, 1, 1},
                    0,
                    false,
                    "sl",
                    "3.000000 "}),
    [](const ::testing::TestParamInfo<HostileCase>& info) { return std::string(info.param.label); });

// The whole run is bounded, whether it would cross the budget at the first
// node or the last.
const std::vector<HostileCase> kBudgetCases = {
    // The whole run is bounded: the pad alone passes a 1 GiB budget.
    HostileCase{"GrowingPadOverBudget",
                kGrowingPad,
                {1, 2, 2, 1},
                1LL << 30,
                false,
                "r3",
                "pad|The node:pad needs 2116000000 bytes for its output, which brings the run to "
                "2116000004 bytes, over its memory budget of 1073741824"},
    // The input node holds 4 bytes, each Z40Relu 4 bytes per element:
    // 4 + 64 + 64, then r3 would bring 196.
    HostileCase{"ChainOverBudget",
                kRelus,
                {1, 4, 4, 1},
                150,
                false,
                "r3",
                "r3|The node:r3 needs 64 bytes for its output, which brings the run to 196 bytes, over its "
                "memory budget of 150"},
    HostileCase{"ChainAtBudget", kRelus, {1, 2, 1, 1}, 28, false, "r3", "0.000000 1.000000 "},
    HostileCase{"ChainOverBudgetByOne",
                kRelus,
                {1, 2, 1, 1},
                27,
                false,
                "r3",
                "r3|The node:r3 needs 8 bytes for its output, which brings the run to 28 bytes, over its "
                "memory budget of 27"},
    // In place, r1 is freed once r2 has read it, so r3 fits in 20.
    HostileCase{"ChainInPlaceFits", kRelus, {1, 2, 1, 1}, 20, true, "r3", "0.000000 1.000000 "},
    HostileCase{"ChainInPlaceOverBudget",
                kRelus,
                {1, 2, 1, 1},
                19,
                true,
                "r3",
                "r2|The node:r2 needs 8 bytes for its output, which brings the run to 20 bytes, over its "
                "memory budget of 19"},
};

INSTANTIATE_TEST_SUITE_P(Budget, HostileModelTest, ::testing::ValuesIn(kBudgetCases),
                         [](const ::testing::TestParamInfo<HostileCase>& info) {
                           return std::string(info.param.label);
                         });

// The check plans a run's memory as the run counts it, so a run that would
// cross its budget is refused, with the same words, before anything runs.
class PlannedBudgetTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(PlannedBudgetTest, CheckRefusesWhatTheRunWould) {
  const HostileCase& c = GetParam();
  RunPlan plan;
  plan.memory_budget = c.budget;
  plan.inplace = c.inplace;
  const ModelReport report = check_model(parse_text_graph(kInput + c.nodes), {{"input", c.shape}}, plan);
  std::string refusal;
  if (report.over_budget >= 0) {
    const ModelIssue& issue = report.problems[report.over_budget];
    refusal = issue.node + "|" + issue.message;
  }
  EXPECT_EQ(refusal, c.expected.find('|') == std::string::npos ? "" : c.expected);
}

INSTANTIATE_TEST_SUITE_P(Budget, PlannedBudgetTest, ::testing::ValuesIn(kBudgetCases),
                         [](const ::testing::TestParamInfo<HostileCase>& info) {
                           return std::string(info.param.label);
                         });

TEST(MemoryBudget, DefaultAndRefusedValues) {
  const kovra_test::GraphDef graph = parse_text_graph(kInput);
  GraphExecutor executor(&graph, CPU);
  EXPECT_EQ(executor.memory_budget(), 8LL << 30);
  EXPECT_CHECK_ERROR(executor.set_memory_budget(0), "bytes > 0", "The memory budget must be positive, got 0");
  EXPECT_CHECK_ERROR(executor.set_memory_budget(-5), "bytes > 0",
                     "The memory budget must be positive, got -5");
}

// A 3x3 kernel declared 1x1: the executor runs on its first value, and says so.
TEST(LongConstant, WarnsOnLoad) {
  const kovra_test::GraphDef graph =
      parse_text_graph(kInput + R"(node { name: "k" op: "Const" attr { key: "value"
    value { tensor { dtype: DT_FLOAT tensor_shape { dim { size: 1 } dim { size: 1 } }
    tensor_content: "000011112222333344445555666677778888" } } } }
    node { name: "f" op: "ZxxFlatten" input: "input" input: "k" })");
  std::vector<std::string> warnings;
  set_message_sink([&](MessageLevel level, const std::string& text) {
    if (level == MessageLevel::kWarning) warnings.push_back(text);
  });
  { GraphExecutor executor(&graph, CPU); }
  set_message_sink(nullptr);
  EXPECT_EQ(warnings,
            std::vector<std::string>{"The constant node:k holds 36 bytes of data but its shape [1,1] "
                                     "needs 4; the rest is ignored."});
}

TEST(CheckedSize, ShapeCountNeverOverflows) {
  struct Row {
    std::vector<int> shape;
    long long count;
  };
  const Row rows[] = {
      {{}, 1},
      {{2, 3, 4}, 24},
      {{1, 0, 5}, 0},
      {{kIntMax}, kIntMax},
      {{46341, 46341}, -1},  // 2147488281
      {{46340, 46340}, 2147395600},
      {{kIntMax, kIntMax, kIntMax, 3}, -1},
      {{kIntMax, kIntMax, 0}, 0},  // a later zero still empties the shape
      {{2, -1}, -1},
      {{kIntMax, kIntMax, -1}, -1},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(shape_count(row.shape), row.count) << ::testing::PrintToString(row.shape);
  }
}

}  // namespace
