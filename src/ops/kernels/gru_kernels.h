#ifndef KOVRAEXECUTOR_OPS_GRU_KERNELS_H_
#define KOVRAEXECUTOR_OPS_GRU_KERNELS_H_

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Gated recurrent unit over x [seq_len, batch, input_size] with the weights of
// one or two directions: w [D, 3H, input_size], r [D, 3H, H], bias [D, 6H]
// (input biases then recurrent biases), gates in z, r, h order.
struct GruShape {
  int seq_len = 0, batch = 0, input_size = 0, hidden = 0;
  int directions = 1;    // 2 runs forward (direction 0) and reverse (direction 1)
  bool reverse = false;  // a single direction running from the end of each sequence
  bool linear_before_reset = false;
};

// Intermediate buffers kept per direction, each [seq_len, batch, hidden].
enum GruMiddle {
  kGruInputZ = 0,  // x W_z^T + Wb_z
  kGruInputR,      // x W_r^T + Wb_r
  kGruInputH,      // x W_h^T + Wb_h
  kGruGateZ,       // update gate
  kGruGateR,       // reset gate
  kGruCandidate,   // candidate state
  kGruRecurrentH,  // recurrent term inside the candidate's tanh
  kGruHidden,      // hidden state after each step
  kGruMiddlePerDirection
};

// Floats of scratch gru_f32 needs per hidden unit.
constexpr int kGruScratchPerHidden = 5;

// seq_lens (nullable) gives each batch entry's length; steps past it are 0 in
// y and the middle buffers. y is [seq_len, D, batch, hidden], y_h [D, batch,
// hidden]. `middle` holds D * kGruMiddlePerDirection buffers; `scratch`
// kGruScratchPerHidden * hidden floats.
void gru_f32(const GruShape& s, const float* x, const float* w, const float* r, const float* bias,
             const int* seq_lens, float* y, float* y_h, float* const* middle, float* scratch);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_GRU_KERNELS_H_
