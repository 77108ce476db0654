// Throughput of the float pooling, resize, concat, transpose and slice operators on a
// [1, 112, 112, 64] activation; items are input elements. The *Tiny cases
// time one call on a few elements: the operator's own cost per call.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "op_executor.h"
#include "tensor.h"

namespace {

using kovra::trenkit::AttrValue;
using kovra::trenkit::NodeDef;
using kovra::trenkit::kovraexecutor::Holder;
using kovra::trenkit::kovraexecutor::OpExecutor;
using kovra::trenkit::kovraexecutor::Tensor;

const std::vector<int> kShape = {1, 112, 112, 64};

Tensor random_tensor(const std::vector<int>& shape, unsigned seed) {
  Tensor t(shape, Tensor::DT_FLOAT, nullptr, "cpu");
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  float* data = t.mutable_data<float>();
  for (int i = 0; i < t.size(); ++i) data[i] = dist(gen);
  return t;
}

void set_ints(NodeDef& node, const char* key, const std::vector<int>& values) {
  AttrValue& attr = (*node.mutable_attr())[key];
  for (int v : values) attr.mutable_list()->add_i(v);
}

void run_op(benchmark::State& state, const char* op_name, const NodeDef& node,
            const std::vector<const Tensor*>& inputs) {
  std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at(op_name)());
  op->parse_parameter(node);
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  Tensor output;
  output.set_data(shape, Tensor::DT_FLOAT, nullptr);
  long long elements = 0;
  for (const Tensor* t : inputs) elements += t->size();
  for (auto _ : state) {
    op->execute(inputs, &output);
    benchmark::DoNotOptimize(output.mutable_data<float>());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * elements);
}

void BM_MaxPool3x3S2(benchmark::State& state) {
  Tensor input = random_tensor(kShape, 1);
  NodeDef node;
  set_ints(node, "ksize", {1, 3, 3, 1});
  set_ints(node, "strides", {1, 2, 2, 1});
  (*node.mutable_attr())["padding"].set_s("SAME");
  run_op(state, "Z40MaxPool", node, {&input});
}

void BM_ResizeBilinearX2(benchmark::State& state) {
  Tensor input = random_tensor(kShape, 2);
  NodeDef node;
  (*node.mutable_attr())["wh_scale"].set_f(2.0f);
  run_op(state, "Z40ResizeBilinear", node, {&input});
}

void BM_Concat(benchmark::State& state) {
  Tensor a = random_tensor(kShape, 3);
  Tensor b = random_tensor(kShape, 4);
  NodeDef node;
  run_op(state, "Z40Concat", node, {&a, &b});
}

// Channels-last to channels-first: a strided gather with no contiguous row.
void BM_Transpose(benchmark::State& state) {
  Tensor input = random_tensor(kShape, 10);
  NodeDef node;
  set_ints(node, "perm", {0, 3, 1, 2});
  set_ints(node, "output_shape", {1, 64, 112, 112});
  run_op(state, "Z40Transpose", node, {&input});
}

// Every other row and column, all channels: contiguous runs of 64 floats.
void BM_SliceStrided(benchmark::State& state) {
  Tensor input = random_tensor(kShape, 11);
  NodeDef node;
  set_ints(node, "output_shape", {1, 56, 56, 64});
  set_ints(node, "starts", {0, 0});
  set_ints(node, "ends", {112, 112});
  set_ints(node, "axes", {1, 2});
  set_ints(node, "steps", {2, 2});
  run_op(state, "Z40Slice", node, {&input});
}

void BM_MaxPoolTiny(benchmark::State& state) {
  Tensor input = random_tensor({1, 4, 4, 4}, 5);
  NodeDef node;
  set_ints(node, "ksize", {1, 3, 3, 1});
  set_ints(node, "strides", {1, 2, 2, 1});
  (*node.mutable_attr())["padding"].set_s("SAME");
  run_op(state, "Z40MaxPool", node, {&input});
}

void BM_ResizeBilinearTiny(benchmark::State& state) {
  Tensor input = random_tensor({1, 2, 2, 4}, 6);
  NodeDef node;
  (*node.mutable_attr())["wh_scale"].set_f(2.0f);
  run_op(state, "Z40ResizeBilinear", node, {&input});
}

void BM_ConcatTiny(benchmark::State& state) {
  Tensor a = random_tensor({1, 1, 1, 4}, 7);
  Tensor b = random_tensor({1, 1, 1, 4}, 8);
  NodeDef node;
  run_op(state, "Z40Concat", node, {&a, &b});
}

void BM_TransposeTiny(benchmark::State& state) {
  Tensor input = random_tensor({1, 2, 2, 4}, 9);
  NodeDef node;
  set_ints(node, "perm", {0, 3, 1, 2});
  set_ints(node, "output_shape", {1, 4, 2, 2});
  run_op(state, "Z40Transpose", node, {&input});
}

BENCHMARK(BM_MaxPool3x3S2)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ResizeBilinearX2)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Concat)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_Transpose)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_SliceStrided)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_MaxPoolTiny);
BENCHMARK(BM_ResizeBilinearTiny);
BENCHMARK(BM_ConcatTiny);
BENCHMARK(BM_TransposeTiny);

}  // namespace
