#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "encryption.h"
#include "graph_executor.h"
#include "model_reader.h"
#include "support/test_ops.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::EncryptionRC4;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::load_graph;

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string read_bytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

const char* const kModel = R"(
  version: 7
  node { name: "input" op: "TestSum" }
  node { name: "k" op: "Const" attr { key: "value" value { tensor {
    dtype: DT_FLOAT tensor_shape { dim { size: 1 } } tensor_content: "\000\000\200@" } } } }
  node { name: "out" op: "TestSum" input: "input" input: "k" })";

// Points TMPDIR at a private folder for the test so left-over files are visible.
struct ScopedTmpdir {
  const char* old = std::getenv("TMPDIR");
  const std::string saved = old ? old : "";
  explicit ScopedTmpdir(const std::string& dir) { setenv("TMPDIR", dir.c_str(), 1); }
  ~ScopedTmpdir() { old ? setenv("TMPDIR", saved.c_str(), 1) : unsetenv("TMPDIR"); }
};

bool is_empty_dir(const std::string& dir) { return std::filesystem::is_empty(std::filesystem::path(dir)); }

TEST(LoadGraphTest, MissingFileGivesAnEmptyModelAndAnErrorLine) {
  testing::internal::CaptureStdout();
  std::unique_ptr<GraphDef> graph(load_graph("/nonexistent/model.pb"));
  const std::string printed = testing::internal::GetCapturedStdout();
  ASSERT_NE(graph, nullptr);
  EXPECT_EQ(graph->node_size(), 0);
  EXPECT_EQ(printed, "\033[1m\033[31mError: open model file failed, /nonexistent/model.pb\033[0m\n");
}

TEST(LoadGraphTest, ReadsAModelWithTheDeprecatedVersionSet) {
  TempDir dir;
  write_bytes(dir.file("m.pb"), parse_text_graph(kModel).SerializeAsString());
  std::unique_ptr<GraphDef> graph(load_graph(dir.file("m.pb")));
  EXPECT_EQ(graph->node_size(), 3);
}

TEST(LoadGraphTest, ParsesModelsAboveSixtyFourMebibytes) {
  TempDir dir;
  GraphDef big = parse_text_graph(kModel);
  const size_t bytes = 65u * 1024 * 1024 + 12;
  auto* tensor = (*big.mutable_node(1)->mutable_attr())["value"].mutable_tensor();
  tensor->mutable_tensor_shape()->mutable_dim(0)->set_size(bytes / 4);
  tensor->set_tensor_content(std::string(bytes, '\0'));
  write_bytes(dir.file("big.pb"), big.SerializeAsString());
  big.Clear();
  std::unique_ptr<GraphDef> graph(load_graph(dir.file("big.pb")));
  ASSERT_EQ(graph->node_size(), 3);
  EXPECT_EQ(graph->node(1).attr().at("value").tensor().tensor_content().size(), bytes);
}

TEST(LoadGraphTest, TruncatedFileIsReportedNotSilentlyAccepted) {
  TempDir dir;
  const std::string bytes = parse_text_graph(kModel).SerializeAsString();
  write_bytes(dir.file("cut.pb"), bytes.substr(0, bytes.size() - 3));
  testing::internal::CaptureStdout();
  std::unique_ptr<GraphDef> graph(load_graph(dir.file("cut.pb")));
  EXPECT_NE(testing::internal::GetCapturedStdout().find("open model file failed"), std::string::npos);
}

TEST(ProtectedModelTest, RoundTripRunsAndLeavesNoTemporaryFile) {
  TempDir dir, tmp;
  ScopedTmpdir scoped(tmp.path());
  write_bytes(dir.file("plain.pb"), parse_text_graph(kModel).SerializeAsString());
  ASSERT_TRUE(EncryptionRC4::encryption_model(dir.file("plain.pb"), dir.file("model.kvr")));
  const std::string stored = read_bytes(dir.file("model.kvr"));
  EXPECT_TRUE(EncryptionRC4::has_magic(stored));
  EXPECT_EQ(stored.find("TestSum"), std::string::npos);  // no plain text inside
  EXPECT_EQ(stored, EncryptionRC4::protect(read_bytes(dir.file("plain.pb"))));
  EXPECT_EQ(EncryptionRC4::unprotect(stored), read_bytes(dir.file("plain.pb")));
  GraphExecutor executor(dir.file("model.kvr"), CPU);
  EXPECT_TRUE(is_empty_dir(tmp.path()));
  Tensor x = make_tensor({1}, {1});
  executor.set_input("input", &x);
  executor.work({}, "");
  EXPECT_EQ(tensor_values(*executor.get_output_tensor("out")), std::vector<float>{5});
  ASSERT_TRUE(EncryptionRC4::decryption_file(dir.file("model.kvr"), dir.file("back.pb")));
  EXPECT_EQ(read_bytes(dir.file("back.pb")), read_bytes(dir.file("plain.pb")));
}

