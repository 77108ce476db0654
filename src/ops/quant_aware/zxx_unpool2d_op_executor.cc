#include "ops/quant_aware/placeholder_op.h"

KOVRA_PLACEHOLDER_OP(ZxxUnpool2D)
