// The model check: every problem and warning it reports, with the node and
// operator it names, and the shapes it infers without running anything.

#include "model_check.h"

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "graph_topology.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::check_model;
using kovra::trenkit::kovraexecutor::ModelIssue;
using kovra::trenkit::kovraexecutor::ModelReport;
using kovra::trenkit::kovraexecutor::topological_order;

std::string text(const std::vector<ModelIssue>& issues) {
  std::string out;
  for (const ModelIssue& i : issues) out += i.node + "|" + i.op + "|" + i.message + "\n";
  return out;
}

const char* const kInput = R"(node { name: "input" op: "ZxxNOp" } )";
const char* const kWeight = R"(node { name: "w" op: "Const" attr { key: "value" value { tensor {
  dtype: DT_FLOAT tensor_shape { dim { size: 2 } } tensor_content: "CONTENT" } } } } )";

std::string weight(const std::string& content) {
  std::string model = kWeight;
  model.replace(model.find("CONTENT"), 7, content);
  return model;
}

struct CheckCase {
  const char* label;
  std::string model;     // appended to the input node
  std::string problems;  // node|op|message lines
  std::string warnings;
};

class ModelCheckTest : public ::testing::TestWithParam<CheckCase> {};

TEST_P(ModelCheckTest, ReportsExactly) {
  const ModelReport report = check_model(parse_text_graph(kInput + GetParam().model));
  EXPECT_EQ(text(report.problems), GetParam().problems);
  EXPECT_EQ(text(report.warnings), GetParam().warnings);
}

const std::string kEight = R"(\000\000\200?\000\000\200?)";

