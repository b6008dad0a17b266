// The failure routine and the two locks: what a caller sees when a lock is
// busy, who may release it, who gets it next and which IDs a caller records.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

class LocksTest : public WmTest {};

// A forked child records its own IDs; a failure releases both locks, and long
// holds are logged.
TEST_F(LocksTest, LocksBelongToTheThreadThatRecordedItself) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
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
    // A nested call's return keeps the per-call segments attached.
    ASSERT_EQ(acc.GetPointers(), M_OK);
    acc.InternalCall() = true;
    EXPECT_TRUE(acc.Return(M_NOTACT) == M_NOTACT && acc.Queues() && acc.PRLs());
    acc.InternalCall() = false;
    ASSERT_TRUE(acc.GetConstructorLock(1));

    // A failure releases both; without an error number its reason is errno's.
    errno = EACCES;
    acc.Failed(M_SYSERR, "Failed to open x", -1);
    EXPECT_EQ(wm.szErrorMsg,
              std::string("WorkMsg object: Failed to open x\nReason(13): Permission denied\n"));
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

// Polled or blocking: a busy lock times out naming its owner (a dead one:
// the crash test), and a waiting process gets it once its holder releases it.
TEST_F(LocksTest, ABusyLockTimesOutNamingTheOwnerOrIsHandedOver) {
    for (const char* setting : {"WM_BlockingLock=false\n", "WM_BlockingLock=true\n"}) {
        SCOPED_TRACE(setting);
        WriteConfig(setting);
        CWorkMessages wm;
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        CWorkMessagesTestAccess acc(wm);
        int go[2], up[2];
        ASSERT_TRUE(pipe(go) == 0 && pipe(up) == 0);
        const pid_t child = StartChild([&] { // holds the lock until the parent writes to go
            CWorkMessages other;
            CWorkMessagesTestAccess a(other);
            a.RecordCaller();
            const long tid = a.GetControlsLock(1) ? long(a.CallerTID()) : -1L;
            char c = 0;
            if (write(up[1], &tid, sizeof(tid)) != sizeof(tid) || read(go[0], &c, 1) != 1) return 1;
            a.FreeControlsLock(true);
            return a.LockOwner() == 0 ? 0 : 2;
        });
        close(up[1]); // a child that exits without a report ends the read
        long held = -1;
        EXPECT_EQ(read(up[0], &held, sizeof(held)), ssize_t(sizeof(held)));
        close(up[0]);
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
        ASSERT_EQ(write(go[1], "x", 1), 1);
        EXPECT_TRUE(acc.GetControlsLock(5)) << wm.szErrorMsg;
        EXPECT_EQ(acc.LockOwner(), acc.CallerTID());
        acc.FreeControlsLock(true);
        EXPECT_EQ(WaitChild(child), 0);
        close(go[0]);
        close(go[1]);
    }
}

} // namespace
