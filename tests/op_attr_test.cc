#include "op_attr.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/int8_graph.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::AttrValue;
using kovra::trenkit::TensorProto;
using kovra::trenkit::kovraexecutor::read_float_list;

// ---- the encodings converters write ----

AttrValue f_attr(float v) {
  AttrValue a;
  a.set_f(v);
  return a;
}

AttrValue i_attr(long long v) {
  AttrValue a;
  a.set_i(v);
  return a;
}

AttrValue float_list(const std::vector<float>& values) {
  AttrValue a;
  for (float v : values) a.mutable_list()->add_f(v);
  return a;
}

TensorProto* float_tensor(AttrValue& a, const std::vector<int>& shape) {
  TensorProto* t = a.mutable_tensor();
  t->set_dtype(kovra::trenkit::DT_FLOAT);
  for (int d : shape) t->mutable_tensor_shape()->add_dim()->set_size(d);
  return t;
}

// A float tensor whose raw content holds `values` (as many as given, whatever the shape).
AttrValue tensor_content(const std::vector<int>& shape, const std::vector<float>& values) {
  AttrValue a;
  float_tensor(a, shape)->set_tensor_content(
      std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float)));
  return a;
}

// A float tensor written through its float_val entries.
AttrValue tensor_vals(const std::vector<int>& shape, const std::vector<float>& values) {
  AttrValue a;
  TensorProto* t = float_tensor(a, shape);
  for (float v : values) t->add_float_val(v);
  return a;
}

NodeDef node_with(const std::vector<std::pair<const char*, AttrValue>>& attrs, const char* name = "bn") {
  NodeDef node;
  node.set_name(name);
  for (const auto& kv : attrs) (*node.mutable_attr())[kv.first] = kv.second;
  return node;
}

struct ListCase {
  const char* label;
  AttrValue attr;
  std::vector<float> expected;
};

std::ostream& operator<<(std::ostream& os, const ListCase& c) { return os << c.label; }

class ReadFloatListTest : public ::testing::TestWithParam<ListCase> {};

TEST_P(ReadFloatListTest, ReadsEveryFloatVectorEncoding) {
  const ListCase& c = GetParam();
  std::vector<float> values = {99.0f};
  EXPECT_TRUE(read_float_list(node_with({{"v", c.attr}}), "v", values));
  EXPECT_EQ(values, c.expected);
}

AttrValue content_and_vals() {
  AttrValue a = tensor_content({2}, {1, 2});
  a.mutable_tensor()->add_float_val(5);
  return a;
}

AttrValue int_tensor() {
  AttrValue a = tensor_content({2}, {1, 2});
  a.mutable_tensor()->set_dtype(kovra::trenkit::DT_INT32);
  return a;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Encodings, ReadFloatListTest,
    ::testing::Values(ListCase{"list", float_list({0.5f, -0.25f}), {0.5f, -0.25f}},
                      ListCase{"tensor_content", tensor_content({3}, {1, 2, 3}), {1, 2, 3}},
                      ListCase{"tensor_content_nhwc_shape", tensor_content({1, 1, 1, 2}, {4, -5}), {4, -5}},
                      ListCase{"tensor_content_scalar_shape", tensor_content({}, {4.25f}), {4.25f}},
                      ListCase{"float_val_each", tensor_vals({3}, {1, 2, 3}), {1, 2, 3}},
                      // one float_val fills the whole shape, as TensorFlow writes a constant
                      ListCase{"float_val_one_fills_shape", tensor_vals({2, 2}, {1.5f}),
                          {1.5f, 1.5f, 1.5f, 1.5f}},
                      ListCase{"float_val_scalar_shape", tensor_vals({}, {7}), {7}},
                      ListCase{"content_wins_over_float_val", content_and_vals(), {1, 2}},
                      ListCase{"tensor_without_values", tensor_vals({3}, {}), {}},
                      ListCase{"zero_sized_tensor", tensor_vals({0}, {3}), {}},
                      // other kinds read as empty, as any attribute of the wrong kind
                      ListCase{"int_tensor", int_tensor(), {}},
                      ListCase{"int_list", [] {AttrValue a; a.mutable_list()->add_i(1); return a;}(), {}},
                      ListCase{"scalar_float", f_attr(2.0f), {}}),
    [](const ::testing::TestParamInfo<ListCase>& info) { return std::string(info.param.label); });
// clang-format on

