#include "basic_cal_function.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

#define KOVRA_DEFINE_PRIMITIVE(name) \
  float name##_func_cpu(float a, float b) { return scalar::name(a, b); }
KOVRA_SCALAR_PRIMITIVES(KOVRA_DEFINE_PRIMITIVE)
#undef KOVRA_DEFINE_PRIMITIVE

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
