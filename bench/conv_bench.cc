// Float convolution, depthwise convolution and matrix multiply at the shapes
// of common image networks (batch 1, NHWC, SAME, with bias), on 1 and 2
// threads, as the operators run them (prepared once, weights packed once).
// With oneDNN installed each shape also runs oneDNN's primitive in the same
// process; its row reports our GFLOP/s divided by its own ("ratio").
// The "op/" rows time one execute of an operator on a tiny input: the fixed
// cost of a node, with the heap allocations per execute as a counter.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "op_executor.h"
#include "ops/kernels/activate.h"
#include "ops/kernels/conv2d_cpu.h"
#include "ops/kernels/dwconv2d_cpu.h"
#include "ops/kernels/gemm_f32.h"
#include "ops/kernels/matmul_cpu.h"
#include "ops/kernels/winograd_f32.h"
#include "thread_pool.h"

#ifdef KOVRA_HAVE_DNNL
#include <dnnl.hpp>
#endif

namespace {

using namespace kovra::trenkit::kovraexecutor;

struct Shape {
  const char* name;
  int h, w, c, oc, k, stride;
  bool depthwise;
  int M, K, N;  // matrix products when M > 0
};

const Shape kShapes[] = {
    {"C1", 224, 224, 3, 32, 3, 2, false, 0, 0, 0},  {"C2", 56, 56, 64, 64, 3, 1, false, 0, 0, 0},
    {"C3", 56, 56, 64, 256, 1, 1, false, 0, 0, 0},  {"C4", 28, 28, 128, 128, 3, 1, false, 0, 0, 0},
    {"C5", 14, 14, 256, 256, 3, 1, false, 0, 0, 0}, {"C6", 7, 7, 512, 512, 3, 1, false, 0, 0, 0},
    {"D1", 112, 112, 32, 32, 3, 1, true, 0, 0, 0},  {"D2", 56, 56, 128, 128, 3, 1, true, 0, 0, 0},
    {"M1", 0, 0, 0, 0, 0, 0, false, 1, 2048, 1000}, {"M2", 0, 0, 0, 0, 0, 0, false, 64, 512, 512},
};

std::vector<float> random_values(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

int out_size(const Shape& s, int in) { return (in + s.stride - 1) / s.stride; }

// Total SAME padding along one axis, and its top/left part.
int total_pad(const Shape& s, int in) { return std::max(0, (out_size(s, in) - 1) * s.stride + s.k - in); }

double flops(const Shape& s) {
  if (s.M > 0) return 2.0 * s.M * s.K * s.N;
  const double pixels = static_cast<double>(out_size(s, s.h)) * out_size(s, s.w);
  return s.depthwise ? 2.0 * pixels * s.c * s.k * s.k : 2.0 * pixels * s.oc * s.c * s.k * s.k;
}

ConvGeometry geometry(const Shape& s) {
  ConvGeometry g;
  g.in_h = s.h, g.in_w = s.w, g.in_c = s.c;
  g.out_h = out_size(s, s.h), g.out_w = out_size(s, s.w), g.out_c = s.oc;
  g.kernel_h = g.kernel_w = s.k;
  g.stride_h = g.stride_w = s.stride;
  if (s.depthwise) {
    g.pad_top = same_pad_direct(g.out_h, s.stride, s.k, 1, s.h);
    g.pad_left = same_pad_direct(g.out_w, s.stride, s.k, 1, s.w);
  } else {
    g.pad_top = same_pad_tiled(g.out_h, s.stride, s.k, s.h);
    g.pad_left = same_pad_tiled(g.out_w, s.stride, s.k, s.w);
  }
  return g;
}

void set_omp_threads(int threads) {
  using SetThreads = void (*)(int);
  if (auto fn = reinterpret_cast<SetThreads>(dlsym(RTLD_DEFAULT, "omp_set_num_threads"))) fn(threads);
}

// Our GFLOP/s per (shape, threads), read by the oneDNN row that follows.
std::map<std::string, double>& our_rates() {
  static std::map<std::string, double> rates;
  return rates;
}

void report(benchmark::State& state, const Shape& s, double seconds, const std::string& key, bool ours) {
  const double gflops = flops(s) * static_cast<double>(state.iterations()) / seconds * 1e-9;
  state.counters["GFLOPs"] = gflops;
  if (ours) {
    our_rates()[key] = gflops;
  } else if (our_rates().count(key) != 0) {
    state.counters["ratio"] = our_rates()[key] / gflops;
  }
}

double thread_cpu_seconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Seconds spent in body over all iterations. On one thread everything runs
// on this thread, so its processor time is used: on a shared machine that
// stays meaningful when other processes take the cores. With more threads
// only elapsed time says anything.
template <class Body>
double timed_loop(benchmark::State& state, int threads, Body body) {
  body();  // warm up caches and the pool
  double seconds = 0;
  for (auto _ : state) {
    if (threads == 1) {
      const double start = thread_cpu_seconds();
      body();
      seconds += thread_cpu_seconds() - start;
    } else {
      const auto start = std::chrono::steady_clock::now();
      body();
      seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
  }
  return seconds;
}

void run_ours(benchmark::State& state, const Shape& s, int threads) {
  ThreadPool::instance().set_num_threads(threads);
  double seconds;
  if (s.M > 0) {
    const std::vector<float> a = random_values(static_cast<size_t>(s.M) * s.K, 1);
    const std::vector<float> b = random_values(static_cast<size_t>(s.K) * s.N, 2);
    const std::vector<float> bias = random_values(s.N, 3);
    std::vector<float> out(static_cast<size_t>(s.M) * s.N);
    MatMulArgs args;
    args.M = s.M, args.K = s.K, args.N = s.N;
    PackedPanelsF32 cache;
    const float* packed = s.M > 1 ? pack_panels_f32(b.data(), s.K, s.N, 1, &cache) : nullptr;
    seconds = timed_loop(state, threads,
                         [&] { matmul_cpu(a.data(), b.data(), bias.data(), out.data(), args, packed); });
  } else {
    const ConvGeometry g = geometry(s);
    const std::vector<float> in = random_values(static_cast<size_t>(s.h) * s.w * s.c, 1);
    const std::vector<float> w =
        random_values(static_cast<size_t>(s.k) * s.k * (s.depthwise ? 1 : s.c) * s.oc, 2);
    const std::vector<float> bias = random_values(s.oc, 3);
    std::vector<float> out(static_cast<size_t>(g.out_h) * g.out_w * s.oc);
    if (s.depthwise) {
      seconds =
          timed_loop(state, threads, [&] { dwconv2d_cpu(in.data(), w.data(), bias.data(), out.data(), g); });
    } else if (winograd_f23_applies(g)) {
      // The operator's choice for 3x3 with unit steps.
      WinogradPlan plan;
      prepare_winograd_f23(g, &plan);
      WinogradWeights weights;
      transform_winograd_weights(w.data(), s.c, s.oc, 1, &weights);
      seconds = timed_loop(state, threads,
                           [&] { conv2d_winograd_f23(plan, in.data(), weights, bias.data(), out.data()); });
    } else {
      ConvTilePlan plan;
      prepare_conv_tiles(g, &plan);
      PackedPanelsF32 cache;
      const float* packed = pack_panels_f32(w.data(), plan.K, s.oc, 1, &cache);
      seconds = timed_loop(state, threads, [&] {
        conv2d_avx_cpu(plan, in.data(), w.data(), packed, bias.data(), out.data());
      });
    }
  }
  report(state, s, seconds, std::string(s.name) + "/" + std::to_string(threads), true);
}

#ifdef KOVRA_HAVE_DNNL
void run_onednn(benchmark::State& state, const Shape& s, int threads) {
  using namespace dnnl;
  using tag = memory::format_tag;
  using dt = memory::data_type;
  set_omp_threads(threads);
  engine eng(engine::kind::cpu, 0);
  stream strm(eng);
  primitive prim;
  std::unordered_map<int, memory> args;
  std::vector<float> src_data, wei_data, bias_data, dst_data;
  memory::desc src_md, wei_md, bias_md, dst_md, wei_user_md;
  if (s.M > 0) {
    src_md = memory::desc({s.M, s.K}, dt::f32, tag::ab);
    wei_user_md = memory::desc({s.K, s.N}, dt::f32, tag::ab);
    wei_md = memory::desc({s.K, s.N}, dt::f32, tag::any);
    bias_md = memory::desc({1, s.N}, dt::f32, tag::ab);
    dst_md = memory::desc({s.M, s.N}, dt::f32, tag::ab);
    matmul::primitive_desc pd(matmul::desc(src_md, wei_md, bias_md, dst_md), eng);
    prim = matmul(pd);
    wei_md = pd.weights_desc();
    src_data = random_values(static_cast<size_t>(s.M) * s.K, 1);
    wei_data = random_values(static_cast<size_t>(s.K) * s.N, 2);
    bias_data = random_values(s.N, 3);
    dst_data.resize(static_cast<size_t>(s.M) * s.N);
  } else {
    const int oh = out_size(s, s.h), ow = out_size(s, s.w);
    const int ph = total_pad(s, s.h), pw = total_pad(s, s.w);
    const memory::dims pad_l = {ph / 2, pw / 2}, pad_r = {ph - ph / 2, pw - pw / 2};
    src_md = memory::desc({1, s.c, s.h, s.w}, dt::f32, tag::nhwc);
    dst_md = memory::desc({1, s.oc, oh, ow}, dt::f32, tag::nhwc);
    bias_md = memory::desc({s.oc}, dt::f32, tag::x);
    if (s.depthwise) {
      wei_user_md = memory::desc({s.c, 1, 1, s.k, s.k}, dt::f32, tag::goihw);
      wei_md = memory::desc({s.c, 1, 1, s.k, s.k}, dt::f32, tag::any);
    } else {
      wei_user_md = memory::desc({s.oc, s.c, s.k, s.k}, dt::f32, tag::oihw);
      wei_md = memory::desc({s.oc, s.c, s.k, s.k}, dt::f32, tag::any);
    }
    convolution_forward::primitive_desc pd(
        convolution_forward::desc(prop_kind::forward_inference, algorithm::convolution_direct, src_md, wei_md,
                                  bias_md, dst_md, {s.stride, s.stride}, pad_l, pad_r),
        eng);
    prim = convolution_forward(pd);
    wei_md = pd.weights_desc();
    src_data = random_values(static_cast<size_t>(s.h) * s.w * s.c, 1);
    wei_data = random_values(wei_user_md.get_size() / sizeof(float), 2);
    bias_data = random_values(s.oc, 3);
    dst_data.resize(static_cast<size_t>(oh) * ow * s.oc);
  }
  memory src(src_md, eng, src_data.data()), bias(bias_md, eng, bias_data.data()),
      dst(dst_md, eng, dst_data.data());
  memory wei_user(wei_user_md, eng, wei_data.data()), wei(wei_md, eng);
  // Weights are put into oneDNN's preferred layout once, outside the timing.
  reorder(wei_user, wei).execute(strm, wei_user, wei);
  strm.wait();
  args = {{DNNL_ARG_SRC, src}, {DNNL_ARG_WEIGHTS, wei}, {DNNL_ARG_BIAS, bias}, {DNNL_ARG_DST, dst}};
  const double seconds = timed_loop(state, threads, [&] {
    prim.execute(strm, args);
    strm.wait();
  });
  report(state, s, seconds, std::string(s.name) + "/" + std::to_string(threads), false);
}
#endif

std::atomic<long>& heap_allocations() {
  static std::atomic<long> count{0};
  return count;
}

// One operator on a [1, 1, 1, 4] input, 4 output channels, 1 x 1 kernel
// with bias: inference_shape once, then execute only.
void run_tiny_op(benchmark::State& state, const char* op_name, bool int8) {
  ThreadPool::instance().set_num_threads(1);
  kovra::trenkit::NodeDef node;
  (*node.mutable_attr())["padding"].set_s("SAME");
  auto* strides = (*node.mutable_attr())["strides"].mutable_list();
  for (int i = 0; i < 4; ++i) strides->add_i(1);
  if (int8) {
    auto* scale = (*node.mutable_attr())["OUTPUTSCALE"].mutable_list();
    for (int i = 0; i < 4; ++i) scale->add_f(0.01f);
  }
  std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at(op_name)());
  op->parse_parameter(node);
  std::vector<float> x = {1, 2, 3, 4}, w(16, 1.0f), b(4, 0.5f);
  Tensor in({1, 1, 1, 4}, Tensor::DT_FLOAT, x.data(), "cpu");
  Tensor wt({1, 1, 4, 4}, Tensor::DT_FLOAT, w.data(), "cpu");
  Tensor bt({4}, Tensor::DT_FLOAT, b.data(), "cpu");
  const std::vector<const Tensor*> inputs = {&in, &wt, &bt};
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  Tensor out(shape, Tensor::DT_FLOAT, nullptr, "cpu");
  op->execute(inputs, &out);
  const long before = heap_allocations().load();
  for (auto _ : state) op->execute(inputs, &out);
  state.counters["allocs"] = static_cast<double>(heap_allocations().load() - before) / state.iterations();
}

const bool kRegistered = [] {
  benchmark::RegisterBenchmark("op/Z40Conv2D_1x1_c4", [](benchmark::State& st) {
    run_tiny_op(st, "Z40Conv2D", false);
  })->Unit(benchmark::kNanosecond);
  benchmark::RegisterBenchmark("op/Z40Conv2DInt8_1x1_c4", [](benchmark::State& st) {
    run_tiny_op(st, "Z40Conv2DInt8", true);
  })->Unit(benchmark::kNanosecond);
  for (const Shape& s : kShapes) {
    for (int threads : {1, 2}) {
      const std::string suffix = std::string(s.name) + "/threads:" + std::to_string(threads);
      benchmark::RegisterBenchmark(("kovra/" + suffix).c_str(),
                                   [s, threads](benchmark::State& st) { run_ours(st, s, threads); })
          ->Unit(benchmark::kMicrosecond)
          ->MinTime(0.3);
#ifdef KOVRA_HAVE_DNNL
      benchmark::RegisterBenchmark(("onednn/" + suffix).c_str(),
                                   [s, threads](benchmark::State& st) { run_onednn(st, s, threads); })
          ->Unit(benchmark::kMicrosecond)
          ->MinTime(0.3);
#endif
    }
  }
  return true;
}();

}  // namespace

// Counts the heap allocations of the "op/" rows. GCC takes the replacement
// operators for a mismatched pair of allocation functions.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t size) {
  heap_allocations().fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