TEST(ReadFloatListTest, AbsentKeyLeavesTheDefault) {
  std::vector<float> values = {3.0f};
  EXPECT_FALSE(read_float_list(node_with({}), "v", values));
  EXPECT_EQ(values, std::vector<float>{3.0f});
}

struct BadTensorCase {
  const char* label;
  AttrValue attr;
  std::string message;
};

std::ostream& operator<<(std::ostream& os, const BadTensorCase& c) { return os << c.label; }

class ReadFloatListMessageTest : public ::testing::TestWithParam<BadTensorCase> {};

// The default policy prints the line and aborts.
TEST(ReadFloatListDeathTest, DefaultPolicyAborts) {
  std::vector<float> values;
  EXPECT_FATAL(read_float_list(node_with({{"scale", tensor_content({3}, {1})}}), "scale", values),
               "The node:bn attribute scale holds 4 bytes of float tensor content, its shape needs 12");
}

TEST_P(ReadFloatListMessageTest, ContentThatDoesNotFillTheShapeStops) {
  const BadTensorCase& c = GetParam();
  std::vector<float> values;
  EXPECT_ERROR(read_float_list(node_with({{"scale", c.attr}}), "scale", values), c.message);
}

AttrValue odd_bytes() {
  AttrValue a;
  float_tensor(a, {1})->set_tensor_content("abcde");
  return a;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Malformed, ReadFloatListMessageTest,
    ::testing::Values(
        BadTensorCase{"content_shorter_than_shape", tensor_content({3}, {1}),
            "The node:bn attribute scale holds 4 bytes of float tensor content, its shape needs 12"},
        BadTensorCase{"content_longer_than_shape", tensor_content({1}, {1, 2}),
            "The node:bn attribute scale holds 8 bytes of float tensor content, its shape needs 4"},
        BadTensorCase{"content_not_whole_floats", odd_bytes(),
            "The node:bn attribute scale holds 5 bytes of float tensor content, its shape needs 4"},
        BadTensorCase{"float_val_count", tensor_vals({3}, {1, 2}),
            "The node:bn attribute scale holds 2 float values, its shape needs 3"},
        BadTensorCase{"negative_dimension", tensor_vals({-1}, {1}),
            "The node:bn attribute scale has an invalid tensor shape"},
        BadTensorCase{"shape_beyond_int", tensor_vals({65536, 65536}, {1}),
            "The node:bn attribute scale has an invalid tensor shape"}),
    [](const ::testing::TestParamInfo<BadTensorCase>& info) { return std::string(info.param.label); });
// clang-format on

// ---- operators take every encoding, and keep the scalar rules of their family ----

struct OpEncodingCase {
  const char* label;
  const char* op;
  std::vector<std::pair<const char*, AttrValue>> attrs;
  std::vector<int> shape;
  std::vector<float> input;
  std::vector<float> expected;  // exact: every value below is representable
};

std::ostream& operator<<(std::ostream& os, const OpEncodingCase& c) { return os << c.label; }

class OperatorEncodingTest : public ::testing::TestWithParam<OpEncodingCase> {};

TEST_P(OperatorEncodingTest, GivesTheHandWorkedResult) {
  const OpEncodingCase& c = GetParam();
  OneOpModel model(c.op, 1);
  for (const auto& kv : c.attrs) (*model.node()->mutable_attr())[kv.first] = kv.second;
  Tensor x = make_tensor(c.shape, c.input);
  EXPECT_EQ(model.run({&x}), c.expected);
}

