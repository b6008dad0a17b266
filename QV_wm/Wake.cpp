// Waking waiting receivers: with WM_WakeReceivers a receiver that found
// nothing sleeps on a shared word instead of a fixed 250 ms, and an operation
// that made a message receivable wakes it.
//
// The word is kCtlWakeSeq of the Controls segment, a sequence number. A
// receiver reads it under the Controls lock right after a look that found
// nothing, releases the lock, and sleeps (a futex wait on the shared word)
// only while the number is still the one it read, for at most its 250 ms
// step. A writer that made a message receivable (any slot written through in
// a receivable state, see _NoteSlot) bumps the number after it released the
// lock, and makes the wake-up call when kCtlWakeWaiters says someone sleeps.
// Either the writer sees the sleeper counted, or the sleeper sees the new
// number and does not sleep: no wake-up is lost. Processes without the key
// neither bump nor sleep on the word; a receiver with the key then looks
// again after its step, as every receiver does by default.
//
// Locks: none taken here. Both words are read and written atomically, also
// without the Controls lock; _WakeSeq is called with the lock held.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
// Shared (not process-private) futex calls: the word lies in a segment that
// each process maps at its own address. The call takes the kernel's native
// timespec, which is the C library's unless a 32-bit build asks for 64-bit
// times.
static_assert(sizeof(struct timespec) == 2 * sizeof(long), "SYS_futex reads a native timespec");
long Futex(int32_t* pWord, int nOp, int32_t nValue, const struct timespec* pTimeout) {
    return syscall(SYS_futex, pWord, nOp, nValue, pTimeout, nullptr, 0);
}

int64_t MonotonicUsecs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}
} // namespace

int32_t CWorkMessages::_WakeSeq() const {
    return qvwm::LoadWord(pSMCtlrs->Reserved[kCtlWakeSeq]);
}

void CWorkMessages::_Announce() {
    int32_t* pSeq = &pSMCtlrs->Reserved[kCtlWakeSeq];
    __atomic_add_fetch(pSeq, 1, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&pSMCtlrs->Reserved[kCtlWakeWaiters], __ATOMIC_SEQ_CST) > 0)
        Futex(pSeq, FUTEX_WAKE, INT_MAX, nullptr);
}

long CWorkMessages::_WaitStep(long nMaxUsecs, int32_t nSeenSeq) {
    if (!bWakeReceivers) {
        Usleep(nMaxUsecs);
        return nMaxUsecs;
    }
    int32_t* pWaiters = &pSMCtlrs->Reserved[kCtlWakeWaiters];
    const int64_t tStart = MonotonicUsecs();
    struct timespec tStep;
    tStep.tv_sec = nMaxUsecs / 1000000;
    tStep.tv_nsec = (nMaxUsecs % 1000000) * 1000;
    __atomic_add_fetch(pWaiters, 1, __ATOMIC_SEQ_CST);
    // Returns at once when the number moved since the look (EAGAIN), at a
    // wake-up, at the end of the step, or at a signal: each ends the step.
    Futex(&pSMCtlrs->Reserved[kCtlWakeSeq], FUTEX_WAIT, nSeenSeq, &tStep);
    __atomic_sub_fetch(pWaiters, 1, __ATOMIC_SEQ_CST);
    const int64_t nSlept = MonotonicUsecs() - tStart;
    return nSlept < 0 ? 0 : nSlept > nMaxUsecs ? nMaxUsecs : static_cast<long>(nSlept);
}
