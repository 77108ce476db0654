#ifndef KOVRAEXECUTOR_ALLOCATOR_SAFE_INT_H_
#define KOVRAEXECUTOR_ALLOCATOR_SAFE_INT_H_

#include <exception>
#include <type_traits>

#include "export.h"

namespace allocator {

// Thrown when size arithmetic would not fit its integer type.
class KOVRA_API SafeIntException : public std::exception {
 public:
  const char* what() const noexcept override { return "integer overflow in size arithmetic"; }
};

// What happens on overflow, as a policy so callers name the reaction they get.
template <typename E>
class SafeIntExceptionHandler;

template <>
class SafeIntExceptionHandler<SafeIntException> {
 public:
  [[noreturn]] static void SafeIntOnOverflow() { throw SafeIntException(); }
};

// Unsigned size arithmetic that throws SafeIntException instead of wrapping.
template <typename T>
T checked_add(T a, T b) {
  static_assert(std::is_integral<T>::value, "integers only");
  T out;
  if (__builtin_add_overflow(a, b, &out)) SafeIntExceptionHandler<SafeIntException>::SafeIntOnOverflow();
  return out;
}

template <typename T>
T checked_mul(T a, T b) {
  static_assert(std::is_integral<T>::value, "integers only");
  T out;
  if (__builtin_mul_overflow(a, b, &out)) SafeIntExceptionHandler<SafeIntException>::SafeIntOnOverflow();
  return out;
}

}  // namespace allocator

#endif  // KOVRAEXECUTOR_ALLOCATOR_SAFE_INT_H_
