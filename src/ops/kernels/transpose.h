#ifndef KOVRAEXECUTOR_OPS_TRANSPOSE_H_
#define KOVRAEXECUTOR_OPS_TRANSPOSE_H_

#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Permutes the axes of a row-major array: output axis i is input axis perm[i],
// as in numpy.transpose. `perm` must be a permutation of 0 .. rank-1 (checked
// by the caller); shared by the float and int8 transposes and reshapes.

// The walk planned once for an input shape and a permutation: the output's
// extents and, per output axis, the input stride.
struct TransposePlan {
  long long count = 0;
  std::vector<int> out_shape;
  std::vector<long long> stride;
};
TransposePlan plan_transpose(const std::vector<int>& in_shape, const std::vector<int>& perm);

// Runs a plan; `index` is scratch for out_shape.size() ints. Allocates nothing.
void transpose(const float* in, float* out, const TransposePlan& plan, int* index);

// Plans and runs in one call (allocating the plan).
void transpose(const float* in, float* out, const std::vector<int>& in_shape, const std::vector<int>& perm);

// True when `perm` holds every axis 0 .. rank-1 exactly once.
bool is_permutation_of_rank(const std::vector<int>& perm, int rank);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_TRANSPOSE_H_
