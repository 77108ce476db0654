#ifndef KOVRAEXECUTOR_MODEL_CHECK_H_
#define KOVRAEXECUTOR_MODEL_CHECK_H_

#include <map>
#include <string>
#include <vector>

#include "export.h"
#include "lite/proto/graph_def.pb.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// One finding about a model: the node it concerns (empty for a node without
// a name), that node's operator and what is wrong.
struct ModelIssue {
  std::string node;
  std::string op;
  std::string message;
};

// The output shape shape inference gives a node, for the shapes the check
// was given.
struct NodeShape {
  std::string node;
  std::string op;
  std::vector<int> shape;
};

// Problems stop the executor (or make it compute nonsense); warnings are
// probably mistakes it silently tolerates.
struct ModelReport {
  std::vector<ModelIssue> problems;
  std::vector<ModelIssue> warnings;
  // In execution order; filled only when input shapes were given, and only
  // for the nodes whose shapes could be inferred.
  std::vector<NodeShape> shapes;
  // The most bytes of node outputs a run holds at once, as the executor
  // counts them against its memory budget; 0 without input shapes.
  long long planned_bytes = 0;
  // Index in `problems` of the one that says the run would cross its
  // memory budget; -1 when it stays within.
  int over_budget = -1;
};

// The executor's memory budget unless the embedder sets one.
constexpr long long kDefaultMemoryBudget = 8LL << 30;

// How the run that the check plans for will hold its tensors.
struct RunPlan {
  long long memory_budget = kDefaultMemoryBudget;  // bytes of node outputs at once
  bool inplace = false;                            // GraphExecutor::set_inplace
};

// Everything the executor would stop the process for while translating the
// model, and more, found without stopping and without executing anything:
// node names, operators, inputs, cycles, constants, each node's attributes
// and, given the shapes of the fed tensors by name, shape inference through
// the whole graph, and whether a run on those shapes stays within `plan`'s
// memory budget (refused before it starts rather than at the node that
// crosses it). Safe on any model; never aborts.
KOVRA_API ModelReport check_model(const ::kovra::trenkit::GraphDef& graph,
                                  const std::map<std::string, std::vector<int>>& input_shapes = {},
                                  const RunPlan& plan = RunPlan());

// Rewrites each attribute of `node` that its operator reads in another
// encoding than the one it holds into the encoding read, where the value
// converts exactly: an integer or a bool into a float, an integral float or a
// bool into an integer, an integer list into a float list, an integral float
// list into an integer list. Returns the model check's warning for each
// attribute left as it was. An operator stops reading at its first missing
// required attribute, so keys it would read after that one are not seen.
KOVRA_API std::vector<std::string> fit_attribute_encodings(::kovra::trenkit::NodeDef& node);

// The name under which the executor looks an input reference up: its prefix
// of length min(len, len + 1 - p), p being the position of the first ':'.
KOVRA_API std::string input_lookup_name(const std::string& input);

// A model's non-constant nodes as the executor links them: producers by
// index, each at most once, constants left out.
struct KOVRA_API GraphOutline {
  std::vector<std::string> names;  // model order
  std::vector<std::string> ops;
  std::vector<std::vector<size_t>> producers;
  // Index of a node name; -1 when absent.
  int find(const std::string& name) const;
};
// Assumes every input names a node (check_model reports the others).
KOVRA_API GraphOutline graph_outline(const ::kovra::trenkit::GraphDef& graph);

// The start nodes a run picks from `start_names` (all of them when empty: the
// nodes that read nothing and are not computed from weights alone), and the
// names whose tensors it must be fed: the start nodes' producers, or the
// start nodes themselves when those read nothing.
KOVRA_API std::vector<size_t> run_starts(const GraphOutline& outline,
                                         const std::vector<std::string>& start_names);
KOVRA_API std::vector<std::string> run_feeds(const GraphOutline& outline, const std::vector<size_t>& starts);
// The end nodes a run picks: `end_name`, or every node nobody reads.
KOVRA_API std::vector<size_t> run_ends(const GraphOutline& outline, const std::string& end_name);
// Whether node `end` is one of `starts` or reads from one, directly or not.
KOVRA_API bool run_depends_on(const GraphOutline& outline, size_t end, const std::vector<size_t>& starts);
// Every node the ends need, themselves included, by name.
KOVRA_API std::vector<std::string> run_upstream(const GraphOutline& outline, const std::vector<size_t>& ends);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_MODEL_CHECK_H_
