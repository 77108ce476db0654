#ifndef KOVRA_TOOLS_MODEL_FILE_H_
#define KOVRA_TOOLS_MODEL_FILE_H_

#include <string>
#include <vector>

#include <kovraexecutor/lite/proto/graph_def.pb.h>

namespace kovra_tool {

using ::kovra::trenkit::GraphDef;
using ::kovra::trenkit::NodeDef;

enum class ModelFormat { kPlain, kText, kProtected };

const char* format_name(ModelFormat format);

// Reads a model file as `format` ("auto", "plain", "text" or "protected").
// "auto" tries, in order: the protected-file magic, a binary GraphDef whose
// nodes look sane, protobuf text format, and a protected file without magic;
// it never accepts a file that merely happens to parse. On failure returns
// false with one line in `error`. `binary`, when given, receives the binary
// serialization exactly as stored (deciphered for a protected file; empty
// for a text file), so that conversions keep the bytes they can keep.
bool read_model(const std::string& path, const std::string& format, GraphDef& graph,
                ModelFormat& chosen, std::string& error, std::string* binary = nullptr);

// Writes `graph` in `format`; binary forms use `binary` when it is not empty
// and a deterministic serialization (map entries sorted) otherwise.
bool write_model(const GraphDef& graph, ModelFormat format, const std::string& path,
                 std::string& error, const std::string& binary = std::string());

bool read_file(const std::string& path, std::string& bytes);
bool write_file(const std::string& path, const std::string& bytes);
// mkdir -p
bool make_dirs(const std::string& path);

}  // namespace kovra_tool

#endif  // KOVRA_TOOLS_MODEL_FILE_H_