// Float batch norm on [1, 1, 2, 3] = 1..6: x * {2, -1, 0.5}[c] + {1, 0, -8}[c].
const std::vector<float> kBnIn = {1, 2, 3, 4, 5, 6};
const std::vector<float> kBnOut = {3, -2, -6.5f, 9, -5, -5};
// Int8 batch norm on [1, 1, 3, 2]: round(x * {0.5, 2}[c] + {1, -3}[c]), at most 20, plus 10.
// 2.5 -> 2; 5; 51 -> 20; 197 -> 20; -49 (no lower bound); -5.
const std::vector<float> kQbnIn = {3, 4, 100, 100, -100, -1};
const std::vector<float> kQbnOut = {12, 15, 30, 30, -39, 5};
// Fake quantization with scale 0.5 and bounds [-128, 127].
const std::vector<float> kFqIn = {0.75f, 100, -100, 0.25f};
const std::vector<float> kFqOut = {1, 63.5f, -64, 0};

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Operators, OperatorEncodingTest,
    ::testing::Values(
        OpEncodingCase{"bn_lists", "Z40BatchNormScale",
            {{"scale", float_list({2, -1, 0.5f})}, {"bias", float_list({1, 0, -8})}}, {1, 1, 2, 3}, kBnIn,
            kBnOut},
        OpEncodingCase{"bn_tensor_content", "Z40BatchNormScale",
            {{"scale", tensor_content({3}, {2, -1, 0.5f})},
             {"bias", tensor_content({1, 1, 1, 3}, {1, 0, -8})}},
            {1, 1, 2, 3}, kBnIn, kBnOut},
        // the bias as a single float_val broadcast over its shape: 1 for every channel
        OpEncodingCase{"bn_float_val", "Z40BatchNormScale",
            {{"scale", tensor_vals({3}, {2, -1, 0.5f})}, {"bias", tensor_vals({3}, {1})}}, {1, 1, 2, 3},
            kBnIn, {3, -1, 2.5f, 9, -4, 4}},
        OpEncodingCase{"bn_int8_lists", "Z40BatchNormScaleInt8",
            {{"scale", float_list({0.5f, 2})}, {"bias", float_list({1, -3})},
             {"offset", i_attr(10)}, {"maxValue", i_attr(20)}},
            {1, 1, 3, 2}, kQbnIn, kQbnOut},
        OpEncodingCase{"bn_int8_tensor_content", "Z40BatchNormScaleInt8",
            {{"scale", tensor_content({2}, {0.5f, 2})}, {"bias", tensor_content({2}, {1, -3})},
             {"offset", i_attr(10)}, {"maxValue", i_attr(20)}},
            {1, 1, 3, 2}, kQbnIn, kQbnOut},
        // bias 1 everywhere: 2.5 -> 2; 9; 51 -> 20; 20; -49; -1; plus 10
        OpEncodingCase{"bn_int8_float_val", "Z40BatchNormScaleInt8",
            {{"scale", tensor_vals({2}, {0.5f, 2})}, {"bias", tensor_vals({2}, {1})},
             {"offset", i_attr(10)}, {"maxValue", i_attr(20)}},
            {1, 1, 3, 2}, kQbnIn, {12, 19, 30, 30, -39, 9}},
        // The integer attributes of the int8 family given as floats read as 0:
        // no zero point, and every code clamped to at most 0.
        OpEncodingCase{"bn_int8_integer_keys_as_floats", "Z40BatchNormScaleInt8",
            {{"scale", float_list({0.5f, 2})}, {"bias", float_list({1, -3})},
             {"offset", f_attr(10)}, {"maxValue", f_attr(20)}},
            {1, 1, 3, 2}, kQbnIn, {0, 0, 0, 0, -49, -5}},
        OpEncodingCase{"fake_quant_integer_bounds", "Z40KovraFakeQuantFeature",
            {{"fake_scale", f_attr(0.5f)}, {"maxValue", i_attr(127)}, {"minValue", i_attr(-128)}}, {4},
            kFqIn, kFqOut},
        OpEncodingCase{"fake_quant_float_bounds", "Z40KovraFakeQuantFeature",
            {{"fake_scale", f_attr(0.5f)}, {"maxValue", f_attr(127)}, {"minValue", f_attr(-128)}}, {4},
            kFqIn, kFqOut},
        // fractional bounds truncate toward zero, to [-2, 3]: 2, 3, -2, 0 times 0.5
        OpEncodingCase{"fake_quant_fractional_float_bounds", "Z40KovraFakeQuantFeature",
            {{"fake_scale", f_attr(0.5f)}, {"maxValue", f_attr(3.9f)}, {"minValue", f_attr(-2.9f)}}, {4},
            kFqIn, {1, 1.5f, -1, 0}},
        // A float attribute of the float family given as an integer reads as
        // 0: "alpha" 0 leaves clamp(beta) = 0.5 for every x.
        OpEncodingCase{"float_key_as_integer", "Z40Hsigmoid", {{"alpha", i_attr(1)}}, {3}, {-2.5f, 0, 2.5f},
            {0.5f, 0.5f, 0.5f}}),
    [](const ::testing::TestParamInfo<OpEncodingCase>& info) { return std::string(info.param.label); });
// clang-format on

}  // namespace
}  // namespace kovra_test
