#include <cstdio>

#include <kovraexecutor/input_loader.h>

#include "commands.h"
#include "model_file.h"

namespace kovra_tool {

using kovra::trenkit::kovraexecutor::check_model;
using kovra::trenkit::kovraexecutor::dims_text;
using kovra::trenkit::kovraexecutor::ModelIssue;
using kovra::trenkit::kovraexecutor::ModelReport;

namespace {

void print_issue(const char* kind, const ModelIssue& issue) {
  std::printf("%s: %s (%s): %s\n", kind, issue.node.empty() ? "(no name)" : issue.node.c_str(),
              issue.op.c_str(), issue.message.c_str());
}

}  // namespace

size_t print_report(const ModelReport& report, bool shapes) {
  for (const ModelIssue& issue : report.problems) print_issue("problem", issue);
  for (const ModelIssue& issue : report.warnings) print_issue("warning", issue);
  if (shapes) {
    for (const auto& shape : report.shapes) {
      std::printf("shape: %s (%s): %s\n", shape.node.c_str(), shape.op.c_str(),
                  dims_text(shape.shape).c_str());
    }
  }
  return report.problems.size();
}

int cmd_check(const CheckOptions& options) {
  GraphDef graph;
  ModelFormat format;
  std::string error;
  if (!read_model(options.model, options.format, graph, format, error)) return fail("kovra check", error);
  const ModelReport report = check_model(graph, options.shapes);
  const size_t problems = print_report(report, !options.shapes.empty());
  std::printf("%zu problem%s, %zu warning%s\n", problems, problems == 1 ? "" : "s", report.warnings.size(),
              report.warnings.size() == 1 ? "" : "s");
  return problems == 0 ? kExitOk : kExitMismatch;
}

}  // namespace kovra_tool
