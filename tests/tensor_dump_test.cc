#include <cstdlib>
#include <filesystem>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

#include "graph_executor.h"
#include "support/test_ops.h"
#include "support/test_util.h"
#include "tensor_dump.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::TensorDump;

std::string read_bytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    if (value != nullptr) setenv(name, value, 1);
    else unsetenv(name);
  }
  ~ScopedEnv() {
    if (had_) setenv(name_.c_str(), old_.c_str(), 1);
    else unsetenv(name_.c_str());
  }

 private:
  std::string name_, old_;
  bool had_ = false;
};

std::string node_with_width(const std::string& name, const std::string& input, int bitwidth) {
  return "node { name: \"" + name + "\" op: \"TestSum\" input: \"" + input +
         "\" attr { key: \"output_bitwidth\" value { i: " + std::to_string(bitwidth) + " } } }";
}

TEST(TensorDumpTest, SanitisesNames) {
  EXPECT_EQ(TensorDump::sanitize("conv1/Relu:0"), "conv1_Relu_0");
  EXPECT_EQ(TensorDump::sanitize("a-b.c_d 9"), "a-b.c_d_9");
}

TEST(TensorDumpTest, WritesEveryTensorByBitWidthWithAManifest) {
  TempDir dir;
  ScopedEnv on("KOVRA_CPP_DUMPDATA", "True");
  ScopedEnv folder("KOVRA_CPP_DUMPDIR", (dir.path() + "/dumps").c_str());
  GraphDef graph = parse_text_graph("node { name: \"input\" op: \"TestSum\" } " +
                                    node_with_width("f/32", "input", 32) + node_with_width("u8", "input", 8) +
                                    node_with_width("u16", "input", 16) + node_with_width("u4", "input", 4));
  GraphExecutor executor(&graph, CPU);
  Tensor x = make_tensor({1, 5}, {1.0f, 2.5f, -1.0f, 300.0f, 15.0f});
  executor.set_input("input", &x);
  testing::internal::CaptureStdout();
  executor.work({}, "");
  const std::string log = testing::internal::GetCapturedStdout();
  const std::string base = dir.path() + "/dumps/";
  EXPECT_NE(log.find("Log: Data dumping to:" + base + "f_32.bin"), std::string::npos);
  EXPECT_NE(log.find("Log: --->shape:[1,5]"), std::string::npos);

  const std::string f32 = read_bytes(base + "f_32.bin");
  ASSERT_EQ(f32.size(), 20u);
  EXPECT_EQ(std::memcmp(f32.data(), x.get_ptr(), 20), 0);
  // Truncated toward zero, wrapped to the register width.
  EXPECT_EQ(read_bytes(base + "u8.bin"), std::string("\x01\x02\xff\x2c\x0f", 5));
  EXPECT_EQ(read_bytes(base + "u16.bin"), std::string("\x01\x00\x02\x00\xff\xff\x2c\x01\x0f\x00", 10));
  // Two codes per byte, the first in the high nibble; an odd count pads the last low nibble.
  EXPECT_EQ(read_bytes(base + "u4.bin"), std::string("\x12\xfc\xf0", 3));

  std::ifstream manifest(base + "manifest.tsv");
  std::vector<std::string> lines;
  for (std::string line; std::getline(manifest, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0], "# order\tfile\tname\tshape\tdtype\tbitwidth\top");
  EXPECT_EQ(lines[1], "0\tinput.bin\tinput\t1x5\tfloat32\t32\tTestSum");
  EXPECT_EQ(lines[2], "1\tf_32.bin\tf/32\t1x5\tfloat32\t32\tTestSum");
  EXPECT_EQ(lines[3], "2\tu8.bin\tu8\t1x5\tuint8\t8\tTestSum");
  EXPECT_EQ(lines[4], "3\tu16.bin\tu16\t1x5\tuint16\t16\tTestSum");
  EXPECT_EQ(lines[5], "4\tu4.bin\tu4\t1x5\tuint4x2\t4\tTestSum");

  // A second run starts a fresh manifest rather than appending to the old one.
  testing::internal::CaptureStdout();
  executor.work({}, "");
  testing::internal::GetCapturedStdout();
  std::ifstream again(base + "manifest.tsv");
  int count = 0;
  for (std::string line; std::getline(again, line);) ++count;
  EXPECT_EQ(count, 6);
}

TEST(TensorDumpTest, OnlyTrueOrTrueSwitchesItOn) {
  for (const char* value : {"1", "TRUE", "yes", ""}) {
    ScopedEnv on("KOVRA_CPP_DUMPDATA", value);
    TensorDump dump;
    EXPECT_FALSE(dump.enabled()) << value;
  }
  ScopedEnv on("KOVRA_CPP_DUMPDATA", "true");
  ScopedEnv folder("KOVRA_CPP_DUMPDIR", nullptr);
  TensorDump dump;
  EXPECT_TRUE(dump.enabled());
  EXPECT_EQ(dump.folder(), "kovra_dump");
}

TEST(TensorDumpDeathTest, UnsupportedBitWidthAborts) {
  TempDir dir;
  TensorDump dump;
  dump.enable(dir.path());
  Tensor t = make_tensor({1}, {1.0f}, "t");
  EXPECT_FATAL(dump(&t, 3, false), "The tensor :t output bit width is unsupport");
  EXPECT_ERROR(dump(&t, 33, false), "The tensor :t output bit width is unsupport");
}

TEST(TensorDumpTest, UnwritableFolderIsReportedAndRunGoesOn) {
  TempDir dir;
  std::ofstream(dir.file("file")) << "x";
  TensorDump dump;
  dump.enable(dir.file("file") + "/sub");
  Tensor t = make_tensor({1}, {1.0f}, "t");
  testing::internal::CaptureStdout();
  dump(&t, 32, false);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Error: Open file" + dir.file("file") + "/sub failed!!!!"),
            std::string::npos);
}

}  // namespace
}  // namespace kovra_test
