// Load: four senders and four receivers exchange messages of random types,
// sizes and priorities while the control table and the registry grow under
// them and another worker keeps constructing and destroying objects; once as
// processes, once as threads of one process with an object each. Every
// message must arrive exactly once, whole, at its target, in order for an
// oldest-first receiver; afterwards the tables and both files must be empty.
#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>

#include "TestAccess.h"
#include "Workload.h"

namespace {

using namespace wmtest;

const int kPairs = 4;             // senders, and receivers
const int32_t kSenderUID = 301;   // 301..304
const int32_t kReceiverUID = 401; // 401..404; the last one takes newest first
const int32_t kChurnUID = 501;    // the churn worker registers 501..540 for each type
const int kChurnEntries = 160;    // with the receivers' 16: past the registry's 128
const int kBurst = 400;           // per sender before any receive: past the table's 512
const char* const kTypes[] = {"ORDER", "INVOICE", "REPORT", "ALERT"};

// Workers as forked processes or as threads. Each returns "" or its first
// fault; a process that dies is a fault too.
class Crew {
public:
    Crew(bool threads, std::string prefix) : bThreads(threads), strPrefix(std::move(prefix)) {}
    ~Crew() { Wait(); }
    // Descriptors a forked worker must not keep (the parent's pipe ends).
    void CloseInChildren(int fd) { vecClose.push_back(fd); }
    void Start(std::function<std::string()> fn) {
        auto out = std::make_shared<std::string>();
        vecFaults.push_back(out);
        if (bThreads) {
            vecThreads.emplace_back([fn, out] { *out = fn(); });
            return;
        }
        const std::string file = strPrefix + std::to_string(vecFaults.size());
        vecPids.push_back(StartChild([this, fn, file] {
            for (int fd : vecClose)
                close(fd);
            const std::string fault = fn();
            WriteFile(file, fault);
            return fault.empty() ? 0 : 1;
        }));
    }
    std::vector<std::string> Wait() {
        for (std::thread& t : vecThreads)
            t.join();
        vecThreads.clear();
        for (size_t n = 0; n < vecPids.size(); ++n) {
            const int rc = WaitChild(vecPids[n]);
            *vecFaults[n] = ReadFile(strPrefix + std::to_string(n + 1));
            if (rc != 0 && vecFaults[n]->empty()) *vecFaults[n] = "exit " + std::to_string(rc);
        }
        vecPids.clear();
        std::vector<std::string> out;
        for (auto& f : vecFaults)
            out.push_back(*f);
        return out;
    }

private:
    bool bThreads;
    std::string strPrefix;
    std::vector<int> vecClose;
    std::vector<std::shared_ptr<std::string>> vecFaults;
    std::vector<std::thread> vecThreads;
    std::vector<pid_t> vecPids;
};

class StressTest : public WmTest {
protected:
    void Run(bool bThreads, int nPerSender);
    void CheckLogs(const std::vector<int>& expected);
    void CheckEmpty(CWorkMessages& wm);
};

void StressTest::Run(bool bThreads, int nPerSender) {
    // Nine workers poll one lock that is busy nearly all the time: a wait of
    // one second (the fixture's) can pass without a free moment (see the
    // README's limits). Waits are not what this test is about.
    WriteConfig("WM_Timeout_Secs=30\n");
    std::mt19937 rng(20261123);
    std::vector<std::vector<Planned>> plan(kPairs);
    std::vector<int> expected(kPairs, 0);
    for (auto& messages : plan) {
        for (int k = 0; k < nPerSender; ++k) {
            const Planned p = {kReceiverUID + static_cast<int32_t>(rng() % kPairs),
                               kTypes[rng() % 4], static_cast<int32_t>(rng() % (kBlock + 1)),
                               rng() % 8 == 0};
            messages.push_back(p);
            ++expected[p.nTarget - kReceiverUID];
        }
    }

    CWorkMessages wm; // keeps the shared state for the final look
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    int go[2], burst[2], stop[2];
    ASSERT_EQ(pipe(go) | pipe(burst) | pipe(stop), 0);
    Crew churn(bThreads, root + "/fault.churn."), work(bThreads, root + "/fault.work.");
    for (Crew* crew : {&churn, &work})
        for (int fd : {go[1], burst[0], stop[1]})
            crew->CloseInChildren(fd);

    churn.Start([&]() -> std::string {
        for (int n = 0; n < kChurnEntries || !Closed(stop[0]); ++n) {
            CWorkMessages o;
            if (o.nLastError != 0) return Failure("construction", o.nLastError, o);
            const long rc = n < kChurnEntries
                                ? o.SetInput(kChurnUID + n / 4, kTypes[n % 4], nullptr, false)
                                : o.TargetActive(kChurnUID, -1);
            if (rc != M_OK) return Failure("churn", rc, o);
        }
        return "";
    });
    for (int j = 0; j < kPairs; ++j) {
        work.Start([&, j]() -> std::string {
            const int32_t nUID = kReceiverUID + j;
            CWorkMessages o;
            if (o.nLastError != 0) return Failure("construction", o.nLastError, o);
            for (const char* type : kTypes)
                if (o.SetInput(nUID, type, nullptr, j == kPairs - 1) != M_OK)
                    return Failure("SetInput", 0, o);
            char c;
            while (read(go[0], &c, 1) > 0) {
            }
            return ReceiveMany(o, root + "/recv." + std::to_string(j), nUID, expected[j], 2, -1);
        });
    }
    for (int i = 0; i < kPairs; ++i) {
        work.Start([&, i]() -> std::string {
            CWorkMessages o;
            const std::string log = root + "/sent." + std::to_string(i);
            auto next = [&](int32_t k) { return plan[i][k]; };
            const int nBurst = std::min(kBurst, nPerSender);
            // The burst, then a signal (also after a fault), then the rest.
            std::string fault = o.nLastError != 0
                                    ? Failure("construction", o.nLastError, o)
                                    : SendMany(o, log, kSenderUID + i, 0, nBurst, -1, next);
            if (write(burst[1], "b", 1) != 1 && fault.empty()) fault = "no signal";
            return fault.empty() ? SendMany(o, log, kSenderUID + i, nBurst, nPerSender, -1, next)
                                 : fault;
        });
    }
    // Receivers start once every sender has run ahead by its burst.
    for (int n = 0; n < kPairs; ++n) {
        struct pollfd p = {burst[0], POLLIN, 0};
        char c;
        if (poll(&p, 1, 120000) != 1 || read(burst[0], &c, 1) != 1) break;
    }
    close(go[1]);
    const std::vector<std::string> faults = work.Wait();
    close(stop[1]);
    const std::vector<std::string> churned = churn.Wait();
    for (int fd : {go[0], burst[0], burst[1], stop[0]})
        close(fd);
    for (size_t n = 0; n < faults.size(); ++n)
        EXPECT_EQ(faults[n], "") << (n < kPairs ? "receiver " : "sender ") << n % kPairs;
    EXPECT_EQ(churned[0], "") << "churn";

    CheckLogs(expected);
    CheckEmpty(wm);
}

// Every message sent arrived exactly once, whole, at its target, with its
// sender and type; an oldest-first receiver got each sender's messages of one
// priority in the order they were sent.
void StressTest::CheckLogs(const std::vector<int>& expected) {
    Delivery d;
    for (int i = 0; i < kPairs; ++i)
        d.Sent(root + "/sent." + std::to_string(i));
    for (int j = 0; j < kPairs; ++j) // the last receiver takes newest first
        EXPECT_EQ(d.Received(root + "/recv." + std::to_string(j), j != kPairs - 1),
                  static_cast<size_t>(expected[j]))
            << "receiver " << j;
    d.NoneLost();
    EXPECT_EQ(d.nFaults, 0);
}

// The control table, the data slot table and both files hold nothing, and
// agree with each other; the table and the registry grew on the way.
void StressTest::CheckEmpty(CWorkMessages& wm) {
    CWorkMessagesTestAccess acc(wm);
    const _SM_Controls_& ctl = *acc.Controls();
    EXPECT_GT(ctl.nQSlotCount, 512);
    EXPECT_GT(ctl.nPRLSlotCount, 128);
    __GET_COUNTERS__ENTRY2 states;
    ASSERT_EQ(wm.GetCounters(&states), M_OK);
    EXPECT_EQ(states.Counter[0], ctl.nQSlotCount) << "slots still in use";
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(acc.SAT()), kBlock).find_first_not_of('\0'),
              std::string::npos)
        << "data slots still in use";

    const std::string wqcf = ReadFile(wqcfFile);
    ASSERT_GE(wqcf.size(), sizeof(_WQCF_CTL_));
    _WQCF_CTL_ head;
    memcpy(&head, wqcf.data(), sizeof(head));
    EXPECT_EQ(head.nEntriesAllocated, ctl.nQSlotCount);
    EXPECT_EQ(head.nCurrentMsgID, ctl.nMsgCounter);
    EXPECT_LE(wqcf.size(), sizeof(_WQCF_) * (ctl.nQSlotCount + 1));
    EXPECT_EQ(wqcf.find_first_not_of('\0', sizeof(head)), std::string::npos) << "records in use";
    const std::string wddf = ReadFile(wddfFile);
    EXPECT_GE(wddf.size(), static_cast<size_t>(kBlock));
    EXPECT_EQ(wddf.size() % kBlock, 0u);
    EXPECT_EQ(wddf.find_first_not_of('\0'), std::string::npos) << "data left in the data file";
}

TEST_F(StressTest, ProcessesExchangeEveryMessageExactlyOnce) {
    // Under the emulator every call is about ten times slower: a fifth of the
    // messages still grows the table several times and fits the time limit.
    const int nPerSender = Emulator().empty() ? 5000 : 1000;
    if (nPerSender != 5000)
        fprintf(stderr, "[   NOTE   ] sized for the emulator: %d messages per sender\n",
                nPerSender);
    Run(false, nPerSender);
}

TEST_F(StressTest, ThreadsWithAnObjectEachExchangeEveryMessageExactlyOnce) {
    // The user-mode emulator keeps 32 shared-memory attachments per process
    // in its books; past that every attach leaks guest address space until
    // shmat fails. Ten objects in one process hold far more than 32.
    if (!Emulator().empty())
        GTEST_SKIP() << "skipped under the emulator: ten objects in one process exceed its "
                        "32 shared-memory attachments per process";
    Run(true, 5000);
}

} // namespace
