#ifndef KV3000_RECIPE_H
#define KV3000_RECIPE_H

#include "kv3000_records.h"

// Fills var for one recipe block; copyValues 1 takes the values from the
// runtime's recipe buffer (download), 0 leaves var.data zero (upload).
void rcpAddrToVar(const _RCP_VAR_PRO& block, VARIABLE& var, int copyValues);

#endif
