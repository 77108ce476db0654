#include "model_reader.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/text_format.h>
#include <sys/stat.h>

#include <fstream>
#include <utility>

#include "common.h"
#include "encryption.h"
#include "model_parse.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

bool read_file(const std::string& path, std::string& bytes) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) return false;
  // Straight into a buffer of the file's size: models run to hundreds of MiB.
  bytes.assign(static_cast<size_t>(info.st_size), '\0');
  file.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
  return file.gcount() == static_cast<std::streamsize>(bytes.size()) && !file.bad();
}

bool parse_graph_file(const std::string& path, ::kovra::trenkit::GraphDef* graph_def) {
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) return false;
  google::protobuf::io::IstreamInputStream raw(&file);
  google::protobuf::io::CodedInputStream coded(&raw);
  // Models above protobuf's default 64 MiB limit must still parse.
  coded.SetTotalBytesLimit(2147483647);
  const bool ok = graph_def->ParseFromCodedStream(&coded) && coded.ConsumedEntireMessage();
  file.close();
  return ok;
}

::kovra::trenkit::GraphDef* load_graph(const std::string& path) {
  auto* graph_def = new ::kovra::trenkit::GraphDef();
  if (!parse_graph_file(path, graph_def)) print_error("open model file failed, " + path);
  return graph_def;
}

namespace {

// Protobuf reports parse problems through its log; a failed attempt while
// guessing the format is not worth a line, so the log is muted meanwhile.
void quiet_log(google::protobuf::LogLevel, const char*, int, const std::string&) {}

class MutedLog {
 public:
  MutedLog() : previous_(google::protobuf::SetLogHandler(&quiet_log)) {}
  ~MutedLog() { google::protobuf::SetLogHandler(previous_); }

 private:
  google::protobuf::LogHandler* previous_;
};

class FirstError : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, google::protobuf::io::ColumnNumber column, const std::string& message) override {
    if (!text.empty()) return;
    text = "line " + std::to_string(line + 1) + " column " + std::to_string(column + 1) + ": " + message;
  }
  std::string text;
};

}  // namespace

bool parse_binary(const std::string& bytes, GraphDef& graph) {
  MutedLog muted;
  graph.Clear();
  google::protobuf::io::CodedInputStream coded(reinterpret_cast<const uint8_t*>(bytes.data()),
                                               static_cast<int>(bytes.size()));
  // Same limit as the library's reader, so large models parse.
  coded.SetTotalBytesLimit(2147483647);
  return graph.ParseFromCodedStream(&coded) && coded.ConsumedEntireMessage();
}

bool parse_text(const std::string& bytes, GraphDef& graph, std::string& error) {
  MutedLog muted;
  graph.Clear();
  google::protobuf::TextFormat::Parser parser;
  FirstError errors;
  parser.RecordErrorsTo(&errors);
  if (parser.ParseFromString(bytes, &graph)) return true;
  error = errors.text.empty() ? "not protobuf text format" : errors.text;
  return false;
}

namespace {

bool name_char(char c) { return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f; }

bool op_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

}  // namespace

// A file of other bytes can parse as a GraphDef by chance (unknown fields are
// kept silently); a real model has nodes with printable names and op words.
bool looks_sane(const GraphDef& graph) {
  if (graph.node_size() == 0) return false;
  for (const NodeDef& node : graph.node()) {
    if (node.name().empty() || node.op().empty()) return false;
    for (char c : node.name()) {
      if (!name_char(c)) return false;
    }
    for (char c : node.op()) {
      if (!op_char(c)) return false;
    }
  }
  return true;
}

const char* format_name(ModelFormat format) {
  switch (format) {
    case ModelFormat::kPlain:
      return "plain";
    case ModelFormat::kText:
      return "text";
    case ModelFormat::kProtected:
      return "protected";
  }
  return "?";
}

bool parse_model(std::string& bytes, const std::string& path, const std::string& format, GraphDef& graph,
                 ModelFormat& chosen, std::string& error, std::string& binary) {
  if (bytes.size() > 0x7fffffffULL) {
    error = "model file '" + path + "' is larger than 2 GiB";
    return false;
  }
  if (format == "plain") {
    chosen = ModelFormat::kPlain;
    binary.swap(bytes);
    if (parse_binary(binary, graph) && graph.node_size() > 0) return true;
    error = "'" + path + "' is not a binary GraphDef with nodes";
    return false;
  }
  if (format == "text") {
    chosen = ModelFormat::kText;
    std::string why;
    if (!parse_text(bytes, graph, why)) {
      error = "'" + path + "' is not a text GraphDef: " + why;
      return false;
    }
    if (graph.node_size() == 0) {
      error = "'" + path + "' holds no nodes";
      return false;
    }
    return true;
  }
  if (format == "protected") {
    chosen = ModelFormat::kProtected;
    binary = EncryptionRC4::unprotect(bytes);
    if (parse_binary(binary, graph) && looks_sane(graph)) return true;
    error = "'" + path + "' does not decipher into a model (not protected, or another key)";
    return false;
  }
  // auto
  if (EncryptionRC4::has_magic(bytes)) {
    chosen = ModelFormat::kProtected;
    binary = EncryptionRC4::unprotect(bytes);
    if (parse_binary(binary, graph) && looks_sane(graph)) return true;
    error = "'" + path +
            "' has the protected-model magic but does not decipher into a model "
            "(damaged, or enciphered with another key)";
    return false;
  }
  if (parse_binary(bytes, graph) && looks_sane(graph)) {
    chosen = ModelFormat::kPlain;
    binary.swap(bytes);
    return true;
  }
  std::string why;
  if (parse_text(bytes, graph, why) && looks_sane(graph)) {
    chosen = ModelFormat::kText;
    return true;
  }
  binary = EncryptionRC4::unprotect(bytes);
  if (parse_binary(binary, graph) && looks_sane(graph)) {
    chosen = ModelFormat::kProtected;
    return true;
  }
  graph.Clear();
  error = "cannot read '" + path + "' as a model: neither protected, binary nor text GraphDef";
  return false;
}

bool read_model(const std::string& path, const std::string& format, GraphDef& graph, ModelFormat& chosen,
                std::string& error, std::string* binary) {
  std::string bytes;
  if (!read_file(path, bytes)) {
    error = "cannot read model file '" + path + "'";
    return false;
  }
  return read_model_data(std::move(bytes), path, format, graph, chosen, error, binary);
}

bool read_model_data(std::string bytes, const std::string& name, const std::string& format, GraphDef& graph,
                     ModelFormat& chosen, std::string& error, std::string* binary) {
  std::string plain;
  const bool ok = parse_model(bytes, name, format, graph, chosen, error, plain);
  if (binary != nullptr) *binary = ok && chosen != ModelFormat::kText ? std::move(plain) : std::string();
  return ok;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
