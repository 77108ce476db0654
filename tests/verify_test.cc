#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>

#include "graph_executor.h"
#include "kovraexecutor/compare.h"
#include "support/test_ops.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;
using kx::CPU;
using kx::GraphExecutor;

std::string scale_list(float scale) {
  const std::string s = std::to_string(scale);
  return "attr { key: \"QSCALE\" value { list { f: " + s + " f: " + s + " f: " + s + " f: " + s + " } } } ";
}

std::string quantize_node(const std::string& name, const std::string& input, float scale) {
  return "node { name: \"" + name + "\" op: \"Z40Quantize\" input: \"" + input + "\" " + scale_list(scale) +
         "attr { key: \"maxValue\" value { i: 127 } } attr { key: \"minValue\" value { i: -128 } } "
         "attr { key: \"offset\" value { i: 0 } } attr { key: \"input_bitwidth\" value { i: 32 } } "
         "attr { key: \"output_bitwidth\" value { i: 8 } } }";
}

std::string dequantize_node(const std::string& name, const std::string& input, float scale) {
  return "node { name: \"" + name + "\" op: \"Z40Dequantize\" input: \"" + input + "\" " + scale_list(scale) +
         "attr { key: \"offset\" value { i: 0 } } attr { key: \"output_bitwidth\" value { i: 32 } } }";
}

// input -> q1 -> d1 -> q2 -> d2 -> q3: quantized layers requantize through their dequantized inputs.
GraphDef int8_model() {
  return parse_text_graph("node { name: \"input\" op: \"ZxxNOp\" } " + quantize_node("q1", "input", 2) +
                          dequantize_node("d1", "q1", 0.25f) + quantize_node("q2", "d1", 1) +
                          dequantize_node("d2", "q2", 0.5f) + quantize_node("q3", "d2", 4));
}

// input -> f1 -> f2 -> f3, float scalings.
GraphDef float_model() {
  return parse_text_graph("node { name: \"input\" op: \"ZxxNOp\" } " + dequantize_node("f1", "input", 0.5f) +
                          dequantize_node("f2", "f1", 3) + dequantize_node("f3", "f2", 0.25f));
}

const std::vector<float> kInput = {1, -2, 3.5f, -5, 10, -1, 2, 60};

// Runs `graph` on kInput, dumping into `dir`.
void dump_run(const GraphDef& graph, const std::string& dir) {
  GraphExecutor executor(&graph, CPU);
  executor.set_dump_folder(dir);
  Tensor x = make_tensor({1, 1, 2, 4}, kInput);
  executor.set_input("input", &x);
  testing::internal::CaptureStdout();
  executor.work({}, "");
  testing::internal::GetCapturedStdout();
}

void spit_codes(const std::string& path, const std::vector<float>& codes) {
  std::string bytes;
  for (float v : codes) bytes += static_cast<char>(static_cast<int8_t>(v));
  std::ofstream(path, std::ios::binary) << bytes;
}

void spit_floats(const std::string& path, const std::vector<float>& values) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(values.data()), values.size() * 4);
}

// The chip, layer by layer, independently of the kernels: ties to even everywhere but in q2,
// which rounds them away from zero; every later layer reads q2's changed codes.
struct Chip {
  std::vector<float> q1, d1, q2, d2, q3;
};
Chip chip_layers() {
  auto quantize = [](const std::vector<float>& in, float scale, float (*round)(float)) {
    std::vector<float> out;
    for (float v : in) out.push_back(std::min(127.0f, std::max(-128.0f, round(scale * v))));
    return out;
  };
  auto scaled = [](const std::vector<float>& in, float scale) {
    std::vector<float> out;
    for (float v : in) out.push_back(v * scale);
    return out;
  };
  float (*even)(float) = [](float v) { return std::nearbyint(v); };
  float (*away)(float) = [](float v) { return std::round(v); };
  Chip c;
  c.q1 = quantize(kInput, 2, even);
  c.d1 = scaled(c.q1, 0.25f);
  c.q2 = quantize(c.d1, 1, away);
  c.d2 = scaled(c.q2, 0.5f);
  c.q3 = quantize(c.d2, 4, even);
  return c;
}

