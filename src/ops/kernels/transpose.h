#ifndef KOVRAEXECUTOR_OPS_TRANSPOSE_H_
#define KOVRAEXECUTOR_OPS_TRANSPOSE_H_

#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Permutes the axes of a row-major array: output axis i is input axis perm[i],
// as in numpy.transpose. `perm` must be a permutation of 0 .. rank-1 (checked
// by the caller); shared by the float and int8 transposes and reshapes.
void transpose(const float* in, float* out, const std::vector<int>& in_shape,
               const std::vector<int>& perm);

// True when `perm` holds every axis 0 .. rank-1 exactly once.
bool is_permutation_of_rank(const std::vector<int>& perm, int rank);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_TRANSPOSE_H_
