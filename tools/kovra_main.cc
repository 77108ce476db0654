// The kovra command-line tool: run, inspect, convert, protect, unprotect and
// compare accelerator models on the host.

#include <csignal>
#include <cstdio>
#include <unistd.h>

#include "args_parser.h"
#include "commands.h"

namespace {

// The library reports an error with one line on standard output (flushed
// before it aborts); that line is the tool's message, and the exit code says
// so, without a core dump. Only async-signal-safe calls belong here.
extern "C" void on_abort(int) { _exit(kovra_tool::kExitModelError); }

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGABRT, on_abort);
  kovra::trenkit::kovraexecutor::ArgsParser parser;
  const int code = parser.parse(argc, argv);
  if (code >= 0) return code;
  using Command = kovra::trenkit::kovraexecutor::ArgsParser::Command;
  switch (parser.command()) {
    case Command::kRun:
      return kovra_tool::cmd_run(parser.run());
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
    case Command::kNone:
      break;
  }
  return kovra_tool::kExitUsage;
}