TEST(ProtectedModelTest, HeaderlessCipherTextIsDecipheredWhole) {
  TempDir dir, tmp;
  ScopedTmpdir scoped(tmp.path());
  const std::string plain = parse_text_graph(kModel).SerializeAsString();
  std::string bytes = plain;
  EncryptionRC4::crypt(bytes);
  EXPECT_EQ(EncryptionRC4::unprotect(bytes), plain);
  write_bytes(dir.file("raw.kvr"), bytes);
  std::unique_ptr<GraphDef> graph(EncryptionRC4::decryption_model(dir.file("raw.kvr")));
  EXPECT_EQ(graph->node_size(), 3);
  EXPECT_TRUE(is_empty_dir(tmp.path()));
}

TEST(ProtectedModelTest, FailedParseStillRemovesTheTemporaryFile) {
  TempDir dir, tmp;
  ScopedTmpdir scoped(tmp.path());
  // A plain model handed to the protected road deciphers into garbage.
  write_bytes(dir.file("garbage.kvr"), std::string(EncryptionRC4::kMagic) + "\x01\x02\x03\x04\x05\x06");
  testing::internal::CaptureStdout();
  std::unique_ptr<GraphDef> graph(EncryptionRC4::decryption_model(dir.file("garbage.kvr")));
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(graph->node_size(), 0);
  EXPECT_TRUE(is_empty_dir(tmp.path()));
}

TEST(ProtectedModelTest, PlainModelByPathIsNamedAndUnreadableFilesKeepTheirMessages) {
  using kovra::trenkit::kovraexecutor::Error;
  using kovra::trenkit::kovraexecutor::ErrorPolicy;
  using kovra::trenkit::kovraexecutor::ScopedErrorPolicy;
  TempDir dir, tmp;
  ScopedTmpdir scoped(tmp.path());
  GraphDef model = parse_text_graph(kModel);
  std::string text;
  ASSERT_TRUE(google::protobuf::TextFormat::PrintToString(model, &text));
  const std::string tail =
      " and pass the GraphDef to GraphExecutor(const GraphDef*, DEVICE), or protect the file with kovra "
      "protect.";
  const std::string road = ", but a path given to GraphExecutor must be a protected model: ";
  struct Case {
    const char* file;
    std::string bytes;
    std::string message;  // of the failure, after "The model file <path>"; empty: the empty graph's
    std::string printed;  // before it, on standard output, followed by the path
  } cases[] = {
      {"plain.pb", model.SerializeAsString(),
       " is a plain (unprotected) model" + road +
           "read it with load_graph() of kovraexecutor/model_reader.h" + tail,
       ""},
      {"plain.pbtxt", text,
       " is a plain (unprotected) model in text format" + road +
           "parse it with google::protobuf::TextFormat" + tail,
       ""},
      // Neither protected nor plain: the reader's own line, then the empty graph's failure.
      {"junk.bin", "not a model at all\n", "", "open model file failed, "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string path = dir.file(c.file);
    write_bytes(path, c.bytes);
    ScopedErrorPolicy policy(ErrorPolicy::kThrow);
    testing::internal::CaptureStdout();
    try {
      GraphExecutor executor(path, CPU);
      ADD_FAILURE() << "no failure";
    } catch (const Error& e) {
      EXPECT_EQ(e.message(), c.message.empty() ? "Have no end point, please check it!"
                                               : "The model file " + path + c.message);
      EXPECT_EQ(e.node(), "");
    }
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, c.printed.empty() ? "" : "\033[1m\033[31mError: " + c.printed + path + "\033[0m\n");
    EXPECT_TRUE(is_empty_dir(tmp.path()));
  }
}

TEST(ProtectedModelTest, MissingStoredFileIsReported) {
  testing::internal::CaptureStdout();
  std::unique_ptr<GraphDef> graph(EncryptionRC4::decryption_model("/nonexistent/m.kvr"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\033[1m\033[31mError: Open file [/nonexistent/m.kvr] error!\033[0m\n");
  EXPECT_EQ(graph->node_size(), 0);
  EXPECT_FALSE(EncryptionRC4::encryption_model("/nonexistent/m.pb", "/tmp/never"));
}

TEST(ProtectedModelDeathTest, UnwritableTemporaryDirectoryAborts) {
  // The death test's child inherits TMPDIR, so the model lives where TMPDIR is not consulted.
  const std::string model = "/tmp/kovra_unwritable_tmp.kvr";
  write_bytes(model, "KVRAPROT");
  ScopedTmpdir scoped("/nonexistent-dir");
  EXPECT_FATAL(EncryptionRC4::decryption_model(model),
               "Open file [/nonexistent-dir/kovra_template_XXXXXX] failed!");
  std::remove(model.c_str());
}

}  // namespace
}  // namespace kovra_test
