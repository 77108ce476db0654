#include "tensor_operators.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// Element loops over raw pointers. `Op::apply` is either a known primitive,
// inlined so the loop vectorises, or a call through the caller's pointer.
template <float (*F)(float, float)>
struct KnownOp {
  static float apply(float a, float b, BinaryFn) { return F(a, b); }
};

struct PointerOp {
  static float apply(float a, float b, BinaryFn fn) { return fn(a, b); }
};

// The result buffer is always a fresh tensor, so it never aliases an input.
template <class Op>
void loop_vv(const float* a, const float* b, float* __restrict r, int n, BinaryFn fn) {
  for (int i = 0; i < n; ++i) r[i] = Op::apply(a[i], b[i], fn);
}

template <class Op>
void loop_vs(const float* a, float s, float* __restrict r, int n, BinaryFn fn) {
  for (int i = 0; i < n; ++i) r[i] = Op::apply(a[i], s, fn);
}

template <class Op>
void loop_sv(float s, const float* b, float* __restrict r, int n, BinaryFn fn) {
  for (int i = 0; i < n; ++i) r[i] = Op::apply(s, b[i], fn);
}

struct Loops {
  void (*vv)(const float*, const float*, float*, int, BinaryFn);
  void (*vs)(const float*, float, float*, int, BinaryFn);
  void (*sv)(float, const float*, float*, int, BinaryFn);
};

template <class Op>
Loops loops_for() {
  return {&loop_vv<Op>, &loop_vs<Op>, &loop_sv<Op>};
}

Loops select_loops(BinaryFn fn) {
#define KOVRA_KNOWN_PRIMITIVE(name) \
  if (fn == &name##_func_cpu) return loops_for<KnownOp<&scalar::name>>();
  KOVRA_SCALAR_PRIMITIVES(KOVRA_KNOWN_PRIMITIVE)
#undef KOVRA_KNOWN_PRIMITIVE
  return loops_for<PointerOp>();
}

[[noreturn]] void report_unsupported_broadcast(const Tensor& a, const Tensor& b) {
  fatal("unsupport broadcast\ntensor: " + a.name() + "  shape: " + shape_text(a.shape()) +
        "\ntensor: " + b.name() + "  shape: " + shape_text(b.shape()));
}

int product(std::vector<int>::const_iterator begin, std::vector<int>::const_iterator end) {
  int count = 1;
  for (auto it = begin; it != end; ++it) count *= *it;
  return count;
}

const float* float_data(const Tensor& t) { return static_cast<const float*>(t.get_ptr()); }
float* float_data(Tensor& t) { return static_cast<float*>(t.get_mutable_ptr()); }

}  // namespace

const char* device_word(const Tensor& t) {
  if (t.head() == 1) return "cpu";
  if (t.head() == 2) return "gpu";
  fatal("tensor must at cpu or gpu");
}

void check_float_elements(const Tensor& t) {
  const long long needed = 4LL * t.size();
  if (t.size() < 1 || t.get_ptr() == nullptr || t.byte_size() < needed) {
    fatal("tensor must hold float elements, tensor: " + t.name() +
          "  size: " + std::to_string(t.size()) + "  byte size: " + std::to_string(t.byte_size()));
  }
}

void check_same_device(const Tensor& a, const Tensor& b) {
  if (a.head() == b.head()) return;
  fatal("tensor must at the same device\ntensor: " + a.name() + "  device: " + std::to_string(a.head()) +
        "\ntensor: " + b.name() + "  device: " + std::to_string(b.head()));
}

Tensor tensor_Binocular_cal_cpu(const Tensor& t, float s, BinaryFn fn) {
  Tensor r(t.shape(), Tensor::DT_FLOAT, nullptr, device_word(t));
  check_float_elements(t);
  select_loops(fn).vs(float_data(t), s, float_data(r), r.size(), fn);
  return r;
}

#define KOVRA_SCALAR_WRAPPER(name) \
  Tensor tensor_##name##_cpu(const Tensor& t, float s) { \
    return tensor_Binocular_cal_cpu(t, s, name##_func_cpu); \
  }
