#include <cstdio>

#include "commands.h"
#include "model_file.h"

namespace kovra_tool {

int cmd_convert(const ConvertOptions& options) {
  GraphDef graph;
  ModelFormat from;
  std::string error;
  std::string binary;
  if (!read_model(options.in, options.format, graph, from, error, &binary)) return fail("kovra convert", error);
  ModelFormat to = from == ModelFormat::kText ? ModelFormat::kPlain : ModelFormat::kText;
  if (options.to == "plain") to = ModelFormat::kPlain;
  if (options.to == "text") to = ModelFormat::kText;
  if (!write_model(graph, to, options.out, error, binary)) return fail("kovra convert", error);
  std::printf("%s (%s) -> %s (%s), %d nodes\n", options.in.c_str(), format_name(from),
              options.out.c_str(), format_name(to), graph.node_size());
  return kExitOk;
}

}  // namespace kovra_tool
