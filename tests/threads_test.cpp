// Load as threads of one process with an object each: the exchange of
// Workload.h. The ThreadSanitizer build runs this file alone.
#include "Workload.h"

namespace {

using wmtest::StressTest;

TEST_F(StressTest, ThreadsWithAnObjectEachExchangeEveryMessageExactlyOnce) {
    if (!wmtest::Emulator().empty())
        GTEST_SKIP() << "skipped under the emulator: nine objects in one process exceed its "
                        "32 shared-memory attachments per process";
#if defined(__SANITIZE_THREAD__)
    // Every access is several times slower; a tenth still grows the control table.
    fprintf(stderr, "[   NOTE   ] sized for the thread sanitizer: 500 messages per sender\n");
    Exchange(true, 500);
#else
    Exchange(true, 5000);
#endif
}

} // namespace
