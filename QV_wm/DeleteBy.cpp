// DeleteBy: bulk deletion of the queued messages that match up to four
// criteria at once: a minimum age in whole days, the target, the sender and
// the message type. -1 (or a null name) is a wildcard.
//
// Every selected message is deleted by Delete, nested in this operation, so a
// bulk deletion frees data and clears slots exactly as a single deletion
// does. The scan stops at the first deletion that fails: what was deleted
// before stays deleted, and the count tells the caller how many.
//
// Locks: only the Controls lock. The numbers overload holds it for the whole
// scan (selection and deletions are one step for every other process); it
// guards the control slots, nQSlotCount, the data slot table and both files.
// The names overload takes no lock of its own: its process lookups (GetUID)
// and the scan each take it in turn. Delete re-attaches the Queues segment
// (_GetPointers), possibly at another address, so slots are held by index and
// read from pWQCF again after every deletion.
#include <cstdint>
#include <ctime>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const int64_t kSecsPerDay = 86400;
const long kAny = -1; // the wildcard of each criterion

bool Selects(long nCriterion, int32_t nField) {
    return nCriterion == kAny || nCriterion == nField;
}
} // namespace

long CWorkMessages::DeleteBy(long nDaysOld, long nTargetUID, long nSenderUID, long nMsgNo,
                             LPLONG lpCount) {
    _RecordCaller();
    _TraceEntry("DeleteBy");
    // Zero before the lock: after any failure the count says what was done.
    if (lpCount != nullptr) *lpCount = 0;
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return _Return(M_LOCK);
    _Trace("DeleteBy request: Days: %ld, Target: %ld, Sender: %ld", nDaysOld, nTargetUID,
           nSenderUID);

    long nResult = _GetPointers();
    if (nResult == M_OK) {
        const int64_t tNow = static_cast<int64_t>(time(nullptr));
        const bool bSaved = bInternalCall;
        bInternalCall = true; // the deletions run inside this lock and attachment
        // Every matching message is deleted, whether or not the caller asked
        // for the count. Delete clears its slot in place and moves no other,
        // so each slot is visited once.
        // The high-water mark only falls while this runs: read it each time.
        for (long i = 0; nResult == M_OK && i < _ScanEnd(); ++i) {
            const _WQCF_& slot = pWQCF[i];
            if (slot.nflag == WQCF_Available) continue;
            // Age in whole days, truncated toward zero; 64-bit, so that no
            // stored time can overflow the difference.
            const int64_t nAge = (tNow - slot.nTimeSent) / kSecsPerDay;
            if (nDaysOld != kAny && nAge < nDaysOld) continue;
            if (!Selects(nTargetUID, slot.nTargetUID) || !Selects(nSenderUID, slot.nSenderUID) ||
                !Selects(nMsgNo, slot.nMsgNo))
                continue;
            nResult = Delete(0, slot.nMessageID); // re-attaches pWQCF: slot is stale after it
            if (nResult == M_OK && lpCount != nullptr) ++*lpCount;
        }
        bInternalCall = bSaved;
    }

    if (!bInternalCall) _FreeControlsLock(true);
    return _Return(nResult);
}

long CWorkMessages::DeleteBy(long nDaysOld, LPCSZ lpszTarget, LPCSZ lpszSender, LPCSZ lpszMsgNo,
                             LPLONG lpCount) {
    _RecordCaller();
    _TraceEntry("DeleteBy");
    long nTargetUID = kAny;
    long nSenderUID = kAny;
    long nMsgNo = kAny;
    long nResult = M_OK;

    // Each name is looked up only while the earlier ones were found; an empty
    // string is a name like any other. A negative answer (a code) ends the
    // call before anything is deleted, and the count is left as it was.
    if (lpszTarget != nullptr) {
        nTargetUID = _ProcessNumber(lpszTarget);
        if (nTargetUID < 0) nResult = nTargetUID;
    }
    if (nResult == M_OK && lpszSender != nullptr) {
        nSenderUID = _ProcessNumber(lpszSender);
        if (nSenderUID < 0) nResult = nSenderUID;
    }
    if (nResult == M_OK && lpszMsgNo != nullptr) {
        nMsgNo = _TypeNumber(lpszMsgNo);
        if (nMsgNo < 0) nResult = nMsgNo;
    }
    if (nResult != M_OK) return _Return(nResult);
    return _Return(DeleteBy(nDaysOld, nTargetUID, nSenderUID, nMsgNo, lpCount));
}
