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

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_MODEL_READER_H_
