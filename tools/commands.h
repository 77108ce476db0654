#ifndef KOVRA_TOOLS_COMMANDS_H_
#define KOVRA_TOOLS_COMMANDS_H_

#include <iostream>
#include <string>

#include <kovraexecutor/model_check.h>

#include "args_parser.h"

namespace kovra_tool {

using kovra::trenkit::kovraexecutor::CheckOptions;
using kovra::trenkit::kovraexecutor::CipherOptions;
using kovra::trenkit::kovraexecutor::CompareOptions;
using kovra::trenkit::kovraexecutor::ConvertOptions;
using kovra::trenkit::kovraexecutor::InspectOptions;
using kovra::trenkit::kovraexecutor::RunOptions;
using kovra::trenkit::kovraexecutor::VerifyOptions;

// Exit codes of the tool.
const int kExitOk = 0;
const int kExitMismatch = 1;    // compare: a tensor is out of tolerance; check: problems found
const int kExitUsage = 2;       // bad invocation, unreadable file, invalid model
const int kExitModelError = 3;  // the library stopped on an error while running

// Prints the report of the model check, one line per finding ("problem: " or
// "warning: " NODE "(" OP "): " MESSAGE) and, when `shapes` is set, one per
// inferred output shape; returns the number of problems.
size_t print_report(const kovra::trenkit::kovraexecutor::ModelReport& report, bool shapes);

// Prints "<where>: <message>" as the one line of a failed command.
inline int fail(const std::string& where, const std::string& message) {
  std::cout.flush();
  std::cerr << where << ": " << message << std::endl;
  return kExitUsage;
}

// Keeps the library's errors and warnings on stdout, drops its banner and log lines.
void quiet_messages();

int cmd_run(const RunOptions& options);
int cmd_check(const CheckOptions& options);
int cmd_inspect(const InspectOptions& options);
int cmd_convert(const ConvertOptions& options);
int cmd_protect(const CipherOptions& options);
int cmd_unprotect(const CipherOptions& options);
int cmd_compare(const CompareOptions& options);
int cmd_verify(const VerifyOptions& options);

}  // namespace kovra_tool

#endif  // KOVRA_TOOLS_COMMANDS_H_
