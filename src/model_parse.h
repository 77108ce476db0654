#ifndef KOVRAEXECUTOR_MODEL_PARSE_H_
#define KOVRAEXECUTOR_MODEL_PARSE_H_

#include <string>

#include "lite/proto/graph_def.pb.h"
#include "model_reader.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The steps of reading a model, shared by read_model() and the path
// constructor's protected-model road.

// The whole of a regular file, read in one piece of its size.
bool read_file(const std::string& path, std::string& bytes);
// A binary GraphDef, with protobuf's log muted and the limit raised to 2 GiB.
bool parse_binary(const std::string& bytes, GraphDef& graph);
// A text-format GraphDef; `error` receives the first problem ("line L column C: ...").
bool parse_text(const std::string& bytes, GraphDef& graph, std::string& error);
// Bytes of another kind can parse as a GraphDef by chance; a model has nodes
// with printable names and op words.
bool looks_sane(const GraphDef& graph);
// read_model() on a file's bytes (consumed); `path` names the file in `error`.
bool parse_model(std::string& bytes, const std::string& path, const std::string& format, GraphDef& graph,
                 ModelFormat& chosen, std::string& error, std::string& binary);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_MODEL_PARSE_H_
