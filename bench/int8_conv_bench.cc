// Int8 convolutions of the usual 3 x 3 layer shapes (batch 1, NHWC, SAME,
// bias), one thread: the exact integer path, the exact float path on the same
// data, our float convolution, and oneDNN's u8 x s8 and f32 convolutions when
// oneDNN is installed.
// Inputs are codes 0..127 and weights roughly normal with sigma 12, so every
// layer stays inside the integer path's worst-case exactness bound. The
// "Full8Bit" cases use codes as a quantized network has them: weights scaled
// per channel to the full [-127, 127] range, activations after a ReLU (half
// zero, the rest spread up to 255), where the worst-case bound fails for the
// 256- and 512-channel layers and each output's own sums decide. The
// "Unproven" cases (codes 200..255, weights 100..127) leave every output to the
// float order: the cost of checking and computing everything again.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "graph_executor.h"
#include "op_executor.h"
#include "ops/kernels/conv2d_cpu.h"
#include "ops/kernels/gemm_f32.h"
#include "ops/kernels/int8_dot_path.h"
#include "thread_pool.h"

#ifdef KOVRA_HAVE_DNNL
#include <dnnl.hpp>
extern "C" void omp_set_num_threads(int) __attribute__((weak));
#endif

namespace {

namespace kx = kovra::trenkit::kovraexecutor;

struct Shape {
  int hw, cin, cout;
};
const Shape kShapes[] = {{56, 64, 64}, {28, 128, 128}, {14, 256, 256}, {7, 512, 512}};

double ops(const Shape& s) { return 2.0 * s.hw * s.hw * s.cout * 9.0 * s.cin; }

struct Data {
  std::vector<float> input, weight, bias;
};

enum class Codes { kSmall, kFull8Bit, kUnproven };

Data make_data(const Shape& s, Codes codes = Codes::kSmall) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> code(0, 127);
  std::normal_distribution<float> w(0.0f, 12.0f);
  Data d;
  d.input.resize((size_t)s.hw * s.hw * s.cin);
  for (float& v : d.input) v = (float)code(rng);
  d.weight.resize((size_t)9 * s.cin * s.cout);
  for (float& v : d.weight) v = std::max(-128.0f, std::min(127.0f, std::nearbyint(w(rng))));
  if (codes == Codes::kFull8Bit) {
    std::normal_distribution<float> unit(0.0f, 1.0f);
    for (float& v : d.input) v = std::min(255.0f, std::nearbyint(std::max(0.0f, unit(rng)) * 64.0f));
    std::vector<float> g(d.weight.size());
    for (float& v : g) v = unit(rng);
    for (int n = 0; n < s.cout; ++n) {
      float largest = 0.0f;
      for (size_t k = n; k < g.size(); k += s.cout) largest = std::max(largest, std::fabs(g[k]));
      for (size_t k = n; k < g.size(); k += s.cout) d.weight[k] = std::nearbyint(g[k] * 127.0f / largest);
    }
  } else if (codes == Codes::kUnproven) {
    std::uniform_int_distribution<int> big_code(200, 255), big_weight(100, 127);
    for (float& v : d.input) v = (float)big_code(rng);
    for (float& v : d.weight) v = (float)big_weight(rng);
  }
  d.bias.resize(s.cout);
  for (float& v : d.bias) v = (float)(code(rng) * 16 - 1000);
  return d;
}

void set_ints(kovra::trenkit::NodeDef& node, const char* key, std::vector<int> v) {
  auto* list = (*node.mutable_attr())[key].mutable_list();
  for (int x : v) list->add_i(x);
}

