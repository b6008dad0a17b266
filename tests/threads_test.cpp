// Load as threads of one process with an object each: the exchange of
// Workload.h. The ThreadSanitizer build runs this file alone.
#include "Workload.h"

namespace {

using wmtest::StressTest;

TEST_F(StressTest, ThreadsWithAnObjectEachExchangeEveryMessageExactlyOnce) {
    // The user-mode emulator keeps 32 shared-memory attachments per process
    // in its books; past that every attach leaks guest address space until
    // shmat fails. Ten objects in one process hold far more than 32.
    if (!wmtest::Emulator().empty())
        GTEST_SKIP() << "skipped under the emulator: ten objects in one process exceed its "
                        "32 shared-memory attachments per process";
#if defined(__SANITIZE_THREAD__)
    const int nPerSender = 1000; // the sanitizer slows every access; still grows the table
#else
    const int nPerSender = 5000;
#endif
    Exchange(true, nPerSender);
}

} // namespace
