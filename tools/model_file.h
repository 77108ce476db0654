#ifndef KOVRA_TOOLS_MODEL_FILE_H_
#define KOVRA_TOOLS_MODEL_FILE_H_

#include <string>
#include <vector>

#include <kovraexecutor/lite/proto/graph_def.pb.h>
#include <kovraexecutor/model_reader.h>

namespace kovra_tool {

using ::kovra::trenkit::GraphDef;
using ::kovra::trenkit::NodeDef;

// Reading models is the library's (kovraexecutor/model_reader.h).
using ::kovra::trenkit::kovraexecutor::format_name;
using ::kovra::trenkit::kovraexecutor::ModelFormat;
using ::kovra::trenkit::kovraexecutor::read_model;

// Writes `graph` in `format`; binary forms use `binary` when it is not empty
// and a deterministic serialization (map entries sorted) otherwise.
bool write_model(const GraphDef& graph, ModelFormat format, const std::string& path,
                 std::string& error, const std::string& binary = std::string());

bool write_file(const std::string& path, const std::string& bytes);
// mkdir -p
bool make_dirs(const std::string& path);

}  // namespace kovra_tool

#endif  // KOVRA_TOOLS_MODEL_FILE_H_
