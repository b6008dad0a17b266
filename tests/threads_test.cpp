// Threads of one process, each with its own object, sending, receiving and
// deleting at the same time: every message arrives exactly once, in order,
// while the control table grows under them. Meant for ThreadSanitizer.
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"

namespace {

class ThreadsTest : public wmtest::WmTest {};

const int kThreads = 4;
const int kMessages = 200;
const int kFirstBurst = 150; // 600 queued at once: more than the 512 slots of a new table

long UidOf(int n) {
    return 201 + n % kThreads;
}

// Thread n sends kMessages to thread n+1 and receives the kMessages of
// thread n-1, checking sender and sequence, and deletes each: a first burst
// of sends, then the rest of the sends between the receives. Returns the
// first fault, or "".
std::string Worker(CWorkMessages& wm, int n, std::atomic<int>* arrived) {
    std::string fault;
    auto note = [&](const std::string& what) {
        if (fault.empty()) fault = what;
    };
    if (wm.SetInput(UidOf(n), "ORDER", nullptr, false) != M_OK) note(wm.szErrorMsg);
    auto send = [&](int k) {
        char text[32];
        WorkMsg m{};
        m.nTargetUID = UidOf(n + 1);
        m.pDepData = text;
        m.nDepDataLength = snprintf(text, sizeof(text), "%d:%d", n, k) + 1;
        const long rc = wm.Send(UidOf(n), "ORDER", &m, false);
        if (rc != M_OK && rc != M_NOTACT) note("Send: " + std::string(wm.szErrorMsg));
    };
    for (int k = 0; k < kFirstBurst; ++k)
        send(k);
    for (++*arrived; *arrived < kThreads;) // until every thread has sent its first burst
        std::this_thread::yield();

    const int nFrom = (n + kThreads - 1) % kThreads;
    for (int k = 0; k < kMessages; ++k) {
        if (kFirstBurst + k < kMessages) send(kFirstBurst + k);
        char buf[32] = "";
        WorkMsg r{};
        r.pDepData = buf;
        r.nDepDataLength = sizeof(buf);
        if (long rc = wm.Receive(UidOf(n), 10, &r, false, nullptr)) {
            note("Receive " + std::to_string(rc) + ": " + wm.szErrorMsg);
            break;
        }
        // One sender per receiver and oldest first: its sequence, in order.
        const std::string expected = std::to_string(nFrom) + ":" + std::to_string(k);
        if (expected != buf || r.nSenderUID != UidOf(nFrom))
            note("got " + std::string(buf) + ", expected " + expected);
        if (wm.Delete(UidOf(n), r.nMessageID) != M_OK)
            note("Delete: " + std::string(wm.szErrorMsg));
    }
    return fault;
}

TEST_F(ThreadsTest, EveryMessageArrivesExactlyOnce) {
    // The objects are made and destroyed here, the threads only use them:
    // every object maps the segments at its own addresses, and a thread
    // sanitizer cannot tell that an address freed by one mapping and reused
    // by another names other memory.
    CWorkMessages keeper;
    ASSERT_EQ(keeper.nLastError, 0) << keeper.szErrorMsg;
    std::vector<std::unique_ptr<CWorkMessages>> objects;
    for (int n = 0; n < kThreads; ++n) {
        objects.emplace_back(new CWorkMessages);
        ASSERT_EQ(objects.back()->nLastError, 0) << objects.back()->szErrorMsg;
        CWorkMessagesTestAccess(*objects.back()).LockTimeOut() = 10; // contention is the point
    }
    std::vector<std::string> faults(kThreads);
    std::vector<std::thread> threads;
    std::atomic<int> arrived{0};
    for (int n = 0; n < kThreads; ++n)
        threads.emplace_back([&, n] { faults[n] = Worker(*objects[n], n, &arrived); });
    for (std::thread& t : threads)
        t.join();
    objects.clear();
    for (int n = 0; n < kThreads; ++n)
        EXPECT_EQ(faults[n], "") << "thread " << n;

    // Nothing is left: every slot free, every data slot given back.
    CWorkMessagesTestAccess acc(keeper);
    ASSERT_EQ(acc.GetPointers(), M_OK);
    const long nSlots = acc.Controls()->nQSlotCount;
    EXPECT_GT(nSlots, 512); // the table grew while the threads used it
    for (long i = 0; i < nSlots; ++i)
        EXPECT_EQ(acc.Queues()[i].nflag, WQCF_Available) << i;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(acc.SAT()), 8192), std::string(8192, '\0'));
    acc.Return(M_OK);
}

} // namespace