// Writes the chip's raw files (no manifest: read with the host's).
void write_chip(const std::string& dir, const Chip& c) {
  spit_codes(dir + "/q1.bin", c.q1);
  spit_floats(dir + "/d1.bin", c.d1);
  spit_codes(dir + "/q2.bin", c.q2);
  spit_floats(dir + "/d2.bin", c.d2);
  spit_codes(dir + "/q3.bin", c.q3);
}

// A dumped int8 tensor fed back at a start inside the graph reproduces the downstream
// layers exactly: here the chip's q2 (negative codes among them) gives the chip's q3.
TEST(VerifyTest, DumpedCodesFeedARunFromInsideTheGraph) {
  TempDir host, chip;
  const GraphDef graph = int8_model();
  dump_run(graph, host.path());
  const Chip c = chip_layers();
  // d1 = .5, -1, 1.75, -2.5, 5, -.5, 1, 30: ties at 0, 3 and 5 round away from zero.
  ASSERT_EQ(c.q2, std::vector<float>({1, -1, 2, -3, 5, -1, 1, 30}));
  write_chip(chip.path(), c);

  std::unique_ptr<Tensor> q2;
  std::string error;
  ASSERT_TRUE(kx::load_dumped_input({"q2", chip.file("q2.bin"), {}}, host.file("manifest.tsv"), q2, error))
      << error;
  EXPECT_EQ(q2->shape(), std::vector<int>({1, 1, 2, 4}));
  EXPECT_EQ(tensor_values(*q2), c.q2);
  GraphExecutor executor(&graph, CPU);
  executor.set_input("q2", q2.get());
  testing::internal::CaptureStdout();
  executor.work({"d2"}, "");
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(tensor_values(*executor.get_output_tensor("q3")), c.q3);

  const struct {
    kx::InputArg arg;
    std::string manifest, message;
  } errors[] = {
      {{"q9", chip.file("q2.bin"), {}},
       host.file("manifest.tsv"),
       "manifest '" + host.file("manifest.tsv") + "' has no line for 'q9'"},
      {{"q2", chip.file("d2.bin"), {}},
       host.file("manifest.tsv"),
       chip.file("d2.bin") + ": holds 32 bytes but int8 of shape 1x1x2x4 needs 8"},
      {{"q2", chip.file("q2.bin"), {}},
       host.file("none.tsv"),
       "cannot read manifest '" + host.file("none.tsv") + "'"},
  };
  for (const auto& e : errors) {
    EXPECT_FALSE(kx::load_dumped_input(e.arg, e.manifest, q2, error));
    EXPECT_EQ(error, e.message);
  }
}

struct Expected {
  const char* name;
  const char* local;
  const char* accumulated;
};

void expect_nodes(const kx::VerifyReport& report, const std::vector<Expected>& want) {
  ASSERT_EQ(report.nodes.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    EXPECT_EQ(report.nodes[i].name, want[i].name) << i;
    EXPECT_EQ(report.nodes[i].local.status, want[i].local) << want[i].name;
    EXPECT_EQ(report.nodes[i].accumulated.status, want[i].accumulated) << want[i].name;
  }
}

kx::VerifyReport verify(const GraphDef& graph, const std::string& reference,
                        const kx::VerifySettings& settings, bool give_input = true) {
  Tensor x = make_tensor({1, 1, 2, 4}, kInput);
  std::map<std::string, const Tensor*> inputs;
  if (give_input) inputs["input"] = &x;
  kx::VerifyReport report;
  std::string error;
  testing::internal::CaptureStdout();
  const bool done = kx::verify_model(graph, reference, inputs, settings, report, error);
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(done) << error;
  return report;
}

