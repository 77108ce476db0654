#include "ops/placeholder_op.h"

KOVRA_PLACEHOLDER_OP(ZxxQuantizeMatMul)
