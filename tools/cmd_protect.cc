#include <cstdio>

#include "commands.h"
#include "model_file.h"

namespace kovra_tool {

// The protected form is the enciphered binary model: the bytes of a binary
// input as they are, a text input serialized first.
int cmd_protect(const CipherOptions& options) {
  GraphDef graph;
  ModelFormat from;
  std::string error;
  std::string binary;
  if (!read_model(options.in, "auto", graph, from, error, &binary)) return fail("kovra protect", error);
  if (from == ModelFormat::kProtected) {
    return fail("kovra protect", "'" + options.in + "' is already protected");
  }
  if (!write_model(graph, ModelFormat::kProtected, options.out, error, binary)) {
    return fail("kovra protect", error);
  }
  std::printf("%s (%s) -> %s (protected), %d nodes\n", options.in.c_str(), format_name(from),
              options.out.c_str(), graph.node_size());
  return kExitOk;
}

int cmd_unprotect(const CipherOptions& options) {
  GraphDef graph;
  ModelFormat from;
  std::string error;
  std::string binary;
  if (!read_model(options.in, "auto", graph, from, error, &binary)) return fail("kovra unprotect", error);
  if (from != ModelFormat::kProtected) {
    return fail("kovra unprotect", "'" + options.in + "' is not protected (it is a " +
                                       format_name(from) + " model)");
  }
  if (!write_model(graph, ModelFormat::kPlain, options.out, error, binary)) {
    return fail("kovra unprotect", error);
  }
  std::printf("%s (protected) -> %s (plain), %d nodes\n", options.in.c_str(), options.out.c_str(),
              graph.node_size());
  return kExitOk;
}

}  // namespace kovra_tool
