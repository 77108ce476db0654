// The executor's own cost per node: long chains of tiny nodes (a [1,1,1,4]
// tensor through 2000 Z40Relu, or 2000 1x1 Z40Conv2D of 4 -> 4 channels), so
// that a run's time is scheduling, bookkeeping and operator glue rather than
// arithmetic. The same chains as bench/make_chain_models.py, built in memory.
//
// Reported as ns/node (one run = kNodes nodes). The "/observed" variants
// attach a node observer that sums node times, as the tool's profiler does,
// to show what per-node timing adds.

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "graph_executor.h"
#include "lite/proto/graph_def.pb.h"
#include "tensor.h"

namespace {

using kovra::trenkit::GraphDef;
using kovra::trenkit::NodeDef;
using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::Node;
using kovra::trenkit::kovraexecutor::Tensor;

constexpr int kNodes = 2000;

NodeDef* add_node(GraphDef& graph, const std::string& name, const std::string& op,
                  const std::vector<std::string>& inputs) {
  NodeDef* node = graph.add_node();
  node->set_name(name);
  node->set_op(op);
  for (const std::string& input : inputs) node->add_input(input);
  return node;
}

void add_const(GraphDef& graph, const std::string& name, const std::vector<int>& shape,
               const std::vector<float>& values) {
  NodeDef* node = add_node(graph, name, "Const", {});
  auto* tensor = (*node->mutable_attr())["value"].mutable_tensor();
  tensor->set_dtype(kovra::trenkit::DT_FLOAT);
  for (int d : shape) tensor->mutable_tensor_shape()->add_dim()->set_size(d);
  tensor->set_tensor_content(std::string(reinterpret_cast<const char*>(values.data()), values.size() * 4));
}

GraphDef relu_chain() {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp", {});
  std::string prev = "input";
  for (int i = 0; i < kNodes; ++i) {
    const std::string name = "relu" + std::to_string(i);
    add_node(graph, name, "Z40Relu", {prev});
    prev = name;
  }
  return graph;
}

GraphDef conv_chain() {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp", {});
  // A channel permutation keeps the values bounded over any length.
  std::vector<float> weight(16, 0.0f);
  for (int i = 0; i < 4; ++i) weight[i * 4 + (i + 1) % 4] = 1.0f;
  add_const(graph, "w", {1, 1, 4, 4}, weight);
  add_const(graph, "b", {4}, {0.0f, 0.0f, 0.0f, 0.0f});
  std::string prev = "input";
  for (int i = 0; i < kNodes; ++i) {
    const std::string name = "conv" + std::to_string(i);
    NodeDef* node = add_node(graph, name, "Z40Conv2D", {prev, "w", "b"});
    auto& attr = *node->mutable_attr();
    for (int k = 0; k < 4; ++k) attr["strides"].mutable_list()->add_i(1);
    attr["padding"].set_s("VALID");
    prev = name;
  }
  return graph;
}

void sum_node_time(void* context, const std::string&, const std::string&, long long start_ns,
                   long long end_ns) {
  *static_cast<long long*>(context) += end_ns - start_ns;
}

void run_chain(benchmark::State& state, GraphDef (*make)()) {
  const GraphDef graph = make();
  GraphExecutor executor(&graph, CPU);
  Tensor input({1, 1, 1, 4}, Tensor::DT_FLOAT, nullptr, "cpu");
  const float values[4] = {1.0f, -2.0f, 3.0f, -4.0f};
  std::memcpy(input.mutable_data<float>(), values, sizeof(values));
  executor.set_input("input", &input);
  long long observed_ns = 0;
  if (state.range(0) != 0) executor.set_node_observer(&sum_node_time, &observed_ns);
  executor.work({}, "");  // first run: shapes inferred, buffers allocated
  for (auto _ : state) {
    executor.work({}, "");
    benchmark::DoNotOptimize(executor.get_output_tensor(graph.node(graph.node_size() - 1).name())->get_ptr());
  }
  benchmark::DoNotOptimize(observed_ns);
  state.counters["ns/node"] = benchmark::Counter(static_cast<double>(state.iterations()) * kNodes,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_ReluChain(benchmark::State& state) { run_chain(state, relu_chain); }
void BM_ConvChain(benchmark::State& state) { run_chain(state, conv_chain); }

BENCHMARK(BM_ReluChain)->ArgName("observed")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConvChain)->ArgName("observed")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace
