#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <regex>

#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include "graph_executor.h"
#include "kovraexecutor/compare.h"
#include "kovraexecutor/npy.h"
#include "support/test_ops.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::CompareReport;
using kovra::trenkit::kovraexecutor::CompareSettings;
using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::DumpTensor;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::HtmlContext;
using kovra::trenkit::kovraexecutor::TensorDiff;
using kovra::trenkit::kovraexecutor::VerifyNode;
using kovra::trenkit::kovraexecutor::VerifyReport;

const float kNan = std::numeric_limits<float>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const float kInfF = std::numeric_limits<float>::infinity();

std::string slurp_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void write_floats(const std::string& path, const std::vector<int>& shape, const std::vector<float>& values) {
  std::string error;
  ASSERT_TRUE(kovra::trenkit::kovraexecutor::write_npy(path, shape, values.data(), error)) << error;
}

// Reads every tensor of a folder, values included.
std::vector<DumpTensor> read_folder(const std::string& dir, const std::string& manifest = "") {
  std::vector<DumpTensor> tensors;
  std::string error;
  EXPECT_TRUE(kovra::trenkit::kovraexecutor::read_dump_index(dir, manifest, tensors, error)) << error;
  for (DumpTensor& t : tensors)
    EXPECT_TRUE(kovra::trenkit::kovraexecutor::load_dump_tensor(dir, t, error)) << error;
  return tensors;
}

// Statistics against hand-worked numbers (NaN fields: expect NaN).
TEST(CompareTest, StatisticsOfHandWorkedPairs) {
  const struct {
    const char* label;
    std::vector<float> a, b;
    std::vector<int> shape;
    bool codes;
    const char* status;
    size_t mismatches;
    double max_abs, mean_abs, rmse, cosine, sqnr_db;
    std::vector<int> worst;
    size_t differ, d1, d2, more;
  } cases[] = {
      // clang-format off
      // |d| = 0,0,0,.5: mean .125, rmse sqrt(.25/4), SQNR 10 log10(34.25/.25).
      {"floats", {1, 2, 3, 4}, {1, 2, 3, 4.5f}, {4}, false, "mismatch", 1, 0.5, 0.125, 0.25,
       32 / (std::sqrt(30.0) * std::sqrt(34.25)), 21.3672, {3}, 0, 0, 0, 0},
      {"equal", {0, -1}, {0, -1}, {1, 2}, false, "ok", 0, 0, 0, 0, 1, kInf, {0, 0}, 0, 0, 0, 0},
      {"zero reference", {1, 0}, {0, 0}, {2}, false, "mismatch", 1, 1, 0.5, std::sqrt(0.5), 0, -kInf, {0},
       0, 0, 0, 0},
      // NaN against a number is as far apart as can be; NaN against NaN is equal.
      {"nan apart", {2, kNan}, {2, 7}, {2}, false, "mismatch", 1, kInf, kInf, kInf, NAN, -kInf, {1},
       0, 0, 0, 0},
      // An infinite reference does not stretch the tolerance to cover any value.
      {"inf reference", {5, 1}, {kInfF, 1}, {2}, false, "mismatch", 1, kInf, kInf, kInf, NAN, NAN, {0},
       0, 0, 0, 0},
      {"nan both", {kNan, 2}, {kNan, 2}, {2}, false, "ok", 0, 0, 0, 0, 1, kInf, {0}, 0, 0, 0, 0},
      // Codes -1,0,5,10 against 0,0,3,4: differences 1,0,2,6; the worst is the last, at (1,1).
      {"codes", {-1, 0, 5, 10}, {0, 0, 3, 4}, {2, 2}, true, "mismatch", 3, 6, 2.25, std::sqrt(41.0 / 4),
       55 / (std::sqrt(126.0) * 5), 10 * std::log10(25 / 41.0), {1, 1}, 3, 1, 1, 1},
      // clang-format on
  };
  for (const auto& c : cases) {
    const TensorDiff d = kovra::trenkit::kovraexecutor::diff_values(c.a, c.b, c.shape, c.codes, 1e-5, 1e-6);
    SCOPED_TRACE(c.label);
    EXPECT_EQ(d.status, c.status);
    EXPECT_EQ(d.count, c.a.size());
    EXPECT_EQ(d.mismatches, c.mismatches);
    const double got[] = {d.max_abs, d.mean_abs, d.rmse, d.cosine, d.sqnr_db};
    const double want[] = {c.max_abs, c.mean_abs, c.rmse, c.cosine, c.sqnr_db};
    for (int k = 0; k < 5; ++k) {
      if (std::isnan(want[k]) || std::isinf(want[k])) {
        EXPECT_TRUE(std::isnan(want[k]) ? std::isnan(got[k]) : got[k] == want[k]) << k << ": " << got[k];
      } else {
        EXPECT_NEAR(got[k], want[k], 1e-4) << k;
      }
    }
    EXPECT_EQ(d.worst_index, c.worst);
    const size_t flat = c.shape.size() == 2 ? c.worst[0] * c.shape[1] + c.worst[1] : c.worst[0];
    EXPECT_TRUE(std::memcmp(&d.worst_a, &c.a[flat], 4) == 0 && std::memcmp(&d.worst_b, &c.b[flat], 4) == 0);
    const size_t hist[] = {d.codes_differ, d.code_diff_1, d.code_diff_2, d.code_diff_more};
    const size_t want_hist[] = {c.differ, c.d1, c.d2, c.more};
    for (int k = 0; k < 4; ++k) EXPECT_EQ(hist[k], want_hist[k]) << k;
  }
}

