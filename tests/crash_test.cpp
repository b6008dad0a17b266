// Crashes: workers killed with SIGKILL outside and (with a robust lock)
// inside the Controls lock while others go on, all users killed and the files
// reloaded, and lock owners that die while others stay attached.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cstdlib>

#include "Workload.h"

namespace {

using namespace wmtest;

const char* const kTypes[] = {"ORDER", "INVOICE", "REPORT", "ALERT"};
const int32_t kSeqsPerLife = 100000; // a sender's life n numbers its messages from n * this
int fdParked = -1;                   // a parked child's end of its pipe to the parent

class CrashTest : public WmTest {
protected:
    // Runs fn in a child that then waits to be killed; returns its pid once
    // fn is done, or once fn holds the Controls lock inside HoldTheLock.
    // *result is fn's text, or "lock" when it holds the lock.
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
    void Kill(pid_t pid) {
        kill(pid, SIGKILL);
        WaitChild(pid);
    }
    void TearDown() override {
        for (pid_t pid : vecParked)
            kill(pid, SIGKILL); // a failed check may leave one waiting
        WmTest::TearDown();
    }
    // wmctl's output for args, "" where the tool is not built.
    std::string Wmctl(const std::string& args) {
        const char* dir = getenv("QV_WM_BINARY_DIR");
        const std::string tool = std::string(dir ? dir : "") + "/tools/wmctl";
        if (dir == nullptr || access(tool.c_str(), X_OK) != 0) return "";
        const std::string out = root + "/wmctl.out";
        return system((Emulator() + " " + tool + " " + args + " > " + out + " 2>&1").c_str()) >= 0
                   ? ReadFile(out)
                   : "";
    }
    void KillAndRestartWorkers(bool bInsideToo);
    std::vector<pid_t> vecParked;
};

// False where the kernel keeps no robust lock list (a user-mode emulator):
// there the library makes an ordinary lock, and the tests of the robust one
// are skipped. Elsewhere the host's lock must be robust.
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

// For StartParked: a receiver of nUID that stays inside the lock (a message
// for it must be waiting).
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

// Stops the process and kills it when it is where the kill may land. Inside:
// it holds the Controls lock (the owner word, or a robust lock word, names
// it). Outside: it neither holds it nor is taking or giving it up (the lock
// word set, the owner word not yet or no longer). 1 when it was killed, 0
// when it goes on, -1 when it had ended.
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

// One life of a worker: a sender of messages to 401 and 402 until the file
// strStop exists, or a receiver until then and until nothing is left.
std::string Life(int32_t nUID, int32_t nLife, const std::string& strStop,
                 const std::string& strLog) {
    CWorkMessages wm;
    if (wm.nLastError != 0) return Failure("construction", wm.nLastError, wm);
    if (nUID > 400)
        return wm.SetInput(nUID, "ORDER", nullptr, false) != M_OK
                   ? Failure("SetInput", 0, wm)
                   : ReceiveMany(wm, strLog, nUID, LONG_MAX, 1, strStop);
    std::mt19937 rng(static_cast<unsigned>(nUID * 1000 + nLife));
    return SendMany(
        wm, strLog, nUID, nLife * kSeqsPerLife, INT32_MAX, strStop,
        [&](int32_t) {
            return Planned{401 + static_cast<int32_t>(rng() % 2), kTypes[rng() % 4],
                           kHeader + static_cast<int32_t>(rng() % (kBlock - kHeader + 1)),
                           rng() % 8 == 0};
        },
        500);
}

// Senders and receivers run while processes are killed and restarted at
// random; with bInsideToo (and a robust lock) every other kill lands inside
// the Controls lock. Nothing acknowledged is lost, no message is delivered
// twice, and the survivors carry on.
void CrashTest::KillAndRestartWorkers(bool bInsideToo) {
    // The survivors share a busy lock.
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
    auto start = [&](Worker& w) { // a fault goes to standard error
        w.pid = StartChild([&] {
            const std::string fault =
                Life(w.nUID, w.nLife, stopFile(w.nUID), root + "/log." + std::to_string(w.nUID));
            fprintf(stderr, "%s%s", fault.c_str(), fault.empty() ? "" : "\n");
            return fault.empty() ? 0 : 1;
        });
    };
    for (Worker& w : workers)
        start(w);

    std::set<std::pair<int32_t, int32_t>> killed; // (UID, life)
    std::mt19937 rng(4711);
    // Kills go on for six seconds, and on a slow or loaded machine (or under
    // the emulator) until the receivers have logged kMinReceived messages,
    // for at most a minute and a half.
    const size_t kMinReceived = 1000;
    auto receivedSoFar = [&] {
        return static_cast<size_t>(std::max(0L, FileSize(root + "/log.401")) +
                                   std::max(0L, FileSize(root + "/log.402"))) /
               sizeof(LogRecord);
    };
    int nInside = 0;
    const time_t tStart = time(nullptr);
    while (time(nullptr) < tStart + 6 ||
           (receivedSoFar() <= kMinReceived && time(nullptr) < tStart + 90)) {
        usleep(50000 + rng() % 200000);
        Worker& w = workers[rng() % workers.size()];
        // An inside kill waits for its moment, up to about a second.
        const bool bInside = bInsideToo && killed.size() % 2 == 0;
        int nKilled = 0;
        for (int nTry = 0; nTry < (bInside ? 200 : 1) && nKilled == 0; ++nTry) {
            if (nTry > 0) usleep(5000);
            nKilled = KillIf(bInside, w.pid, lock);
        }
        if (nKilled == 0) continue;
        if (bInside && nKilled > 0) ++nInside;
        EXPECT_GT(nKilled, 0) << "worker " << w.nUID << " ended by itself";
        killed.insert({w.nUID, w.nLife});
        ++w.nLife;
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
    // Every kill inside the lock was recovered from by the next holder (one
    // that died recovering leaves the work to the next).
    ASSERT_NE(wm.TargetActive(401, -1), M_LOCK) << wm.szErrorMsg;
    const int32_t nRecoveries = acc.Controls()->Reserved[cstCtlRecoveries];
    if (bInsideToo) {
        EXPECT_GE(nInside, 2);
        EXPECT_TRUE(nRecoveries >= 1 && nRecoveries <= nInside) << nRecoveries;
    }

    Delivery d;
    std::map<std::pair<int32_t, int32_t>, int32_t> lastSeq; // (UID, life) -> last logged seq
    for (int32_t uid : {301, 302})
        d.Sent(root + "/log." + std::to_string(uid));
    for (const auto& [nKey, r] : d.sent) {
        int32_t& last =
            lastSeq.emplace(std::make_pair(r.nSender, r.nSeq / kSeqsPerLife), -1).first->second;
        last = std::max(last, r.nSeq);
    }
    // A message without a record is allowed only as the last one of a killed
    // sender's life: the kill came between Send's return and the record.
    std::set<std::pair<int32_t, int32_t>> extras;
    d.unlogged = [&](int32_t nSender, int32_t nSeq) {
        const int32_t nLife = nSeq / kSeqsPerLife;
        const auto last = lastSeq.find({nSender, nLife});
        const int32_t nNext = last == lastSeq.end() ? nLife * kSeqsPerLife : last->second + 1;
        return killed.count({nSender, nLife}) == 1 && nSeq == nNext &&
               extras.insert({nSender, nLife}).second;
    };
    for (int32_t uid : {401, 402})
        d.Received(root + "/log." + std::to_string(uid), false);
    d.Left(wm); // received by a process killed before it deleted it
    d.NoneLost();
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

// Without the key: a user dies inside the Controls lock. Every user still
// attached, every new one and wmctl status name the dead owner until every
// user has stopped. Then the next one reloads the files: without cleaning
// every message in its state with its data, with cleaning (after a second
// such death, no user left) the received one dropped.
TEST_F(CrashTest, AllKilledOneInsideTheLockThenTheNextProcessReloadsTheFiles) {
    auto wm = std::make_unique<CWorkMessages>();
    ASSERT_EQ(wm->nLastError, 0) << wm->szErrorMsg;
    // Sender 301: seqs 3, 4, 5 received by 402, 4 and 5 put back for retry
    // (5 delayed), 3 kept received; then 1 and 2 (high) pending for 402, 6
    // pending for 401.
    const std::string sent = root + "/log.301";
    const Planned plan[] = {{},
                            {402, "INVOICE", 5000, false},
                            {402, "REPORT", kBlock, true},
                            {402, "ORDER", 300, false},
                            {402, "ORDER", 400, false},
                            {402, "ORDER", 500, false},
                            {401, "ALERT", 16, false}};
    auto send = [&](int32_t nFirst, int32_t nEnd) {
        return SendMany(*wm, sent, 301, nFirst, nEnd, "", [&](int32_t k) { return plan[k]; });
    };
    ASSERT_EQ(wm->SetInput(402, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(send(3, 6), "");
    std::vector<char> block(kBlock);
    WorkMsg m = {};
    for (int n = 0; n < 3; ++n) {
        m.pDepData = block.data();
        m.nDepDataLength = kBlock;
        ASSERT_EQ(wm->Receive(402, 1, &m, false, nullptr), M_OK) << wm->szErrorMsg;
        if (n > 0) {
            ASSERT_EQ(wm->Retry(402, m.nMessageID, n == 2, 0), M_OK) << wm->szErrorMsg;
        }
    }
    ASSERT_EQ(send(1, 3) + send(6, 7), "");
    std::string held;
    const pid_t pidOwner = StartParked([] { return ReceiveInsideTheLock(401, false); }, &held);
    ASSERT_EQ(held, "lock");
    Kill(pidOwner);

    const std::string owner = "Current owner=" + std::to_string(pidOwner) + "\n";
    m = {};
    m.nTargetUID = 401;
    EXPECT_EQ(wm->Send(301, "ORDER", &m, false), M_LOCK);
    EXPECT_TRUE(Contains(wm->szErrorMsg, owner)) << wm->szErrorMsg;
    EXPECT_EQ(RunChild([&] {
                  CWorkMessages late;
                  return late.nLastError == M_LOCK && Contains(late.szErrorMsg, owner) ? 0 : 1;
              }),
              0);
    const std::string status = Wmctl("status");
    EXPECT_TRUE(status.empty() || Contains(status, "held by thread " + std::to_string(pidOwner) +
                                                       ", which no longer exists"))
        << status;
    wm.reset();
    ASSERT_LT(SegmentId(CWorkMessages::cstWMctlSHMKey), 0);

    const std::map<int32_t, int> all = {{1, WQCF_Pending}, {2, WQCF_Pending},
                                        {6, WQCF_Pending}, {3, WQCF_Received},
                                        {4, WQCF_Retry},   {5, WQCF_Delayed_Retry}};
    auto bySeq = [](CWorkMessages& wm) {
        std::map<int32_t, int> out;
        for (const auto& [nKey, s] : TableContents(wm))
            out[s.nSender == 301 ? s.nSeq : -nKey] = s.nState;
        return out;
    };
    {
        CWorkMessages noClean(true);
        ASSERT_EQ(noClean.nLastError, 0) << noClean.szErrorMsg;
        EXPECT_EQ(bySeq(noClean), all);
    }
    const pid_t pidAgain = StartParked([] { return ReceiveInsideTheLock(401, true); }, &held);
    ASSERT_EQ(held, "lock");
    Kill(pidAgain);
    CWorkMessages clean;
    ASSERT_EQ(clean.nLastError, 0) << clean.szErrorMsg;
    std::map<int32_t, int> kept = all;
    kept.erase(3);
    EXPECT_EQ(bySeq(clean), kept);
}

// With the key: a receiver dies inside the lock (the counter moved on in
// memory only), then lock holders die in the middle of a growth. Each time
// the next call takes the lock over within one lock wait and rebuilds the
// tables from the files, every stored message kept; a process without the
// key does it too, and logs one line.
TEST_F(CrashTest, WithTheKeyADeadLockOwnerIsReplacedAndTheTablesAreRebuiltFromTheFiles) {
    // Stored: messages 1 (pending, data slot 3, which the data file shows
    // free) and 2 (received, data slot 4); data slot 7 marked with no message.
    _WQCF_ pending = SlotRecord(WQCF_Pending, 0x40000001, 3, 5);
    _WQCF_ received = SlotRecord(WQCF_Received, 0x40000002, 4, 5);
    pending.nTargetUID = received.nTargetUID = 401;
    WriteFile(wqcfFile, ControlFileImage(512, 0x40000003, {pending, received}));
    WriteFile(wddfFile, DataFileImage({{4, "four"}, {7, "stray"}}));
    // This process keeps its mappings, so it still holds a segment that a
    // cut-off growth has removed.
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
                  WorkMsg m = {};
                  char buf[16] = {};
                  m.pDepData = buf;
                  m.nDepDataLength = sizeof(buf);
                  if (late.nLastError != 0 || late.SetInput(401, "ORDER", nullptr, false) != M_OK ||
                      late.Receive(401, 1, &m, false, nullptr) != M_OK)
                      return 1;
                  return Contains(log, "Recovered the Controls lock from dead owner thread " +
                                           std::to_string(pidOwner) + ":") &&
                                 Contains(log, "message counter 40000010, 1 data slots kept for "
                                               "their messages, 1 freed, registry sound; "
                                               "messages: 1 pending, 1 received") &&
                                 m.nMessageID == 0x40000001
                             ? 0
                             : 2;
              }),
              0);
    // The next ID goes on from the shared counter.
    WorkMsg m = {};
    m.nTargetUID = 401;
    ASSERT_EQ(wm.Send(301, "ORDER", &m, false), M_OK) << wm.szErrorMsg;
    EXPECT_EQ(m.nMessageID, 0x40000010);

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
        EXPECT_TRUE(row.Counter[WQCF_Pending] == 1 && row.Counter[WQCF_Received] == 2) << c.what;
    }
    ExpectTablesEqualFiles(wm, wqcfFile, wddfFile);
    const std::string data = ReadFile(wddfFile);
    EXPECT_TRUE(DataSlotMarked(data, 3) && DataSlotMarked(data, 4) && !DataSlotMarked(data, 7));
    EXPECT_EQ(acc.Controls()->Reserved[cstCtlRecoveries], 4);
    const std::string status = Wmctl("status");
    EXPECT_TRUE(status.empty() || Contains(status, "Dead-owner recovery: on (robust lock), 4 "))
        << status;
}

} // namespace
