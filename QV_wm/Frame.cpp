// The operation frame: how every operation records its caller, traces, fails
// and returns.
//
// Each public operation records the calling process and kernel thread (from
// a per-thread cache, so that a call costs no system call for them), writes
// an entry trace line when tracing is on, and ends in _Return, which detaches
// the two per-call segments (Queues, PRLs) unless the call is nested inside
// another operation of the same object or the host sets WM_KeepAttached.
// Internal failures go through _Failed, which releases both locks on the
// spot, so that no failure path can leave the Controls lock held. Everything
// here works on the object's own members (one object is used by one thread at
// a time) and takes no lock.
#include <pthread.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const char kTag[] = "QV_wm";
const bool UseSyslog = true;

// The IDs of the calling thread, 0 until first asked. fork copies the thread
// that called it, cache included, into a child with other IDs: the handler
// below, run by that thread in the child, empties the cache there. Threads
// other than the forking one do not exist in the child.
thread_local pid_t tCachedPid = 0;
thread_local pid_t tCachedTid = 0;
pthread_once_t onceAtFork = PTHREAD_ONCE_INIT;

void ForgetIdsInChild() {
    tCachedPid = 0;
    tCachedTid = 0;
}
void RegisterAtFork() {
    pthread_atfork(nullptr, nullptr, ForgetIdsInChild);
}
} // namespace

void qvwm::CallerIds(pid_t* pPid, pid_t* pTid) {
    if (tCachedTid == 0) {
        pthread_once(&onceAtFork, RegisterAtFork);
        tCachedPid = getpid();
        tCachedTid = KernelTid();
    }
    *pPid = tCachedPid;
    *pTid = tCachedTid;
}

void CWorkMessages::_RecordCaller() {
    qvwm::CallerIds(&callerPID, &callerTID);
}

void CWorkMessages::_TraceEntry(const char* szName) {
    if (!bTrace) return;
    snprintf(szTrace, sizeof(szTrace), "%s entered by pid/tid %ld/%ld(%.8lX). bInternalCall=%s",
             szName, static_cast<long>(callerPID), static_cast<long>(callerTID), qvwm::Addr(pMe),
             qvwm::TF(bInternalCall));
    Log2cerr(szTrace, kTag, UseSyslog);
}

void CWorkMessages::_Trace(const char* szFormat, ...) {
    if (!bTrace) return;
    va_list ap;
    va_start(ap, szFormat);
    vsnprintf(szTrace, sizeof(szTrace), szFormat, ap);
    va_end(ap);
    Log2cerr(szTrace, kTag, UseSyslog);
}

void CWorkMessages::_Log(const char* szFormat, ...) {
    va_list ap;
    va_start(ap, szFormat);
    vsnprintf(szTrace, sizeof(szTrace), szFormat, ap);
    va_end(ap);
    Log2cerr(szTrace, kTag, UseSyslog);
}

void CWorkMessages::_Failed(long nErrorCode, const char* szMsgSeg, int nErrNo) {
    const int nSavedErrno = errno; // before anything below can change it
    // The segment may live in szTempBuff or szErrorMsg; copy it before either
    // is written again.
    char szSeg[sizeof(szTempBuff)];
    snprintf(szSeg, sizeof(szSeg), "%s", szMsgSeg ? szMsgSeg : "");

    _Unlock();
    nLastError = nErrorCode;

    const int nErr = nErrNo > 0 ? nErrNo : nSavedErrno;
    char szDesc[256];
    const char* pDesc = strerror_r(nErr, szDesc, sizeof(szDesc)); // GNU: thread-safe text
    // glibc describes unknown numbers as "Unknown error N": that is no
    // description.
    if (pDesc == nullptr || *pDesc == '\0' || strncmp(pDesc, "Unknown error", 13) == 0)
        pDesc = "No description found";
    snprintf(szErrorMsg, sizeof(szErrorMsg), "WorkMsg object: %s\nReason(%d): %s\n", szSeg, nErr,
             pDesc);
    if (bTrace) Log2cerr(szErrorMsg, kTag, UseSyslog);
}

void CWorkMessages::_Failedf(long nErrorCode, int nErrNo, const char* szFormat, ...) {
    const int nSavedErrno = errno;
    va_list ap;
    va_start(ap, szFormat);
    vsnprintf(szTempBuff, sizeof(szTempBuff), szFormat, ap);
    va_end(ap);
    errno = nSavedErrno;
    _Failed(nErrorCode, szTempBuff, nErrNo);
}

long CWorkMessages::_Return(long nCode) {
    if (!bInternalCall) {
        // With WM_KeepAttached the mappings stay for the next call, which
        // reuses them while the published handles are unchanged.
        qvwm::UnmapSegment(pWQCF, pQueuesMap, nQueuesMapHandle, bKeepAttached);
        qvwm::UnmapSegment(pPRLL, pPRLMap, nPRLMapHandle, bKeepAttached);
    }
    return nCode;
}

std::string CWorkMessages::_ProcessName(long nUID) {
    const bool bSaved = bInternalCall;
    bInternalCall = true;
    char* pName = GetUID(nUID, nullptr);
    bInternalCall = bSaved;
    // A code instead of a name: the UID has no entry in the process table.
    // Show the number so the line (or file name) still says who it was.
    if (reinterpret_cast<intptr_t>(pName) < 0 && reinterpret_cast<intptr_t>(pName) >= M_NAME)
        return "UID" + std::to_string(nUID);
    return std::string(pName);
}

std::string CWorkMessages::_TypeName(long nMsgNo) {
    // Translate takes no lock and attaches nothing, so unlike GetUID it needs
    // no nesting: its entry line shows the caller's bInternalCall as it is.
    char* pName = Translate(nMsgNo, nullptr);
    if (reinterpret_cast<intptr_t>(pName) < 0 && reinterpret_cast<intptr_t>(pName) >= M_NAME)
        return "TYPE" + std::to_string(nMsgNo);
    return std::string(pName);
}