KOVRA_SCALAR_PRIMITIVES(KOVRA_SCALAR_WRAPPER)
#undef KOVRA_SCALAR_WRAPPER

Tensor get_broadcast_tensor(const Tensor& a, const Tensor& b) {
  const std::vector<int>& sa = a.shape();
  const std::vector<int>& sb = b.shape();
  std::vector<int> shape = sa.size() >= sb.size() ? sa : sb;
  const size_t aligned = std::min(sa.size(), sb.size());
  for (size_t k = 1; k <= aligned; ++k) {
    const int ea = sa[sa.size() - k];
    const int eb = sb[sb.size() - k];
    if (ea != eb && ea != 1 && eb != 1) report_unsupported_broadcast(a, b);
    shape[shape.size() - k] = std::max(ea, eb);
  }
  return Tensor(shape, Tensor::DT_FLOAT, nullptr, device_word(a));
}

Tensor broadcast_cpu(const Tensor& a, const Tensor& b, BinaryFn fn) {
  Tensor r = get_broadcast_tensor(a, b);
  // A zero or negative extent would make a block empty; nothing sensible pairs with it.
  for (const Tensor* t : {&a, &b}) {
    for (int extent : t->shape()) {
      if (extent < 1) report_unsupported_broadcast(a, b);
    }
  }
  check_float_elements(a);
  check_float_elements(b);

  const std::vector<int>& sa = a.shape();
  const std::vector<int>& sb = b.shape();
  const std::vector<int>& sr = r.shape();
  const size_t ra = sa.size();
  const size_t rb = sb.size();
  const size_t lead_dims = ra > rb ? ra - rb : rb - ra;
  const int lead = product(sr.begin(), sr.begin() + lead_dims);
  const int block_r = product(sr.begin() + lead_dims, sr.end());
  const int block_a = product(sa.end() - std::min(ra, rb), sa.end());
  const int block_b = product(sb.end() - std::min(ra, rb), sb.end());
  const bool a_advances = rb <= ra;

  const Loops loops = select_loops(fn);
  const float* pa = float_data(a);
  const float* pb = float_data(b);
  float* pr = float_data(r);
  int off_a = 0;
  int off_b = 0;
  for (int k = 0; k < lead; ++k) {
    float* out = pr + static_cast<long long>(k) * block_r;
    // Walk the block in runs over which both operand indices (j mod block)
    // advance without wrapping, so each run is one plain loop.
    int j = 0;
    while (j < block_r) {
      const int ia = j % block_a;
      const int ib = j % block_b;
      int n = block_r - j;
      if (block_a > 1) n = std::min(n, block_a - ia);
      if (block_b > 1) n = std::min(n, block_b - ib);
      if (block_a == 1 && block_b > 1) {
        loops.sv(pa[off_a], pb + off_b + ib, out + j, n, fn);
      } else if (block_b == 1 && block_a > 1) {
        loops.vs(pa + off_a + ia, pb[off_b], out + j, n, fn);
      } else {
        loops.vv(pa + off_a + ia, pb + off_b + ib, out + j, n, fn);
      }
      j += n;
    }
    if (a_advances) {
      off_a += block_a;
    } else {
      off_b += block_b;
    }
  }
  return r;
}

#define KOVRA_BROADCAST_WRAPPER(name) \
  Tensor broadcast_##name##_cpu(const Tensor& a, const Tensor& b) { \
    return broadcast_cpu(a, b, name##_func_cpu); \
  }
// Primitives that also come in a tensor-with-tensor form.
#define KOVRA_BROADCAST_PRIMITIVES(X)                                                     \
  X(add) X(sub) X(mul) X(div) X(less_than) X(greater_than) X(equal) X(less_equal)         \
  X(greater_equal) X(bool_and) X(bool_or)
KOVRA_BROADCAST_PRIMITIVES(KOVRA_BROADCAST_WRAPPER)
#undef KOVRA_BROADCAST_WRAPPER

