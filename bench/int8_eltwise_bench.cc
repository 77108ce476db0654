// Element throughput of the int8 border and sum operators on a
// [1, 112, 112, 64] activation, through the registered executors.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "op_executor.h"
#include "ops/kernels/avx_common.h"

namespace kx = kovra::trenkit::kovraexecutor;

namespace {

const std::vector<int> kShape = {1, 112, 112, 64};
constexpr int kChannels = 64;
constexpr int kElements = 112 * 112 * 64;

void set_floats(kx::NodeDef& n, const char* key, float first, float step) {
  auto* list = (*n.mutable_attr())[key].mutable_list();
  for (int c = 0; c < kChannels; ++c) list->add_f(first + step * c);
}

void set_int(kx::NodeDef& n, const char* key, int v) { (*n.mutable_attr())[key].set_i(v); }

kx::NodeDef make_node(const std::string& op) {
  kx::NodeDef n;
  n.set_name("bench");
  n.set_op(op);
  set_floats(n, "QSCALE", 0.5f, 0.01f);
  set_floats(n, "INPUT0SCALE", 0.02f, 0.001f);
  set_floats(n, "INPUT1SCALE", 0.03f, 0.001f);
  set_floats(n, "OUTPUTSCALE", 9.0f, 0.1f);
  for (const char* key : {"offset", "input0_offset", "input1_offset"}) set_int(n, key, 3);
  set_int(n, "maxValue", 127);
  set_int(n, "minValue", -128);
  return n;
}

kx::Tensor random_codes(unsigned seed) {
  kx::Tensor t(kShape, kx::Tensor::DT_FLOAT, nullptr, "cpu");
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> code(-128, 127);
  float* p = t.mutable_data<float>();
  for (int i = 0; i < kElements; ++i) p[i] = static_cast<float>(code(rng));
  return t;
}

void run_op(benchmark::State& state, const std::string& name, int num_inputs, kx::KernelIsa isa) {
  kx::force_isa(isa);
  std::unique_ptr<kx::OpExecutor> op(kx::Holder::new_op_creator().at(name)());
  op->parse_parameter(make_node(name));
  kx::Tensor a = random_codes(1), b = random_codes(2);
  std::vector<const kx::Tensor*> inputs = {&a, &b};
  inputs.resize(num_inputs);
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  kx::Tensor out(shape, kx::Tensor::DT_FLOAT, nullptr, "cpu");
  for (auto _ : state) {
    op->execute(inputs, &out);
    benchmark::DoNotOptimize(out.get_mutable_ptr());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kElements));
  kx::reset_isa();
}

void BM_Quantize(benchmark::State& s) { run_op(s, "Z40Quantize", 1, kx::KernelIsa::kAvx512); }
void BM_Quantize_Portable(benchmark::State& s) {
  run_op(s, "Z40Quantize", 1, kx::KernelIsa::kPortable);
}
void BM_Dequantize(benchmark::State& s) { run_op(s, "Z40Dequantize", 1, kx::KernelIsa::kAvx512); }
void BM_Dequantize_Portable(benchmark::State& s) {
  run_op(s, "Z40Dequantize", 1, kx::KernelIsa::kPortable);
}
void BM_EltwiseAddInt8(benchmark::State& s) {
  run_op(s, "Z40EltwiseAddInt8", 2, kx::KernelIsa::kAvx512);
}
void BM_EltwiseAddInt8_Portable(benchmark::State& s) {
  run_op(s, "Z40EltwiseAddInt8", 2, kx::KernelIsa::kPortable);
}

BENCHMARK(BM_Quantize);
BENCHMARK(BM_Quantize_Portable);
BENCHMARK(BM_Dequantize);
BENCHMARK(BM_Dequantize_Portable);
BENCHMARK(BM_EltwiseAddInt8);
BENCHMARK(BM_EltwiseAddInt8_Portable);

}  // namespace
