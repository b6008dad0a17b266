// The failure routine and the two locks: what a caller sees when a lock is
// busy, who may release it, who gets it next, which IDs a caller records,
// and how failures report and release.
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

// Runs holdFn in a child that then waits to be killed; returns its pid.
// held is what holdFn returned (the lock's holder), or -1.
pid_t HoldInChild(const std::function<long()>& holdFn, long* held) {
    int fd[2];
    if (pipe(fd) != 0) return -1;
    const pid_t pid = StartChild([&]() -> int {
        const long v = holdFn();
        if (write(fd[1], &v, sizeof(v)) == sizeof(v)) pause();
        return 3;
    });
    if (read(fd[0], held, sizeof(*held)) != sizeof(*held)) *held = -1;
    close(fd[0]);
    close(fd[1]);
    return pid;
}

double SecondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class LocksTest : public WmTest {};

TEST_F(LocksTest, OnlyTheOwningThreadOrAFailureReleasesTheLocksAndNestedReturnsKeepSegments) {
    CWorkMessages wm, wm2;
    ASSERT_TRUE(wm.nLastError == 0 && wm2.nLastError == 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    acc.RecordCaller();
    ASSERT_TRUE(acc.GetControlsLock(1));
    // Asking again fails naming this thread; the lock stays held.
    EXPECT_FALSE(acc.GetControlsLock(1));
    EXPECT_TRUE(Has(wm.szErrorMsg, "Current owner=" + std::to_string(acc.CallerTID())));
    // Another thread of this process, with its own object, releases nothing.
    std::thread([&wm2] {
        CWorkMessagesTestAccess acc2(wm2);
        acc2.RecordCaller();
        acc2.FreeControlsLock(true);
    }).join();
    EXPECT_EQ(acc.LockOwner(), acc.CallerTID());
    // A nested call's return keeps the per-call segments attached.
    ASSERT_EQ(acc.GetPointers(), M_OK);
    acc.InternalCall() = true;
    EXPECT_TRUE(acc.Return(M_NOTACT) == M_NOTACT && acc.Queues() && acc.PRLs());
    acc.InternalCall() = false;
    ASSERT_TRUE(acc.GetConstructorLock(1));

    // A failure releases both, keeping the errno of the failure.
    errno = ENOENT;
    acc.Failed(M_SYSERR, "Failed to open something", -1);
    EXPECT_TRUE(acc.LockOwner() == 0 && !acc.HoldingConstructorLock() && !acc.LockFile());
    EXPECT_EQ(wm.nLastError, M_SYSERR);
    EXPECT_STREQ(
        wm.szErrorMsg,
        "WorkMsg object: Failed to open something\nReason(2): No such file or directory\n");
    // An explicit error number wins over errno (0 takes errno), and one the
    // system cannot describe says so.
    const struct {
        int err;
        const char* reason;
    } cases[] = {{0, "Reason(13): Permission denied\n"},
                 {EINVAL, "Reason(22): Invalid argument\n"},
                 {99999, "Reason(99999): No description found\n"}};
    for (const auto& c : cases) {
        errno = EACCES;
        acc.Failed(M_LOCK, "x", c.err);
        EXPECT_EQ(wm.szErrorMsg, std::string("WorkMsg object: x\n") + c.reason);
    }
    // Texts are cut to fit the 512-byte buffer.
    acc.Failed(M_SYSERR, std::string(2000, 'z').c_str(), EIO);
    EXPECT_EQ(strlen(wm.szErrorMsg), 511u);
    // The outer return detaches them.
    EXPECT_TRUE(acc.Return(M_OK) == M_OK && !acc.Queues() && !acc.PRLs());
}

TEST_F(LocksTest, AWaitingProcessGetsTheLockOnceItsHolderReleasesIt) {
    for (const char* setting : {"WM_BlockingLock=false\n", "WM_BlockingLock=true\n"}) {
        SCOPED_TRACE(setting);
        WriteConfig(setting);
        CWorkMessages wm;
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        CWorkMessagesTestAccess acc(wm);
        int fd[2];
        ASSERT_EQ(pipe(fd), 0);
        // The child holds the lock for a moment, then lets it go.
        const pid_t child = StartChild([&]() -> int {
            CWorkMessages other;
            CWorkMessagesTestAccess a(other);
            a.RecordCaller();
            const long tid = a.GetControlsLock(1) ? long(a.CallerTID()) : -1L;
            if (write(fd[1], &tid, sizeof(tid)) != sizeof(tid) || tid < 0) return 1;
            usleep(300000);
            a.FreeControlsLock(true);
            return a.LockOwner() == 0 ? 0 : 2;
        });
        long held = -1;
        ASSERT_EQ(read(fd[0], &held, sizeof(held)), static_cast<ssize_t>(sizeof(held)));
        close(fd[0]);
        close(fd[1]);
        ASSERT_GT(held, 0);
        acc.RecordCaller();
        EXPECT_TRUE(acc.GetControlsLock(5)) << wm.szErrorMsg;
        EXPECT_EQ(acc.LockOwner(), acc.CallerTID());
        acc.FreeControlsLock(true);
        EXPECT_EQ(WaitChild(child), 0);
    }
}

TEST_F(LocksTest, EveryThreadAndEveryForkedChildRecordsItsOwnIds) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    const pid_t parentTid = acc.CallerTID();
    EXPECT_TRUE(acc.CallerPID() == getpid() && parentTid == syscall(SYS_gettid));
    pid_t threadTid = 0;
    std::thread([&] {
        acc.RecordCaller();
        threadTid = acc.CallerTID();
        EXPECT_EQ(threadTid, syscall(SYS_gettid));
    }).join();
    EXPECT_NE(threadTid, parentTid);

    // The child goes on with the object it inherited: it must hold and
    // release the lock as itself and register under its own process ID.
    const int rc = RunChild([&]() -> int {
        if (wm.SetInput(103, "ORDER", nullptr, false) != M_OK) return 1;
        if (acc.CallerPID() != getpid() || acc.CallerTID() != syscall(SYS_gettid)) return 2;
        if (SendText(wm, 101, "ORDER", 102) <= 0 || acc.LockOwner() != 0) return 3;
        if (acc.GetPointers() != M_OK) return 4;
        const _PRL_CTL_* entry = acc.SearchPRL(103, 1);
        return entry != nullptr && entry->nPID == getpid() ? 0 : 5;
    });
    EXPECT_EQ(rc, 0);
    acc.RecordCaller();
    EXPECT_EQ(acc.CallerTID(), parentTid);
    EXPECT_GT(SendText(wm, 101, "ORDER", 102), 0) << wm.szErrorMsg;
}