INSTANTIATE_TEST_SUITE_P(
    Kinds, ModelCheckTest,
    ::testing::Values(
        CheckCase{"Clean", R"(node { name: "f" op: "ZxxFlatten" input: "input" })", "", ""},
        CheckCase{"Nameless", R"(node { op: "ZxxFlatten" input: "input" })",
                  "|ZxxFlatten|the model has a node without a name (op ZxxFlatten)\n", ""},
        CheckCase{"Duplicate", R"(node { name: "input" op: "ZxxFlatten" })",
                  "input|ZxxFlatten|the node name 'input' appears twice\n", ""},
        CheckCase{"UnknownOp", R"(node { name: "f" op: "Z40Frob" input: "input" })",
                  "f|Z40Frob|the model uses operators this build does not have: Z40Frob\n", ""},
        // The lookup rule: "abcd:0" is looked up as "abc".
        CheckCase{"DanglingInput", R"(node { name: "abcd" op: "ZxxFlatten" input: "input" }
                                      node { name: "f" op: "ZxxFlatten" input: "abcd:0" })",
                  "f|ZxxFlatten|node 'f' reads 'abcd:0', which is not in the model\n", ""},
        CheckCase{"Cycle", R"(node { name: "a" op: "ZxxFlatten" input: "input" input: "b" }
                              node { name: "b" op: "ZxxFlatten" input: "a" }
                              node { name: "c" op: "ZxxFlatten" input: "b" })",
                  "a|ZxxFlatten|the model has a cycle among the nodes: a, b, c\n", ""},
        CheckCase{"ConstExact",
                  weight(kEight) + R"(node { name: "f" op: "ZxxFlatten" input: "input" input: "w" })", "",
                  ""},
        CheckCase{"ConstShort", weight(R"(\000\000\200?)"),
                  "w|Const|constant 'w' holds 4 bytes of data but its shape needs 8\n", ""},
        CheckCase{"ConstLong", weight(kEight + R"(\001)"), "",
                  "w|Const|constant 'w' holds 9 bytes of data but its shape needs 8; the rest is ignored\n"},
        // A 3x3 kernel declared 1x1: never silently truncated.
        CheckCase{"ConstKernelLonger", R"(node { name: "k" op: "Const" attr { key: "value" value { tensor {
          dtype: DT_FLOAT tensor_shape { dim { size: 1 } dim { size: 1 } }
          tensor_content: "000011112222333344445555666677778888" } } } })",
                  "",
                  "k|Const|constant 'k' holds 36 bytes of data but its shape needs 4; the rest is ignored\n"},
        CheckCase{"ExtraInputs",
                  weight(kEight) + R"(node { name: "r" op: "Z40Relu" input: "input" input: "w" })", "",
                  "r|Z40Relu|node 'r' has 2 inputs but Z40Relu reads 1; the rest would be ignored\n"},
        CheckCase{"ExtraInputsOfPad",
                  weight(kEight) + R"(node { name: "p" op: "Z40Pad" input: "input" input: "w"
          attr { key: "output_shape" value { list { i: 1 } } } })",
                  "", "p|Z40Pad|node 'p' has 2 inputs but Z40Pad reads 1; the rest would be ignored\n"},
        CheckCase{"ConstNoValue", R"(node { name: "w" op: "Const" })",
                  "w|Const|constant 'w' has no tensor attribute \"value\"\n", ""},
        CheckCase{
            "ConstBadType",
            R"(node { name: "w" op: "Const" attr { key: "value" value { tensor { dtype: DT_DOUBLE } } } })",
            "w|Const|constant 'w' has unsupported element type 2\n", ""},
        CheckCase{"ConstBadShape", R"(node { name: "w" op: "Const" attr { key: "value" value { tensor {
                    dtype: DT_FLOAT tensor_shape { dim { size: -2 } } } } } })",
                  "w|Const|constant 'w' has an invalid shape\n", ""},
        CheckCase{"AttributeParse", R"(node { name: "q" op: "Z40QuantizeAdd" input: "input" })",
                  "q|Z40QuantizeAdd|Op: q have no output bitwidth!\n", ""},
        CheckCase{"UnreadAttribute", R"(node { name: "f" op: "ZxxFlatten" input: "input"
                                         attr { key: "colour" value { i: 1 } } })",
                  "", "f|ZxxFlatten|the attribute \"colour\" is read by no operator\n"},
        // Read as 0: the operator reads a float, the model holds an integer.
        CheckCase{"AttributeInAnotherEncoding", R"(node { name: "h" op: "Z40HardSwish" input: "input"
                                                    attr { key: "add_scalar_value" value { i: 3 } }
                                                    attr { key: "mul_scalar_value" value { f: 6 } } })",
                  "",
                  "h|Z40HardSwish|the attribute \"add_scalar_value\" holds an integer but Z40HardSwish reads "
                  "a float; it reads as 0 or empty\n"},
        CheckCase{"UnknownActionType", R"(node { name: "r" op: "Z40Relu" input: "input"
                                           attr { key: "ActionType" value { s: "relu" } } })",
                  "",
                  "r|Z40Relu|the attribute \"ActionType\" is read by no operator\n"
                  "r|Z40Relu|the ActionType \"relu\" is recognised by no operator\n"},
        // Everything at once: the check goes on after the first problem.
        CheckCase{"Several", R"(node { op: "ZxxFlatten" } node { name: "f" op: "Z40Frob" input: "zz" })",
                  "|ZxxFlatten|the model has a node without a name (op ZxxFlatten)\n"
                  "f|Z40Frob|node 'f' reads 'zz', which is not in the model\n"
                  "f|Z40Frob|the model uses operators this build does not have: Z40Frob\n",
                  ""}),
    [](const ::testing::TestParamInfo<CheckCase>& info) { return std::string(info.param.label); });

TEST(ModelCheck, InfersShapesWithoutRunning) {
  const std::string model = std::string(kInput) + R"(
    node { name: "f" op: "Z40Relu" input: "input" }
    node { name: "c" op: "Z40Concat" input: "f" input: "input" attr { key: "axis" value { i: 3 } } })";
  const ModelReport report = check_model(parse_text_graph(model), {{"input", {1, 4, 4, 3}}});
  EXPECT_EQ(text(report.problems), "");
  std::string shapes;
  for (const auto& s : report.shapes) {
    shapes += s.node + ":";
    for (int d : s.shape) shapes += std::to_string(d) + ",";
  }
  EXPECT_EQ(shapes, "f:1,4,4,3,c:1,4,4,6,");
  EXPECT_EQ(text(check_model(parse_text_graph(model), {{"image", {1, 2}}}).problems),
            "image||a shape is given for 'image', which is no node of the model\n");
  // Without shapes nothing is inferred.
  EXPECT_TRUE(check_model(parse_text_graph(model)).shapes.empty());
}

