// Threads of one process, each with its own object, sending, receiving and
// deleting at the same time: every message arrives exactly once, in order,
// while the control table grows under them. Meant for ThreadSanitizer.
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <mutex>
#include <thread>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"
#include "WorkMessages.h"

namespace {

class ThreadsTest : public wmtest::WmTest {};

const int kThreads = 4;
const int kMessages = 200;
const int kFirstBurst = 150; // 600 queued at once: more than the 512 slots of a new table

// All threads wait here until each has sent its first burst.
class Gate {
public:
    void ArriveAndWait() {
        std::unique_lock<std::mutex> lock(mtx);
        if (++nArrived == kThreads) cv.notify_all();
        cv.wait(lock, [this] { return nArrived == kThreads; });
    }

private:
    std::mutex mtx;
    std::condition_variable cv;
    int nArrived = 0;
};

long UidOf(int n) {
    return 201 + n % kThreads;
}

// Thread n sends kMessages to thread n+1 and receives the kMessages of
// thread n-1, checking sender and sequence, and deletes each: a first burst
// of sends, then the rest of the sends between the receives. Returns the
// number of faults, with the first described in strFault.
int Worker(CWorkMessages& wm, int n, Gate* gate, std::string* strFault) {
    int nFaults = 0;
    auto fault = [&](const std::string& what) {
        if (nFaults++ == 0) *strFault = what;
    };
    if (wm.SetInput(UidOf(n), "ORDER", nullptr, false) != M_OK) fault(wm.szErrorMsg);

    auto send = [&](int k) {
        char text[32];
        const int len = snprintf(text, sizeof(text), "%d:%d", n, k);
        WorkMsg m;
        memset(&m, 0, sizeof(m));
        m.nTargetUID = UidOf(n + 1);
        m.pDepData = text;
        m.nDepDataLength = len + 1;
        const long rc = wm.Send(UidOf(n), "ORDER", &m, false);
        if (rc != M_OK && rc != M_NOTACT) fault("Send: " + std::string(wm.szErrorMsg));
    };
    for (int k = 0; k < kFirstBurst; ++k)
        send(k);
    gate->ArriveAndWait();

    const int nFrom = (n + kThreads - 1) % kThreads;
    for (int k = 0; k < kMessages; ++k) {
        if (kFirstBurst + k < kMessages) send(kFirstBurst + k);
        char buf[32] = "";
        WorkMsg r;
        memset(&r, 0, sizeof(r));
        r.pDepData = buf;
        r.nDepDataLength = sizeof(buf);
        const long rc = wm.Receive(UidOf(n), 10, &r, false, nullptr);
        if (rc != M_OK) {
            fault("Receive " + std::to_string(rc) + ": " + wm.szErrorMsg);
            break;
        }
        // One sender per receiver and oldest first: its sequence, in order.
        const std::string expected = std::to_string(nFrom) + ":" + std::to_string(k);
        if (expected != buf || r.nSenderUID != UidOf(nFrom))
            fault("got " + std::string(buf) + ", expected " + expected);
        if (wm.Delete(UidOf(n), r.nMessageID) != M_OK)
            fault("Delete: " + std::string(wm.szErrorMsg));
    }
    return nFaults;
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
    std::vector<int> faults(kThreads, 0);
    std::vector<std::string> texts(kThreads);
    std::vector<std::thread> threads;
    Gate gate;
    for (int n = 0; n < kThreads; ++n)
        threads.emplace_back([n, &objects, &faults, &texts, &gate] {
            faults[n] = Worker(*objects[n], n, &gate, &texts[n]);
        });
    for (std::thread& t : threads)
        t.join();
    objects.clear();
    for (int n = 0; n < kThreads; ++n)
        EXPECT_EQ(faults[n], 0) << "thread " << n << ": " << texts[n];

    // Nothing is left: every slot free, every data slot given back.
    CWorkMessagesTestAccess acc(keeper);
    ASSERT_EQ(acc.GetPointers(), M_OK);
    const long nSlots = acc.Controls()->nQSlotCount;
    EXPECT_GT(nSlots, 512); // the table grew while the threads used it
    for (long i = 0; i < nSlots; ++i)
        EXPECT_EQ(acc.Queues()[i].nflag, WQCF_Available) << i;
    for (int i = 0; i < 8192; ++i)
        ASSERT_EQ(acc.SAT()[i], 0) << i;
    acc.Return(M_OK);
}

} // namespace
