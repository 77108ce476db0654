// Elements per second of representative float element-wise operators on a
// [1, 112, 112, 64] activation, each called through its operator executor;
// the *Tiny cases time one call on [1, 1, 1, 4], what a chain of tiny nodes
// pays per node for the operator itself.
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "op_executor.h"
#include "tensor.h"

namespace {

using kovra::trenkit::NodeDef;
using kovra::trenkit::kovraexecutor::Holder;
using kovra::trenkit::kovraexecutor::OpExecutor;
using kovra::trenkit::kovraexecutor::Tensor;

const std::vector<int> kShape = {1, 112, 112, 64};

Tensor random_tensor(const std::vector<int>& shape, unsigned seed) {
  Tensor t(shape, Tensor::DT_FLOAT, nullptr, "cpu");
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-6.0f, 6.0f);
  float* p = t.mutable_data<float>();
  for (int i = 0; i < t.size(); ++i) p[i] = dist(rng);
  return t;
}

// Runs `op` on inputs of the given shapes (the output shaped like the first).
void run_op(benchmark::State& state, const std::string& op_name,
            const std::vector<std::vector<int>>& shapes, const std::string& action = "",
            float alpha = 0.0f) {
  std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at(op_name)());
  NodeDef node;
  node.set_name("bench");
  if (!action.empty()) (*node.mutable_attr())["ActionType"].set_s(action);
  (*node.mutable_attr())["alpha"].set_f(alpha);
  op->parse_parameter(node);
  std::vector<Tensor> tensors;
  for (size_t i = 0; i < shapes.size(); ++i) tensors.push_back(random_tensor(shapes[i], 7 + i));
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);
  std::vector<int> out_shape;
  op->inference_shape(inputs, out_shape);
  Tensor output(out_shape, Tensor::DT_FLOAT, nullptr, "cpu");
  for (auto _ : state) {
    op->execute(inputs, &output);
    benchmark::DoNotOptimize(output.mutable_data<float>());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(output.size()));
}

void BM_Relu(benchmark::State& state) { run_op(state, "Z40Relu", {kShape}); }
void BM_Sigmoid(benchmark::State& state) { run_op(state, "Z40Sigmoid", {kShape}); }
void BM_EltwiseAdd(benchmark::State& state) { run_op(state, "Z40EltwiseAdd", {kShape, kShape}); }
void BM_EltwiseAddRelu6(benchmark::State& state) {
  run_op(state, "Z40EltwiseAdd", {kShape, kShape}, "Relu6");
}
void BM_AddPerChannel(benchmark::State& state) { run_op(state, "Z40Add", {kShape, {64}}); }
void BM_LeakyRelu(benchmark::State& state) { run_op(state, "Z40LeakyRelu", {kShape}, "", 0.1f); }

const std::vector<int> kTiny = {1, 1, 1, 4};
void BM_ReluTiny(benchmark::State& state) { run_op(state, "Z40Relu", {kTiny}); }
void BM_AddTiny(benchmark::State& state) { run_op(state, "Z40Add", {kTiny, {4}}, "Relu"); }
void BM_MulTiny(benchmark::State& state) { run_op(state, "Z40Mul", {kTiny, {4}}); }

BENCHMARK(BM_Relu);
BENCHMARK(BM_Sigmoid);
BENCHMARK(BM_EltwiseAdd);
BENCHMARK(BM_EltwiseAddRelu6);
BENCHMARK(BM_AddPerChannel);
BENCHMARK(BM_LeakyRelu);
BENCHMARK(BM_ReluTiny);
BENCHMARK(BM_AddTiny);
BENCHMARK(BM_MulTiny);

}  // namespace
