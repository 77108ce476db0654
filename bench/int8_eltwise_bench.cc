// Element throughput of the int8 operators on a [1, 112, 112, 64] activation,
// through the registered executors: prepared once, then executed per
// iteration as a graph runs them.
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

void set_ints(kx::NodeDef& n, const char* key, const std::vector<int>& v) {
  auto* list = (*n.mutable_attr())[key].mutable_list();
  for (int x : v) list->add_i(x);
}

kx::NodeDef make_node(const std::string& op) {
  kx::NodeDef n;
  n.set_name("bench");
  n.set_op(op);
  set_floats(n, "QSCALE", 0.5f, 0.01f);
  set_floats(n, "DEQSCALE", 0.05f, 0.001f);
  set_floats(n, "INPUT0SCALE", 0.02f, 0.001f);
  set_floats(n, "INPUT1SCALE", 0.03f, 0.001f);
  set_floats(n, "INPUTSCALE", 0.02f, 0.001f);
  set_floats(n, "OUTPUTSCALE", 9.0f, 0.1f);
  for (const char* key : {"offset", "input0_offset", "input1_offset", "input_offset"}) set_int(n, key, 3);
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

struct Case {
  const char* name;
  const char* op;
  int num_inputs;
  kx::KernelIsa isa;
  void (*attrs)(kx::NodeDef&);
};

const Case kCases[] = {
    {"Quantize", "Z40Quantize", 1, kx::KernelIsa::kAvx512, nullptr},
    {"Quantize_Portable", "Z40Quantize", 1, kx::KernelIsa::kPortable, nullptr},
    {"Dequantize", "Z40Dequantize", 1, kx::KernelIsa::kAvx512, nullptr},
    {"Dequantize_Portable", "Z40Dequantize", 1, kx::KernelIsa::kPortable, nullptr},
    {"EltwiseAddInt8", "Z40EltwiseAddInt8", 2, kx::KernelIsa::kAvx512, nullptr},
    {"EltwiseAddInt8_Portable", "Z40EltwiseAddInt8", 2, kx::KernelIsa::kPortable, nullptr},
    {"MaxInt8", "Z40MaxInt8", 2, kx::KernelIsa::kAvx512, nullptr},
    {"EltwiseMulInt8", "Z40EltwiseMulInt8", 2, kx::KernelIsa::kAvx512, nullptr},
    {"SigmoidInt8", "Z40SigmoidInt8", 1, kx::KernelIsa::kAvx512, nullptr},
    {"ConcatInt8", "Z40ConcatInt8", 2, kx::KernelIsa::kAvx512, nullptr},
    {"AvgPoolInt8", "Z40AvgPoolInt8", 1, kx::KernelIsa::kAvx512,
     [](kx::NodeDef& n) {
       set_ints(n, "ksize", {1, 3, 3, 1});
       set_ints(n, "strides", {1, 2, 2, 1});
       (*n.mutable_attr())["padding"].set_s("SAME");
     }},
    {"MaxPoolInt8", "Z40MaxPoolInt8", 1, kx::KernelIsa::kAvx512,
     [](kx::NodeDef& n) {
       set_ints(n, "ksize", {1, 3, 3, 1});
       set_ints(n, "strides", {1, 2, 2, 1});
       (*n.mutable_attr())["padding"].set_s("SAME");
     }},
    {"ResizeBilinearInt8", "Z40ResizeBilinearInt8", 1, kx::KernelIsa::kAvx512,
     [](kx::NodeDef& n) { (*n.mutable_attr())["wh_scale"].set_f(1.5f); }},
    {"SliceInt8", "Z40SliceInt8", 1, kx::KernelIsa::kAvx512,
     [](kx::NodeDef& n) {
       set_ints(n, "output_shape", {1});
       set_ints(n, "axes", {1, 2});
       set_ints(n, "starts", {1, 1});
       set_ints(n, "ends", {111, 111});
       set_ints(n, "steps", {2, 2});
     }},
    {"TransposeInt8", "Z40TransposeInt8", 1, kx::KernelIsa::kAvx512,
     [](kx::NodeDef& n) {
       set_ints(n, "perm", {0, 3, 1, 2});
       set_ints(n, "output_shape", {1, 64, 112, 112});
     }},
    {"ReshapeOnnxInt8", "Z40ReshapeInt8", 1, kx::KernelIsa::kAvx512,
     [](kx::NodeDef& n) {
       set_ints(n, "output_shape", {1, 56, 224, 64});
       (*n.mutable_attr())["src_framework"].set_s("ONNX");
     }},
};

void run_op(benchmark::State& state, const Case& c) {
  kx::force_isa(c.isa);
  std::unique_ptr<kx::OpExecutor> op(kx::Holder::new_op_creator().at(c.op)());
  kx::NodeDef node = make_node(c.op);
  if (c.attrs != nullptr) c.attrs(node);
  op->parse_parameter(node);
  kx::Tensor a = random_codes(1), b = random_codes(2);
  std::vector<const kx::Tensor*> inputs = {&a, &b};
  inputs.resize(c.num_inputs);
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

const bool kRegistered = [] {
  for (const Case& c : kCases) {
    benchmark::RegisterBenchmark((std::string("BM_") + c.name).c_str(),
                                 [&c](benchmark::State& s) { run_op(s, c); });
  }
  return true;
}();

}  // namespace
