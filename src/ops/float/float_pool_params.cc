#include "ops/float/float_pool_params.h"

#include <cmath>

#include "checked_size.h"
#include "common.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void read_pool_attributes(const NodeDef& node, PoolAttributes& attrs, const std::string& ksize_message) {
  require_int_list(node, "ksize", attrs.ksize, ksize_message);
  read_int_list(node, "strides", attrs.strides);
  read_string(node, "padding", attrs.padding);
  read_int_list(node, "pads", attrs.pads);
}

namespace {

// Output size along one axis for explicit padding. With ceil_mode the last
// window may hang over the end; as in ONNX/PyTorch it is dropped when it
// would start beyond the input and its leading padding.
int explicit_out_size(int in, int pad_begin, int pad_end, int kernel, int stride, bool ceil_mode,
                      const char* op) {
  const long long span = static_cast<long long>(in) + pad_begin + pad_end - kernel;
  if (!ceil_mode) return checked_size(span / stride + 1, "pooled size", op);
  long long out =
      static_cast<long long>(std::ceil(static_cast<float>(span) / static_cast<float>(stride))) + 1;
  if ((out - 1) * stride >= static_cast<long long>(in) + pad_begin) --out;
  return checked_size(out, "pooled size", op);
}

}  // namespace

PoolGeometry plan_pool(const std::vector<int>& in, const PoolAttributes& a, const char* op) {
  KOVRA_ENSURE_MSG(a.ksize.size() > 2, "op_param_->ksize.size() > 2", "Wrong kernel size.");
  KOVRA_ENSURE_MSG(a.strides.size() > 2, "op_param_->strides.size() > 2", "Wrong strides size.");
  PoolGeometry g;
  g.n = in[0], g.h = in[1], g.w = in[2], g.c = in[3];
  g.kernel_h = a.ksize[1], g.kernel_w = a.ksize[2];
  g.stride_h = a.strides[1], g.stride_w = a.strides[2];
  KOVRA_ENSURE_MSG(g.kernel_h > 0 && g.kernel_w > 0 && g.stride_h > 0 && g.stride_w > 0,
                   "kernel and strides > 0",
                   std::string(op) + ": ksize " + shape_text(a.ksize) + " and strides " +
                       shape_text(a.strides) + " must be positive");
  if (a.padding == "SAME") {
    g.out_h = static_cast<int>(std::ceil(static_cast<float>(g.h) / static_cast<float>(g.stride_h)));
    g.out_w = static_cast<int>(std::ceil(static_cast<float>(g.w) / static_cast<float>(g.stride_w)));
    g.pad_top = same_pad_begin(g.h, g.out_h, g.kernel_h, g.stride_h);
    g.pad_left = same_pad_begin(g.w, g.out_w, g.kernel_w, g.stride_w);
  } else if (a.padding == "VALID") {
    std::vector<int> pads = a.pads.empty() ? std::vector<int>(4, 0) : a.pads;
    KOVRA_ENSURE_MSG(pads.size() >= 4, "pads.size() >= 4",
                     std::string(op) + ": pads " + shape_text(pads) + " needs top, bottom, left and right");
    bool pads_ok = true;
    for (int i = 0; i < 4; ++i) pads_ok = pads_ok && pads[i] >= 0 && pads[i] < (i < 2 ? g.kernel_h : g.kernel_w);
    KOVRA_ENSURE_MSG(pads_ok, "0 <= pad < kernel",
                     std::string(op) + ": pads " + shape_text(pads) + " must be smaller than ksize " +
                         shape_text(a.ksize));
    const long long padded_h = static_cast<long long>(g.h) + pads[0] + pads[1];
    const long long padded_w = static_cast<long long>(g.w) + pads[2] + pads[3];
    KOVRA_ENSURE_MSG(padded_h >= g.kernel_h && padded_w >= g.kernel_w, "kernel <= padded input",
                     std::string(op) + ": ksize " + shape_text(a.ksize) +
                         " is larger than the padded input " + shape_text(in));
    g.out_h = explicit_out_size(g.h, pads[0], pads[1], g.kernel_h, g.stride_h, a.ceil_mode, op);
    g.out_w = explicit_out_size(g.w, pads[2], pads[3], g.kernel_w, g.stride_w, a.ceil_mode, op);
    g.pad_top = pads[0];
    g.pad_left = pads[2];
  } else {
    check_failed("false");
  }
  return g;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