TEST_F(LocksTest, BusyControlsLockTimesOutNamingTheOwnerEvenADeadOne) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    // The child is killed holding the lock, like a process that dies inside
    // an operation.
    long held = 0;
    const pid_t child = HoldInChild(
        [] {
            CWorkMessagesTestAccess a(*new CWorkMessages);
            a.RecordCaller();
            return a.GetControlsLock(1) ? long(a.CallerTID()) : -1L;
        },
        &held);
    ASSERT_GT(held, 0);

    acc.RecordCaller();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(acc.GetControlsLock(1));
    EXPECT_TRUE(SecondsSince(t0) >= 0.9 && SecondsSince(t0) < 3.0);
    const std::string me = std::to_string(getpid()) + "/" + std::to_string(acc.CallerTID());
    EXPECT_EQ(wm.szErrorMsg, "WorkMsg object: pid/tid " + me +
                                 " failed to acquire the Controls Lock within 1 seconds. "
                                 "Current owner=" +
                                 std::to_string(held) + "\n");
    // A zero wait makes no attempt.
    t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(acc.GetControlsLock(0));
    EXPECT_TRUE(SecondsSince(t0) < 0.2 && Has(wm.szErrorMsg, "within 0 seconds"));
    EXPECT_EQ(wm.TargetActive(101, -1), M_LOCK); // operations report M_LOCK

    kill(child, SIGKILL);
    WaitChild(child);
    // The owner died holding the lock: callers keep timing out naming it.
    EXPECT_FALSE(acc.GetControlsLock(1));
    EXPECT_TRUE(Has(wm.szErrorMsg, "Current owner=" + std::to_string(held)));
}

TEST_F(LocksTest, LongHoldsAreReportedAtMostTenTimesWithABacktrace) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    acc.RecordCaller();
    auto holdFor = [&](long seconds) {
        StderrCapture cap;
        EXPECT_TRUE(acc.GetControlsLock(1));
        acc.AcquiredMutex() = time(nullptr) - seconds;
        acc.FreeControlsLock(true);
        return cap.Stop();
    };
    EXPECT_TRUE(!Has(holdFor(4), "held") && acc.WhineCount() == 0);
    const std::string out = holdFor(6);
    EXPECT_TRUE(Has(out, std::to_string(getpid()) + " held 6 s. count 1: ") &&
                Has(out, "Backtrace: "))
        << out;
    for (int i = 0; i < 12; ++i)
        holdFor(5);
    EXPECT_EQ(acc.WhineCount(), 10);
    EXPECT_FALSE(Has(holdFor(7), "held"));
}

TEST_F(LocksTest, ConstructorLockHeldElsewhereFailsConstructionNamingTheHolder) {
    // A second open in this process (another object's lock file) excludes
    // just as another process does.
    auto lock = [this]() -> FILE* {
        FILE* f = fopen((dbDir + "/WM.lock").c_str(), "wb");
        int action = 1;
        return f && FileLock(f, &action, 4) ? f : nullptr;
    };
    auto refusedNaming = [](long pid) {
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, M_LOCK);
        EXPECT_TRUE(Has(wm.szErrorMsg, "Failed to obtain constructor file lock (held by pid " +
                                           std::to_string(pid) + ")"))
            << wm.szErrorMsg;
    };
    FILE* fp = lock();
    ASSERT_NE(fp, nullptr);
    auto t0 = std::chrono::steady_clock::now();
    refusedNaming(getpid());
    EXPECT_GE(SecondsSince(t0), 0.9);
    fclose(fp); // releases it
    long held = 0;
    const pid_t child = HoldInChild([&] { return lock() ? long(getpid()) : -1L; }, &held);
    ASSERT_GT(held, 0);
    refusedNaming(held);
    kill(child, SIGKILL); // its lock goes with it
    WaitChild(child);

    // Once free, construction succeeds; asking again on the same object is
    // answered at once without opening the file again.
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_TRUE(wm.nLastError == 0 && acc.GetConstructorLock(1)) << wm.szErrorMsg;
    FILE* before = acc.LockFile();
    EXPECT_TRUE(acc.GetConstructorLock(1) && acc.LockFile() == before);
    acc.Unlock();
    EXPECT_TRUE(acc.LockFile() == nullptr && !acc.HoldingConstructorLock());
}

} // namespace
