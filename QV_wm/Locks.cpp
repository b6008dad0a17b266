// The two locks that serialise all work of all processes on the host.
//
// Constructor lock: an advisory lock on the file WM.lock in the database
// directory, held by one object's open file description. It makes the
// decision "create or attach" (construction) and "remove" (teardown of the
// last user) atomic across processes. Held only inside the constructor and
// the destructor.
//
// Controls lock: the process-shared, error-checking mutex in the Controls
// segment. Every read and write of the shared tables, the handles and counts
// in the Controls segment, and the two database files happens under it. Its
// owner is a thread, named by the kernel thread ID in the mutex's owner word;
// the library compares that word with callerTID to decide whether the calling
// thread holds the lock.
//
// Lock order: the constructor lock before the Controls lock. A thread never
// waits for the constructor lock while it holds the Controls lock (the
// destructor releases the Controls lock first). Both locks are polled (20
// attempts a second for the configured wait) and never waited on without a
// limit: a holder that died leaves the Controls lock held, and callers time
// out naming the dead owner instead of hanging. With WM_BlockingLock the
// Controls lock is waited for in one blocking wait on the monotonic clock
// that ends at the same time the polls would (after a short spin, see
// _LockAttempt): the waiter gets the lock as soon as it is released, with
// the same timeout, texts and owner naming.
//
// A process with WM_WakeReceivers announces a message it made receivable
// right after it released the Controls lock (_FreeControlsLock), so that the
// woken receiver finds the lock free.
//
// A host whose first constructor read WM_RecoverDeadOwner has a robust
// mutex instead: the attempt after a holder died takes the lock with
// EOWNERDEAD, and _LockTaken has the tables rebuilt from the files
// (Recovery.cpp) before the call goes on. Every lock attempt passes through
// _LockTaken, whatever this process's own key says.
#include <cerrno>
#include <cstring>
#include <ctime>

#include <unistd.h>

#include "Internal.h"
#include "WorkMessages.h"

#if defined(__SANITIZE_THREAD__)
#define QV_WM_TSAN 1
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

namespace {
// Every object maps the Controls segment at its own address, so a thread
// sanitizer sees one mutex per mapping and no order between the threads that
// hold the one lock. The holders are ordered for it through this one
// process-wide stand-in (no code at all in other builds).
#if defined(QV_WM_TSAN)
char cLockStandIn;
inline void HbAcquire() {
    __tsan_acquire(&cLockStandIn);
}
inline void HbRelease() {
    __tsan_release(&cLockStandIn);
}
#else
inline void HbAcquire() {}
inline void HbRelease() {}
#endif
const char kTag[] = "QV_wm";
const unsigned int kPollUsecs = 50000; // 20 attempts per second
const long kAttemptsPerSecond = 20;
const int kLockTake = 1;
const int kLockRelease = 2;
const int kLockFlags = 4;
const int kLongHoldSecs = 5;
const int kMaxLongHoldReports = 10;

const int kSpinTries = 100;

// A pause between two tries of a spin: it lets the other hardware thread of
// the core run and keeps the bus free of the tries.
inline void CpuRelax() {
    for (int i = 0; i < 32; ++i) {
#if defined(__i386__) || defined(__x86_64__)
        __builtin_ia32_pause();
#else
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
#endif
    }
}

struct timespec DeadlineAfter(long nSecs) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += nSecs;
    return ts;
}
} // namespace

// One attempt at the Controls lock: without a deadline it only tries, with
// one it waits until then. EBUSY when the lock stayed taken; a thread that
// holds the lock itself finds it taken until the deadline, as the polls do.
//
// A blocking attempt first spins briefly (kSpinTries tries a few hundred
// nanoseconds apart, some tens of microseconds in all) where another core
// can be releasing the lock: a holder does microseconds of work, and going
// to sleep and being woken costs two system calls and two process switches,
// while the holder, which gets the lock back at once, would keep the
// sleeper waking for nothing. With 4 busy pairs on 2 cores this triples the
// throughput (bench/RESULTS.md). On one core nobody can release the lock
// while the caller spins, so there it sleeps at once.
int CWorkMessages::_LockAttempt(const struct timespec* pDeadline) {
    if (pDeadline == nullptr) return pthread_mutex_trylock(&pSMCtlrs->MutexCtlrs);
    static const bool bSpin = sysconf(_SC_NPROCESSORS_ONLN) > 1;
    for (int i = 0; bSpin && i < kSpinTries; ++i) {
        const int rc = pthread_mutex_trylock(&pSMCtlrs->MutexCtlrs);
        if (rc != EBUSY) return rc;
        CpuRelax();
    }
    int rc = pthread_mutex_clocklock(&pSMCtlrs->MutexCtlrs, CLOCK_MONOTONIC, pDeadline);
    if (rc == EDEADLK) {
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, pDeadline, nullptr) == EINTR) {
        }
    }
    return rc == ETIMEDOUT || rc == EDEADLK ? EBUSY : rc;
}

