// Model bytes in any form a model file takes (binary, text or protected
// GraphDef), read as a model file is read, checked, then translated and run on
// small deterministic inputs under the throwing error policy. A kovra::Error is
// the expected end of a bad model; a crash, a sanitizer report or any other
// exception is a finding. The run happens whatever the check says: the
// executor must refuse what the check reports with an Error as well.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "checked_size.h"
#include "compare.h"
#include "errors.h"
#include "graph_executor.h"
#include "model_check.h"
#include "model_parse.h"

namespace kx = kovra::trenkit::kovraexecutor;

namespace {

// Shapes tried for the fed tensors, the first the check accepts is used.
const std::vector<std::vector<int>> kShapes = {{1, 4, 4, 3}, {1, 4, 4, 1}, {1, 4, 4, 4}, {1, 4, 4, 8},
                                               {1, 8, 8, 3}, {1, 8},       {1, 2, 8},    {1, 16}};
// Far below the fuzzer's RSS limit, far above what the shapes above need.
constexpr long long kBudget = 64LL << 20;

std::map<std::string, std::vector<int>> feed_shapes(const std::vector<std::string>& feeds,
                                                    const std::vector<int>& shape) {
  std::map<std::string, std::vector<int>> shapes;
  for (const std::string& name : feeds) shapes[name] = shape;
  return shapes;
}

// The check must never stop, so it runs outside the try; the executor may refuse with an Error.
void check_and_run(const kovra::trenkit::GraphDef& graph) {
  // Shapes cannot mend a model with problems of its own: those run on the first shape.
  const bool clean = kx::check_model(graph).problems.empty();
  const kx::GraphOutline outline = kx::graph_outline(graph);
  const std::vector<std::string> feeds = kx::run_feeds(outline, kx::run_starts(outline, {}));
  std::vector<int> shape = kShapes.front();
  for (const std::vector<int>& candidate : kShapes) {
    if (clean && kx::check_model(graph, feed_shapes(feeds, candidate)).problems.empty()) {
      shape = candidate;
      break;
    }
  }
  std::vector<float> values(static_cast<size_t>(kx::shape_count(shape)));
  for (size_t i = 0; i < values.size(); ++i)
    values[i] = static_cast<float>(static_cast<int>(i * 7 % 11) - 5) / 4;
  std::vector<std::unique_ptr<kx::Tensor>> inputs;
  for (const std::string& name : feeds) inputs.push_back(kx::tensor_of(name, shape, values));
  try {
    kx::GraphExecutor executor(&graph, kx::CPU);
    executor.set_memory_budget(kBudget);
    for (const auto& input : inputs) executor.set_input(input->name(), input.get());
    executor.work();
    // Read every output whole, so a short or stale buffer shows.
    float sum = 0;
    for (const std::string& name : executor.get_output_names()) {
      for (float v : executor.get_node_float_data(executor.get_output_tensor(name))) sum += v;
    }
    volatile float keep = sum;
    (void)keep;
  } catch (const kx::Error& e) {
    // To see why a seed does not run clean.
    if (std::getenv("KOVRA_FUZZ_VERBOSE") != nullptr) std::printf("  %s: %s\n", e.node().c_str(), e.what());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    kx::set_message_sink([](kx::MessageLevel, const std::string&) {});
    kx::GraphExecutor::set_num_threads(1);
    return true;
  }();
  (void)quiet;
  std::string bytes(reinterpret_cast<const char*>(data), size);
  kovra::trenkit::GraphDef graph;
  kx::ModelFormat format;
  std::string error, binary;
  if (!kx::parse_model(bytes, "input", "auto", graph, format, error, binary)) return 0;
  kx::ScopedErrorPolicy policy(kx::ErrorPolicy::kThrow);
  check_and_run(graph);
  return 0;
}
