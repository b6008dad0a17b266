// Crashes: workers killed with SIGKILL outside and (with a robust lock)
// inside the Controls lock while others go on, all users killed and the files
// reloaded, and lock owners that die while others stay attached.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "Workload.h"

namespace {

using namespace wmtest;

const char* const kTypes[] = {"ORDER", "INVOICE", "REPORT", "ALERT"};
const int32_t kSeqsPerLife = 100000; // a sender's life n numbers its messages from n * this
int fdParked = -1;                   // a parked child's end of its pipe to the parent

class CrashTest : public WmTest {
protected:
    // Runs fn in a child that waits to be killed; *result is fn's text, or
    // "lock" once fn holds the Controls lock in HoldTheLock.
    pid_t StartParked(const std::function<std::string()>& fn, std::string* result) {
        int fds[2];
        if (pipe(fds) != 0) return -1;
        const pid_t pid = StartChild([&] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(fds[0]);
            fdParked = fds[1];
            const std::string text = fn();
            if (write(fdParked, text.data(), text.size()) < 0) return 3;
            for (;;)
                pause();
        });
        vecParked.push_back(pid);
        close(fds[1]);
        char buf[512];
        const ssize_t n = read(fds[0], buf, sizeof(buf));
        result->assign(buf, n > 0 ? static_cast<size_t>(n) : 0);
        close(fds[0]);
        return pid;
    }
    void Kill(pid_t pid) { kill(pid, SIGKILL), WaitChild(pid); }
    void TearDown() override {
        for (pid_t pid : vecParked)
            kill(pid, SIGKILL); // a failed check may leave one waiting
        WmTest::TearDown();
    }
    void KillAndRestartWorkers(bool bInsideToo);
    std::vector<pid_t> vecParked;
};

// False where the kernel keeps no robust lock list (a user-mode emulator);
// elsewhere the host's lock must be robust.
bool RobustLocksWork(CWorkMessages& wm) {
    void* pHead = nullptr;
    size_t nLength = 0;
    if (syscall(SYS_get_robust_list, 0, &pHead, &nLength) != 0) return false;
    EXPECT_NE(CWorkMessagesTestAccess(wm).Controls()->Reserved[cstCtlLockFlags] & cstLockRobust, 0);
    return true;
}
const char kNoRobustLocks[] = "this system does not report a lock holder's death";

// A receive filter runs with the Controls lock held: this one never returns.
bool HoldTheLock(void*) {
    if (write(fdParked, "lock", 4) != 4) _exit(3);
    for (;;)
        pause();
}

// For StartParked: a receiver of nUID (a message waiting) parked in the lock.
std::string ReceiveInsideTheLock(int32_t nUID, bool bNoClean) {
    CWorkMessages wm(bNoClean);
    if (wm.nLastError != 0 || wm.SetInput(nUID, "ORDER", nullptr, false) != M_OK)
        return wm.szErrorMsg;
    std::vector<char> block(kBlock);
    WorkMsg m = {};
    m.pDepData = block.data();
    m.nDepDataLength = kBlock;
    wm.Receive(nUID, 5, &m, false, HoldTheLock);
    return "not in the lock";
}