pid_t CWorkMessages::_LockOwner() const {
    if (!qvwm::Attached(pSMCtlrs)) return 0;
    return __atomic_load_n(&pSMCtlrs->MutexCtlrs.__data.__owner, __ATOMIC_RELAXED);
}

void CWorkMessages::_CloseFile(FILE** fileDesc) {
    if (*fileDesc != nullptr) {
        fclose(*fileDesc);
        *fileDesc = nullptr;
    }
}

bool CWorkMessages::_GetConstructorLock(long nMaxWait) {
    _TraceEntry("_GetConstructorLock");
    if (bHoldingConstructorLock) return true;

    {
        qvwm::UmaskGuard mask(002);
        pLOCKFile = fopen(strLOCKFilename.c_str(), "wb");
    }
    if (pLOCKFile == nullptr) {
        _Failedf(M_LOCK, -1, "Failed to open constructor lock file '%s'", strLOCKFilename.c_str());
        return false;
    }

    int nAction = kLockTake;
    const long nAttempts = nMaxWait > 0 ? nMaxWait * kAttemptsPerSecond : 0;
    for (long i = 0; i < nAttempts; ++i) {
        nAction = kLockTake;
        if (FileLock(pLOCKFile, &nAction, kLockFlags)) {
            bHoldingConstructorLock = true;
            return true;
        }
        Usleep(kPollUsecs);
    }

    if (nAttempts == 0) {
        // No attempt was made, so there is no holder to name.
        snprintf(szTempBuff, sizeof(szTempBuff),
                 "Failed to obtain constructor file lock (no attempt within %ld seconds)",
                 nMaxWait);
        errno = ETIMEDOUT;
    } else if (nAction >= 0) {
        snprintf(szTempBuff, sizeof(szTempBuff),
                 "Failed to obtain constructor file lock (held by pid %d)", nAction);
    } else {
        snprintf(szTempBuff, sizeof(szTempBuff), "Failed to obtain constructor file lock");
        errno = -nAction;
    }
    _Failed(M_LOCK, szTempBuff, -1); // closes the lock file through _Unlock
    return false;
}

void CWorkMessages::_FreeConstructorLock() {
    int nAction = kLockRelease;
    if (bHoldingConstructorLock && pLOCKFile != nullptr) FileLock(pLOCKFile, &nAction, kLockFlags);
    bHoldingConstructorLock = false;
    _CloseFile(&pLOCKFile);
}

bool CWorkMessages::_GetControlsLock(long nMaxWait) {
    if (bTrace) {
        snprintf(szTrace, sizeof(szTrace),
                 "_GetControlsLock entered by pid/tid %ld/%ld(%.8lX). bInternalCall=%s.",
                 static_cast<long>(callerPID), static_cast<long>(callerTID), qvwm::Addr(pMe),
                 qvwm::TF(bInternalCall));
        Log2cerr(szTrace, kTag, true);
    }
    const char* szSuffix = bInternalCall ? " (internal call)" : "";
    if (!qvwm::Attached(pSMCtlrs)) {
        // Only an object whose construction failed gets here.
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: pid/tid %ld/%ld failed to acquire the Controls Lock%s (rc=%d).\n"
                 "Reason: %s",
                 static_cast<long>(callerPID), static_cast<long>(callerTID), szSuffix, EINVAL,
                 "the Controls segment is not attached");
        return false;
    }

    // Blocking: one attempt that waits as long as all the polls would.
    const struct timespec tDeadline = DeadlineAfter(nMaxWait);
    const struct timespec* pDeadline = bBlockingLock ? &tDeadline : nullptr;
    const long nAttempts = nMaxWait <= 0 ? 0 : bBlockingLock ? 1 : nMaxWait * kAttemptsPerSecond;
    for (long i = 0; i < nAttempts; ++i) {
        // Taking the lock from a dead owner overwrites the owner word: read
        // it first, to name the dead thread.
        const pid_t nOwnerBefore = _LockOwner();
        int rc = _LockAttempt(pDeadline);
        if (rc == 0 || rc == EOWNERDEAD) return _LockTaken(rc, nOwnerBefore);
        if (rc != EBUSY) {
            char szDesc[256];
            snprintf(szErrorMsg, sizeof(szErrorMsg),
                     "WorkMsg object: pid/tid %ld/%ld failed to acquire the Controls Lock%s "
                     "(rc=%d).\nReason: %s",
                     static_cast<long>(callerPID), static_cast<long>(callerTID), szSuffix, rc,
                     strerror_r(rc, szDesc, sizeof(szDesc)));
            _Log("_GetControlsLock failed%s, rc=%d", szSuffix, rc);
            return false;
        }
        if (pDeadline == nullptr) Usleep(kPollUsecs);
    }

    const long nOwner = _LockOwner();
    _Trace("_GetControlsLock timed out. Current owner=%ld", nOwner);
    snprintf(szErrorMsg, sizeof(szErrorMsg),
             "WorkMsg object: pid/tid %ld/%ld failed to acquire the Controls Lock within %ld "
             "seconds. Current owner=%ld\n",
             static_cast<long>(callerPID), static_cast<long>(callerTID), nMaxWait, nOwner);
    return false;
}