void run_ours(benchmark::State& state, bool integer_path, Codes codes = Codes::kSmall) {
  const Shape& s = kShapes[state.range(0)];
  const Data d = make_data(s, codes);
  kx::GraphExecutor::set_num_threads(1);
  kx::set_int8_integer_path_enabled(integer_path);
  kovra::trenkit::NodeDef node;
  (*node.mutable_attr())["padding"].set_s("SAME");
  set_ints(node, "strides", {1, 1, 1, 1});
  set_ints(node, "multify_factor", {0});
  auto* scale = (*node.mutable_attr())["OUTPUTSCALE"].mutable_list();
  for (int c = 0; c < s.cout; ++c) scale->add_f(1.0f / 40000.0f);
  (*node.mutable_attr())["ActionType"].set_s("Relu");
  (*node.mutable_attr())["maxValue"].set_i(127);
  (*node.mutable_attr())["minValue"].set_i(0);
  (*node.mutable_attr())["output_bitwidth"].set_i(8);
  std::unique_ptr<kx::OpExecutor> op(kx::Holder::new_op_creator().at("Z40Conv2DInt8")());
  op->parse_parameter(node);
  kx::Tensor input({1, s.hw, s.hw, s.cin}, kx::Tensor::DT_FLOAT, (void*)d.input.data(), "cpu");
  kx::Tensor weight({3, 3, s.cin, s.cout}, kx::Tensor::DT_FLOAT, (void*)d.weight.data(), "cpu");
  kx::Tensor bias({s.cout}, kx::Tensor::DT_FLOAT, (void*)d.bias.data(), "cpu");
  const std::vector<const kx::Tensor*> inputs = {&input, &weight, &bias};
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  kx::Tensor output(shape, kx::Tensor::DT_FLOAT, nullptr, "cpu");
  kx::reset_int8_path_counts();
  for (auto _ : state) {
    op->execute(inputs, &output);
    benchmark::DoNotOptimize(output.mutable_data<float>());
  }
  kx::set_int8_integer_path_enabled(true);
  const kx::Int8PathCounts counts = kx::int8_path_counts();
  const long long outputs = counts.integer + counts.recomputed;
  state.counters["recomputed"] = outputs == 0 ? 0.0 : (double)counts.recomputed / (double)outputs;
  state.counters["GOP/s"] = benchmark::Counter(ops(s), benchmark::Counter::kIsIterationInvariantRate,
                                               benchmark::Counter::kIs1000);
}

void BM_Int8Conv_IntegerPath(benchmark::State& state) { run_ours(state, true); }
void BM_Int8Conv_FloatPath(benchmark::State& state) { run_ours(state, false); }
BENCHMARK(BM_Int8Conv_IntegerPath)->DenseRange(0, 3)->ArgName("C2_C4_C5_C6")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Int8Conv_FloatPath)->DenseRange(0, 3)->ArgName("C2_C4_C5_C6")->Unit(benchmark::kMicrosecond);
void BM_Int8Conv_Full8Bit_IntegerPath(benchmark::State& state) { run_ours(state, true, Codes::kFull8Bit); }
void BM_Int8Conv_Full8Bit_FloatPath(benchmark::State& state) { run_ours(state, false, Codes::kFull8Bit); }
void BM_Int8Conv_Unproven_IntegerPath(benchmark::State& state) { run_ours(state, true, Codes::kUnproven); }
void BM_Int8Conv_Unproven_FloatPath(benchmark::State& state) { run_ours(state, false, Codes::kUnproven); }
BENCHMARK(BM_Int8Conv_Full8Bit_IntegerPath)
    ->DenseRange(0, 3)
    ->ArgName("C2_C4_C5_C6")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Int8Conv_Full8Bit_FloatPath)
    ->DenseRange(2, 3)
    ->ArgName("C2_C4_C5_C6")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Int8Conv_Unproven_IntegerPath)
    ->DenseRange(2, 3)
    ->ArgName("C2_C4_C5_C6")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Int8Conv_Unproven_FloatPath)
    ->DenseRange(2, 3)
    ->ArgName("C2_C4_C5_C6")
    ->Unit(benchmark::kMicrosecond);