// q2 alone computes differently; d2 and q3 only inherit its codes.
TEST(VerifyTest, NamesTheInt8LayerThatRoundsDifferently) {
  TempDir host, chip;
  const GraphDef graph = int8_model();
  dump_run(graph, host.path());
  write_chip(chip.path(), chip_layers());
  kx::VerifySettings settings;
  settings.manifest = host.file("manifest.tsv");
  const kx::VerifyReport report = verify(graph, chip.path(), settings);
  expect_nodes(report, {{"q1", "ok", "ok"},
                        {"d1", "ok", "ok"},
                        {"q2", "mismatch", "mismatch"},
                        {"d2", "ok", "mismatch"},
                        {"q3", "ok", "mismatch"}});
  EXPECT_EQ(report.first_local, "q2");
  EXPECT_EQ(report.local_failed, 1);
  EXPECT_EQ(report.first_accumulated, "q2");
  EXPECT_EQ(report.accumulated_failed, 3);
  const kx::TensorDiff& q2 = report.nodes[2].local;
  // Host ties to even: 0, -1, 2, -2, 5, 0, 1, 30 against the chip's 1, -1, 2, -3, 5, -1, 1, 30.
  EXPECT_TRUE(q2.codes);
  EXPECT_EQ(q2.codes_differ, 3u);
  EXPECT_EQ(q2.code_diff_1, 3u);
  // q3 accumulates: d2 is off by .5 at three places, times 4.
  EXPECT_EQ(report.nodes[4].accumulated.max_abs, 2);
  EXPECT_EQ(report.nodes[4].accumulated.code_diff_2, 3u);

  // Against the host's own dump nothing differs; from d2 on, the run starts on the chip's q2.
  expect_nodes(
      verify(graph, host.path(), kx::VerifySettings()),
      {{"q1", "ok", "ok"}, {"d1", "ok", "ok"}, {"q2", "ok", "ok"}, {"d2", "ok", "ok"}, {"q3", "ok", "ok"}});
  settings.starts = {"d2"};
  const kx::VerifyReport tail = verify(graph, chip.path(), settings, false);
  expect_nodes(tail, {{"d2", "ok", "ok"}, {"q3", "ok", "ok"}});
  EXPECT_EQ(tail.first_local, "");
  settings.starts = {};
  settings.output = "d1";
  expect_nodes(verify(graph, chip.path(), settings), {{"q1", "ok", "ok"}, {"d1", "ok", "ok"}});

  // The JSON carries both records per node.
  const std::string json = kx::verify_json(report);
  EXPECT_NE(json.find("\"first_local\": \"q2\""), std::string::npos) << json;
  EXPECT_NE(json.find("{\"name\": \"d2\", \"op\": \"Z40Dequantize\",\n   \"local\": {\"name\": \"d2\""),
            std::string::npos)
      << json;
}

// A float layer whose result is perturbed: only it is locally different.
TEST(VerifyTest, NamesThePerturbedFloatLayer) {
  TempDir ref;
  std::vector<float> f1, f2, f3;
  for (float v : kInput) f1.push_back(v * 0.5f);
  for (float v : f1) f2.push_back(v * 3);
  f2[5] += 0.01f;  // the layer that computes differently
  for (float v : f2) f3.push_back(v * 0.25f);
  spit_floats(ref.file("f1.bin"), f1);
  spit_floats(ref.file("f2.bin"), f2);
  spit_floats(ref.file("f3.bin"), f3);
  std::ofstream(ref.file("manifest.tsv")) << "0\tf1.bin\tf1\t1x1x2x4\tfloat32\t32\tZ40Dequantize\n"
                                          << "1\tf2.bin\tf2\t1x1x2x4\tfloat32\t32\tZ40Dequantize\n"
                                          << "2\tf3.bin\tf3\t1x1x2x4\tfloat32\t32\tZ40Dequantize\n";
  kx::VerifySettings settings;
  settings.rtol = 1e-4;
  const kx::VerifyReport report = verify(float_model(), ref.path(), settings);
  expect_nodes(report, {{"f1", "ok", "ok"}, {"f2", "mismatch", "mismatch"}, {"f3", "ok", "mismatch"}});
  EXPECT_EQ(report.first_local, "f2");
  EXPECT_NEAR(report.nodes[1].local.max_abs, 0.01, 1e-6);
  EXPECT_NEAR(report.nodes[2].accumulated.max_abs, 0.0025, 1e-6);
  EXPECT_FALSE(report.nodes[1].local.codes);
}

