// Send: queues one work message of a named type for a target process UID.
//
// Send owns the message counter: it hands out message IDs from nMsgCounter
// of the Controls segment, one per message, and guarantees that every ID it
// hands out can be found and received later: the ID a slot holds is never 0,
// never above 0x7FFFFFFE, and never equal to the ID of a message still in the
// table. The message is complete before it becomes visible: the slot is
// built aside and copied into the table only after its dependent data is
// stored, and its state turns WQCF_Pending last, when it is written through to
// the control file (with the counter in the file's header).
//
// Locks: only the Controls lock is taken here, for the whole operation unless
// the call is nested in one that holds it. It guards nMsgCounter, the control
// slots and nQSlotCount, the registry entries and the data slot table. The
// callbacks of this process (registered through any of its objects) run in
// the sending thread with the lock held.
// Because the table lookups of the trace lines and a table growth may move
// the Queues and PRLs segments, slots and entries are held by index and
// re-derived from pWQCF and pPRLL after every such call.
#include <cstdint>
#include <cstring>
#include <ctime>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const long kFirstMsgID = 0x40000000L; // where a new control file starts
const long kLastMsgID = 0x7FFFFFFEL;  // the highest ID a receive can select
const long kPrioIDMask = 0x00FFFFFFL; // a high-priority slot keeps these bits
const int kPrioMaskShift = 24;        // and xMsgMask the byte above them

// True when a message in use in the table holds nSlotID.
bool IdInUse(const _WQCF_* pTable, long nCount, long nSlotID) {
    for (long i = 0; i < nCount; ++i) {
        if (pTable[i].nflag != WQCF_Available && pTable[i].nMessageID == nSlotID) return true;
    }
    return false;
}
} // namespace

