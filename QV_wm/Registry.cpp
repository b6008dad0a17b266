// The receiver registry: which process receives which message type under
// which process UID.
//
// The registry is one table of 32-byte entries in the PRLs segment, shared by
// every process of the host and never written to a file: a registration lasts
// as long as the shared state. An entry is identified by (UID, type, process
// ID); an entry whose nUID is 0 is free, whatever its other fields hold. Send
// asks the registry whether a target is registered and which callbacks to
// run; Receive takes a receiver's delivery order from it.
//
// The table starts with 128 entries and grows by 32 when it is full. Growth
// replaces the segment: the old one is removed, a larger one is created under
// the same key with every entry at its old index, and its handle is published
// in the Controls segment, where every other process picks it up at its next
// _GetPointers. Because growth (and _GetPointers, which _KnownRequest runs)
// may move the table, the code here holds indexes across such calls and
// re-derives entry pointers from pPRLL afterwards. A growth cut off by a
// holder's death is repaired by _CheckRegistry during the rebuild after a
// dead owner (Recovery.cpp).
//
// Locks: only the Controls lock is taken here. It guards every entry of the
// PRLs segment and the fields nPRListHandle and nPRLSlotCount of the Controls
// segment; the public operations take it unless they run nested in another
// operation that holds it, and the private ones expect the caller to hold it.
// nCallbackCount belongs to the process; it changes only under the Controls
// lock, with the entries it counts.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const long kPRLGrowth = 32;
const int kShmCreate = IPC_CREAT | 0666;
const char kAllQueues[] = "ALLQ";

size_t PRLBytes(long nCount) {
    return static_cast<size_t>(nCount) * sizeof(_PRL_CTL_);
}

// Creates (or finds) the PRLs segment of nBytes and attaches it. On success
// nId and pAddr are set and 0 is returned; on failure the errno of the step
// that failed is returned and bAttachFailed tells which step it was. A
// segment created here but not attached is removed again.
int CreatePRLSegment(size_t nBytes, int& nId, void*& pAddr, bool& bAttachFailed) {
    bAttachFailed = false;
    pAddr = nullptr;
    nId = shmget(QVshmKeysBase::cstWMPRListSHMKey, nBytes, kShmCreate);
    if (nId < 0) return errno;
    void* p = shmat(nId, nullptr, 0);
    if (p == qvwm::ShmFailed()) {
        const int nErr = errno;
        shmctl(nId, IPC_RMID, nullptr);
        bAttachFailed = true;
        return nErr;
    }
    pAddr = p;
    return 0;
}
} // namespace

// Exported with the library's interface; nothing in the library calls it.
extern "C" void _PostCallback(int /*nSigno*/) {}

// One count for the whole process: its objects share the registry entries
// of its process ID, so a callback registered through one object runs on a
// Send through any other. Threads of the process change it one at a time,
// under the Controls lock; atomic, so that a read outside it is still whole.
std::atomic<long> CWorkMessages::nCallbackCount{0};

long CWorkMessages::SetInput(long nUID, const char* szMname, long (*Callback)(long),
                             bool bUseLIFO) {
    _RecordCaller();
    _TraceEntry("SetInput");
    // Checks that need no shared state fail before the lock is taken.
    if (szMname == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: SetInput needs a WorkMsg name (null given)");
        return M_NAME;
    }
    // Entries keep 32-bit UIDs; a wider value could never be found again.
    if (nUID != static_cast<int32_t>(nUID)) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: UID %ld is out of range for a registration", nUID);
        return M_NAME;
    }
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return _Return(M_LOCK);

    long nResult = _GetPointers();
    long nID = M_OK;
    if (nResult == M_OK) {
        nID = _TypeNumber(szMname);
        if (nID < 0) nResult = nID;
    }
    // UID 0 marks a free entry, so a registration under it could never be
    // seen; writing it would only leave a free entry that carries a type and
    // a callback. Accept the call and keep the table unchanged.
    if (nResult == M_OK && nUID != 0) {
        const pid_t nCallerPID = callerPID;
        long nSlot = _KnownRequest(nUID, nID, nCallerPID);
        bool bHadCallback = false;
        if (nSlot == M_NOTACT) {
            nSlot = _GetPRLSlot(); // may move the table: index only
            if (nSlot >= 0) {
                _PRL_CTL_& entry = pPRLL[nSlot];
                entry.nPID = nCallerPID;
                entry.nUID = static_cast<int32_t>(nUID);
                entry.nMsgNo = static_cast<int32_t>(nID);
            }
        } else if (nSlot >= 0) {
            bHadCallback = pPRLL[nSlot].HasCallback();
        }
        if (nSlot < 0) {
            nResult = nSlot;
        } else {
            _PRL_CTL_& entry = pPRLL[nSlot];
            entry.SetCallback(Callback);
            entry.bUseLIFO = bUseLIFO ? 1 : 0;
            // nCallbackCount counts this process's live registrations that
            // carry a callback, made through any of its objects, so that Send
            // looks for callbacks only when there can be one to run here.
            if (Callback != nullptr && !bHadCallback) {
                ++nCallbackCount;
            } else if (Callback == nullptr && bHadCallback && nCallbackCount > 0) {
                --nCallbackCount;
            }
        }
    }

    if (!bInternalCall) _FreeControlsLock(true);
    return _Return(nResult);
}

