// KV-3000 controller simulator: everything a test or a host needs to run
// one in-process.
#ifndef KV3000_SIM_H
#define KV3000_SIM_H

#include "sim_console.h"
#include "sim_faults.h"
#include "sim_memory.h"
#include "sim_protocol.h"
#include "sim_replay.h"
#include "sim_server.h"

#endif
