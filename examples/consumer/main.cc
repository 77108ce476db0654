// Runs a graph of quantization-aware placeholder operators through the
// installed library: the smallest complete use of the public interface.
#include <cstdio>

#include <google/protobuf/text_format.h>
#include <kovraexecutor/allocator/bfc_arena.h>
#include <kovraexecutor/graph_executor.h>
#include <kovraexecutor/mallocator.h>

using kovra::trenkit::GraphDef;
using namespace kovra::trenkit::kovraexecutor;

int main() {
  GraphDef graph;
  const char* model = R"(
    node { name: "input" op: "ZxxNOp" }
    node { name: "q" op: "Z40QuantizeAdd" input: "input" attr { key: "output_bitwidth" value { i: 8 } } }
  )";
  if (!google::protobuf::TextFormat::ParseFromString(model, &graph)) return 1;
  GraphExecutor executor(&graph, CPU);
  Tensor input({1, 2, 2, 1}, Tensor::DT_FLOAT, nullptr, "cpu");
  executor.set_input("input", &input);
  executor.work({}, "");
  std::printf("outputs: %zu, first: %s\n", executor.get_output_names().size(),
              executor.get_output_names()[0].c_str());
  // The exported host-memory service comes from the best-fit arena.
  void* block = cpu_malloc(1000);
  cpu_free(block);
  return executor.get_output_names()[0] == "q" && block != nullptr ? 0 : 1;
}