// The calling thread holds the Controls lock: rc is 0, or EOWNERDEAD when
// its last holder died holding it (a robust mutex only). The state is
// rebuilt then, and also when a rebuild that failed is still pending. True
// when the call may go on; false when the rebuild failed, with the lock
// released and the failure in nLastError and szErrorMsg.
bool CWorkMessages::_LockTaken(int rc, pid_t nOwnerBefore) {
    HbAcquire();
    tAcquiredMutex = time(nullptr);
    if (rc == EOWNERDEAD) {
        // The mutex is usable again at once; if this thread dies before the
        // rebuild is done, the next holder gets EOWNERDEAD and starts over,
        // and if the rebuild fails, the pending flag makes the next holder
        // try again. Nobody works on the tables while the flag is set.
        pSMCtlrs->Reserved[cstCtlLockFlags] |= cstRecoveryPending;
        pSMCtlrs->Reserved[cstCtlDeadOwner] = nOwnerBefore > 0 ? nOwnerBefore : -1;
        pthread_mutex_consistent(&pSMCtlrs->MutexCtlrs);
    }
    if ((pSMCtlrs->Reserved[cstCtlLockFlags] & cstRecoveryPending) != 0 &&
        !_RecoverFromDeadOwner(pSMCtlrs->Reserved[cstCtlDeadOwner]))
        return false;
    _Trace("_GetControlsLock mutex acquired");
    return true;
}

void CWorkMessages::_FreeControlsLock(bool /*bComplain: releasing works the same either way*/) {
    _TraceEntry("_FreeControlsLock");
    if (!qvwm::Attached(pSMCtlrs)) {
        _Log("_FreeControlsLock Controls pointer is invalid");
        return;
    }
    const pid_t nOwner = _LockOwner();
    if (nOwner != callerTID) {
        _Trace("_FreeControlsLock called by pid=%ld; lock owner=%ld", static_cast<long>(callerPID),
               static_cast<long>(nOwner));
        return;
    }
    HbRelease();
    int rc = pthread_mutex_unlock(&pSMCtlrs->MutexCtlrs);
    if (rc != 0) {
        char szDesc[256];
        _Log("_FreeControlsLock: pthread_mutex_unlock failed(rc=%d)\nReason: %s", rc,
             strerror_r(rc, szDesc, sizeof(szDesc)));
        return;
    }
    if (bAnnounce) {
        bAnnounce = false;
        _Announce();
    }
    const long tDelta = static_cast<long>(time(nullptr) - tAcquiredMutex);
    if (tDelta >= kLongHoldSecs && nWhineCount < kMaxLongHoldReports) {
        ++nWhineCount;
        _Log("_FreeControlsLock: %ld held %d s. count %d: ", static_cast<long>(callerPID),
             static_cast<int>(tDelta), nWhineCount);
        LogBacktrace("Backtrace: ", kTag, true);
    }
    _Trace("_FreeControlsLock Lock released");
}

void CWorkMessages::_Unlock() {
    if (bTrace) {
        snprintf(szTrace, sizeof(szTrace),
                 "_Unlock entered by pid/tid %ld/%ld(%.8lX). bHoldingConstructorLock=%s",
                 static_cast<long>(callerPID), static_cast<long>(callerTID), qvwm::Addr(pMe),
                 qvwm::TF(bHoldingConstructorLock));
        Log2cerr(szTrace, kTag, true);
    }
    _FreeConstructorLock(); // closes the lock file even when the lock was not held
    _FreeControlsLock(false);
}
