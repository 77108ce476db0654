#include "ops/quant_aware/placeholder_op.h"

KOVRA_PLACEHOLDER_OP(ZxxQuantizeConv2D)