long CWorkMessages::UnsetInput(long nUID, const char* szMname, long nPID) {
    _RecordCaller();
    _TraceEntry("UnsetInput");
    if (szMname == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: UnsetInput needs a WorkMsg name or \"%s\" (null given)",
                 kAllQueues);
        return M_NAME;
    }
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return _Return(M_LOCK);

    const pid_t nOwnPID = callerPID;
    const long nProcess = nPID != 0 ? nPID : static_cast<long>(nOwnPID);
    // Clears one entry. The callback count follows only entries of this
    // process: an entry of another process, removed by its process ID, was
    // never counted here, and the count must not drift below the
    // registrations this process still holds.
    auto clearEntry = [this, nOwnPID](long nSlot) {
        _PRL_CTL_& entry = pPRLL[nSlot];
        if (entry.HasCallback() && entry.nPID == nOwnPID && nCallbackCount > 0) --nCallbackCount;
        entry.nPID = 0;
        entry.nUID = 0;
        entry.nMsgNo = 0;
        entry.SetCallback(nullptr);
    };

    long nResult = _GetPointers();
    if (nResult == M_OK && strcmp(szMname, kAllQueues) == 0) {
        // Every entry of this UID and process; none is no failure. UID 0
        // names free entries only.
        const long nCount = nUID != 0 && qvwm::Attached(pPRLL) ? pSMCtlrs->nPRLSlotCount : 0;
        for (long i = 0; i < nCount; ++i) {
            if (pPRLL[i].nUID == nUID && pPRLL[i].nPID == nProcess) clearEntry(i);
        }
    } else if (nResult == M_OK) {
        const long nID = _TypeNumber(szMname);
        long nSlot = nID;
        // A process ID wider than pid_t names no entry; M_NOTACT (no such
        // entry) is reported without a text.
        if (nID >= 0)
            nSlot = nProcess == static_cast<pid_t>(nProcess)
                        ? _KnownRequest(nUID, nID, static_cast<pid_t>(nProcess))
                        : static_cast<long>(M_NOTACT);
        if (nSlot < 0) {
            nResult = nSlot;
        } else {
            clearEntry(nSlot);
        }
    }

    if (!bInternalCall) _FreeControlsLock(true);
    return _Return(nResult);
}

long CWorkMessages::TargetActive(long nUID, long nMID) {
    _RecordCaller();
    _TraceEntry("TargetActive");
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return _Return(M_LOCK);

    long nResult = _GetPointers();
    // Registered is active: whether the process still runs is not asked.
    if (nResult == M_OK && _SearchPRL(nUID, nMID) == nullptr) nResult = M_NOTACT;

    if (!bInternalCall) _FreeControlsLock(true);
    return _Return(nResult);
}

void CWorkMessages::_RunCallbacks(long nMsgNo) {
    if (nCallbackCount.load() == 0) return;
    // A callback address means something only in the process that
    // registered it, so only this process's registrations are called; those
    // of other processes are left to them.
    const pid_t nOwnPID = callerPID; // recorded by Send
    for (long i = 0; qvwm::Attached(pPRLL) && i < pSMCtlrs->nPRLSlotCount; ++i) {
        const _PRL_CTL_& entry = pPRLL[i];
        if (entry.nUID == 0 || entry.nPID != nOwnPID || entry.nMsgNo != nMsgNo) continue;
        WMCallback fn = entry.GetCallback();
        if (fn != nullptr) fn(entry.nMsgNo);
    }
}