TEST(ModelCheck, ShapeInferenceFailureNamesTheNode) {
  const std::string model = std::string(kInput) + R"(node { name: "c" op: "Z40Concat" input: "input" })";
  const ModelReport report = check_model(parse_text_graph(model), {{"input", {1, 2, 2, 1}}});
  EXPECT_EQ(
      text(report.problems),
      "c|Z40Concat|Check failed: inputs.size() > 1==>\"Z40Concat operator inputs must greater than 1.\"\n");
}

TEST(ModelCheck, TopologicalOrderFollowsTheModelAmongReadyNodes) {
  // 0 <- 2, 1 <- 2 reversed: 2 reads 0 and 1; 3 reads nothing; 4 and 5 read each other.
  std::vector<size_t> cyclic;
  const std::vector<size_t> order = topological_order({{}, {}, {0, 1}, {}, {5}, {4}}, &cyclic);
  EXPECT_EQ(order, (std::vector<size_t>{0, 1, 2, 3}));
  EXPECT_EQ(cyclic, (std::vector<size_t>{4, 5}));
}

// Attributes move into the encoding their operator reads when the value
// converts exactly; the others stay and are named.
TEST(ModelCheck, FitsAttributeEncodings) {
  struct Case {
    const char* attrs;     // of a Z40Slice node, whose attributes are all read
    const char* expected;  // the attributes afterwards
    const char* left;
  } cases[] = {
      {R"(attr { key: "axis" value { i: 2 } })", R"(attr { key: "axis" value { f: 2 } })", ""},
      {R"(attr { key: "axis" value { b: true } })", R"(attr { key: "axis" value { f: 1 } })", ""},
      {R"(attr { key: "axis" value { i: 16777217 } })", R"(attr { key: "axis" value { i: 16777217 } })",
       "the attribute \"axis\" holds an integer but Z40Slice reads a float; it reads as 0 or empty\n"},
      {R"(attr { key: "axis" value { s: "2" } })", R"(attr { key: "axis" value { s: "2" } })",
       "the attribute \"axis\" holds a string but Z40Slice reads a float; it reads as 0 or empty\n"},
      {R"(attr { key: "split" value { list { f: 1 f: -4 } } })",
       R"(attr { key: "split" value { list { i: 1 i: -4 } } })", ""},
      {R"(attr { key: "split" value { list { f: 1.5 } } })",
       R"(attr { key: "split" value { list { f: 1.5 } } })",
       "the attribute \"split\" holds a float list but Z40Slice reads an int list; it reads as 0 or empty\n"},
      // Kept: read in the encoding it holds, or read by nobody.
      {R"(attr { key: "split" value { list { } } } attr { key: "colour" value { f: 1 } })",
       R"(attr { key: "colour" value { f: 1 } } attr { key: "split" value { list { } } })", ""},
  };
  const std::string required = R"(attr { key: "output_shape" value { list { i: 1 } } }
      attr { key: "starts" value { list { i: 0 } } } attr { key: "ends" value { list { i: 1 } } } )";
  for (const Case& c : cases) {
    const std::string head = R"(name: "s" op: "Z40Slice" )";
    kovra::trenkit::NodeDef node, expected;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(head + required + c.attrs, &node)) << c.attrs;
    ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(head + required + c.expected, &expected));
    std::string left;
    for (const std::string& message : kovra::trenkit::kovraexecutor::fit_attribute_encodings(node)) {
      left += message + "\n";
    }
    EXPECT_EQ(left, c.left) << c.attrs;
    EXPECT_EQ(node.DebugString(), expected.DebugString()) << c.attrs;
  }
}

TEST(ModelCheck, EveryExampleModelIsClean) {
  int models = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::string(std::getenv("KOVRA_SOURCE_DIR")) + "/examples")) {
    if (entry.path().extension() != ".pbtxt") continue;
    std::ifstream file(entry.path());
    std::stringstream text_model;
    text_model << file.rdbuf();
    const ModelReport report = check_model(parse_text_graph(text_model.str()), {{"input", {1, 8, 8, 3}}});
    EXPECT_EQ(text(report.problems) + text(report.warnings), "") << entry.path();
    EXPECT_FALSE(report.shapes.empty()) << entry.path();
    ++models;
  }
  EXPECT_GE(models, 2);
}

}  // namespace
}  // namespace kovra_test
