// The failure routine and the two locks: what a caller sees when a lock is
// busy, who may release it, who gets it next and which IDs a caller records.
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

using Report = std::function<void(long)>;

// Runs fn in a child, which calls report(v) once it holds what it holds (v:
// the holder, or -1); returns the child's pid and v in *held.
pid_t HoldInChild(const std::function<int(const Report&)>& fn, long* held) {
    int fd[2];
    if (pipe(fd) != 0) return -1;
    const pid_t pid = StartChild([&] {
        return fn([&](long v) {
            if (write(fd[1], &v, sizeof(v)) != sizeof(v)) _exit(4);
        });
    });
    close(fd[1]); // a child that exits without a report ends the read
    if (read(fd[0], held, sizeof(*held)) != sizeof(*held)) *held = -1;
    close(fd[0]);
    return pid;
}

// In a child: holds the Controls lock and reports its thread ID.
long TakeControls(CWorkMessages& wm) {
    CWorkMessagesTestAccess a(wm);
    a.RecordCaller();
    return a.GetControlsLock(1) ? long(a.CallerTID()) : -1L;
}

class LocksTest : public WmTest {};

// Every thread and every forked child records its own IDs; only the owning
// thread releases a lock, a failure releases both, and long holds are logged.
TEST_F(LocksTest, LocksBelongToTheThreadThatRecordedItself) {
    CWorkMessages wm, wm2;
    ASSERT_TRUE(wm.nLastError == 0 && wm2.nLastError == 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    const pid_t parentTid = acc.CallerTID();
    EXPECT_TRUE(acc.CallerPID() == getpid() && parentTid == syscall(SYS_gettid));
    // The child goes on with the object it inherited: it must hold and
    // release the lock as itself and register under its own process ID.
    EXPECT_EQ(RunChild([&]() -> int {
                  if (wm.SetInput(103, "ORDER", nullptr, false) != M_OK) return 1;
                  if (acc.CallerPID() != getpid() || acc.CallerTID() != syscall(SYS_gettid))
                      return 2;
                  if (SendText(wm, 101, "ORDER", 102) <= 0 || acc.LockOwner() != 0) return 3;
                  if (acc.GetPointers() != M_OK) return 4;
                  const _PRL_CTL_* entry = acc.SearchPRL(103, 1);
                  return entry != nullptr && entry->nPID == getpid() ? 0 : 5;
              }),
              0);
    EXPECT_GT(SendText(wm, 101, "ORDER", 102), 0) << wm.szErrorMsg;
    EXPECT_EQ(acc.CallerTID(), parentTid);

    ASSERT_TRUE(acc.GetControlsLock(1));
    EXPECT_FALSE(acc.GetControlsLock(1)); // asking again fails naming this thread
    EXPECT_TRUE(Contains(wm.szErrorMsg, "Current owner=" + std::to_string(parentTid)));
    pid_t threadTid = 0; // another thread, with its own object, releases nothing
    std::thread([&] {
        CWorkMessagesTestAccess acc2(wm2);
        acc2.RecordCaller();
        threadTid = acc2.CallerTID();
        EXPECT_EQ(threadTid, syscall(SYS_gettid));
        acc2.FreeControlsLock(true);
    }).join();
    EXPECT_TRUE(threadTid != parentTid && acc.LockOwner() == parentTid);
    // A nested call's return keeps the per-call segments attached.
    ASSERT_EQ(acc.GetPointers(), M_OK);
    acc.InternalCall() = true;
    EXPECT_TRUE(acc.Return(M_NOTACT) == M_NOTACT && acc.Queues() && acc.PRLs());
    acc.InternalCall() = false;
    ASSERT_TRUE(acc.GetConstructorLock(1));

    // A failure releases both. Its reason is that of the error number given,
    // or of errno when none is.
    const struct {
        int err;
        const char* reason;
    } cases[] = {{-1, "Reason(13): Permission denied\n"},
                 {99999, "Reason(99999): No description found\n"}};
    for (const auto& c : cases) {
        errno = EACCES;
        acc.Failed(M_SYSERR, "Failed to open x", c.err);
        EXPECT_EQ(wm.szErrorMsg, std::string("WorkMsg object: Failed to open x\n") + c.reason);
    }
    EXPECT_TRUE(acc.LockOwner() == 0 && !acc.HoldingConstructorLock() && !acc.LockFile());
    EXPECT_EQ(wm.nLastError, M_SYSERR);
    acc.Failed(M_SYSERR, std::string(2000, 'z').c_str(), EIO); // cut to fit the buffer
    EXPECT_EQ(strlen(wm.szErrorMsg), 511u);
    // The outer return detaches the segments.
    EXPECT_TRUE(acc.Return(M_OK) == M_OK && !acc.Queues() && !acc.PRLs());

    // Holds of 5 s or more are reported, at most ten times per object.
    acc.RecordCaller();
    auto holdFor = [&](long seconds) {
        StderrCapture cap;
        EXPECT_TRUE(acc.GetControlsLock(1));
        acc.AcquiredMutex() = time(nullptr) - seconds;
        acc.FreeControlsLock(true);
        return cap.Stop();
    };
    EXPECT_TRUE(!Contains(holdFor(4), "held") && acc.WhineCount() == 0);
    const std::string out = holdFor(6);
    EXPECT_TRUE(Contains(out, std::to_string(getpid()) + " held 6 s. count 1: ") &&
                Contains(out, "Backtrace: "))
        << out;
    for (int i = 0; i < 12; ++i)
        holdFor(5);
    EXPECT_EQ(acc.WhineCount(), 10);
    EXPECT_FALSE(Contains(holdFor(7), "held"));
}

// Polled or blocking: a busy lock times out naming its owner, even a dead
// one, and a waiting process gets it once its holder releases it.
TEST_F(LocksTest, ABusyLockTimesOutNamingTheOwnerOrIsHandedOver) {
    for (const char* setting : {"WM_BlockingLock=false\n", "WM_BlockingLock=true\n"}) {
        SCOPED_TRACE(setting);
        WriteConfig(setting);
        CWorkMessages wm;
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        CWorkMessagesTestAccess acc(wm);
        int go[2];
        ASSERT_EQ(pipe(go), 0);
        long held = -1; // until the parent writes to go
        pid_t child = HoldInChild(
            [&](const Report& report) {
                CWorkMessages other;
                CWorkMessagesTestAccess a(other);
                report(TakeControls(other));
                char c = 0;
                if (read(go[0], &c, 1) != 1) return 1;
                a.FreeControlsLock(true);
                return a.LockOwner() == 0 ? 0 : 2;
            },
            &held);
        ASSERT_GT(held, 0);
        acc.RecordCaller();
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_FALSE(acc.GetControlsLock(1));
        EXPECT_TRUE(Elapsed(t0) >= 0.9 && Elapsed(t0) < 3.0);
        const std::string me = std::to_string(getpid()) + "/" + std::to_string(acc.CallerTID());
        EXPECT_TRUE(Contains(wm.szErrorMsg, "pid/tid " + me +
                                                " failed to acquire the Controls Lock "
                                                "within 1 seconds. Current owner=" +
                                                std::to_string(held)))
            << wm.szErrorMsg;
        t0 = std::chrono::steady_clock::now(); // a zero wait makes no attempt
        EXPECT_FALSE(acc.GetControlsLock(0));
        EXPECT_TRUE(Elapsed(t0) < 0.2 && Contains(wm.szErrorMsg, "within 0 seconds"));
        EXPECT_EQ(wm.TargetActive(101, -1), M_LOCK); // operations report M_LOCK
        ASSERT_EQ(write(go[1], "x", 1), 1);
        EXPECT_TRUE(acc.GetControlsLock(5)) << wm.szErrorMsg;
        EXPECT_EQ(acc.LockOwner(), acc.CallerTID());
        acc.FreeControlsLock(true);
        EXPECT_EQ(WaitChild(child), 0);
        close(go[0]);
        close(go[1]);

        // Killed holding the lock, like a process dying inside a call.
        child = HoldInChild(
            [](const Report& report) {
                report(TakeControls(*new CWorkMessages)); // never destroyed
                pause();
                return 3;
            },
            &held);
        ASSERT_GT(held, 0);
        kill(child, SIGKILL);
        WaitChild(child);
        EXPECT_FALSE(acc.GetControlsLock(1));
        EXPECT_TRUE(Contains(wm.szErrorMsg, "Current owner=" + std::to_string(held)));
    }
}

TEST_F(LocksTest, ConstructorLockHeldElsewhereFailsConstructionNamingTheHolder) {
    // Another open file of this process excludes as another process does.
    FILE* fp = fopen((dbDir + "/WM.lock").c_str(), "wb");
    int action = 1;
    ASSERT_TRUE(fp != nullptr && FileLock(fp, &action, 4));
    const auto t0 = std::chrono::steady_clock::now();
    {
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, M_LOCK);
        EXPECT_TRUE(Contains(wm.szErrorMsg, "constructor file lock (held by pid " +
                                                std::to_string(getpid()) + ")"))
            << wm.szErrorMsg;
    }
    EXPECT_GE(Elapsed(t0), 0.9);
    fclose(fp); // releases it

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
