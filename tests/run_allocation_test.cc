// A run on unchanged input shapes makes no heap allocation: every buffer,
// shape and plan is settled by the first run and reused by the next.
//
// The binary interposes malloc, calloc, realloc, the aligned forms and
// operator new, forwarding to the C library's own allocator and counting
// calls while a run is being watched. Under AddressSanitizer the sanitizer
// owns these symbols, so the counting is compiled out and the tests skip.

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define KOVRA_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KOVRA_SANITIZED 1
#endif
#endif
#if !defined(KOVRA_SANITIZED) && defined(__GLIBC__)
#define KOVRA_COUNT_ALLOCATIONS 1
#endif

#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <cmath>

#include "graph_executor.h"
#include "support/test_util.h"

namespace {

std::atomic<bool> g_watching{false};
std::atomic<long> g_allocations{0};

inline void note_allocation() {
  if (g_watching.load(std::memory_order_relaxed)) g_allocations.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

#ifdef KOVRA_COUNT_ALLOCATIONS
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* ptr);

void* malloc(size_t size) noexcept {
  note_allocation();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
  note_allocation();
  return __libc_calloc(count, size);
}
void* realloc(void* ptr, size_t size) noexcept {
  note_allocation();
  return __libc_realloc(ptr, size);
}
void free(void* ptr) noexcept { __libc_free(ptr); }
void* aligned_alloc(size_t alignment, size_t size) noexcept {
  note_allocation();
  return __libc_memalign(alignment, size);
}
void* memalign(size_t alignment, size_t size) noexcept {
  note_allocation();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
  note_allocation();
  if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) return EINVAL;
  void* ptr = __libc_memalign(alignment, size);
  if (ptr == nullptr) return ENOMEM;
  *out = ptr;
  return 0;
}
}  // extern "C"

// operator new counts once, through malloc above.
void* operator new(std::size_t size) {
  void* ptr = std::malloc(size == 0 ? 1 : size);
  if (ptr == nullptr) throw std::bad_alloc();
  return ptr;
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  const size_t a = static_cast<size_t>(alignment) < sizeof(void*) ? sizeof(void*) : static_cast<size_t>(alignment);
  void* ptr = nullptr;
  if (posix_memalign(&ptr, a, size == 0 ? 1 : size) != 0) throw std::bad_alloc();
  return ptr;
}
void* operator new[](std::size_t size, std::align_val_t alignment) { return ::operator new(size, alignment); }
void operator delete(void* ptr) noexcept { std::free(ptr); }
void operator delete[](void* ptr) noexcept { std::free(ptr); }
void operator delete(void* ptr, std::size_t) noexcept { std::free(ptr); }
void operator delete[](void* ptr, std::size_t) noexcept { std::free(ptr); }
void operator delete(void* ptr, std::align_val_t) noexcept { std::free(ptr); }
void operator delete[](void* ptr, std::align_val_t) noexcept { std::free(ptr); }
void operator delete(void* ptr, std::size_t, std::align_val_t) noexcept { std::free(ptr); }
void operator delete[](void* ptr, std::size_t, std::align_val_t) noexcept { std::free(ptr); }
#endif  // KOVRA_COUNT_ALLOCATIONS

