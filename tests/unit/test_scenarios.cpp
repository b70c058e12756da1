// The driver's scenarios: tests/unit/*.txt.
#include "scenario.h"

KV_SCENARIO_TESTS(KV_SCENARIOS);
