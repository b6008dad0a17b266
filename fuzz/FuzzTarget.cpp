// libFuzzer entry points of one loader target; the build names it in
// WMFUZZ_TARGET ("names", "uids", "wqcf" or "wddf").
#include <cstdio>
#include <cstdlib>

#include "Harness.h"

namespace {
wmfuzz::Target nTarget;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (!wmfuzz::TargetByName(WMFUZZ_TARGET, &nTarget) || !wmfuzz::Init()) exit(2);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    wmfuzz::RunOne(nTarget, data, size);
    return 0;
}