// `min_value` is the attribute's value text ("i: -128", "f: -1"), empty for none.
std::string width_node(const std::string& name, int bitwidth, const std::string& min_value) {
  const std::string min_attr =
      min_value.empty() ? "" : " attr { key: \"minValue\" value { " + min_value + " } }";
  return "node { name: \"" + name +
         "\" op: \"TestSum\" input: \"input\" attr { key: \"output_bitwidth\" value { i: " +
         std::to_string(bitwidth) + " } }" + min_attr + " }";
}

// Signed codes are stored wrapped, as the chip keeps them, and come back negative; nodes whose
// names sanitise alike keep their own files.
TEST(CompareTest, DumpsReadBackAsTheNodesValues) {
  TempDir dir;
  GraphDef graph = parse_text_graph(
      "node { name: \"input\" op: \"TestSum\" } " + width_node("s8", 8, "i: -128") +
      width_node("u8", 8, "i: 0") + width_node("s16", 16, "i: -32768") + width_node("s4", 4, "i: -8") +
      width_node("x/y", 32, "i: 0") + width_node("x_y", 8, "f: -1") + width_node("x:y", 16, ""));
  GraphExecutor executor(&graph, CPU);
  executor.set_dump_folder(dir.path());
  Tensor x = make_tensor({1, 5}, {-1, 7, -128, 0, -8});
  executor.set_input("input", &x);
  testing::internal::CaptureStdout();
  executor.work({}, "");
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(slurp_file(dir.file("s8.bin")), std::string("\xff\x07\x80\x00\xf8", 5));
  const std::vector<DumpTensor> tensors = read_folder(dir.path());
  const struct {
    const char *name, *file, *dtype, *op;
    std::vector<float> values;
  } want[] = {
      {"input", "input.bin", "float32", "TestSum", {-1, 7, -128, 0, -8}},
      {"s8", "s8.bin", "int8", "TestSum", {-1, 7, -128, 0, -8}},
      {"u8", "u8.bin", "uint8", "TestSum", {255, 7, 128, 0, 248}},
      {"s16", "s16.bin", "int16", "TestSum", {-1, 7, -128, 0, -8}},
      {"s4", "s4.bin", "int4x2", "TestSum", {-1, 7, 0, 0, -8}},  // -128 wraps to 0 in four bits
      {"x/y", "x_y.bin", "float32", "TestSum", {-1, 7, -128, 0, -8}},
      {"x_y", "x_y~1.bin", "int8", "TestSum", {-1, 7, -128, 0, -8}},
      {"x:y", "x_y~2.bin", "uint16", "TestSum", {65535, 7, 65408, 0, 65528}},
  };
  ASSERT_EQ(tensors.size(), sizeof want / sizeof want[0]);
  for (size_t i = 0; i < tensors.size(); ++i) {
    EXPECT_EQ(tensors[i].name, want[i].name);
    EXPECT_EQ(tensors[i].file, want[i].file) << want[i].name;
    EXPECT_EQ(tensors[i].dtype, want[i].dtype) << want[i].name;
    EXPECT_EQ(tensors[i].op, want[i].op) << want[i].name;
    EXPECT_EQ(tensors[i].shape, std::vector<int>({1, 5})) << want[i].name;
    EXPECT_EQ(tensors[i].values, want[i].values) << want[i].name;
  }
}

