#ifndef KOVRAEXECUTOR_CHECKED_SIZE_H_
#define KOVRAEXECUTOR_CHECKED_SIZE_H_

#include <string>
#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Sizes taken from a model (shapes, pads, strides, window sizes) can be
// anything a protobuf int holds. Every extent, count or offset computed from
// them goes through these helpers, in 64-bit arithmetic that cannot overflow
// for 32-bit operands, and is refused before it sizes or indexes anything
// unless it fits the 32-bit element count of a tensor.
constexpr long long kMaxTensorElements = 0x7fffffffLL;

// Product of the dimensions, or -1 when a dimension is negative or the
// product exceeds kMaxTensorElements. Never overflows, whatever the shape.
long long shape_count(const std::vector<int>& shape);

// `value` as an extent, count or offset of a tensor: refused unless
// 0 <= value <= kMaxTensorElements, as "0 <= <what> <= 2147483647" with
// "<op>: <what> is <value>, outside the 32-bit size of a tensor".
int checked_size(long long value, const char* what, const char* op);

// in + before + after along one axis, through checked_size as "padded size".
int padded_size(int in, int before, int after, const char* op);

// Product of the dimensions through checked_size (as "element count of
// <shape>"), a negative dimension refused alike.
int checked_count(const std::vector<int>& shape, const char* op);

// What a run is told when node `node`'s output of `bytes` would bring the
// bytes it holds to `total`, over `budget`: the same words whether the check
// plans the run or the run itself gets there.
std::string over_budget_message(const std::string& node, long long bytes, long long total, long long budget);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_CHECKED_SIZE_H_
