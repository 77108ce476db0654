#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "op_attr.h"
#include "op_executor.h"
#include "op_registry.h"
#include "support/test_ops.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::AttrValue;
using kovra::trenkit::TensorProto;
using namespace kovra::trenkit::kovraexecutor;

OpExecutor* create_other() { return new TestSplitOpExecutor(); }

TEST(RegistryTest, DuplicateRegistrationIsReportedOnceAndFirstCreatorStays) {
  testing::internal::CaptureStdout();
  Holder::add_op_crreator("TestSum", create_other);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed, "TestSum had already been registered. \n");
  EXPECT_EQ(Holder::new_op_creator().at("TestSum"), &create_test_sum);
}

TEST(RegistryTest, EveryPlaceholderAndTestOperatorIsRegistered) {
  const auto& creators = Holder::new_op_creator();
  const std::vector<std::string> names = registered_op_names();
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(names.size(), creators.size());
  for (const char* name : {"TestSum", "TestSplit", "ZxxNOp", "ZxxConst", "Z40QuantizeMatMul"}) {
    EXPECT_EQ(creators.count(name), 1u) << name;
    EXPECT_TRUE(is_registered_op(name)) << name;
    EXPECT_EQ(std::count(names.begin(), names.end(), name), 1) << name;
  }
  EXPECT_FALSE(is_registered_op("Const"));
  EXPECT_FALSE(is_registered_op("Z40NoSuchOp"));
  // Only the weight-rounding operator is computed from its weights alone.
  EXPECT_TRUE(is_const_op("Z40AdaRoundQuantizeWeight"));
  EXPECT_FALSE(is_const_op("Z40Conv2D"));
  EXPECT_FALSE(is_const_op("Const"));
}

NodeDef node_with_tensor_attr(kovra::trenkit::DataType type, const std::vector<int>& shape,
                              const std::string& content) {
  NodeDef node;
  node.set_name("n");
  TensorProto* tensor = (*node.mutable_attr())["t"].mutable_tensor();
  tensor->set_dtype(type);
  for (int d : shape) tensor->mutable_tensor_shape()->add_dim()->set_size(d);
  tensor->set_tensor_content(content);
  return node;
}

std::string bytes_of(const std::vector<float>& values) {
  return std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
}

TEST(TensorContentTest, CopiesRawBytesWithSpareRoomAndNullWhenEmpty) {
  TensorProto tensor;
  float* data = reinterpret_cast<float*>(0x1);
  get_tensor_content<float>(&tensor, &data);
  EXPECT_EQ(data, nullptr);
  tensor.set_tensor_content(bytes_of({1.5f, -2.0f}));
  get_tensor_content<float>(&tensor, &data);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data[0], 1.5f);
  EXPECT_EQ(data[1], -2.0f);
  std::memset(reinterpret_cast<char*>(data) + 8, 0, 128);  // the spare bytes are ours to touch
  std::free(data);
  std::vector<int> shape;
  tensor.mutable_tensor_shape()->add_dim()->set_size(2);
  tensor.mutable_tensor_shape()->add_dim()->set_size(5000000000LL);
  get_tensor_shape(&tensor, shape);
  EXPECT_EQ(shape[0], 2);
  EXPECT_EQ(shape[1], static_cast<int>(5000000000LL));  // narrowed to 32 bits
}

class ParserProbe : public TestSumOpExecutor {};

TEST(TensorParameterParserTest, ReadsFloatAndIntTensorsRaw) {
  ParserProbe probe;
  std::vector<float> floats;
  EXPECT_TRUE(probe._tensor_parameter_parser(
      node_with_tensor_attr(kovra::trenkit::DT_FLOAT, {3}, bytes_of({1, 2, 3})), "t", floats));
  EXPECT_EQ(floats, (std::vector<float>{1, 2, 3}));
  std::vector<int> ints;
  const std::vector<int> stored = {7, -8};
  EXPECT_TRUE(probe._tensor_parameter_parser(
      node_with_tensor_attr(kovra::trenkit::DT_INT32, {2},
                            std::string(reinterpret_cast<const char*>(stored.data()), 8)),
      "t", ints));
  EXPECT_EQ(ints, stored);
  // A scalar shape counts one element.
  std::vector<float> scalar;
  EXPECT_TRUE(probe._tensor_parameter_parser(
      node_with_tensor_attr(kovra::trenkit::DT_FLOAT, {}, bytes_of({4.25f})), "t", scalar));
  EXPECT_EQ(scalar, (std::vector<float>{4.25f}));
}