_PRL_CTL_* CWorkMessages::_SearchPRL(long nUID, long nMsgNo) {
    _TraceEntry("_SearchPRL");
    if (nUID == 0 || !qvwm::Attached(pPRLL)) return nullptr;
    const long nCount = pSMCtlrs->nPRLSlotCount;
    for (long i = 0; i < nCount; ++i) {
        const _PRL_CTL_& entry = pPRLL[i];
        if (entry.nUID == nUID && (nMsgNo == -1 || entry.nMsgNo == nMsgNo)) return &pPRLL[i];
    }
    return nullptr;
}

_PRL_CTL_* CWorkMessages::_SearchPRL(long nMsgNo) {
    _TraceEntry("_SearchPRL");
    if (!qvwm::Attached(pPRLL)) return nullptr;
    const long nCount = pSMCtlrs->nPRLSlotCount;
    for (long i = 0; i < nCount; ++i) {
        const _PRL_CTL_& entry = pPRLL[i];
        // A free entry is never a registration, whatever it still holds.
        if (entry.nUID != 0 && entry.nMsgNo == nMsgNo && entry.HasCallback()) return &pPRLL[i];
    }
    return nullptr;
}

long CWorkMessages::_KnownRequest(long nUID, long nID, pid_t nPID) {
    _TraceEntry("_KnownRequest");
    const long nResult = _GetPointers();
    if (nResult != M_OK) return nResult;
    if (nUID == 0 || !qvwm::Attached(pPRLL)) return M_NOTACT; // UID 0: free entries only
    const long nCount = pSMCtlrs->nPRLSlotCount;
    for (long i = 0; i < nCount; ++i) {
        const _PRL_CTL_& entry = pPRLL[i];
        if (entry.nUID == nUID && entry.nMsgNo == nID && entry.nPID == nPID) return i;
    }
    return M_NOTACT;
}

long CWorkMessages::_GetPRLSlot() {
    _TraceEntry("_GetPRLSlot");
    if (!qvwm::Attached(pPRLL)) {
        _Failed(M_SHMERR, "Failed to update shared-memory PRL pointer", EINVAL);
        return M_SHMERR;
    }
    const long nOldCount = pSMCtlrs->nPRLSlotCount;
    for (long i = 0; i < nOldCount; ++i) {
        if (pPRLL[i].nUID == 0) return i;
    }

    _Trace("PRLs relocation started: Old:%.08lX", qvwm::Addr(pPRLL));
    // The buffer covers the new size too: copied whole, it also clears the
    // new entries, whatever the new segment held.
    const size_t nBytes = PRLBytes(nOldCount + kPRLGrowth);
    void* pSaved = calloc(1, nBytes);
    if (pSaved == nullptr) {
        _Failedf(M_SYSERR, -1, "Failed to allocate %d bytes of memory for PRLs relocation",
                 static_cast<int>(nBytes));
        return nLastError;
    }
    auto freeSaved = qvwm::OnScopeExit([pSaved] { free(pSaved); });
    memcpy(pSaved, static_cast<const void*>(pPRLL), PRLBytes(nOldCount));

    const long nResult = _AllocatePRL(nOldCount + kPRLGrowth, true);
    if (nResult != M_OK) return nResult;
    memcpy(static_cast<void*>(pPRLL), pSaved, nBytes);
    _Trace("PRLs  relocation completed: New:%.08lX", qvwm::Addr(pPRLL));
    return nOldCount;
}

