#include "model_reader.h"

#include <fstream>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

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

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