// Two folders differing in shape, NaN and codes: each tensor gets its own verdict.
TEST(CompareTest, ShapesAndNanDecidePerTensor) {
  TempDir a, b;
  write_floats(a.file("t.npy"), {2, 3}, {1, 2, 3, 4, 5, 6});
  write_floats(b.file("t.npy"), {3, 2}, {1, 2, 3, 4, 5, 6});
  write_floats(a.file("n.npy"), {2}, {kNan, 1});
  write_floats(b.file("n.npy"), {2}, {kNan, 1});
  write_floats(a.file("m.npy"), {2}, {0, 1});
  write_floats(b.file("m.npy"), {2}, {kNan, 1});
  CompareReport report;
  std::string error;
  ASSERT_TRUE(
      kovra::trenkit::kovraexecutor::compare_folders(a.path(), b.path(), CompareSettings(), report, error))
      << error;
  ASSERT_EQ(report.tensors.size(), 3u);
  EXPECT_EQ(report.tensors[0].name, "m");
  EXPECT_EQ(report.tensors[0].status, "mismatch");
  EXPECT_EQ(report.tensors[1].status, "ok");  // n: NaN matches NaN
  EXPECT_EQ(report.tensors[2].status, "shape");
  EXPECT_EQ(report.tensors[2].shape_b, std::vector<int>({3, 2}));
  EXPECT_EQ(report.failed, 2);
  EXPECT_EQ(report.first_divergence, "m");

  // A manifest shape whose element count wraps to 0 in 64 bits once matched an empty file.
  TempDir huge;
  std::ofstream(huge.file("manifest.tsv")) << "0\th.bin\th\t65536x65536x65536x65536\tint8\t8\tZ40Relu\n";
  std::ofstream(huge.file("h.bin")).close();
  const struct {
    std::string a, b, manifest, message;
  } errors[] = {
      {huge.path(), huge.path(), "",
       huge.file("h.bin") + ": shape 65536x65536x65536x65536 has more than 2147483647 elements"},
      {a.path(), b.path(), a.file("none.tsv"), "cannot read manifest '" + a.file("none.tsv") + "'"},
      {a.path(), a.file("t.npy"), "", "'" + a.file("t.npy") + "' is not a folder"},
  };
  for (const auto& e : errors) {
    CompareSettings settings;
    settings.manifest_a = e.manifest;
    EXPECT_FALSE(kovra::trenkit::kovraexecutor::compare_folders(e.a, e.b, settings, report, error));
    EXPECT_EQ(error, e.message);
  }
}

std::string quantize_node(const std::string& name, const std::string& input, float scale) {
  const std::string s = std::to_string(scale);
  return "node { name: \"" + name + "\" op: \"Z40Quantize\" input: \"" + input +
         "\" attr { key: \"QSCALE\" value { list { f: " + s + " f: " + s + " f: " + s + " f: " + s +
         " } } } attr { key: \"maxValue\" value { i: 127 } } attr { key: \"minValue\" value { i: -128 } } "
         "attr { key: \"offset\" value { i: 0 } } attr { key: \"input_bitwidth\" value { i: 32 } } "
         "attr { key: \"output_bitwidth\" value { i: 8 } } }";
}

std::string dequantize_node(const std::string& name, const std::string& input, float scale) {
  const std::string s = std::to_string(scale);
  return "node { name: \"" + name + "\" op: \"Z40Dequantize\" input: \"" + input +
         "\" attr { key: \"QSCALE\" value { list { f: " + s + " f: " + s + " f: " + s + " f: " + s +
         " } } } attr { key: \"offset\" value { i: 0 } } attr { key: \"output_bitwidth\" value { i: 32 } } }";
}

