// Crashes: processes killed with SIGKILL while others go on, all users killed
// at once (one of them inside the Controls lock) and new ones started, and a
// lock owner that dies while others stay attached.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "TestAccess.h"
#include "Workload.h"

namespace {

using namespace wmtest;

const char* const kTypes[] = {"ORDER", "INVOICE", "REPORT", "ALERT"};
const int32_t kSeqsPerLife = 100000; // a sender's life n numbers its messages from n * this

class CrashTest : public WmTest {
protected:
    // Runs fn in a child that then waits to be killed; returns its pid once
    // fn is done, or once fn holds the Controls lock inside HoldTheLock.
    // *result is fn's text, or "lock" when it holds the lock.
    pid_t StartParked(const std::function<std::string()>& fn, std::string* result);
    void Kill(pid_t pid) {
        kill(pid, SIGKILL);
        WaitChild(pid);
    }
    void TearDown() override {
        for (pid_t pid : vecParked)
            kill(pid, SIGKILL); // a failed check may leave one waiting
        WmTest::TearDown();
    }
    std::vector<pid_t> vecParked;
    void KillAndRestartWorkers(bool bInsideToo);
    // Runs wmctl with args; its standard output.
    std::string Wmctl(const std::string& args);
};

int fdParked = -1; // a parked child's end of its pipe to the parent

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

pid_t CrashTest::StartParked(const std::function<std::string()>& fn, std::string* result) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const pid_t pid = StartChild([&] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(fds[0]);
        fdParked = fds[1];
        const std::string text = fn();
        if (write(fdParked, text.data(), text.size()) < 0) return 3;
        close(fdParked);
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

std::string CrashTest::Wmctl(const std::string& args) {
    const char* dir = getenv("QV_WM_BINARY_DIR");
    const std::string tool = std::string(dir ? dir : "") + "/tools/wmctl";
    if (dir == nullptr || access(tool.c_str(), X_OK) != 0) return "";
    const std::string cmd = Emulator() + " " + tool + " " + args + " > " + root + "/wmctl.out 2>&1";
    return system(cmd.c_str()) >= 0 ? ReadFile(root + "/wmctl.out") : "";
}

// Where a kill may land: outside the Controls lock only, or inside it only.
enum class KillWhere { Outside, Inside };

// Stops the process and kills it when it is where the kill may land. Inside:
// it holds the Controls lock (the owner word, or a robust lock word, names
// it). Outside: it neither holds it nor is taking or giving it up (the lock
// word set, the owner word not yet or no longer). 1 when it was killed, 0
// when it goes on, -1 when it had ended.
int KillIf(KillWhere where, pid_t pid, pthread_mutex_t& lock) {
    int status = 0;
    if (kill(pid, SIGSTOP) != 0 || waitpid(pid, &status, WUNTRACED) != pid) return -1;
    if (!WIFSTOPPED(status)) return -1;
    const int nWord = __atomic_load_n(&lock.__data.__lock, __ATOMIC_SEQ_CST);
    const int nOwner = __atomic_load_n(&lock.__data.__owner, __ATOMIC_SEQ_CST);
    const bool bInside = nOwner == pid || (nWord & 0x3FFFFFFF) == pid;
    const bool bOutside = nWord == 0 || (nOwner != pid && nOwner != 0);
    if (where == KillWhere::Inside ? !bInside : !bOutside) {
        kill(pid, SIGCONT);
        return 0;
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return 1;
}

// One life of a worker: a sender of messages to 401 and 402 until the stop
// pipe closes, or a receiver until the pipe is closed and nothing is left.
std::string Life(int32_t nUID, int32_t nLife, int fdStop, const std::string& strLog) {
    CWorkMessages wm;
    if (wm.nLastError != 0) return Failure("construction", wm.nLastError, wm);
    if (nUID > 400)
        return wm.SetInput(nUID, "ORDER", nullptr, false) != M_OK
                   ? Failure("SetInput", 0, wm)
                   : ReceiveMany(wm, strLog, nUID, LONG_MAX, 1, fdStop);
    std::mt19937 rng(static_cast<unsigned>(nUID * 1000 + nLife));
    return SendMany(
        wm, strLog, nUID, nLife * kSeqsPerLife, INT32_MAX, fdStop,
        [&](int32_t) {
            return Planned{401 + static_cast<int32_t>(rng() % 2), kTypes[rng() % 4],
                           kHeader + static_cast<int32_t>(rng() % (kBlock - kHeader + 1)),
                           rng() % 8 == 0};
        },
        500);
}

// What the table holds: key -> (state, sender, seq), from each message's data.
struct Stored {
    int nState;
    int32_t nSender, nSeq;
};
std::map<int32_t, Stored> TableContents(CWorkMessages& wm) {
    CWorkMessagesTestAccess acc(wm);
    std::map<int32_t, Stored> out;
    if (acc.GetPointers() != M_OK) return out;
    for (long i = 0; i < acc.Controls()->nQSlotCount; ++i) {
        const _WQCF_ slot = acc.Queues()[i];
        if (slot.nflag == WQCF_Available) continue;
        Stored s = {slot.nflag, 0, -1};
        if (pByteInt data = slot.nDepDataSlot < 0 ? nullptr : acc.ReadWDDF(slot.nDepDataSlot)) {
            ReadHeader(reinterpret_cast<const char*>(data), &s.nSender, &s.nSeq);
            free(data);
        }
        out[slot.nMessageID & 0x00FFFFFF] = s;
    }
    acc.Return(M_OK);
    return out;
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
    int stopSend[2], stopRecv[2];
    ASSERT_EQ(pipe(stopSend) | pipe(stopRecv), 0);

    struct Worker {
        int32_t nUID;
        int32_t nLife;
        pid_t pid;
    };
    std::vector<Worker> workers = {{301, 0, 0}, {302, 0, 0}, {401, 0, 0}, {402, 0, 0}};
    auto faultFile = [&](const Worker& w) {
        return root + "/fault." + std::to_string(w.nUID) + "." + std::to_string(w.nLife);
    };
    auto start = [&](Worker& w) {
        w.pid = StartChild([&] {
            close(stopSend[1]);
            close(stopRecv[1]);
            const std::string log = root + "/log." + std::to_string(w.nUID);
            const std::string fault =
                Life(w.nUID, w.nLife, w.nUID < 400 ? stopSend[0] : stopRecv[0], log);
            WriteFile(faultFile(w), fault);
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
            nKilled = KillIf(bInside ? KillWhere::Inside : KillWhere::Outside, w.pid, lock);
        }
        if (nKilled == 0) continue;
        if (bInside && nKilled > 0) ++nInside;
        if (nKilled < 0) ADD_FAILURE() << "worker ended by itself: " << ReadFile(faultFile(w));
        killed.insert({w.nUID, w.nLife});
        ++w.nLife;
        start(w);
    }
    EXPECT_GE(killed.size(), bInsideToo ? 4u : 10u); // an inside kill waits for its moment

    // The survivors carried on: they end without a fault, the senders first.
    for (int* stop : {stopSend, stopRecv}) {
        close(stop[1]);
        for (Worker& w : workers)
            if ((w.nUID < 400) == (stop == stopSend)) {
                EXPECT_EQ(WaitChild(w.pid), 0) << ReadFile(faultFile(w));
            }
        close(stop[0]);
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
    d.unlogged = [&](int32_t, int32_t nSender, int32_t nSeq) {
        const int32_t nLife = nSeq / kSeqsPerLife;
        const auto last = lastSeq.find({nSender, nLife});
        const int32_t nNext = last == lastSeq.end() ? nLife * kSeqsPerLife : last->second + 1;
        return killed.count({nSender, nLife}) == 1 && nSeq == nNext &&
               extras.insert({nSender, nLife}).second;
    };
    for (int32_t uid : {401, 402})
        d.Received(root + "/log." + std::to_string(uid), false);
    // What is left was received by a process killed before it deleted it.
    std::set<int32_t> left;
    for (const auto& [nKey, s] : TableContents(wm)) {
        EXPECT_EQ(s.nState, WQCF_Received) << nKey;
        left.insert(nKey);
        const auto it = d.sent.find(nKey);
        if (d.received.count(nKey) == 0) {
            EXPECT_TRUE(it != d.sent.end()
                            ? it->second.nSender == s.nSender && it->second.nSeq == s.nSeq
                            : d.unlogged(nKey, s.nSender, s.nSeq))
                << "never sent: " << nKey;
        }
    }
    d.NoneLost(left);
    EXPECT_EQ(d.nFaults, 0);
    EXPECT_GT(d.received.size(), kMinReceived); // the run did real work
}

TEST_F(CrashTest, ProcessesKilledOutsideTheLockLoseAndDuplicateNothing) {
    KillAndRestartWorkers(false);
}

TEST_F(CrashTest, WithARobustLockKillsInsideItLoseAndDuplicateNothing) {
    KillAndRestartWorkers(true);
}

TEST_F(CrashTest, AllKilledOneInsideTheLockThenTheNextProcessReloadsTheFiles) {
    // Sender 301: seqs 3, 4, 5 received by 402, 4 and 5 put back for retry
    // (5 delayed), 3 kept received; then 1 and 2 (high) pending for 402, 6
    // pending for 401.
    std::string setup;
    const pid_t pidSetup = StartParked(
        [this]() -> std::string {
            CWorkMessages& wm = *new CWorkMessages; // attached until the kill
            AppendLog log(root + "/log.301");
            std::vector<char> block(kBlock);
            if (wm.SetInput(402, "ORDER", nullptr, false) != M_OK) return "SetInput";
            for (int32_t seq : {3, 4, 5})
                SendLogged(wm, log, 301, seq, 402, "ORDER", 100 * seq, false, block.data());
            long arrIDs[3];
            for (long& id : arrIDs) {
                WorkMsg m = {};
                m.pDepData = block.data();
                m.nDepDataLength = kBlock;
                if (wm.Receive(402, 1, &m, false, nullptr) != M_OK) return "Receive";
                id = m.nMessageID;
            }
            if (wm.Retry(402, arrIDs[1], false, 0) != M_OK ||
                wm.Retry(402, arrIDs[2], true, 0) != M_OK)
                return "Retry";
            SendLogged(wm, log, 301, 1, 402, "INVOICE", 5000, false, block.data());
            SendLogged(wm, log, 301, 2, 402, "REPORT", kBlock, true, block.data());
            SendLogged(wm, log, 301, 6, 401, "ALERT", 16, false, block.data());
            return "ready";
        },
        &setup);
    ASSERT_EQ(setup, "ready");
    // A second process dies inside the lock.
    std::string held;
    const pid_t pidHolder = StartParked([] { return ReceiveInsideTheLock(401, false); }, &held);
    ASSERT_EQ(held, "lock");
    const int oldControls = SegmentId(CWorkMessages::cstWMctlSHMKey);
    Kill(pidSetup);
    Kill(pidHolder);
    long nAttached = -1;
    ASSERT_TRUE(SegmentInfo(CWorkMessages::cstWMctlSHMKey, nullptr, &nAttached));
    ASSERT_EQ(nAttached, 0);

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
        // Without cleaning, every message comes back as it was, data and all.
        CWorkMessages wm(true);
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        EXPECT_NE(SegmentId(CWorkMessages::cstWMctlSHMKey), oldControls);
        EXPECT_EQ(bySeq(wm), all);
    }
    // All killed again, one inside the lock; this time the restart cleans.
    const pid_t pidAgain = StartParked([] { return ReceiveInsideTheLock(401, true); }, &held);
    ASSERT_EQ(held, "lock");
    Kill(pidAgain);
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    std::map<int32_t, int> kept = all;
    kept.erase(3);
    EXPECT_EQ(bySeq(wm), kept);

    // They are delivered in their order, whole: high priority first, retry
    // before delayed retry.
    ASSERT_EQ(wm.SetInput(401, "ALERT", nullptr, false), M_OK);
    ASSERT_EQ(wm.SetInput(402, "ORDER", nullptr, false), M_OK);
    AppendLog log(root + "/log.recv");
    std::vector<char> block(kBlock);
    std::string fault;
    for (int32_t uid : {402, 402, 401, -402, -402}) // negative: a retry receive
        ASSERT_EQ(ReceiveLogged(wm, log, abs(uid), 1, block.data(), &fault, uid < 0), M_OK)
            << fault;
    std::map<int32_t, uint32_t> crc;
    for (const LogRecord& s : ReadLog(root + "/log.301"))
        crc[s.nSeq] = s.nCrc;
    std::vector<int32_t> order;
    for (const LogRecord& r : ReadLog(root + "/log.recv")) {
        order.push_back(r.nSeq);
        EXPECT_EQ(r.nCrc, crc[r.nSeq]) << r.nSeq;
    }
    EXPECT_EQ(order, (std::vector<int32_t>{2, 1, 6, 4, 5}));
    EXPECT_TRUE(TableContents(wm).empty());
}

TEST_F(CrashTest, ADeadLockOwnerIsNamedUntilEveryUserHasStopped) {
    auto wm = std::make_unique<CWorkMessages>();
    ASSERT_EQ(wm->nLastError, 0) << wm->szErrorMsg;
    std::vector<char> block(kBlock);
    {
        AppendLog log(root + "/log.301");
        ASSERT_EQ(SendLogged(*wm, log, 301, 1, 401, "ORDER", 300, false, block.data()), M_NOTACT);
    }
    std::string held;
    const pid_t pidOwner = StartParked([] { return ReceiveInsideTheLock(401, false); }, &held);
    ASSERT_EQ(held, "lock");
    Kill(pidOwner);

    // Every user still attached, and every new one, fails naming the dead owner.
    const std::string owner = "Current owner=" + std::to_string(pidOwner) + "\n";
    WorkMsg m = {};
    m.nTargetUID = 401;
    EXPECT_EQ(wm->Send(301, "ORDER", &m, false), M_LOCK);
    EXPECT_NE(std::string(wm->szErrorMsg).find(owner), std::string::npos) << wm->szErrorMsg;
    EXPECT_EQ(wm->Receive(401, 1, &m, false, nullptr), M_LOCK);
    EXPECT_EQ(RunChild([&] {
                  CWorkMessages late;
                  return late.nLastError == M_LOCK &&
                                 std::string(late.szErrorMsg).find(owner) != std::string::npos
                             ? 0
                             : 1;
              }),
              0);
    const std::string status = Wmctl("status");
    if (!status.empty()) {
        EXPECT_NE(
            status.find("held by thread " + std::to_string(pidOwner) + ", which no longer exists"),
            std::string::npos)
            << status;
    }

    // Recovery: the last user stops, the next one rebuilds from the files.
    wm.reset();
    EXPECT_LT(SegmentId(CWorkMessages::cstWMctlSHMKey), 0);
    CWorkMessages fresh;
    ASSERT_EQ(fresh.nLastError, 0) << fresh.szErrorMsg;
    ASSERT_EQ(fresh.SetInput(401, "ORDER", nullptr, false), M_OK);
    AppendLog log(root + "/log.401");
    std::string fault;
    ASSERT_EQ(ReceiveLogged(fresh, log, 401, 1, block.data(), &fault), M_OK) << fault;
    EXPECT_EQ(ReadLog(root + "/log.401").at(0).nCrc, ReadLog(root + "/log.301").at(0).nCrc);
}

TEST_F(CrashTest, WithTheKeyADeadLockOwnerIsReplacedAndTheTablesAreRebuiltFromTheFiles) {
    // Stored before the first constructor: messages 1 (pending, data slot 3,
    // which the data file shows free) and 2 (received, data slot 4); data
    // slot 7 marked with no message. Then ORDER 3 for 401 is sent, no data.
    _WQCF_ pending = SlotRecord(WQCF_Pending, 0x40000001, 3, 5);
    _WQCF_ received = SlotRecord(WQCF_Received, 0x40000002, 4, 5);
    pending.nTargetUID = received.nTargetUID = 401;
    WriteFile(wqcfFile, ControlFileImage(512, 0x40000003, {pending, received}));
    WriteFile(wddfFile, DataFileImage({{4, "four"}, {7, "stray"}}));
    WriteConfig("WM_RecoverDeadOwner=true\n");
    CWorkMessages wm(true);
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    if (!RobustLocksWork(wm)) GTEST_SKIP() << kNoRobustLocks;
    CWorkMessagesTestAccess acc(wm);
    SendText(wm, 301, "ORDER", 401, nullptr);

    // A receiver dies holding the lock, inside the filter that was offered
    // message 1; the counter has moved on in memory only.
    std::string held;
    const pid_t pidOwner = StartParked([] { return ReceiveInsideTheLock(401, true); }, &held);
    ASSERT_EQ(held, "lock");
    acc.Controls()->nMsgCounter = 0x40000010;
    Kill(pidOwner);

    // A process without the key takes the lock over in its first call, well
    // within one lock wait (1 s), logs one line, and gets message 1 again.
    WriteConfig();
    EXPECT_EQ(RunChild([&] {
                  StderrCapture cap;
                  CWorkMessages late;
                  const std::string log = cap.Stop();
                  if (late.nLastError != 0) return 1;
                  const std::string line = "Recovered the Controls lock from dead owner thread " +
                                           std::to_string(pidOwner) + ":";
                  if (!Contains(log, line) || !Contains(log, "message counter 40000010, 1 data "
                                                             "slots kept for their messages, 1 "
                                                             "freed, registry sound; messages: 2 "
                                                             "pending, 1 received"))
                      return 2;
                  WorkMsg m = {};
                  char buf[16] = {};
                  m.pDepData = buf;
                  m.nDepDataLength = sizeof(buf);
                  if (late.SetInput(401, "ORDER", nullptr, false) != M_OK ||
                      late.Receive(401, 1, &m, false, nullptr) != M_OK ||
                      m.nMessageID != 0x40000001)
                      return 3;
                  return 0;
              }),
              0);

    // The tables equal the files; the next ID goes on from the shared counter.
    WorkMsg m = {};
    m.nTargetUID = 401;
    ASSERT_EQ(wm.Send(301, "ORDER", &m, false), M_OK) << wm.szErrorMsg;
    EXPECT_EQ(m.nMessageID, 0x40000010);
    ASSERT_EQ(acc.GetPointers(), M_OK);
    const std::string control = ReadFile(wqcfFile);
    const std::string data = ReadFile(wddfFile);
    const _SM_Controls_& ctl = *acc.Controls();
    EXPECT_EQ(ImageHeader(control).nEntriesAllocated, ctl.nQSlotCount);
    EXPECT_EQ(ImageHeader(control).nCurrentMsgID, ctl.nMsgCounter);
    for (long i = 0; i < ctl.nQSlotCount; ++i) {
        const _WQCF_ stored = ImageSlot(control, i);
        EXPECT_EQ(memcmp(&stored, &acc.Queues()[i], sizeof(_WQCF_)), 0) << "slot " << i;
    }
    ASSERT_GE(data.size(), 8192u);
    EXPECT_EQ(memcmp(data.data(), acc.SAT(), 8192), 0);
    EXPECT_TRUE(DataSlotMarked(data, 3) && DataSlotMarked(data, 4) && !DataSlotMarked(data, 7));
    acc.Return(M_OK);

    EXPECT_EQ(ctl.Reserved[cstCtlRecoveries], 1);
    const std::string status = Wmctl("status");
    if (!status.empty()) {
        EXPECT_TRUE(Contains(status, "Dead-owner recovery: on (robust lock), 1 recovery since the "
                                     "segments were built") &&
                    Contains(status, "after thread " + std::to_string(pidOwner) + " died"))
            << status;
    }
}

TEST_F(CrashTest, WithTheKeyAGrowthCutOffByADeathEndsWithEveryStoredMessage) {
    // This process keeps its mappings, so it still holds a registry segment
    // that a cut-off growth has removed.
    WriteConfig("WM_RecoverDeadOwner=true\nWM_KeepAttached=true\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    if (!RobustLocksWork(wm)) GTEST_SKIP() << kNoRobustLocks;
    ASSERT_EQ(wm.SetInput(401, "ORDER", nullptr, false), M_OK);
    for (const char* text : {"one", "two", "three"})
        SendText(wm, 301, "ORDER", 401, text);

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
        std::string held;
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
        EXPECT_EQ(row.Counter[WQCF_Pending], 3) << c.what;
    }
    // Their data is whole.
    std::vector<char> block(16);
    for (const char* text : {"one", "two", "three"}) {
        WorkMsg m = {};
        m.pDepData = block.data();
        m.nDepDataLength = static_cast<long>(block.size());
        ASSERT_EQ(wm.Receive(401, 1, &m, false, nullptr), M_OK) << wm.szErrorMsg;
        EXPECT_STREQ(block.data(), text);
    }
    EXPECT_EQ(CWorkMessagesTestAccess(wm).Controls()->Reserved[cstCtlRecoveries], 3);
}

} // namespace
