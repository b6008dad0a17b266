// Load as processes: the exchange of Workload.h with every worker a process
// of its own (its threads twin is in threads_test.cpp).
#include "Workload.h"

namespace {

using wmtest::StressTest;

TEST_F(StressTest, ProcessesExchangeEveryMessageExactlyOnce) {
    // Under the emulator every call is about ten times slower: a fifth of the
    // messages still grows the table several times and fits the time limit.
    const int nPerSender = wmtest::Emulator().empty() ? 5000 : 1000;
    if (nPerSender != 5000)
        fprintf(stderr, "[   NOTE   ] sized for the emulator: %d messages per sender\n",
                nPerSender);
    Exchange(false, nPerSender);
}

} // namespace