// The float convolution's tiled path on the same shape and values.
void BM_FloatConv(benchmark::State& state) {
  const Shape& s = kShapes[state.range(0)];
  const Data d = make_data(s);
  kx::GraphExecutor::set_num_threads(1);
  kx::ConvGeometry g;
  g.in_h = g.in_w = g.out_h = g.out_w = s.hw;
  g.in_c = s.cin;
  g.out_c = s.cout;
  g.kernel_h = g.kernel_w = 3;
  g.pad_top = g.pad_left = 1;
  std::vector<float> out((size_t)s.hw * s.hw * s.cout);
  // Prepared and packed once, as the operator does.
  kx::ConvTilePlan plan;
  kx::prepare_conv_tiles(g, &plan);
  kx::PackedPanelsF32 cache;
  const float* packed = kx::pack_panels_f32(d.weight.data(), plan.K, s.cout, 1, &cache);
  for (auto _ : state) {
    kx::conv2d_avx_cpu(plan, d.input.data(), d.weight.data(), packed, d.bias.data(), out.data());
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["GOP/s"] = benchmark::Counter(ops(s), benchmark::Counter::kIsIterationInvariantRate,
                                               benchmark::Counter::kIs1000);
}
BENCHMARK(BM_FloatConv)->DenseRange(0, 3)->ArgName("C2_C4_C5_C6")->Unit(benchmark::kMicrosecond);

#ifdef KOVRA_HAVE_DNNL
void run_dnnl(benchmark::State& state, bool quantized) {
  using namespace dnnl;
  if (omp_set_num_threads != nullptr) omp_set_num_threads(1);
  const Shape& s = kShapes[state.range(0)];
  const Data d = make_data(s);
  engine eng(engine::kind::cpu, 0);
  stream strm(eng);
  const memory::dims src_dims = {1, s.cin, s.hw, s.hw}, w_dims = {s.cout, s.cin, 3, 3},
                     b_dims = {s.cout}, dst_dims = {1, s.cout, s.hw, s.hw};
  const auto data_t = quantized ? memory::data_type::u8 : memory::data_type::f32;
  const auto w_t = quantized ? memory::data_type::s8 : memory::data_type::f32;
  const auto src_md = memory::desc(src_dims, data_t, memory::format_tag::nhwc);
  const auto w_md = memory::desc(w_dims, w_t, memory::format_tag::any);
  const auto b_md = memory::desc(b_dims, memory::data_type::f32, memory::format_tag::x);
  const auto dst_md = memory::desc(dst_dims, data_t, memory::format_tag::nhwc);
  convolution_forward::desc desc(prop_kind::forward_inference, algorithm::convolution_direct, src_md,
                                 w_md, b_md, dst_md, {1, 1}, {1, 1}, {1, 1});
  primitive_attr attr;
  if (quantized) attr.set_output_scales(0, {1.0f / 40000.0f});
  convolution_forward::primitive_desc pd(desc, attr, eng);
  memory src(pd.src_desc(), eng), wts(pd.weights_desc(), eng), b(b_md, eng), dst(pd.dst_desc(), eng);
  // Contents do not change the speed of these kernels; fill with our codes.
  if (quantized) {
    auto* p = static_cast<uint8_t*>(src.get_data_handle());
    for (size_t i = 0; i < d.input.size(); ++i) p[i] = (uint8_t)d.input[i];
    auto* q = static_cast<int8_t*>(wts.get_data_handle());
    for (size_t i = 0; i < pd.weights_desc().get_size(); ++i) q[i] = (int8_t)d.weight[i % d.weight.size()];
  } else {
    auto* p = static_cast<float*>(src.get_data_handle());
    for (size_t i = 0; i < d.input.size(); ++i) p[i] = d.input[i];
    auto* q = static_cast<float*>(wts.get_data_handle());
    for (size_t i = 0; i < pd.weights_desc().get_size() / 4; ++i) q[i] = d.weight[i % d.weight.size()];
  }
  auto* bp = static_cast<float*>(b.get_data_handle());
  for (int i = 0; i < s.cout; ++i) bp[i] = d.bias[i];
  convolution_forward conv(pd);
  for (auto _ : state) {
    conv.execute(strm, {{DNNL_ARG_SRC, src}, {DNNL_ARG_WEIGHTS, wts}, {DNNL_ARG_BIAS, b}, {DNNL_ARG_DST, dst}});
    strm.wait();
  }
  state.counters["GOP/s"] = benchmark::Counter(ops(s), benchmark::Counter::kIsIterationInvariantRate,
                                               benchmark::Counter::kIs1000);
}

void BM_Dnnl_U8S8(benchmark::State& state) { run_dnnl(state, true); }
void BM_Dnnl_F32(benchmark::State& state) { run_dnnl(state, false); }
BENCHMARK(BM_Dnnl_U8S8)->DenseRange(0, 3)->ArgName("C2_C4_C5_C6")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Dnnl_F32)->DenseRange(0, 3)->ArgName("C2_C4_C5_C6")->Unit(benchmark::kMicrosecond);
#endif

}  // namespace
