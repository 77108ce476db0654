#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "tensor.h"
#include "tensor_operators.h"
#include "tensor_reduce.h"

namespace {

using kovra::trenkit::kovraexecutor::Tensor;

Tensor random_tensor(const std::vector<int>& shape, unsigned seed) {
  Tensor t(shape, Tensor::DT_FLOAT, nullptr, "cpu");
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  float* data = t.mutable_data<float>();
  for (int i = 0; i < t.size(); ++i) data[i] = dist(gen);
  return t;
}

constexpr int kSide = 1024;  // 1M elements

void BM_AddTensors(benchmark::State& state) {
  const Tensor a = random_tensor({kSide, kSide}, 1);
  const Tensor b = random_tensor({kSide, kSide}, 2);
  for (auto _ : state) {
    Tensor r = a + b;
    benchmark::DoNotOptimize(r.get_ptr());
  }
  state.SetItemsProcessed(state.iterations() * a.size());
}
BENCHMARK(BM_AddTensors);

void BM_AddScalar(benchmark::State& state) {
  const Tensor a = random_tensor({kSide, kSide}, 1);
  for (auto _ : state) {
    Tensor r = a + 1.5f;
    benchmark::DoNotOptimize(r.get_ptr());
  }
  state.SetItemsProcessed(state.iterations() * a.size());
}
BENCHMARK(BM_AddScalar);

void BM_BroadcastAddRow(benchmark::State& state) {
  const Tensor a = random_tensor({kSide, kSide}, 1);
  const Tensor row = random_tensor({kSide}, 2);
  for (auto _ : state) {
    Tensor r = a + row;
    benchmark::DoNotOptimize(r.get_ptr());
  }
  state.SetItemsProcessed(state.iterations() * a.size());
}
BENCHMARK(BM_BroadcastAddRow);

void BM_ReduceSum(benchmark::State& state) {
  const int axis = static_cast<int>(state.range(0));
  const Tensor a = random_tensor({kSide, kSide}, 1);
  for (auto _ : state) {
    Tensor r = a.reduce_sum(axis, false);
    benchmark::DoNotOptimize(r.get_ptr());
  }
  state.SetItemsProcessed(state.iterations() * a.size());
}
BENCHMARK(BM_ReduceSum)->Arg(0)->Arg(1);

void BM_ReduceSumWhole(benchmark::State& state) {
  const Tensor a = random_tensor({kSide, kSide}, 1);
  for (auto _ : state) benchmark::DoNotOptimize(a.reduce_sum());
  state.SetItemsProcessed(state.iterations() * a.size());
}
BENCHMARK(BM_ReduceSumWhole);

}  // namespace
