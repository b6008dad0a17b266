// The failure routine and the two locks: what a caller sees when a lock is
// busy, who may release it, and how failures report and release.
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

// A child that holds a lock until the parent writes to the pipe.
struct HeldByChild {
    int toChild[2];
    int fromChild[2];
    pid_t pid = -1;
    long held = 0; // what the child reports once it holds the lock

    template <class F> void Start(F holdFn) {
        ASSERT_EQ(pipe(toChild), 0);
        ASSERT_EQ(pipe(fromChild), 0);
        pid = StartChild([&]() -> int {
            long v = holdFn();
            if (write(fromChild[1], &v, sizeof(v)) != sizeof(v)) return 3;
            char c;
            return read(toChild[0], &c, 1) == 1 ? 0 : 4;
        });
        ASSERT_EQ(read(fromChild[0], &held, sizeof(held)), static_cast<ssize_t>(sizeof(held)));
    }
    int Finish() {
        char c = 'x';
        if (write(toChild[1], &c, 1) != 1) return -1;
        for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) close(fd);
        return WaitChild(pid);
    }
};

double SecondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

} // namespace

class LocksTest : public WmTest {};

TEST_F(LocksTest, FailedKeepsTheErrnoOfTheFailureAndReleasesBothLocks) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);

    // The Controls lock held by this thread is released by the failure.
    acc.RecordCaller();
    ASSERT_TRUE(acc.GetControlsLock(1));
    EXPECT_EQ(acc.LockOwner(), acc.CallerTID());
    errno = ENOENT;
    acc.Failed(M_SYSERR, "Failed to open something", -1);
    EXPECT_EQ(acc.LockOwner(), 0);
    EXPECT_EQ(wm.nLastError, M_SYSERR);
    EXPECT_STREQ(wm.szErrorMsg,
                 "WorkMsg object: Failed to open something\nReason(2): No such file or directory\n");

    // An explicit error number wins; 0 means "the current errno".
    errno = EACCES;
    acc.Failed(M_SHMERR, "x", EINVAL);
    EXPECT_EQ(std::string(wm.szErrorMsg), "WorkMsg object: x\nReason(22): Invalid argument\n");
    errno = EACCES;
    acc.Failed(M_SHMERR, "x", 0);
    EXPECT_NE(std::string(wm.szErrorMsg).find("Reason(13): Permission denied"), std::string::npos);

    // A number the system cannot describe.
    acc.Failed(M_LOCK, "y", 99999);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: y\nReason(99999): No description found\n");

    // Texts are cut to fit the 512-byte buffer.
    std::string longText(2000, 'z');
    acc.Failed(M_SYSERR, longText.c_str(), EIO);
    EXPECT_EQ(strlen(wm.szErrorMsg), 511u);

    // The constructor lock held by this object is released and its file closed.
    ASSERT_TRUE(acc.GetConstructorLock(1));
    EXPECT_TRUE(acc.HoldingConstructorLock());
    acc.Failed(M_SYSERR, "z", EIO);
    EXPECT_FALSE(acc.HoldingConstructorLock());
    EXPECT_EQ(acc.LockFile(), nullptr);
}

TEST_F(LocksTest, BusyControlsLockTimesOutNamingTheOwner) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);

    // The child's object is never destroyed: the child ends with _exit while
    // holding the lock, like a process that dies inside an operation.
    HeldByChild child;
    child.Start([]() -> long {
        auto* other = new CWorkMessages;
        CWorkMessagesTestAccess a(*other);
        a.RecordCaller();
        if (other->nLastError != 0 || !a.GetControlsLock(1)) return -1;
        return a.CallerTID();
    });
    ASSERT_GT(child.held, 0);

    acc.RecordCaller();
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(acc.GetControlsLock(1));
    double waited = SecondsSince(t0);
    EXPECT_GE(waited, 0.9);
    EXPECT_LT(waited, 3.0);
    char expect[512];
    snprintf(expect, sizeof(expect),
             "WorkMsg object: pid/tid %ld/%ld failed to acquire the Controls Lock within 1 "
             "seconds. Current owner=%ld\n",
             static_cast<long>(getpid()), static_cast<long>(acc.CallerTID()), child.held);
    EXPECT_STREQ(wm.szErrorMsg, expect);

    // A zero wait makes no attempt.
    t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(acc.GetControlsLock(0));
    EXPECT_LT(SecondsSince(t0), 0.2);
    EXPECT_NE(std::string(wm.szErrorMsg).find("within 0 seconds"), std::string::npos);

    // Releasing a lock this thread does not hold changes nothing.
    acc.FreeControlsLock(true);
    EXPECT_EQ(acc.LockOwner(), child.held);

    // Operations report M_LOCK and the lock's text.
    EXPECT_EQ(wm.TargetActive(101, -1), M_LOCK);

    EXPECT_EQ(child.Finish(), 0);
    // The owner died holding the lock: callers keep timing out naming it.
    EXPECT_FALSE(acc.GetControlsLock(1));
    EXPECT_NE(std::string(wm.szErrorMsg).find("Current owner=" + std::to_string(child.held)),
              std::string::npos);
}