// The chip's dumps of a small quantized network in which layer q2 rounds ties away from zero
// instead of to even; every later layer is computed from q2's changed codes. The chip's raw
// files carry no manifest and are read with the host's. compare names q2 first.
TEST(CompareTest, FindsTheLayerWhereTheChipRoundsDifferently) {
  TempDir host, chip;
  GraphDef graph =
      parse_text_graph("node { name: \"input\" op: \"ZxxNOp\" } " + quantize_node("q1", "input", 2) +
                       dequantize_node("d1", "q1", 0.25f) + quantize_node("q2", "d1", 1) +
                       dequantize_node("d2", "q2", 0.5f) + quantize_node("q3", "d2", 4));
  GraphExecutor executor(&graph, CPU);
  executor.set_dump_folder(host.path());
  const std::vector<float> input = {1, -2, 3.5f, -5, 10, -1, 2, 60};
  Tensor x = make_tensor({1, 1, 2, 4}, input);
  executor.set_input("input", &x);
  testing::internal::CaptureStdout();
  executor.work({}, "");
  testing::internal::GetCapturedStdout();

  // The chip, layer by layer: half-to-even everywhere but in q2.
  auto even = [](float v) { return std::nearbyint(v); };
  auto away = [](float v) { return std::round(v); };
  auto quantize = [](const std::vector<float>& in, float scale, float (*round)(float)) {
    std::vector<float> out;
    for (float v : in) out.push_back(std::min(127.0f, std::max(-128.0f, round(scale * v))));
    return out;
  };
  auto dequantize = [](const std::vector<float>& in, float scale) {
    std::vector<float> out;
    for (float v : in) out.push_back(v * scale);
    return out;
  };
  const std::vector<float> q1 = quantize(input, 2, even), d1 = dequantize(q1, 0.25f);
  const std::vector<float> q2 = quantize(d1, 1, away), d2 = dequantize(q2, 0.5f);
  const std::vector<float> q3 = quantize(d2, 4, even);
  // d1 = .5, -1, 1.75, -2.5, 5, -.5, 1, 30: ties at 0, 3 and 5.
  ASSERT_EQ(q2, std::vector<float>({1, -1, 2, -3, 5, -1, 1, 30}));
  auto spit_codes = [&](const std::string& file, const std::vector<float>& codes) {
    std::string bytes;
    for (float v : codes) bytes += static_cast<char>(static_cast<int8_t>(v));
    std::ofstream(chip.file(file), std::ios::binary) << bytes;
  };
  auto spit_floats = [&](const std::string& file, const std::vector<float>& values) {
    std::ofstream(chip.file(file), std::ios::binary)
        .write(reinterpret_cast<const char*>(values.data()), values.size() * 4);
  };
  spit_codes("q1.bin", q1);
  spit_floats("d1.bin", d1);
  spit_codes("q2.bin", q2);
  spit_floats("d2.bin", d2);
  spit_codes("q3.bin", q3);

  CompareSettings settings;
  settings.manifest_b = host.file("manifest.tsv");
  settings.per_channel = "q2";
  CompareReport report;
  std::string error;
  ASSERT_TRUE(
      kovra::trenkit::kovraexecutor::compare_folders(host.path(), chip.path(), settings, report, error))
      << error;
  ASSERT_EQ(report.tensors.size(), 5u);  // the fed input is not computed: no dump
  EXPECT_EQ(report.first_divergence, "q2");
  EXPECT_EQ(report.failed, 3);
  const TensorDiff& layer = report.tensors[2];
  EXPECT_EQ(layer.op, "Z40Quantize");
  EXPECT_TRUE(layer.codes);
  // Host half-to-even: 0, -1, 2, -2, 5, 0, 1, 30; the three ties move by one.
  EXPECT_EQ(layer.codes_differ, 3u);
  EXPECT_EQ(layer.code_diff_1, 3u);
  EXPECT_EQ(layer.worst_index, std::vector<int>({0, 0, 0, 0}));
  EXPECT_EQ(layer.worst_a, 0.0f);
  EXPECT_EQ(layer.worst_b, 1.0f);
  ASSERT_EQ(layer.channels.size(), 4u);
  const size_t per_channel[] = {1, 1, 0, 1};  // channel c holds elements c and c + 4
  for (int c = 0; c < 4; ++c) EXPECT_EQ(layer.channels[c].codes_differ, per_channel[c]) << c;

  // The JSON parses back into the same records.
  google::protobuf::Struct parsed;
  ASSERT_TRUE(
      google::protobuf::util::JsonStringToMessage(kovra::trenkit::kovraexecutor::report_json(report), &parsed)
          .ok());
  const auto& fields = parsed.fields();
  EXPECT_EQ(fields.at("first_divergence").string_value(), "q2");
  EXPECT_EQ(fields.at("compared").number_value(), 5);
  const auto& records = fields.at("tensors").list_value();
  ASSERT_EQ(records.values_size(), 5);
  const auto& q2_record = records.values(2).struct_value().fields();
  EXPECT_EQ(q2_record.at("name").string_value(), "q2");
  EXPECT_EQ(q2_record.at("status").string_value(), "mismatch");
  EXPECT_EQ(q2_record.at("codes_differ").number_value(), 3);
  EXPECT_EQ(q2_record.at("code_diff").struct_value().fields().at("1").number_value(), 3);
  EXPECT_EQ(q2_record.at("channels").list_value().values_size(), 4);
  EXPECT_EQ(q2_record.at("worst_index").list_value().values_size(), 4);
  EXPECT_EQ(records.values(0).struct_value().fields().at("sqnr_db").string_value(), "inf");
  EXPECT_DOUBLE_EQ(q2_record.at("max_abs").number_value(), layer.max_abs);

  // CSV: a header, one row per tensor and one per channel of q2.
  const std::string csv = kovra::trenkit::kovraexecutor::report_csv(report);
  EXPECT_EQ(std::count(csv.begin(), csv.end(), '\n'), 1 + 5 + 4);
  EXPECT_NE(csv.find("\nq2,,Z40Quantize,mismatch,1x1x2x4,1x1x2x4,8,3,1,"), std::string::npos) << csv;
}

