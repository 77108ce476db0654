// The kovra command-line tool: run, check, inspect, convert, protect,
// unprotect and compare accelerator models on the host.

#include <cstdio>
#include <iostream>

#include <kovraexecutor/errors.h>

#include "args_parser.h"
#include "commands.h"

namespace {

using kovra::trenkit::kovraexecutor::ArgsParser;

int dispatch(const ArgsParser& parser) {
  using Command = ArgsParser::Command;
  switch (parser.command()) {
    case Command::kRun:
      return kovra_tool::cmd_run(parser.run());
    case Command::kCheck:
      return kovra_tool::cmd_check(parser.check());
    case Command::kInspect:
      return kovra_tool::cmd_inspect(parser.inspect());
    case Command::kConvert:
      return kovra_tool::cmd_convert(parser.convert());
    case Command::kProtect:
      return kovra_tool::cmd_protect(parser.cipher());
    case Command::kUnprotect:
      return kovra_tool::cmd_unprotect(parser.cipher());
    case Command::kCompare:
      return kovra_tool::cmd_compare(parser.compare());
    case Command::kVerify:
      return kovra_tool::cmd_verify(parser.verify());
    case Command::kNone:
      break;
  }
  return kovra_tool::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  namespace kx = kovra::trenkit::kovraexecutor;
  ArgsParser parser;
  const int code = parser.parse(argc, argv);
  if (code >= 0) return code;
  // A library failure is the tool's message: the library's own error line on
  // standard output, the node it concerns on standard error, exit code 3.
  kx::ScopedErrorPolicy policy(kx::ErrorPolicy::kThrow);
  try {
    return dispatch(parser);
  } catch (const kx::Error& e) {
    std::fflush(stdout);
    std::fputs(kx::error_line(e.message()).c_str(), stdout);
    std::fflush(stdout);
    if (!e.node().empty()) {
      std::cerr << "kovra: the error is in node '" << e.node() << "' (operator " << e.op() << ")"
                << std::endl;
    }
    return kovra_tool::kExitModelError;
  }
}