namespace kovra_test {
namespace {

using kovra::trenkit::GraphDef;
using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::GraphExecutor;

// Heap allocations made while `fn` runs.
template <typename Fn>
long allocations_during(Fn fn) {
  g_allocations.store(0);
  g_watching.store(true);
  fn();
  g_watching.store(false);
  return g_allocations.load();
}

// NHWC convolution, stride 1, zero "SAME" padding for odd kernels; weights
// [kh, kw, in, out].
std::vector<float> reference_conv(const std::vector<float>& x, int h, int w, int c, const std::vector<float>& wt,
                                  int k, int out_c, const std::vector<float>& bias) {
  std::vector<float> y(static_cast<size_t>(h) * w * out_c);
  const int pad = k / 2;
  for (int oy = 0; oy < h; ++oy) {
    for (int ox = 0; ox < w; ++ox) {
      for (int o = 0; o < out_c; ++o) {
        float sum = bias[o];
        for (int ky = 0; ky < k; ++ky) {
          for (int kx = 0; kx < k; ++kx) {
            const int iy = oy + ky - pad, ix = ox + kx - pad;
            if (iy < 0 || iy >= h || ix < 0 || ix >= w) continue;
            for (int i = 0; i < c; ++i) {
              sum += x[(iy * w + ix) * c + i] * wt[((ky * k + kx) * c + i) * out_c + o];
            }
          }
        }
        y[(oy * w + ox) * out_c + o] = sum;
      }
    }
  }
  return y;
}

struct RunCase {
  const char* name;
  GraphDef graph;
  std::vector<int> input_shape;
  std::vector<float> input;
  std::string output;
  std::vector<float> expected;
  // Each tensor freed after its last reader; outputs take pooled buffers.
  bool inplace = false;
};

std::vector<float> ramp(int n, float scale, float offset) {
  std::vector<float> v(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) v[i] = scale * static_cast<float>(i) + offset;
  return v;
}

RunCase relu_chain() {
  RunCase c{"ReluChain", {}, {1, 1, 2, 4}, {1, -2, 3, -4, -0.5f, 0.5f, 0, 7}, "relu49", {1, 0, 3, 0, 0, 0.5f, 0, 7}};
  add_node(c.graph, "input", "ZxxNOp");
  std::string prev = "input";
  for (int i = 0; i < 50; ++i) {
    const std::string name = "relu" + std::to_string(i);
    add_node(c.graph, name, "Z40Relu", {prev});
    prev = name;
  }
  return c;
}

// A diamond whose first branch stays live across the second: r1 must keep its
// buffer until the add has read it, however the pool hands buffers out.
RunCase inplace_diamond() {
  RunCase c{"InplaceDiamond", {}, {1, 1, 2, 4}, {1, -2, 3, -4, -0.5f, 0.5f, 0, 7}, "sum", {2, 0, 6, 0, 0, 1, 0, 14}};
  c.inplace = true;
  add_node(c.graph, "input", "ZxxNOp");
  add_node(c.graph, "r1", "Z40Relu", {"input"});
  add_node(c.graph, "r2", "Z40Relu", {"r1"});
  add_node(c.graph, "r3", "Z40Relu", {"r2"});
  add_node(c.graph, "r4", "Z40Relu", {"r3"});
  add_node(c.graph, "sum", "Z40EltwiseAdd", {"r1", "r4"});
  return c;
}

RunCase inplace_chain() {
  RunCase c = relu_chain();
  c.name = "InplaceReluChain";
  c.inplace = true;
  return c;
}

// Ramps over [-2, 2) and [1, -1): values of a size whatever the shape.
RunCase conv(const char* name, int h, int w, int in_c, int k, const char* padding, int out_c = 3) {
  RunCase c{name, {}, {1, h, w, in_c}, ramp(h * w * in_c, 4.0f / (h * w * in_c), -2.0f), "conv", {}};
  const std::vector<float> weight = ramp(k * k * in_c * out_c, -2.0f / (k * k * in_c * out_c), 1.0f);
  const std::vector<float> bias = ramp(out_c, 1.5f, -1.0f);
  add_node(c.graph, "input", "ZxxNOp");
  add_float_const(c.graph, "w", {k, k, in_c, out_c}, weight);
  add_float_const(c.graph, "b", {out_c}, bias);
  auto* node = add_node(c.graph, "conv", "Z40Conv2D", {"input", "w", "b"});
  set_attr_ints(node, "strides", {1, 1, 1, 1});
  set_attr_s(node, "padding", padding);
  c.expected = reference_conv(c.input, h, w, in_c, weight, k, out_c, bias);
  return c;
}

class RunAllocationTest : public ::testing::TestWithParam<RunCase (*)()> {};

TEST_P(RunAllocationTest, SecondRunAllocatesNothing) {
#ifndef KOVRA_COUNT_ALLOCATIONS
  GTEST_SKIP() << "allocation counting needs malloc interposition, which AddressSanitizer takes over";
#endif
  const RunCase c = GetParam()();
  GraphExecutor executor(&c.graph, CPU);
  executor.set_inplace(c.inplace);
  Tensor input = make_tensor(c.input_shape, c.input, "input");
  executor.set_input("input", &input);
  executor.work({}, "");  // shapes inferred, buffers allocated
  const long allocations = allocations_during([&] { executor.work({}, ""); });
  EXPECT_EQ(allocations, 0) << c.name;
  const std::vector<float> got = tensor_values(*executor.get_output_tensor(c.output));
  ASSERT_EQ(got.size(), c.expected.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_NEAR(got[i], c.expected[i], 1e-4f * (1.0f + std::fabs(c.expected[i]))) << c.name << " at " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(Graphs, RunAllocationTest,
                         ::testing::Values(&relu_chain, &inplace_chain, &inplace_diamond,
                                           // The overhead chain's shape: one pixel, 1x1 kernel.
                                           [] { return conv("Conv2D1x1OnePixel", 1, 1, 4, 1, "VALID"); },
                                           [] { return conv("Conv2D3x3Same", 4, 3, 2, 3, "SAME"); },
                                           // 36 tiles, 32 channels in and out: the Winograd path.
                                           [] { return conv("Conv2DWinograd", 12, 12, 32, 3, "SAME", 32); },
                                           [] { return conv("Conv2DTiledPanels", 9, 8, 8, 3, "SAME", 40); }),
                         [](const ::testing::TestParamInfo<RunCase (*)()>& info) {
                           return std::string(info.param().name);
                         });

TEST(RunAllocationCounterTest, SeesEveryKindOfAllocation) {
#ifndef KOVRA_COUNT_ALLOCATIONS
  GTEST_SKIP() << "allocation counting needs malloc interposition, which AddressSanitizer takes over";
#endif
  // The counter must see what the library could use, or a zero proves nothing.
  EXPECT_EQ(allocations_during([] { std::free(std::malloc(16)); }), 1);
  EXPECT_EQ(allocations_during([] { std::free(std::calloc(4, 4)); }), 1);
  EXPECT_EQ(allocations_during([] {
              void* p = std::malloc(8);
              std::free(std::realloc(p, 4096));
            }),
            2);
  EXPECT_EQ(allocations_during([] { delete new std::vector<int>(3); }), 2);
  EXPECT_EQ(allocations_during([] { std::string s(100, 'x'); }), 1);
  EXPECT_EQ(allocations_during([] { std::free(std::aligned_alloc(64, 128)); }), 1);
  // Calls made inside the shared library are seen too.
  Tensor t;
  const std::vector<int> shape = {256};
  EXPECT_EQ(allocations_during([&] { t.set_data(shape, Tensor::DT_FLOAT, nullptr); }), 2);  // shape and buffer
  EXPECT_EQ(allocations_during([&] { t.set_data(shape, Tensor::DT_FLOAT, nullptr); }), 0);
}

}  // namespace
}  // namespace kovra_test