// Stops the process and kills it if it is inside the Controls lock (the owner
// or robust lock word names it) or, for !bInside, clear of it (not holding,
// taking or giving it up). 1 killed, 0 let go on, -1 had ended.
int KillIf(bool bInside, pid_t pid, pthread_mutex_t& lock) {
    int status = 0;
    if (kill(pid, SIGSTOP) != 0 || waitpid(pid, &status, WUNTRACED) != pid || !WIFSTOPPED(status))
        return -1;
    const int nWord = __atomic_load_n(&lock.__data.__lock, __ATOMIC_SEQ_CST);
    const int nOwner = __atomic_load_n(&lock.__data.__owner, __ATOMIC_SEQ_CST);
    if (bInside ? nOwner != pid && (nWord & 0x3FFFFFFF) != pid
                : nWord != 0 && (nOwner == pid || nOwner == 0)) {
        kill(pid, SIGCONT);
        return 0;
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return 1;
}

// One life of a worker: a sender to 401 and 402, or a receiver, until strStop.
std::string Life(int32_t nUID, int32_t nLife, const std::string& strStop,
                 const std::string& strLog) {
    CWorkMessages wm;
    if (wm.nLastError != 0) return Failure("construction", wm.nLastError, wm);
    if (nUID > 400)
        return wm.SetInput(nUID, "ORDER", nullptr, false) != M_OK
                   ? Failure("SetInput", 0, wm)
                   : ReceiveMany(wm, strLog, nUID, strStop);
    std::mt19937 rng(static_cast<unsigned>(nUID * 1000 + nLife));
    return SendMany(
        wm, strLog, nUID, nLife * kSeqsPerLife, INT32_MAX, strStop,
        [&](int32_t) {
            return Planned{401 + int32_t(rng() % 2), kTypes[rng() % 4],
                           kHeader + int32_t(rng() % (kBlock - kHeader + 1)), rng() % 8 == 0};
        },
        500);
}

// Senders and receivers are killed and restarted at random, with bInsideToo
// (robust lock) every other kill inside the Controls lock. Nothing
// acknowledged is lost or delivered twice, and the survivors carry on.
void CrashTest::KillAndRestartWorkers(bool bInsideToo) {
    WriteConfig(bInsideToo ? "WM_Timeout_Secs=30\nWM_RecoverDeadOwner=true\n"
                           : "WM_Timeout_Secs=30\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    if (bInsideToo && !RobustLocksWork(wm)) GTEST_SKIP() << kNoRobustLocks;
    CWorkMessagesTestAccess acc(wm);
    pthread_mutex_t& lock = acc.Controls()->MutexCtlrs;

    struct Worker {
        int32_t nUID, nLife;
        pid_t pid;
    };
    std::vector<Worker> workers = {{301, 0, 0}, {302, 0, 0}, {401, 0, 0}, {402, 0, 0}};
    auto stopFile = [&](int32_t nUID) { return root + (nUID < 400 ? "/stop.send" : "/stop.recv"); };
    auto start = [&](Worker& w) {
        w.pid = StartWorker([&] {
            return Life(w.nUID, w.nLife, stopFile(w.nUID), root + "/log." + std::to_string(w.nUID));
        });
    };
    for (Worker& w : workers)
        start(w);

    std::set<std::pair<int32_t, int32_t>> killed; // (UID, life)
    std::mt19937 rng(4711);
    // Kills go on for 6 s and until kMinReceived came (at most 90 s).
    const size_t kMinReceived = 1000;
    auto receivedSoFar = [&] {
        return ReadLog(root + "/log.401").size() + ReadLog(root + "/log.402").size();
    };
    int nInside = 0;
    const time_t tStart = time(nullptr);
    while (time(nullptr) < tStart + 6 ||
           (receivedSoFar() <= kMinReceived && time(nullptr) < tStart + 90)) {
        usleep(50000 + rng() % 200000);
        Worker& w = workers[rng() % workers.size()];
        // An inside kill waits up to a second for its moment.
        const bool bInside = bInsideToo && killed.size() % 2 == 0;
        int nKilled = 0;
        for (int nTry = 0; nTry < (bInside ? 200 : 1) && nKilled == 0; ++nTry) {
            if (nTry > 0) usleep(5000);
            nKilled = KillIf(bInside, w.pid, lock);
        }
        if (nKilled == 0) continue;
        EXPECT_GT(nKilled, 0) << "worker " << w.nUID << " ended by itself";
        nInside += bInside;
        killed.insert({w.nUID, w.nLife++});
        start(w);
    }
    EXPECT_GE(killed.size(), bInsideToo ? 4u : 10u);

    // The survivors carried on: they end without a fault, the senders first.
    for (int32_t nKind : {301, 401}) {
        WriteFile(stopFile(nKind), "");
        for (Worker& w : workers)
            if ((w.nUID < 400) == (nKind < 400)) {
                EXPECT_EQ(WaitChild(w.pid), 0) << w.nUID;
            }
    }
    // Each recovery follows a kill inside (one killed recovering leaves it).
    ASSERT_NE(wm.TargetActive(401, -1), M_LOCK) << wm.szErrorMsg;
    const int32_t nRecoveries = acc.Controls()->Reserved[cstCtlRecoveries];
    EXPECT_TRUE(!bInsideToo || (nInside >= 2 && nRecoveries >= 1 && nRecoveries <= nInside))
        << nInside << " kills inside, " << nRecoveries << " recoveries";

    Delivery d;
    for (int32_t uid : {301, 302})
        d.Sent(root + "/log." + std::to_string(uid));
    // A killed sender's life may leave one message sent but unlogged.
    std::set<std::pair<int32_t, int32_t>> extras;
    d.unlogged = [&](int32_t nSender, int32_t nSeq) {
        const std::pair<int32_t, int32_t> life(nSender, nSeq / kSeqsPerLife);
        return killed.count(life) == 1 && extras.insert(life).second;
    };
    for (int32_t uid : {401, 402})
        d.Received(root + "/log." + std::to_string(uid), false);
    d.NoneLost(wm);
    EXPECT_EQ(d.nFaults, 0);
    EXPECT_GT(d.received.size(), kMinReceived); // the run did real work
    ExpectTablesEqualFiles(wm, wqcfFile, wddfFile);
}

TEST_F(CrashTest, ProcessesKilledOutsideTheLockLoseAndDuplicateNothing) {
    KillAndRestartWorkers(false);
}

TEST_F(CrashTest, WithARobustLockKillsInsideItLoseAndDuplicateNothing) {
    KillAndRestartWorkers(true);
}

// Without the key: a user dies inside the Controls lock; every user names the
// dead owner until all have stopped. The next one reloads the files, keeping
// every message as it was, or with cleaning dropping the received one.
TEST_F(CrashTest, AllKilledOneInsideTheLockThenTheNextProcessReloadsTheFiles) {
    auto wm = std::make_unique<CWorkMessages>();
    ASSERT_EQ(wm->nLastError, 0) << wm->szErrorMsg;
    // Sender 301: seq 1 (high) received by 402, 0 pending for 402, 2 for 401.
    const Planned plan[] = {
        {402, "ORDER", 300, false}, {402, "REPORT", kBlock, true}, {401, "ALERT", 16, false}};
    ASSERT_EQ(SendMany(*wm, root + "/log.301", 301, 0, 3, "", [&](int32_t k) { return plan[k]; }),
              "");
    ASSERT_EQ(wm->SetInput(402, "ORDER", nullptr, false), M_OK);
    std::vector<char> block(kBlock);
    WorkMsg m = {};
    m.pDepData = block.data();
    m.nDepDataLength = kBlock;
    ASSERT_EQ(wm->Receive(402, 1, &m, false, nullptr), M_OK) << wm->szErrorMsg;
    std::string held;
    const pid_t pidOwner = StartParked([] { return ReceiveInsideTheLock(401, false); }, &held);
    ASSERT_EQ(held, "lock");
    Kill(pidOwner);

    const std::string owner = "Current owner=" + std::to_string(pidOwner) + "\n";
    EXPECT_EQ(wm->TargetActive(401, -1), M_LOCK);
    EXPECT_TRUE(Contains(wm->szErrorMsg, owner)) << wm->szErrorMsg;
    EXPECT_EQ(RunChild([&] {
                  CWorkMessages late;
                  return late.nLastError == M_LOCK && Contains(late.szErrorMsg, owner) ? 0 : 1;
              }),
              0);
    wm.reset();
    ASSERT_LT(SegmentId(CWorkMessages::cstWMctlSHMKey), 0);

    using States = std::map<int32_t, int>; // seq -> state
    auto bySeq = [](CWorkMessages& wm) {
        std::map<int32_t, int> out;
        for (const auto& [nKey, s] : TableContents(wm))
            out[s.nSender == 301 ? s.nSeq : -nKey] = s.nState;
        return out;
    };
    EXPECT_EQ(bySeq(*std::make_unique<CWorkMessages>(true)),
              (States{{0, WQCF_Pending}, {1, WQCF_Received}, {2, WQCF_Pending}}));
    const pid_t pidAgain = StartParked([] { return ReceiveInsideTheLock(401, true); }, &held);
    ASSERT_EQ(held, "lock");
    Kill(pidAgain);
    CWorkMessages clean;
    EXPECT_EQ(bySeq(clean), (States{{0, WQCF_Pending}, {2, WQCF_Pending}})) << clean.szErrorMsg;
}

// With the key: a receiver dies inside the lock, then holders die amid a
// growth. Each time the next call, with the key or not, takes the lock over
// and rebuilds the tables from the files, keeping every stored message.
TEST_F(CrashTest, WithTheKeyADeadLockOwnerIsReplacedAndTheTablesAreRebuiltFromTheFiles) {
    // Messages 1 (pending, data slot 3, marked free) and 2 (received, slot
    // 4); slot 7 marked with no message.
    _WQCF_ pending = SlotRecord(WQCF_Pending, 0x40000001, 3, 5);
    _WQCF_ received = SlotRecord(WQCF_Received, 0x40000002, 4, 5);
    pending.nTargetUID = received.nTargetUID = 401;
    WriteFile(wqcfFile, ControlFileImage(512, 0x40000003, {pending, received}));
    WriteFile(wddfFile, DataFileImage({{4, "four"}, {7, "stray"}}));
    // Kept mappings: this process still holds a segment a cut growth removed.
    WriteConfig("WM_RecoverDeadOwner=true\nWM_KeepAttached=true\n");
    CWorkMessages wm(true);
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    if (!RobustLocksWork(wm)) GTEST_SKIP() << kNoRobustLocks;
    CWorkMessagesTestAccess acc(wm);
    std::string held;
    const pid_t pidOwner = StartParked([] { return ReceiveInsideTheLock(401, true); }, &held);
    ASSERT_EQ(held, "lock");
    acc.Controls()->nMsgCounter = 0x40000010;
    Kill(pidOwner);

    WriteConfig();
    EXPECT_EQ(RunChild([&] {
                  StderrCapture cap;
                  CWorkMessages late;
                  const std::string log = cap.Stop();
                  return late.nLastError == 0 &&
                                 Contains(log,
                                          "Recovered the Controls lock from dead owner thread " +
                                              std::to_string(pidOwner) + ":") &&
                                 Contains(log, "message counter 40000010, 1 data slots kept for "
                                               "their messages, 1 freed, registry sound; "
                                               "messages: 1 pending, 1 received")
                             ? 0
                             : 1;
              }),
              0);
    const struct {
        const char* what;
        void (*cut)(_SM_Controls_& c);
    } cases[] = {
        {"control table growth, old segment removed",
         [](_SM_Controls_& c) { shmctl(c.nQueuesHandle, IPC_RMID, nullptr); }},
        {"control table growth, an empty larger segment published",
         [](_SM_Controls_& c) {
             shmctl(c.nQueuesHandle, IPC_RMID, nullptr);
             c.nQSlotCount += 128;
             c.nQueuesHandle =
                 shmget(CWorkMessages::cstWMQueuesSHMKey,
                        static_cast<size_t>(c.nQSlotCount) * sizeof(_WQCF_), IPC_CREAT | 0666);
         }},
        {"registry growth, old segment removed",
         [](_SM_Controls_& c) { shmctl(c.nPRListHandle, IPC_RMID, nullptr); }},
    };
    for (const auto& c : cases) {
        const pid_t pid = StartParked(
            [&c]() -> std::string {
                CWorkMessagesTestAccess a(*new CWorkMessages);
                a.RecordCaller();
                if (!a.GetControlsLock(1) || a.GetPointers() != M_OK) return "no lock";
                c.cut(*a.Controls());
                return "lock";
            },
            &held);
        ASSERT_EQ(held, "lock") << c.what;
        Kill(pid);
        EXPECT_EQ(wm.TargetActive(401, 1), M_OK) << c.what << ": " << wm.szErrorMsg;
        __GET_COUNTERS__ENTRY2 row = {};
        ASSERT_EQ(wm.GetCounters(&row), M_OK) << c.what;
        EXPECT_TRUE(row.Counter[WQCF_Pending] == 1 && row.Counter[WQCF_Received] == 1) << c.what;
    }
    ExpectTablesEqualFiles(wm, wqcfFile, wddfFile);
    const std::string data = ReadFile(wddfFile);
    EXPECT_TRUE(DataSlotMarked(data, 3) && DataSlotMarked(data, 4) && !DataSlotMarked(data, 7));
    EXPECT_EQ(acc.Controls()->Reserved[cstCtlRecoveries], 4);
}

} // namespace
