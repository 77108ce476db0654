#ifndef KOVRAEXECUTOR_MODEL_READER_H_
#define KOVRAEXECUTOR_MODEL_READER_H_

#include <string>

#include "export.h"
#include "lite/proto/graph_def.pb.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Reads a binary GraphDef. Always returns a new GraphDef owned by the caller:
// empty or partly filled after printing "open model file failed, <path>".
KOVRA_API ::kovra::trenkit::GraphDef* load_graph(const std::string& path);

// Parses `path` into `graph_def` with the raised 2 GiB limit; false when the
// file cannot be opened or does not parse.
KOVRA_API bool parse_graph_file(const std::string& path, ::kovra::trenkit::GraphDef* graph_def);

// The forms a model file comes in: binary GraphDef, protobuf text format, or
// protected (enciphered binary, see encryption.h).
enum class ModelFormat { kPlain, kText, kProtected };

// "plain", "text" or "protected".
KOVRA_API const char* format_name(ModelFormat format);

// Reads a model file as `format` ("auto", "plain", "text" or "protected").
// "auto" tries, in order: the protected-file magic, a binary GraphDef whose
// nodes look sane, protobuf text format, and a protected file without magic;
// it never accepts a file that merely happens to parse. Never fails fatally:
// on failure returns false with one line in `error`. `binary`, when given,
// receives the binary serialization exactly as stored (deciphered for a
// protected file; empty for a text file), so that conversions keep the bytes.
KOVRA_API bool read_model(const std::string& path, const std::string& format,
                          ::kovra::trenkit::GraphDef& graph, ModelFormat& chosen, std::string& error,
                          std::string* binary = nullptr);
// Same, from the model's bytes as a file would hold them; `name` stands for
// the path in messages.
KOVRA_API bool read_model_data(std::string bytes, const std::string& name, const std::string& format,
                               ::kovra::trenkit::GraphDef& graph, ModelFormat& chosen, std::string& error,
                               std::string* binary = nullptr);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_MODEL_READER_H_