TEST(TensorParameterParserTest, Int16IntoFloatsFillsHalfTheBytes) {
  ParserProbe probe;
  std::vector<float> values = {};
  const short stored[4] = {1, 2, 3, 4};
  ASSERT_TRUE(probe._tensor_parameter_parser(
      node_with_tensor_attr(kovra::trenkit::DT_INT16, {4}, std::string(reinterpret_cast<const char*>(stored), 8)),
      "t", values));
  ASSERT_EQ(values.size(), 4u);
  EXPECT_EQ(std::memcmp(values.data(), stored, 8), 0);
}

TEST(TensorParameterParserTest, MissingNonTensorAndUnsupportedType) {
  ParserProbe probe;
  std::vector<float> values = {9.0f};
  testing::internal::CaptureStdout();
  EXPECT_FALSE(probe._tensor_parameter_parser(parse_text_node("name: \"conv\""), "t", values));
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Error: conv value get failed!!!"), std::string::npos);
  EXPECT_FALSE(probe._tensor_parameter_parser(parse_text_node("name: \"c\" attr { key: \"t\" value { f: 1 } }"),
                                              "t", values));
  EXPECT_EQ(values, std::vector<float>{9.0f});
  testing::internal::CaptureStdout();
  EXPECT_TRUE(probe._tensor_parameter_parser(node_with_tensor_attr(kovra::trenkit::DT_INT8, {3}, "abc"), "t", values));
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Error: 6 adding..."), std::string::npos);
  EXPECT_EQ(values.size(), 3u);
}

TEST(TensorParameterParserTest, ShortContentNeverOverreads) {
  ParserProbe probe;
  std::vector<float> values;
  // Shape says 4 floats, content holds 1: only the stored bytes are copied.
  EXPECT_TRUE(probe._tensor_parameter_parser(
      node_with_tensor_attr(kovra::trenkit::DT_FLOAT, {4}, bytes_of({3.0f})), "t", values));
  EXPECT_EQ(values[0], 3.0f);
}

TEST(AttrReaderTest, ScalarRuleOfTheFloatOperators) {
  NodeDef node = parse_text_node(R"(
    attr { key: "f" value { f: 2.75 } }
    attr { key: "neg" value { f: -2.75 } }
    attr { key: "i" value { i: 5 } }
    attr { key: "s" value { s: "SAME" } }
    attr { key: "l" value { list { i: [1, 2, 3] } } }
    attr { key: "lf" value { list { f: [0.5, 0.25] } } })");
  float f = -1;
  EXPECT_TRUE(read_float(node, "f", f));
  EXPECT_EQ(f, 2.75f);
  EXPECT_TRUE(read_float(node, "i", f));  // an integer-valued attribute of another kind reads as 0
  EXPECT_EQ(f, 0.0f);
  f = 7;
  EXPECT_FALSE(read_float(node, "absent", f));
  EXPECT_EQ(f, 7.0f);
  int n = -1;
  EXPECT_TRUE(read_float_as_int(node, "neg", n));
  EXPECT_EQ(n, -2);
  EXPECT_TRUE(read_int(node, "i", n));
  EXPECT_EQ(n, 5);
  EXPECT_TRUE(read_int(node, "f", n));
  EXPECT_EQ(n, 0);
  std::string s;
  EXPECT_TRUE(read_string(node, "s", s));
  EXPECT_EQ(s, "SAME");
  std::vector<int> list;
  EXPECT_TRUE(read_int_list(node, "l", list));
  EXPECT_EQ(list, (std::vector<int>{1, 2, 3}));
  EXPECT_TRUE(read_int_list(node, "i", list));  // a single i is not a list
  EXPECT_TRUE(list.empty());
  std::vector<float> floats;
  EXPECT_TRUE(read_float_list(node, "lf", floats));
  EXPECT_EQ(floats, (std::vector<float>{0.5f, 0.25f}));
}

TEST(AttrReaderDeathTest, RequiredAttributeMessage) {
  EXPECT_CHECK_FAILED(require_attr(false, "Do not find the alpha in FloatZ40LeakyRelu!!!"), "suc",
                      "Do not find the alpha in FloatZ40LeakyRelu!!!");
}

}  // namespace
}  // namespace kovra_test
