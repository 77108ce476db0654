#include "ops/int8/int8_pool.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "checked_size.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void parse_pool_attrs(const NodeDef& node, const char* op, Int8PoolAttrs& a) {
  require_int_list(node, "ksize", a.ksize, missing_message("ksize", op));
  read_int_list(node, "strides", a.strides);
  read_string(node, "padding", a.padding);
  read_int_list(node, "pads", a.pads);
  require_int(node, "maxValue", a.max_value, missing_message("maxValue", op));
  require_int(node, "minValue", a.min_value, missing_message("minValue", op));
}

void prepare_pool(const std::vector<const Tensor*>& inputs, const char* op, const char* rank_message,
                  Int8PoolParam& param, std::vector<int>& shape) {
  const Int8PoolAttrs& a = param.attrs;
  const Tensor* input = first_input(inputs, op);
  check_rank_4(input, rank_message);
  KOVRA_ENSURE_MSG(a.ksize.size() > 2, "op_param_->ksize.size() > 2",
                   "Wrong kernel size in " + std::string(op) + "!!!");
  KOVRA_ENSURE_MSG(a.strides.size() > 2, "op_param_->strides.size() > 2",
                   "Wrong strides size in " + std::string(op) + "!!!");
  PoolGeometry g;
  const std::vector<int>& s = input->shape();
  g.n = s[0], g.h = s[1], g.w = s[2], g.c = s[3];
  g.kernel_h = a.ksize[1], g.kernel_w = a.ksize[2];
  g.stride_h = a.strides[1], g.stride_w = a.strides[2];
  KOVRA_ENSURE_MSG(g.kernel_h > 0 && g.kernel_w > 0 && g.stride_h > 0 && g.stride_w > 0,
                   "kernel > 0 && stride > 0", std::string(op) + ": kernel and strides must be positive");
  if (a.padding == "SAME") {
    g.out_h = static_cast<int>((static_cast<long long>(g.h) + g.stride_h - 1) / g.stride_h);
    g.out_w = static_cast<int>((static_cast<long long>(g.w) + g.stride_w - 1) / g.stride_w);
    g.pad_top = same_pad_begin(g.h, g.out_h, g.kernel_h, g.stride_h);
    g.pad_left = same_pad_begin(g.w, g.out_w, g.kernel_w, g.stride_w);
  } else if (a.padding == "VALID") {
    KOVRA_ENSURE_MSG(a.pads.size() >= 4, "op_param_->pads.size() >= 4",
                     std::string(op) + ": pads needs 4 entries (top, bottom, left, right)");
    const long long span_h = static_cast<long long>(g.h) + a.pads[0] + a.pads[1] - g.kernel_h;
    const long long span_w = static_cast<long long>(g.w) + a.pads[2] + a.pads[3] - g.kernel_w;
    KOVRA_ENSURE_MSG(span_h >= 0 && span_w >= 0 && a.pads[0] >= 0 && a.pads[2] >= 0, "kernel <= padded input",
                     std::string(op) + ": the window is larger than the padded input");
    g.pad_top = a.pads[0];
    g.pad_left = a.pads[2];
    if (a.ceil_mode) {
      long long out_h = static_cast<long long>(std::ceil(static_cast<float>(span_h) / g.stride_h)) + 1;
      long long out_w = static_cast<long long>(std::ceil(static_cast<float>(span_w) / g.stride_w)) + 1;
      if ((out_h - 1) * g.stride_h >= static_cast<long long>(g.h) + g.pad_top) --out_h;
      if ((out_w - 1) * g.stride_w >= static_cast<long long>(g.w) + g.pad_left) --out_w;
      g.out_h = checked_size(out_h, "pooled size", op);
      g.out_w = checked_size(out_w, "pooled size", op);
    } else {
      g.out_h = checked_size(span_h / g.stride_h + 1, "pooled size", op);
      g.out_w = checked_size(span_w / g.stride_w + 1, "pooled size", op);
    }
  } else {
    KOVRA_ENSURE_MSG(false, "false", "Worng padding type.");
  }
  param.input_shape = s;
  param.geometry = g;
  param.out_count = checked_count({g.n, g.out_h, g.out_w, g.c}, op);
  shape = {g.n, g.out_h, g.out_w, g.c};
}

void apply_pad_value(float* y, const PoolGeometry& g, float pad_value) {
  for (int n = 0; n < g.n; ++n) {
    for (int oh = 0; oh < g.out_h; ++oh) {
      const long long top = static_cast<long long>(oh) * g.stride_h - g.pad_top;
      const bool rows_padded = top < 0 || top + g.kernel_h > g.h;
      for (int ow = 0; ow < g.out_w; ++ow) {
        const long long left = static_cast<long long>(ow) * g.stride_w - g.pad_left;
        if (!rows_padded && left >= 0 && left + g.kernel_w <= g.w) continue;
        float* out = y + ((static_cast<long long>(n) * g.out_h + oh) * g.out_w + ow) * g.c;
        for (int c = 0; c < g.c; ++c) out[c] = pad_value > out[c] ? pad_value : out[c];
      }
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