TEST_F(LocksTest, AThreadAskingAgainForItsOwnLockFailsNamingItself) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    acc.RecordCaller();
    ASSERT_TRUE(acc.GetControlsLock(1));
    EXPECT_FALSE(acc.GetControlsLock(1));
    EXPECT_NE(std::string(wm.szErrorMsg)
                  .find("Current owner=" + std::to_string(static_cast<long>(acc.CallerTID()))),
              std::string::npos);

    // Another thread with its own object cannot release it either.
    std::thread other([&] {
        CWorkMessages wm2;
        CWorkMessagesTestAccess acc2(wm2);
        acc2.RecordCaller();
        acc2.FreeControlsLock(true);
    });
    other.join();
    EXPECT_EQ(acc.LockOwner(), acc.CallerTID());
    acc.FreeControlsLock(true);
    EXPECT_EQ(acc.LockOwner(), 0);
}

TEST_F(LocksTest, LongHoldsAreReportedAtMostTenTimesWithABacktrace) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    acc.RecordCaller();

    auto holdFor = [&](long seconds) {
        EXPECT_TRUE(acc.GetControlsLock(1));
        acc.AcquiredMutex() = time(nullptr) - seconds;
        acc.FreeControlsLock(true);
    };

    StderrCapture cap;
    holdFor(4);
    std::string out = cap.Stop();
    EXPECT_EQ(acc.WhineCount(), 0);
    EXPECT_EQ(out.find("held"), std::string::npos);

    StderrCapture cap2;
    holdFor(6);
    out = cap2.Stop();
    EXPECT_EQ(acc.WhineCount(), 1);
    EXPECT_NE(out.find(std::to_string(getpid()) + " held 6 s. count 1: "), std::string::npos);
    EXPECT_NE(out.find("Backtrace: "), std::string::npos);

    for (int i = 0; i < 12; ++i) holdFor(5);
    EXPECT_EQ(acc.WhineCount(), 10);
    StderrCapture cap3;
    holdFor(7);
    EXPECT_EQ(cap3.Stop().find("held"), std::string::npos);
}

TEST_F(LocksTest, ConstructorLockHeldElsewhereFailsConstructionNamingTheHolder) {
    const std::string lockFile = dbDir + "/WM.lock";
    WriteConfig("WM_Timeout_Secs=1\n");

    // A second open in this process (another object's lock file) excludes it
    // just as another process does.
    FILE* fp = fopen(lockFile.c_str(), "wb");
    ASSERT_NE(fp, nullptr);
    int action = 1;
    ASSERT_TRUE(FileLock(fp, &action, 4));

    auto t0 = std::chrono::steady_clock::now();
    {
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, M_LOCK);
        EXPECT_NE(std::string(wm.szErrorMsg)
                      .find("Failed to obtain constructor file lock (held by pid " +
                            std::to_string(getpid()) + ")"),
                  std::string::npos)
            << wm.szErrorMsg;
    }
    EXPECT_GE(SecondsSince(t0), 0.9);

    // Held by another process: its process ID is named.
    action = 2;
    FileLock(fp, &action, 4);
    fclose(fp);
    HeldByChild child;
    child.Start([&]() -> long {
        FILE* f = fopen(lockFile.c_str(), "wb");
        int a = 1;
        return f && FileLock(f, &a, 4) ? static_cast<long>(getpid()) : -1;
    });
    ASSERT_GT(child.held, 0);
    {
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, M_LOCK);
        EXPECT_NE(std::string(wm.szErrorMsg).find("(held by pid " + std::to_string(child.held)),
                  std::string::npos)
            << wm.szErrorMsg;
    }
    EXPECT_EQ(child.Finish(), 0);

    // Once free, construction succeeds; asking again on the same object is
    // answered at once without touching the file.
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_TRUE(acc.GetConstructorLock(1));
    FILE* before = acc.LockFile();
    EXPECT_TRUE(acc.GetConstructorLock(1));
    EXPECT_EQ(acc.LockFile(), before);
    acc.Unlock();
    EXPECT_EQ(acc.LockFile(), nullptr);
    EXPECT_FALSE(acc.HoldingConstructorLock());
}

TEST_F(LocksTest, NestedCallsKeepThePerCallSegmentsAttached) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    acc.RecordCaller();
    ASSERT_TRUE(acc.GetControlsLock(1));
    ASSERT_EQ(acc.GetPointers(), 0);
    acc.InternalCall() = true;
    EXPECT_EQ(acc.Return(M_NOTACT), M_NOTACT);
    EXPECT_NE(acc.Queues(), nullptr);
    EXPECT_NE(acc.PRLs(), nullptr);
    acc.InternalCall() = false;
    acc.FreeControlsLock(true);
    EXPECT_EQ(acc.Return(M_OK), M_OK);
    EXPECT_EQ(acc.Queues(), nullptr);
    EXPECT_EQ(acc.PRLs(), nullptr);
}