long CWorkMessages::Send(long nUID, const char* pMname, WorkMsg* wMsg, bool bHiPrio) {
    _RecordCaller();
    _TraceEntry("Send");

    // Checks of the caller's arguments come before any lock and touch
    // nothing: the text says what is wrong, nLastError keeps the last system
    // failure. A missing record is a caller's fault no other code names, so
    // it gets the general failure code; a missing name is an unknown name.
    if (wMsg == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: Send needs a message record (null given)");
        return M_SYSERR;
    }
    if (wMsg->nDepDataLength > 0 && wMsg->nDepDataLength > WM_MAX_DEPDATA) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "The given Dependent Data length ( %ld ) execeeds the maximum of %d",
                 wMsg->nDepDataLength, WM_MAX_DEPDATA);
        return M_TOOBIG;
    }
    // The data store cannot take a negative length: refused like a length
    // above the maximum, so that nothing is stored and no ID is used.
    if (wMsg->nDepDataLength < 0 && wMsg->pDepData != nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "The given Dependent Data length ( %ld ) is negative", wMsg->nDepDataLength);
        return M_TOOBIG;
    }
    if (pMname == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: Send needs a WorkMsg name (null given)");
        return M_NAME;
    }
    // Slots keep 32-bit UIDs; a wider value (64-bit builds only) would be
    // stored as another UID and the message delivered to the wrong process.
    if (nUID != static_cast<int32_t>(nUID) ||
        wMsg->nTargetUID != static_cast<int32_t>(wMsg->nTargetUID)) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: UID %ld is out of range for a message",
                 nUID != static_cast<int32_t>(nUID) ? nUID : wMsg->nTargetUID);
        return M_NAME;
    }

    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return _Return(M_LOCK);

    long nResult = _GetPointers();
    long nSlot = -1;
    _WQCF_ slot;
    memset(&slot, 0, sizeof(slot));
    if (nResult == M_OK) {
        const long nMsgNo = _TypeNumber(pMname);
        if (bTrace) _Trace("Send %s request from %s.", pMname, _ProcessName(nUID).c_str());
        const time_t tNow = time(nullptr);
        if (nMsgNo < 0) nResult = nMsgNo;
        // The slot is looked for even for an unknown name, so a full table
        // grows either way. A failed growth reported its own text, so its
        // code replaces the name's to keep code and text together.
        _PrefaultQueues(); // the ID check below may read every slot in use
        const long nFree = _GetWQCFSlot();
        if (nFree < 0) nResult = nFree;
        nSlot = nFree;

        if (nResult == M_OK) {
            // The next ID whose slot value can be received and is not held by
            // a message still in the table. A high-priority slot keeps only
            // the low 24 bits, so those must not be 0 and may repeat an older
            // message's; past 0x7FFFFFFE the counter starts again at
            // 0x40000000, where old IDs may still be in use. Each skip passes
            // over a distinct value held by a distinct message, so the search
            // ends within the number of messages in the table. An ID above
            // the top one in use needs no look at the table.
            const long nEnd = _ScanEnd();
            const long nTopID = qvwm::LoadWord(pSMCtlrs->Reserved[kCtlTopMessageID]);
            long nMessageID = 0;
            long nSlotID = 0;
            for (;;) {
                nMessageID = pSMCtlrs->nMsgCounter;
                if (nMessageID < 1 || nMessageID > kLastMsgID) nMessageID = kFirstMsgID;
                const long nNext = nMessageID + 1;
                pSMCtlrs->nMsgCounter =
                    static_cast<int32_t>(nNext > kLastMsgID ? kFirstMsgID : nNext);
                nSlotID = bHiPrio ? (nMessageID & kPrioIDMask) : nMessageID;
                if (nSlotID != 0 && (nSlotID > nTopID || !IdInUse(pWQCF, nEnd, nSlotID))) break;
            }
            slot.nResponse = 0;
            slot.nMessageID = static_cast<int32_t>(nSlotID);
            if (bHiPrio) slot.xMsgMask = static_cast<ByteInt>(nMessageID >> kPrioMaskShift);
            wMsg->nMessageID = nMessageID; // the caller gets the full ID
            slot.nTargetUID = static_cast<int32_t>(wMsg->nTargetUID);
            slot.nSenderUID = static_cast<int32_t>(nUID);
            slot.nMsgNo = static_cast<int32_t>(nMsgNo);
            wMsg->nMsgNo = nMsgNo;
            slot.nTimeSent = static_cast<int32_t>(tNow);
            slot.nTimePosted = 0;
            // A response is asked for only by a sender that can receive it.
            slot.nResponseRequired =
                wMsg->nResponseRequired != 0 && _SearchPRL(nUID, nMsgNo) != nullptr ? 1 : 0;
            slot.nDepDataSlot = -1;
        }

        if (nResult == M_OK && wMsg->nDepDataLength != 0 && wMsg->pDepData != nullptr) {
            slot.nDepDataLength = static_cast<int32_t>(wMsg->nDepDataLength);
            const long nDataSlot = _GetWDDFSlot();
            if (nDataSlot < 0) {
                nResult = nDataSlot;
            } else {
                slot.nDepDataSlot = static_cast<int32_t>(nDataSlot);
                nResult = _UpdateWDDF(wddfADD, static_cast<int>(nDataSlot),
                                      static_cast<int>(wMsg->nDepDataLength), wMsg->pDepData);
            }
        }

        // A message that failed before this point leaves its free slot all
        // zero: only a complete message enters the table.
        if (nResult == M_OK) {
            slot.nflag = WQCF_Pending;
            memcpy(static_cast<void*>(&pWQCF[nSlot]), &slot, sizeof(slot));
            nResult = _UpdateWQCF(nSlot, false);
            if (nResult == M_OK && _SearchPRL(wMsg->nTargetUID, nMsgNo) == nullptr) {
                snprintf(szErrorMsg, sizeof(szErrorMsg),
                         "WorkMsg object: Requested target process is not active");
                nResult = M_NOTACT;
            }
        }

        if (nResult == M_OK) _RunCallbacks(nMsgNo);

        if (bTrace && (nResult == M_OK || nResult == M_NOTACT)) {
            // The name lookup may move the table: the slot's fields come from
            // the copy that was written, the address is read after it.
            const std::string strTarget = _ProcessName(wMsg->nTargetUID);
            _Trace("Send request: %s to %s completed. Ctl slot:%.08lX[%ld], Data slot:%ld, "
                   "MsgID:%.08X",
                   pMname, strTarget.c_str(), qvwm::Addr(pWQCF), nSlot,
                   static_cast<long>(slot.nDepDataSlot),
                   static_cast<unsigned int>(slot.nMessageID));
        }
    }

    if (!bInternalCall) _FreeControlsLock(true);
    return _Return(nResult);
}