void tensor_fill_cpu(Tensor& t, float v) {
  check_float_elements(t);
  float* data = float_data(t);
  std::fill(data, data + t.size(), v);
}

Tensor operator/(float s, const Tensor& t) {
  Tensor filled(t.shape(), Tensor::DT_FLOAT, nullptr, device_word(t));
  filled.fill(s);
  return filled.div(t);
}

Tensor operator-(float s, const Tensor& t) {
  Tensor filled(t.shape(), Tensor::DT_FLOAT, nullptr, device_word(t));
  filled.fill(s);
  return filled.sub(t);
}

// ---- Tensor members ----

#define KOVRA_TENSOR_WITH_TENSOR(name)                         \
  Tensor Tensor::name(const Tensor& other) const {             \
    check_same_device(*this, other);                           \
    return broadcast_##name##_cpu(*this, other);               \
  }
KOVRA_BROADCAST_PRIMITIVES(KOVRA_TENSOR_WITH_TENSOR)
#undef KOVRA_TENSOR_WITH_TENSOR

#define KOVRA_TENSOR_WITH_FLOAT(name) \
  Tensor Tensor::name(float s) const { return tensor_##name##_cpu(*this, s); }
KOVRA_BROADCAST_PRIMITIVES(KOVRA_TENSOR_WITH_FLOAT)
KOVRA_TENSOR_WITH_FLOAT(pow)
KOVRA_TENSOR_WITH_FLOAT(exp)
#undef KOVRA_TENSOR_WITH_FLOAT

#define KOVRA_TENSOR_UNARY(name) \
  Tensor Tensor::name() const { return tensor_##name##_cpu(*this, 0); }
KOVRA_TENSOR_UNARY(neg)
KOVRA_TENSOR_UNARY(abs)
KOVRA_TENSOR_UNARY(sigmoid)
KOVRA_TENSOR_UNARY(floor)
KOVRA_TENSOR_UNARY(log)
KOVRA_TENSOR_UNARY(sign)
KOVRA_TENSOR_UNARY(bool_not)
#undef KOVRA_TENSOR_UNARY

void Tensor::fill(float v) { tensor_fill_cpu(*this, v); }

Tensor Tensor::clip(float min, float max) const {
  // Bad bounds are a caller bug that must stop the process in every build
  // type, so this reports like a failed assertion without depending on NDEBUG.
  if (!(max > min)) {
    std::fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name,
                 __FILE__, __LINE__, __PRETTY_FUNCTION__, "max > min");
    std::fflush(stderr);
    std::abort();
  }
  return tensor_clip_max_cpu(tensor_clip_min_cpu(*this, min), max);
}

#define KOVRA_COMPOUND(op, name)                                              \
  Tensor& Tensor::operator op(const Tensor& other) {                          \
    *this = this->name(other);                                                \
    return *this;                                                             \
  }                                                                           \
  Tensor& Tensor::operator op(float s) {                                      \
    *this = this->name(s);                                                    \
    return *this;                                                             \
  }
KOVRA_COMPOUND(+=, add)
KOVRA_COMPOUND(-=, sub)
KOVRA_COMPOUND(*=, mul)
KOVRA_COMPOUND(/=, div)
#undef KOVRA_COMPOUND

// ---- operator overloads ----

#define KOVRA_OPERATOR(op, name)                                                       \
  Tensor operator op(const Tensor& a, const Tensor& b) { return a.name(b); }           \
  Tensor operator op(const Tensor& a, float s) { return a.name(s); }
KOVRA_OPERATOR(+, add)
KOVRA_OPERATOR(-, sub)
KOVRA_OPERATOR(*, mul)
KOVRA_OPERATOR(/, div)
KOVRA_OPERATOR(<, less_than)
KOVRA_OPERATOR(<=, less_equal)
KOVRA_OPERATOR(>, greater_than)
KOVRA_OPERATOR(>=, greater_equal)
KOVRA_OPERATOR(==, equal)
KOVRA_OPERATOR(&&, bool_and)
KOVRA_OPERATOR(||, bool_or)
#undef KOVRA_OPERATOR

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
