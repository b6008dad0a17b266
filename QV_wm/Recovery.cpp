// Recovery from a process that died holding the Controls lock.
//
// On a host whose first constructor read WM_RecoverDeadOwner the Controls
// mutex is robust: when its holder dies, the next lock attempt of any
// process takes it with EOWNERDEAD (Locks.cpp, _LockTaken). The dead holder
// may have been anywhere inside an operation, so the shared tables are not
// trusted; the files are. Every operation writes each change through before
// it releases the lock, so the files hold every completed operation and at
// most one cut-off step of the dead one.
//
// The thread that takes the lock rebuilds, before its own call goes on:
// - the control table, from the control file, as a first constructor does
//   without cleaning (received messages stay), in a new Queues segment;
// - the message counter, at the larger of the shared and the stored value,
//   so that no ID handed out before the death is handed out again;
// - the data slot table, from the data file, keeping exactly the data slots
//   that stored messages reference;
// - the registry, which has no file: its segment is checked and, when a
//   growth was cut off, replaced by one with every entry still readable.
// Then it logs one line and counts the recovery in the Controls segment.
//
// Locks: everything here runs while the calling thread holds the Controls
// lock, which guards all tables, the Controls fields and both files. Until
// the rebuild is complete the pending flag stays set in the Controls
// segment: if the rebuild fails, the lock is released with the flag set and
// the next holder rebuilds again; if this thread dies, the next one gets
// EOWNERDEAD and does the same.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <ctime>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const int32_t kLastMsgID = 0x7FFFFFFE; // the highest ID Send hands out
} // namespace

bool CWorkMessages::_RecoverFromDeadOwner(pid_t nDeadOwner) {
    _Trace("_RecoverFromDeadOwner: dead owner %ld", static_cast<long>(nDeadOwner));
    if ((pSMCtlrs->Reserved[cstCtlLockFlags] & cstTablesBuilt) == 0) {
        // The first constructor died before every table existed: there is no
        // whole state to repair. The flag stays set, so every call fails the
        // same way until the last process detaches and the next one builds
        // the state anew.
        _Failedf(M_LOCK, EOWNERDEAD,
                 "The Controls lock's owner %ld died before the shared state was built; stop "
                 "every process that uses the queues, the next one builds it from the files",
                 static_cast<long>(nDeadOwner));
        return false;
    }
    const bool bHadSAT = qvwm::Attached(pDDSAT);
    const int32_t nSharedCounter = pSMCtlrs->nMsgCounter;

    // The control table is loaded into a new segment: the old one may be
    // half copied by a growth, or missing. Processes that keep a mapping see
    // the new handle at their next call.
    qvwm::UnmapSegment(pWQCF, pQueuesMap, nQueuesMapHandle, false);
    if (pSMCtlrs->nQueuesHandle > 0) shmctl(pSMCtlrs->nQueuesHandle, IPC_RMID, nullptr);
    const int nStray = shmget(cstWMQueuesSHMKey, 0, 0);
    if (nStray >= 0) shmctl(nStray, IPC_RMID, nullptr);
    if (!_LoadAndCleanWQCF(true)) return false;

    if (nSharedCounter > pSMCtlrs->nMsgCounter && nSharedCounter <= kLastMsgID) {
        pSMCtlrs->nMsgCounter = nSharedCounter;
        if (_UpdateWQCF(-1, false) != M_OK) return false;
    }

    long nKept = 0;
    if (!_ReadOrInitWDDF(&nKept)) return false;
    const long nFreed = _FreeUnreferencedData();
    if (nFreed < 0) return false;
    long nRegistryKept = -1;
    if (_CheckRegistry(&nRegistryKept) != M_OK) return false;

    long arrStates[WQCF_Last] = {};
    for (long i = 0; i < pSMCtlrs->nQSlotCount; ++i)
        if (pWQCF[i].nflag < WQCF_Last) ++arrStates[pWQCF[i].nflag];
    char szRegistry[96] = "registry sound";
    if (nRegistryKept >= 0)
        snprintf(szRegistry, sizeof(szRegistry), "registry replaced keeping %ld entries",
                 nRegistryKept);
    _Log(
        "Recovered the Controls lock from dead owner thread %ld: control table (%d slots) and data "
        "slot table rebuilt from the files, message counter %.08X, %ld data slots kept for "
        "their messages, %ld freed, %s; messages: %ld pending, %ld received, %ld retry, %ld "
        "delayed retry",
        static_cast<long>(nDeadOwner), pSMCtlrs->nQSlotCount,
        static_cast<unsigned int>(pSMCtlrs->nMsgCounter), nKept, nFreed, szRegistry,
        arrStates[WQCF_Pending], arrStates[WQCF_Received], arrStates[WQCF_Retry],
        arrStates[WQCF_Delayed_Retry]);

    // The call goes on with the segments attached as its own frame does it.
    qvwm::UnmapSegment(pWQCF, pQueuesMap, nQueuesMapHandle, false);
    qvwm::UnmapSegment(pPRLL, pPRLMap, nPRLMapHandle, false);
    if (!bHadSAT) {
        shmdt(pDDSAT);
        pDDSAT = nullptr;
    }
    ++pSMCtlrs->Reserved[cstCtlRecoveries];
    pSMCtlrs->Reserved[cstCtlLastRecovery] = static_cast<int32_t>(time(nullptr));
    pSMCtlrs->Reserved[cstCtlLockFlags] &= ~cstRecoveryPending;
    return true;
}
