// The trained digits network of examples/digits/, run with the kovra tool on its committed files:
// the held-out accuracies are the recorded ones, and the chip dump's one faulty layer is found.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "lite/proto/graph_def.pb.h"
#include "model_reader.h"
#include "npy.h"
#include "support/kovra_cli.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::load_graph;
using kovra::trenkit::kovraexecutor::NpyArray;
using kovra::trenkit::kovraexecutor::read_npy;

std::string digits(const std::string& file) {
  return env_or_empty("KOVRA_SOURCE_DIR") + "/examples/digits/" + file;
}

NpyArray npy(const std::string& path) {
  NpyArray array;
  std::string error;
  EXPECT_TRUE(read_npy(path, array, error)) << error;
  return array;
}

// results.tsv: what the generating script measured, "key<TAB>value" per line.
std::map<std::string, std::string> recorded() {
  std::map<std::string, std::string> values;
  std::ifstream file(digits("results.tsv"));
  for (std::string line; std::getline(file, line);) {
    const size_t tab = line.find('\t');
    if (!line.empty() && line[0] != '#' && tab != std::string::npos) {
      values[line.substr(0, tab)] = line.substr(tab + 1);
    }
  }
  return values;
}

// The class of each row of [N, 10] logits (the first of equal maxima).
std::vector<int> classes(const NpyArray& logits) {
  EXPECT_EQ(logits.shape.size(), 2u);
  const int columns = logits.shape.back();
  std::vector<int> out;
  for (size_t row = 0; row * columns < logits.values.size(); ++row) {
    int best = 0;
    for (int c = 1; c < columns; ++c) {
      if (logits.values[row * columns + c] > logits.values[row * columns + best]) best = c;
    }
    out.push_back(best);
  }
  return out;
}

std::vector<int> predict(const std::string& model, const TempDir& dir) {
  const Result r = kovra("run -q " + digits(model) + " -i input=" + digits("test_images.npy") +
                         " --out-dir " + dir.file(model));
  EXPECT_EQ(r.code, 0) << r.out;
  return classes(npy(dir.file(model + "/logits.npy")));
}

double share(const std::vector<int>& a, const std::vector<float>& b) {
  EXPECT_EQ(a.size(), b.size());
  size_t same = 0;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) same += a[i] == static_cast<int>(b[i]);
  return static_cast<double>(same) / b.size();
}

TEST(DigitsTest, HeldOutAccuraciesAndAgreementAreTheRecordedOnes) {
  TempDir dir;
  const std::vector<float> labels = npy(digits("test_labels.npy")).values;
  ASSERT_EQ(labels.size(), 360u);
  const std::vector<int> by_float = predict("float_model.pb", dir);
  const std::vector<int> by_int8 = predict("int8_model.pb", dir);
  const std::vector<float> int8_as_labels(by_int8.begin(), by_int8.end());
  std::map<std::string, std::string> want = recorded();
  const struct {
    const char* key;
    double measured;
  } rows[] = {{"float_accuracy", share(by_float, labels)},
              {"int8_accuracy", share(by_int8, labels)},
              {"agreement", share(by_float, int8_as_labels)}};
  for (const auto& row : rows) {
    ASSERT_TRUE(want.count(row.key)) << row.key;
    EXPECT_NEAR(row.measured, std::stod(want[row.key]), 0.01) << row.key;
    EXPECT_GE(row.measured, 0.95) << row.key;
  }
}

// The chip dump's gap layer is the host's average pool rounded half away from zero: recomputed
// here from the dump's own conv2 codes and the model's POOLSCALE, it differs from half to even
// exactly at the recorded number of codes, and the host's run rounds half to even.
TEST(DigitsTest, ChipDumpRoundsItsAveragePoolHalfAwayFromZero) {
  const std::unique_ptr<kovra::trenkit::GraphDef> graph(load_graph(digits("int8_model.pb")));
  std::vector<float> pool_scale;
  for (const auto& node : graph->node()) {
    if (node.name() == "gap")
      pool_scale.assign(node.attr().at("POOLSCALE").list().f().begin(),
                        node.attr().at("POOLSCALE").list().f().end());
  }
  ASSERT_EQ(pool_scale.size(), 32u);
  const std::string conv2 = slurp(digits("chip_dump/conv2.bin"));  // uint8 codes [8, 4, 4, 32]
  const std::string chip = slurp(digits("chip_dump/gap.bin"));     // uint8 codes [8, 1, 1, 32]
  ASSERT_EQ(conv2.size(), 8u * 16 * 32);
  ASSERT_EQ(chip.size(), 8u * 32);
  TempDir dir;
  const Result r = kovra("run -q " + digits("int8_model.pb") + " -i input=" + digits("chip_images.npy") +
                         " --dump " + dir.file("host"));
  ASSERT_EQ(r.code, 0) << r.out;
  const std::string host = slurp(dir.file("host/gap.bin"));
  ASSERT_EQ(host.size(), chip.size());
  int differ = 0;
  for (int n = 0; n < 8; ++n) {
    for (int c = 0; c < 32; ++c) {
      float sum = 0.0f;
      for (int p = 0; p < 16; ++p) sum += static_cast<unsigned char>(conv2[(n * 16 + p) * 32 + c]);
      const float mean = sum * pool_scale[c];
      const float away = std::fmin(std::floor(mean + 0.5f), 127.0f);
      const float even = std::fmin(std::nearbyint(mean), 127.0f);
      EXPECT_EQ(static_cast<unsigned char>(chip[n * 32 + c]), away) << "image " << n << " channel " << c;
      EXPECT_EQ(static_cast<unsigned char>(host[n * 32 + c]), even) << "image " << n << " channel " << c;
      differ += away != even;
    }
  }
  EXPECT_GT(differ, 0);
  EXPECT_EQ(std::to_string(differ), recorded()["faulty_codes"]);
}

// What the demo shows: compare finds gap as the first divergence, after four identical layers,
// and verify names gap as the one layer that computes differently (and writes its page).
TEST(DigitsTest, CompareAndVerifyNameTheFaultyLayer) {
  TempDir dir;
  const std::string model = digits("int8_model.pb");
  const std::string images = " -i input=" + digits("chip_images.npy");
  ASSERT_EQ(kovra("run -q " + model + images + " --dump " + dir.file("host")).code, 0);
  const std::string exact = " --rtol 0 --atol 0";
  Result r = kovra("compare " + dir.file("host") + " " + digits("chip_dump") + exact);
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_TRUE(has_line(r.out, "6 tensor(s) compared, 2 out of tolerance")) << r.out;
  EXPECT_TRUE(has_line(r.out, "first divergence: gap")) << r.out;
  EXPECT_NE(line_starting(r.out, "   4  gap ").find("codes: " + recorded()["faulty_codes"] + " differ"),
            std::string::npos)
      << r.out;

  r = kovra("verify " + model + " " + digits("chip_dump") + images + exact + " --html " + dir.file("r.html"));
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_TRUE(
      has_line(r.out, "6 node(s) compared: 1 locally out of tolerance, 2 accumulated out of tolerance"))
      << r.out;
  EXPECT_TRUE(has_line(r.out, "first node that computes differently: " + recorded()["faulty_layer"]))
      << r.out;
  EXPECT_NE(line_starting(r.out, "   4  gap ").find("<-- computes differently"), std::string::npos) << r.out;
  EXPECT_EQ(slurp(dir.file("r.html")).compare(0, 15, "<!DOCTYPE html>"), 0);
}

}  // namespace
}  // namespace kovra_test