long CWorkMessages::_AllocatePRL(long nCount, bool bRealloc) {
    _TraceEntry("_AllocatePRL");
    void* pOld = nullptr;
    long nOldCount = 0;
    if (bRealloc) {
        _Trace("Relocating PRLs. Old count:%ld  New count:%ld",
               static_cast<long>(pSMCtlrs->nPRLSlotCount), nCount);
        // Removing frees the key at once; the segment itself lives on while
        // anyone is attached. This process stays attached until the new
        // segment is in place, so that a failed growth can put the old
        // entries back.
        shmctl(pSMCtlrs->nPRListHandle, IPC_RMID, nullptr);
        if (qvwm::Attached(pPRLL)) {
            pOld = pPRLL;
            nOldCount = pSMCtlrs->nPRLSlotCount;
        }
        // The old mapping is detached below, whatever happens: it may be the
        // one _GetPointers keeps for reuse.
        if (pPRLMap == pPRLL) pPRLMap = nullptr;
        pPRLL = nullptr;
    }

    int nId = -1;
    void* pNew = nullptr;
    bool bAttachFailed = false;
    const int nErr = CreatePRLSegment(PRLBytes(nCount), nId, pNew, bAttachFailed);
    if (nErr == 0) {
        if (pOld != nullptr) shmdt(pOld);
        pPRLL = static_cast<pPRLlist>(pNew);
        pSMCtlrs->nPRListHandle = nId;
        pSMCtlrs->nPRLSlotCount = static_cast<int32_t>(nCount);
        return M_OK;
    }

    // The larger table cannot be had, and the old segment is already
    // removed. Rather than leave every process a handle to a removed
    // segment, recreate the table at its old size with the old entries, so
    // that the registry stays as it was and only this registration fails.
    // When even that fails, the handle is set to -1: every later call then
    // reports the lost registry instead of working on a stale table.
    pSMCtlrs->nPRListHandle = -1;
    pSMCtlrs->nPRLSlotCount = 0;
    if (pOld != nullptr) {
        int nBackId = -1;
        void* pBack = nullptr;
        bool bBackAttachFailed = false;
        if (CreatePRLSegment(PRLBytes(nOldCount), nBackId, pBack, bBackAttachFailed) == 0) {
            memcpy(pBack, pOld, PRLBytes(nOldCount));
            pPRLL = static_cast<pPRLlist>(pBack);
            pSMCtlrs->nPRListHandle = nBackId;
            pSMCtlrs->nPRLSlotCount = static_cast<int32_t>(nOldCount);
            _Log("PRLs relocation failed: the registry was kept with %ld entries", nOldCount);
        } else {
            _Log("PRLs relocation failed: the registry is lost");
        }
        shmdt(pOld);
    }
    _Failed(M_SHMERR,
            bAttachFailed ? "Failed to attach shared-memory PRLs"
                          : "Failed to get create handle for shared-memory PRLs",
            nErr);
    return M_SHMERR;
}

long CWorkMessages::_CheckRegistry(long* pnKept) {
    _TraceEntry("_CheckRegistry");
    *pnKept = -1;
    // Sound: the published segment is the one under the key, not removed,
    // and holds the published count of entries. A growth cut off between
    // removing the old segment and publishing a filled new one leaves
    // something else.
    const int nHandle = pSMCtlrs->nPRListHandle;
    const long nCount = pSMCtlrs->nPRLSlotCount;
    struct shmid_ds ds;
    memset(&ds, 0, sizeof(ds));
    const bool bStat = nHandle > 0 && shmctl(nHandle, IPC_STAT, &ds) == 0;
    if (bStat && (ds.shm_perm.mode & SHM_DEST) == 0 && nCount > 0 &&
        ds.shm_segsz >= PRLBytes(nCount) && shmget(cstWMPRListSHMKey, 0, 0) == nHandle)
        return M_OK;

    // A new table, at least as large as the published count, with every
    // entry that can still be read: a removed segment lives on while some
    // process (one that keeps its mappings) is attached to it. What nobody
    // holds any more is lost, and its receivers must register again.
    // The old segment is attached before this object's own mapping goes:
    // that mapping may be what still keeps it.
    void* pOld = bStat ? shmat(nHandle, nullptr, SHM_RDONLY) : qvwm::ShmFailed();
    auto detachOld = qvwm::OnScopeExit([pOld] {
        if (qvwm::Attached(pOld)) shmdt(pOld);
    });
    qvwm::UnmapSegment(pPRLL, pPRLMap, nPRLMapHandle, false);
    const long nOld =
        qvwm::Attached(pOld) ? static_cast<long>(ds.shm_segsz / sizeof(_PRL_CTL_)) : 0;
    if (bStat) shmctl(nHandle, IPC_RMID, nullptr);
    const int nStray = shmget(cstWMPRListSHMKey, 0, 0);
    if (nStray >= 0) shmctl(nStray, IPC_RMID, nullptr);

    long nNew = nCount > nOld ? nCount : nOld;
    if (nNew < kPRLGrowth) nNew = kPRLGrowth;
    const long nResult = _AllocatePRL(nNew, false);
    if (nResult != M_OK) return nResult;
    if (nOld > 0) memcpy(static_cast<void*>(pPRLL), pOld, PRLBytes(nOld));
    *pnKept = 0;
    for (long i = 0; i < nOld; ++i)
        if (pPRLL[i].nUID != 0) ++*pnKept;
    return M_OK;
}
