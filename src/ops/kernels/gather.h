#ifndef KOVRAEXECUTOR_OPS_GATHER_H_
#define KOVRAEXECUTOR_OPS_GATHER_H_

#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The one walk behind every data-movement operator that only reorders
// elements: output element (i_0, ..., i_r-1), in row-major order over
// `extent`, reads in[base + sum_a i_a * stride[a]]. Transposes, strided
// slices and channel-order reshapes, float and int8 alike, are such gathers.
// A plan is made once per input shape; running it allocates nothing.
struct GatherPlan {
  // Axes of one entry are dropped and axes that continue each other merged,
  // so rows are as long as the layout allows.
  std::vector<int> extent;
  std::vector<long long> stride;
  long long base = 0;
  long long count = 0;
  std::vector<int> index;  // the odometer of plans with many axes
};
void plan_gather(const std::vector<int>& extent, const std::vector<long long>& stride, long long base,
                 GatherPlan& plan);
void run_gather(const float* in, float* out, GatherPlan& plan);

// Strides of a row-major array of `shape`.
std::vector<long long> row_major_strides(const std::vector<int>& shape);

// Permutes the axes of a row-major array: output axis i is input axis perm[i],
// as in numpy.transpose. `perm` must be a permutation of 0 .. rank-1 (checked
// by the caller with is_permutation_of_rank).
void plan_transpose(const std::vector<int>& in_shape, const std::vector<int>& perm, GatherPlan& plan);

// True when `perm` holds every axis 0 .. rank-1 exactly once.
bool is_permutation_of_rank(const std::vector<int>& perm, int rank);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_GATHER_H_
