// Slot repair for derived classes: clear a control slot, overwrite its state,
// type, target or sender, or give a message high priority and take it away,
// each by the slot's index in the shared control table instead of by message
// ID.
//
// The caller chooses the slot and the values; what this code guarantees is
// that a repair never reaches outside the tables and never makes a message
// unreachable by its ID: an index outside the control table, a state no
// other operation knows, or a priority change that would give the message
// the ID 0 or another message's ID is refused with M_LOGIC and a text, and
// nothing is touched. Each change is written through to the control file
// before the call returns.
//
// Locks: only the Controls lock, for the whole operation unless the call is
// nested in one that holds it. It guards the control slots and nQSlotCount,
// the data slot table and both files. These calls return without detaching
// the per-call segments.
#include <cstdint>
#include <cstring>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const long kNotSet = -1;
const uint32_t kPrioIDMask = 0x00FFFFFFu; // a high-priority slot keeps these bits
const int kPrioMaskShift = 24;            // and xMsgMask the byte above them

// Writes the refusal of an index outside the table; nCount is the slot count.
long OutsideTable(char (&szErrorMsg)[512], long nSlot, long nCount) {
    snprintf(szErrorMsg, sizeof(szErrorMsg),
             "WorkMsg object: slot %ld is outside the control table (0 to %ld)", nSlot, nCount - 1);
    return M_LOGIC;
}

// True when a message in use other than slot nSkip holds nID.
bool IdHeldElsewhere(const _WQCF_* pTable, long nCount, long nSkip, int32_t nID) {
    for (long i = 0; i < nCount; ++i) {
        if (i != nSkip && pTable[i].nflag != WQCF_Available && pTable[i].nMessageID == nID)
            return true;
    }
    return false;
}
} // namespace

long CWorkMessages::__DeleteSlot(long nSlot) {
    _RecordCaller();
    _TraceEntry("__DeleteSlot");
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return M_LOCK;
    _Trace("Delete slot %ld request.", nSlot);

    long nResult = _GetPointers();
    if (nResult == M_OK && (nSlot < 0 || nSlot >= pSMCtlrs->nQSlotCount))
        nResult = OutsideTable(szErrorMsg, nSlot, pSMCtlrs->nQSlotCount);
    long nDataSlot = kNotSet;
    if (nResult == M_OK) {
        nResult = _ClearSlot(nSlot, &nDataSlot);
        // The data slot shown is the one the message held: -1 for none, and
        // for a slot that held no message.
        if (nResult == M_OK)
            _Trace("Delete request completed. Ctl slot:%ld, Data slot:%ld", nSlot, nDataSlot);
    }

    if (!bInternalCall) _FreeControlsLock(true);
    return nResult;
}

long CWorkMessages::__ModifySlot(long nSlot, long NewState, long nID, long nLUID, bool bTargetUID) {
    _RecordCaller();
    _TraceEntry("__ModifySlot");
    // Checks of the values come before the lock and touch nothing. Only the
    // states 0 to 4 are counted, selected and delivered by the other
    // operations; a field of a slot holds 32 bits (a wider value is possible
    // on 64-bit builds only, and would be stored as another number).
    if (NewState != kNotSet && (NewState < WQCF_Available || NewState >= WQCF_Last)) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: state %ld is not a message state (-1, or 0 to %d)", NewState,
                 WQCF_Last - 1);
        return M_LOGIC;
    }
    if (nID != static_cast<int32_t>(nID) || nLUID != static_cast<int32_t>(nLUID)) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: %ld does not fit a field of a control slot",
                 nID != static_cast<int32_t>(nID) ? nID : nLUID);
        return M_LOGIC;
    }
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return M_LOCK;
    _Trace("Modify slot %ld request.", nSlot);

    long nResult = _GetPointers();
    if (nResult == M_OK && (nSlot < 0 || nSlot >= pSMCtlrs->nQSlotCount))
        nResult = OutsideTable(szErrorMsg, nSlot, pSMCtlrs->nQSlotCount);
    if (nResult == M_OK) {
        _WQCF_& slot = pWQCF[nSlot];
        if (NewState != kNotSet) slot.nflag = static_cast<ByteInt>(NewState);
        if (nID != kNotSet) slot.nMsgNo = static_cast<int32_t>(nID);
        if (nLUID != kNotSet) {
            if (bTargetUID)
                slot.nTargetUID = static_cast<int32_t>(nLUID);
            else
                slot.nSenderUID = static_cast<int32_t>(nLUID);
        }
        nResult = _UpdateWQCF(nSlot, false); // also when nothing changed
    }

    if (!bInternalCall) _FreeControlsLock(true);
    return nResult;
}

long CWorkMessages::__SetPrio(long nSlot, bool bResetHigh) {
    _RecordCaller();
    _TraceEntry("__SetPrio");
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return M_LOCK;
    const char* szPrio = bResetHigh ? "normal" : "high";
    _Trace("Set slot %ld %s prio.", nSlot, szPrio);

    long nResult = _GetPointers();
    const long nCount = nResult == M_OK ? pSMCtlrs->nQSlotCount : 0;
    if (nResult == M_OK && (nSlot < 0 || nSlot >= nCount))
        nResult = OutsideTable(szErrorMsg, nSlot, nCount);
    if (nResult == M_OK) {
        _WQCF_& slot = pWQCF[nSlot];
        const uint32_t nOldID = static_cast<uint32_t>(slot.nMessageID);
        int32_t nNewID = slot.nMessageID;
        ByteInt nNewMask = slot.xMsgMask;
        // A message keeps the priority it already has: giving high priority
        // twice would lose the saved top byte for good, and a normal message
        // has nothing to restore.
        if (!bResetHigh && slot.xMsgMask == 0) {
            nNewMask = static_cast<ByteInt>(nOldID >> kPrioMaskShift);
            nNewID = static_cast<int32_t>(nOldID & kPrioIDMask);
        } else if (bResetHigh && slot.xMsgMask != 0) {
            nNewID = static_cast<int32_t>(nOldID |
                                          (static_cast<uint32_t>(slot.xMsgMask) << kPrioMaskShift));
            nNewMask = 0;
        }
        // A message is found by the ID its slot holds. An ID of 0, or one that
        // another message holds, would make this message unreachable or let a
        // deletion by that ID take the other message: refused, slot untouched.
        if (nNewID != slot.nMessageID &&
            (nNewID == 0 || IdHeldElsewhere(pWQCF, _ScanEnd(), nSlot, nNewID))) {
            snprintf(szErrorMsg, sizeof(szErrorMsg),
                     "WorkMsg object: slot %ld can't take %s prio: its ID would be %.8X, which "
                     "is 0 or held by another message",
                     nSlot, szPrio, static_cast<unsigned int>(nNewID));
            nResult = M_LOGIC;
        } else {
            slot.nMessageID = nNewID;
            slot.xMsgMask = nNewMask;
            nResult = _UpdateWQCF(nSlot, false); // also when nothing changed
            if (nResult == M_OK)
                _Trace("Set %s prio request completed. Ctl slot:%ld", szPrio, nSlot);
        }
    }

    if (!bInternalCall) _FreeControlsLock(true);
    return nResult;
}