TEST(VerifyTest, RefusesWhatItCannotRun) {
  TempDir host, partial;
  const GraphDef graph = int8_model();
  dump_run(graph, host.path());
  // A reference without d1: q2 has nothing to read.
  write_chip(partial.path(), chip_layers());
  std::remove(partial.file("d1.bin").c_str());
  std::ofstream(partial.file("manifest.tsv")) << "0\tq2.bin\tq2\t1x1x2x4\tint8\t8\tZ40Quantize\n";
  Tensor x = make_tensor({1, 1, 2, 4}, kInput);
  const struct {
    std::string reference;
    std::vector<std::string> starts;
    std::string output;
    bool give_input;
    std::string message;
  } cases[] = {
      {host.path(), {"nope"}, "", true, "the model has no node 'nope'"},
      {host.path(), {}, "nope", true, "the model has no node 'nope'"},
      {host.path(), {}, "", false, "no data for input 'input': give it, or a reference that holds it"},
      {partial.path(), {}, "", true, "node 'q2': the reference holds no tensor for its input 'd1'"},
      {host.file("q1.bin"), {}, "", true, "'" + host.file("q1.bin") + "' is not a folder"},
      {partial.path(), {}, "d1", true, "no node of the run has a tensor in '" + partial.path() + "'"},
  };
  for (const auto& c : cases) {
    kx::VerifySettings settings;
    settings.starts = c.starts;
    settings.output = c.output;
    std::map<std::string, const Tensor*> inputs;
    if (c.give_input) inputs["input"] = &x;
    kx::VerifyReport report;
    std::string error;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(kx::verify_model(graph, c.reference, inputs, settings, report, error));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(error, c.message);
  }
}

// Values as a dump of each type holds them, worked by hand.
TEST(VerifyTest, ValuesAsDumped) {
  const struct {
    float value;
    const char* dtype;
    float dumped;
  } cases[] = {
      {2.7f, "uint16", 2}, {-0.5f, "uint16", 0}, {-1, "uint16", 65535},     {-1, "int16", -1},
      {-1, "uint8", 255},  {300, "int8", 44},    {-3.9f, "int8", -3},       {-1, "int4x2", -1},
      {9, "int4x2", -7},   {9, "uint4x2", 9},    {0.25f, "float32", 0.25f}, {0.25f, "npy", 0.25f},
  };
  for (const auto& c : cases)
    EXPECT_EQ(kx::as_dumped(c.value, c.dtype), c.dumped) << c.value << " " << c.dtype;
}

// A run verified against its own dump is equal everywhere, although the 16-bit node's dump
// truncates fractions and the unsigned one wraps negative codes; the int8 node reads them back.
TEST(VerifyTest, OwnDumpOfNarrowCodesIsEqual) {
  TempDir host;
  const GraphDef graph = parse_text_graph(
      "node { name: \"input\" op: \"TestSum\" } "
      "node { name: \"h\" op: \"TestSum\" input: \"input\" attr { key: \"output_bitwidth\" value { i: 16 } } "
      "} "
      "node { name: \"s\" op: \"TestSum\" input: \"h\" attr { key: \"output_bitwidth\" value { i: 8 } } "
      "attr { key: \"minValue\" value { i: -128 } } }");
  GraphExecutor executor(&graph, CPU);
  executor.set_dump_folder(host.path());
  Tensor x = make_tensor({1, 5}, {-1, 2.5f, -0.5f, 300, 7});
  executor.set_input("input", &x);
  testing::internal::CaptureStdout();
  executor.work({}, "");
  testing::internal::GetCapturedStdout();
  kx::VerifyReport report;
  std::string error;
  testing::internal::CaptureStdout();
  ASSERT_TRUE(kx::verify_model(graph, host.path(), {{"input", &x}}, kx::VerifySettings(), report, error))
      << error;
  testing::internal::GetCapturedStdout();
  expect_nodes(report, {{"h", "ok", "ok"}, {"s", "ok", "ok"}});  // the fed input is not computed
}

}  // namespace
}  // namespace kovra_test
