// The driver harnesses run without the driver's debug lines on stderr.
#include "fuzz_runtime.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qInstallMessageHandler(kvfuzz::quietMessages);
    return 0;
}