// A strict reading of a page's markup, as an XML parser would: elements closed in
// order, attributes quoted, no bare '<' or '&' in text. Empty when well formed.
std::string markup_problem(const std::string& page) {
  static const std::regex tag("^([a-zA-Z][a-zA-Z0-9-]*)(\\s+[a-zA-Z][a-zA-Z0-9:-]*=\"[^\"<]*\")*\\s*/?$");
  static const std::regex entity("^&([a-z]+|#[0-9]+);");
  std::vector<std::string> open;
  for (size_t i = 0; i < page.size();) {
    const size_t lt = std::min(page.find('<', i), page.size());
    for (size_t amp = page.find('&', i); amp < lt; amp = page.find('&', amp + 1)) {
      if (!std::regex_search(page.substr(amp, 8), entity)) return "bare '&' at " + std::to_string(amp);
    }
    if (lt == page.size()) break;
    const size_t gt = page.find('>', lt);
    if (gt == std::string::npos) return "unterminated tag at " + std::to_string(lt);
    const std::string inside = page.substr(lt + 1, gt - lt - 1);
    i = gt + 1;
    if (lt == 0 && inside == "!DOCTYPE html") continue;
    if (inside[0] == '/') {
      if (open.empty() || open.back() != inside.substr(1)) return "stray </" + inside.substr(1) + ">";
      open.pop_back();
      continue;
    }
    std::smatch m;
    if (!std::regex_match(inside, m, tag)) return "malformed tag <" + inside + ">";
    if (inside.back() != '/') open.push_back(m[1]);
  }
  return open.empty() ? "" : "unclosed <" + open.back() + ">";
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// The number in attribute `name` of the last `tag` that opens before `marker`.
double number_in(const std::string& page, const std::string& marker, const std::string& tag,
                 const std::string& name) {
  const size_t at = page.find(marker);
  EXPECT_NE(at, std::string::npos) << marker;
  const size_t value = page.find(" " + name + "=\"", page.rfind(tag, at));
  return value < at ? std::strtod(page.c_str() + value + name.size() + 3, nullptr) : NAN;
}

TensorDiff named(const std::string& name, TensorDiff d) {
  d.name = name;
  d.op = "Z40Quantize";
  return d;
}

// Pages of hand-made reports: the markup parses, one chart, the first failing layer marked
// in chart and table, names escaped, infinite and NaN SQNR drawn in their bands.
TEST(CompareTest, HtmlPagesMarkTheFirstFailingLayer) {
  const std::string odd = "a<b&\"c\"", odd_escaped = "a&lt;b&amp;&quot;c&quot;";
  auto diff = [](std::vector<float> a, std::vector<float> b) {
    return kovra::trenkit::kovraexecutor::diff_values(a, b, {static_cast<int>(a.size())}, true, 0, 0);
  };
  const TensorDiff equal = diff({1, 2}, {1, 2}), off = diff({1, 5}, {1, 2}), nan = diff({kNan}, {1});
  TensorDiff shape;
  shape.status = "shape";
  shape.shape_a = {2};
  shape.shape_b = {3};

  CompareReport compared;
  compared.tensors = {named("same", equal), named(odd, off), named("nan", nan), named("shaped", shape)};
  compared.failed = 3;
  compared.first_divergence = odd;
  CompareReport clean;
  clean.tensors = {named("same", equal)};
  VerifyReport verified;
  verified.nodes = {{"same", "Z40Quantize", named("same", equal), named("same", equal)},
                    {odd, "Z40Quantize", named(odd, off), named(odd, off)},
                    {"later", "Z40Quantize", named("later", equal), named("later", off)}};
  verified.local_failed = 1;
  verified.accumulated_failed = 2;
  verified.first_local = verified.first_accumulated = odd;
  VerifyReport inherited = verified;
  inherited.nodes[1].local = named(odd, equal);
  inherited.local_failed = 0;
  HtmlContext context;
  context.under_test = "A&B";
  context.reference = "<ref>";

  const struct {
    const char* label;
    std::string page;
    std::string banner, mark;  // mark: the chart's label, empty for none
    size_t failing_rows;
    const char* marked_row;  // the run ("local"/"accumulated") of the marked verify row
  } cases[] = {
      {"compare", kovra::trenkit::kovraexecutor::report_html(compared, context),
       "First failing layer: " + odd_escaped + " (Z40Quantize)", "first failing: " + odd_escaped, 3, ""},
      {"clean", kovra::trenkit::kovraexecutor::report_html(clean, context),
       "Every tensor is within tolerance", "", 0, ""},
      {"verify", kovra::trenkit::kovraexecutor::verify_html(verified, context),
       "First layer that computes differently: " + odd_escaped + " (Z40Quantize)",
       "computes differently: " + odd_escaped, 3, "local"},
      {"inherited", kovra::trenkit::kovraexecutor::verify_html(inherited, context),
       "No layer computes differently; differences accumulate from " + odd_escaped + " (Z40Quantize)",
       "differences start: " + odd_escaped, 2, "accumulated"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string& page = c.page;
    EXPECT_EQ(markup_problem(page), "");
    EXPECT_EQ(occurrences(page, "<svg"), 1u);
    EXPECT_NE(page.find("\">" + c.banner + "</p>"), std::string::npos);
    EXPECT_NE(page.find("<td>A&amp;B</td>"), std::string::npos);
    EXPECT_NE(page.find("<td>&lt;ref&gt;</td>"), std::string::npos);
    EXPECT_EQ(page.find(odd), std::string::npos);
    // Statistics that are not numbers never become coordinates.
    for (const char* bad : {"=\"nan", "=\"-nan", "=\"inf", "=\"-inf"})
      EXPECT_EQ(page.find(bad), std::string::npos);
    EXPECT_EQ(occurrences(page, "<tr class=\"fail"), c.failing_rows);
    if (c.mark.empty()) {
      EXPECT_EQ(page.find("first-failing"), std::string::npos);
      continue;
    }
    const size_t chart_mark = page.find("<g id=\"first-failing\"");
    ASSERT_NE(chart_mark, std::string::npos);
    EXPECT_LT(chart_mark, page.find("</svg>"));
    EXPECT_NE(page.find(c.mark + "</text>\n</g>", chart_mark), std::string::npos);
    // The marker stands at the layer's points: the second layer here.
    EXPECT_EQ(number_in(page, "<title>" + odd_escaped + " (", "<circle", "cx"),
              number_in(page, c.mark + "</text>", "<line", "x1"));
    const size_t row = page.find("<tr class=\"fail first\" id=\"first-failing-row\">");
    ASSERT_NE(row, std::string::npos);
    EXPECT_EQ(occurrences(page, "first-failing-row"), 1u);
    const std::string row_text = page.substr(row, page.find("</tr>", row) - row);
    if (*c.marked_row == 'a') {
      EXPECT_NE(row_text.find("<td>accumulated</td>"), std::string::npos) << row_text;
    } else {
      EXPECT_NE(row_text.find(odd_escaped + "<span class=\"first\">first failing</span>"), std::string::npos)
          << row_text;
    }
    if (*c.marked_row) {
      EXPECT_NE(page.find(">local</text>"), std::string::npos);  // the legend names both series
      EXPECT_NE(page.find(">accumulated</text>"), std::string::npos);
      EXPECT_EQ(occurrences(page, "<td>local</td>"), 3u);
    }
  }
  // An infinite SQNR (equal tensors) sits in the top band labelled "exact"; NaN in the bottom one.
  const std::string& page = cases[0].page;
  const double exact_y = number_in(page, ">exact</text>", "<text", "y");
  const double none_y = number_in(page, ">-inf/nan</text>", "<text", "y");
  EXPECT_NEAR(number_in(page, "<title>same (under test vs reference): SQNR", "<circle", "cy"), exact_y - 5,
              5);
  EXPECT_NEAR(number_in(page, "<title>nan (under test vs reference): SQNR", "<circle", "cy"), none_y - 5, 5);
  EXPECT_NE(page.find("<td>shape</td><td colspan=\"9\">2 vs 3</td>"), std::string::npos);
}

}  // namespace
}  // namespace kovra_test
