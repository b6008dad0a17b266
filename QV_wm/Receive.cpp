// Receive: hands the next message addressed to a process UID to that process.
//
// A receive chooses one control slot among the messages of its UID in the
// requested state (pending, or put back for retry), copies the message and
// its dependent data into the caller's record and buffer, and marks the slot
// WQCF_Received, written through to the control file. Pending messages are
// waited for in steps of 250 ms up to the caller's limit; messages put back
// for retry are taken without waiting, WQCF_Retry before WQCF_Delayed_Retry.
// The order (oldest or newest first) comes from the receiver's first
// registration; an optional filter may refuse candidates. This file also owns
// _SearchMSGID, the lookup of a slot by message ID that Delete, Reject and
// Retry use.
//
// Locks: only the Controls lock is taken here. Each pass (_Receive) takes it
// itself, even inside a nested call, and holds it for every look at the
// table, the data read, the copy and the filter call; it lets go only for
// each 250 ms sleep (cut short by a wake-up with WM_WakeReceivers). It guards the control slots and
// nQSlotCount, the registry entries and nPRLSlotCount, and the control and data files. Because
// another process may grow and move the Queues and PRLs segments while the
// lock is free, and the name lookups of the trace lines re-attach them too,
// slots are held by index (nRecvCslot) and re-derived from pWQCF after every
// such call; _GetPointers runs again after each sleep. nRecvCslot and
// bMsgAvail belong to the object, which one thread uses at a time.
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const long kNoBoundLIFO = 0x7FFFFFFFL; // exclusive bounds: IDs 1 to 0x7FFFFFFE
const long kNoBoundFIFO = 0L;
const long kStepUsecs = 250000L; // one look, then one sleep, per step
const long kSlotsPerPage = 4096 / static_cast<long>(sizeof(_WQCF_));

// Type range: no upper bound passes every type, whatever the lower bound;
// otherwise both bounds are inclusive and a lower bound of -1 is open.
bool InTypeRange(long nMsgNo, long nMsgNoLo, long nMsgNoHi) {
    if (nMsgNoHi == -1) return true;
    return nMsgNo <= nMsgNoHi && (nMsgNoLo == -1 || nMsgNo >= nMsgNoLo);
}
} // namespace

long CWorkMessages::Receive(long nUID, long nMaxWait, WorkMsg* wMsg, bool bRetry,
                            bool (*Filter)(void*)) {
    _RecordCaller();
    _TraceEntry("Receive");
    // Retry passes: WQCF_Retry first; WQCF_Delayed_Retry only when nothing
    // was there to retry. Each pass locks for itself, so others may act
    // between them.
    long nResult =
        _Receive(nUID, nMaxWait, wMsg, -1, -1, bRetry ? WQCF_Retry : WQCF_Pending, Filter);
    if (bRetry && nResult == M_NONE)
        nResult = _Receive(nUID, nMaxWait, wMsg, -1, -1, WQCF_Delayed_Retry, Filter);
    return _Return(nResult);
}

long CWorkMessages::ReceiveByMsg(long nUID, long nMaxWait, WorkMsg* wMsg, long nMsgNoLo,
                                 long nMsgNoHi, bool bRetry, bool (*Filter)(void*)) {
    _RecordCaller();
    _TraceEntry("ReceiveByMsg");
    long nResult = _Receive(nUID, nMaxWait, wMsg, nMsgNoLo, nMsgNoHi,
                            bRetry ? WQCF_Retry : WQCF_Pending, Filter);
    if (bRetry && nResult == M_NONE)
        nResult = _Receive(nUID, nMaxWait, wMsg, nMsgNoLo, nMsgNoHi, WQCF_Delayed_Retry, Filter);
    return _Return(nResult);
}

long CWorkMessages::_Receive(long nUID, long nMaxWait, WorkMsg* wMSG, long nMsgNoLo, long nMsgNoHi,
                             WQCFstates ctlState, bool (*Filter)(void*)) {
    _TraceEntry("_Receive");
    // A missing record is the caller's fault that no other code names: the
    // general failure code with a text that says so; nothing is touched.
    if (wMSG == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: Receive needs a message record (null given)");
        return M_SYSERR;
    }
    const bool bRetryPass = ctlState != WQCF_Pending;
    long nCurrentMessage = -1;
    // Any negative wait waits without limit, like -1: counted down in 32 bits
    // it would take about two years of steps to run out anyway. The budget is
    // counted in 64-bit microseconds, so no positive wait wraps; one too long
    // for that (about 292000 years) is without limit too.
    const bool bForever = nMaxWait < 0 || nMaxWait > INT64_MAX / 1000000;
    int64_t nWaitUsecs = bForever ? 0 : static_cast<int64_t>(nMaxWait) * 1000000;

    if (!_GetControlsLock(nLockTimeOut)) return M_LOCK;

    if (bTrace) {
        const std::string strName = _ProcessName(nUID);
        _Trace("Receive request for msg %ld -> %ld from %s. Retry:%s", nMsgNoLo, nMsgNoHi,
               strName.c_str(), qvwm::TF(bRetryPass));
    }

    // Only a UID with at least one registration, for any type and by any
    // process, is a receiver; any other gets M_ILSEQ before anything is read.
    long nResult = _GetPointers();
    if (nResult == M_OK && _SearchPRL(nUID, -1) == nullptr) nResult = M_ILSEQ;
    if (nResult != M_OK) {
        _FreeControlsLock(true);
        return nResult;
    }

    // The capacity is compared with each message's length as given: a
    // negative one is short of every message, which then answers M_TOOBIG
    // with the length it needs (0 for a message without data). A caller
    // without a buffer can take no data: its capacity counts as 0 at most,
    // so nothing is ever written through a null pointer.
    const long nCapacity = wMSG->pDepData == nullptr && wMSG->nDepDataLength > 0
                               ? 0
                               : static_cast<long>(wMSG->nDepDataLength);

    int nOrder = -1; // 1 newest first, 0 oldest first, -1 not looked yet
    bMsgAvail = false;
    // The test comes before each look: a wait of 0 never looks, a wait of
    // 1 s looks four times (at about 0, 0.25, 0.5 and 0.75 s).
    while (!bMsgAvail && (bForever || nWaitUsecs > 0)) {
        nResult = _GetPointers();
        if (nResult != M_OK) break;

        // The order is that of the receiver's first registration, whatever
        // type it names. If every registration vanished while the pass slept,
        // the receiver is no longer one: the wait ends as it would have begun.
        const _PRL_CTL_* pFirst = _SearchPRL(nUID, -1);
        if (pFirst == nullptr) {
            nResult = M_ILSEQ;
            break;
        }
        const int nNewOrder = pFirst->bUseLIFO ? 1 : 0;
        // A registration that changes the order between two looks restarts
        // the scan from that order's end, so the wait still finds messages.
        if (nOrder != -1 && nNewOrder != nOrder) nCurrentMessage = -1;
        nOrder = nNewOrder;
        if (nOrder == 1) {
            if (nCurrentMessage == -1) nCurrentMessage = kNoBoundLIFO;
            nRecvCslot = _GetNextMessage_R(nUID, ctlState, nMsgNoLo, nMsgNoHi, nCurrentMessage);
        } else {
            if (nCurrentMessage == -1) nCurrentMessage = kNoBoundFIFO;
            nRecvCslot = _GetNextMessage(nUID, ctlState, nMsgNoLo, nMsgNoHi, nCurrentMessage);
        }

        if (nRecvCslot < 0) {
            // Messages put back for retry are there or not: no waiting.
            if (bRetryPass) {
                _Trace("Receive request completed. No retryable messages");
                nResult = M_NONE;
                break;
            }
            // The lock is free only for the sleep; time spent waiting for it
            // again does not count against the budget. The sleep is one step,
            // or less when a message is announced (WM_WakeReceivers) after
            // this look.
            const int32_t nSeenSeq = _WakeSeq();
            _FreeControlsLock(true);
            const long nSlept = _WaitStep(kStepUsecs, nSeenSeq);
            if (!_GetControlsLock(nLockTimeOut)) {
                nResult = M_LOCK;
                break;
            }
            if (!bForever) nWaitUsecs -= nSlept;
            continue;
        }

        // The candidate: the caller's record gets its fields, its slot the
        // time of this delivery: nTimePosted for a first delivery, nTimeRetry
        // (with the flags Retry stored) for a retry delivery. The slot keeps
        // the stamp even if the candidate is then refused or too big; it
        // reaches the file with the slot's next write.
        const time_t tNow = time(nullptr);
        _WQCF_& slot = pWQCF[nRecvCslot];
        wMSG->nMessageID = slot.nMessageID;
        wMSG->nTargetUID = nUID;
        wMSG->nSenderUID = slot.nSenderUID;
        wMSG->nMsgNo = slot.nMsgNo;
        wMSG->nTimeSent = slot.nTimeSent;
        if (bRetryPass) {
            wMSG->nUserFlags = slot.nUserFlags;
            slot.nTimeRetry = static_cast<int32_t>(tNow);
            wMSG->nTimeRetry = tNow;
            wMSG->nTimePosted = slot.nTimePosted; // the first delivery stays
        } else {
            slot.nTimePosted = static_cast<int32_t>(tNow);
            wMSG->nTimePosted = tNow;
        }
        const long nCandidateID = slot.nMessageID;
        const long nDataSlot = slot.nDepDataSlot;
        const long nDataLength = slot.nDepDataLength;

        // Too small a buffer: the caller learns the needed length and the
        // message keeps waiting for a second call with a bigger one.
        if (nCapacity < nDataLength) {
            wMSG->nDepDataLength = nDataLength;
            nResult = M_TOOBIG;
            break;
        }

        if (nDataSlot != -1) {
            // A slot number outside the data store comes only from a damaged
            // control file; it is never read, so no read lands elsewhere.
            if (!qvwm::IsDataSlot(nDataSlot)) {
                _Failedf(M_SYSERR, EINVAL, "Dependent Data slot %ld of message %.08X is invalid",
                         nDataSlot, static_cast<unsigned int>(nCandidateID));
                nResult = M_SYSERR;
                break;
            }
            pByteInt pBlock = _ReadWDDF(static_cast<int>(nDataSlot));
            if (pBlock == nullptr) {
                nResult = nLastError;
                break;
            }
            // The block is zero-padded behind the data: a buffer larger than
            // the data gets the data followed by zero bytes, up to 8192.
            const long nCopy = nCapacity < WM_MAX_DEPDATA ? nCapacity : WM_MAX_DEPDATA;
            if (nCopy > 0) memcpy(wMSG->pDepData, pBlock, static_cast<size_t>(nCopy));
            free(pBlock);
        }

        // A refused candidate keeps its state; the search goes on past it at
        // once, without a sleep and without using the budget.
        if (Filter != nullptr && !Filter(wMSG->pDepData)) {
            nCurrentMessage = nCandidateID;
            continue;
        }

        pWQCF[nRecvCslot].nflag = WQCF_Received;
        nResult = _UpdateWQCF(nRecvCslot, false);
        bMsgAvail = true;
        if (bTrace && nResult == M_OK) {
            // The name lookup may move the table: the address is read after it.
            const std::string strType = _TypeName(wMSG->nMsgNo);
            _Trace("Receive request completed. Msg:%s  Ctl slot:%.08lX[%ld],Data slot:%ld, Msg "
                   "ID:%.08X",
                   strType.c_str(), qvwm::Addr(pWQCF), nRecvCslot, nDataSlot,
                   static_cast<unsigned int>(nCandidateID));
        }
    }

    if (!bMsgAvail && nResult == M_OK) {
        _Trace("Receive request completed. Timeout");
        nResult = M_TIMEOUT;
    }
    // After M_LOCK the lock is not held: nothing to complain about.
    _FreeControlsLock(nResult != M_LOCK);
    return nResult;
}

long CWorkMessages::_GetNextMessage(long nUID, WQCFstates ctlState, long nMsgNoLo, long nMsgNoHi,
                                    long nCurrentMessage) {
    _TraceEntry("_GetNextMessage");
    if (!qvwm::Attached(pWQCF)) return M_NONE;
    _PrefaultQueues(); // every slot in use is read
    // Oldest first: the smallest ID above the bound; on equal IDs the lower
    // slot wins. IDs compare as signed 32-bit numbers, both bounds exclusive.
    long nBest = kNoBoundLIFO;
    long nFound = M_NONE;
    const long nEnd = _ScanEnd();
    for (long i = 0; i < nEnd; ++i) {
        const _WQCF_& slot = pWQCF[i];
        const long nID = slot.nMessageID;
        if (slot.nflag == ctlState && slot.nTargetUID == nUID && nCurrentMessage < nID &&
            nID < nBest && InTypeRange(slot.nMsgNo, nMsgNoLo, nMsgNoHi)) {
            nBest = nID;
            nFound = i;
        }
    }
    return nFound;
}

long CWorkMessages::_GetNextMessage_R(long nUID, WQCFstates ctlState, long nMsgNoLo, long nMsgNoHi,
                                      long nCurrentMessage) {
    _TraceEntry("_GetNextMessage_R");
    if (!qvwm::Attached(pWQCF)) return M_NONE;
    _PrefaultQueues(); // every slot in use is read
    // Newest first: the largest ID below the bound; on equal IDs the higher
    // slot wins.
    long nBest = kNoBoundFIFO;
    long nFound = M_NONE;
    for (long i = _ScanEnd() - 1; i >= 0; --i) {
        const _WQCF_& slot = pWQCF[i];
        const long nID = slot.nMessageID;
        if (slot.nflag == ctlState && slot.nTargetUID == nUID && nBest < nID &&
            nID < nCurrentMessage && InTypeRange(slot.nMsgNo, nMsgNoLo, nMsgNoHi)) {
            nBest = nID;
            nFound = i;
        }
    }
    return nFound;
}

long CWorkMessages::_SearchMSGID(long nMID) {
    _TraceEntry("_SearchMSGID");
    if (nMID == 0) return M_MSGID; // no message holds ID 0
    const long nAttach = _GetPointers();
    if (nAttach != M_OK) return nAttach;

    long nFound = M_MSGID;
    const long nEnd = _ScanEnd();
    for (long i = 0; i < nEnd; ++i) {
        // A search that goes past the first page may read the whole table:
        // its pages are mapped in one go rather than one fault at a time.
        if (i == kSlotsPerPage) _PrefaultQueues();
        if (pWQCF[i].nflag != WQCF_Available && pWQCF[i].nMessageID == nMID) {
            nFound = i;
            break;
        }
    }
    _Trace("_SearchMSGID(%.08X) %.08lX[%ld]->%.08X", static_cast<unsigned int>(nMID),
           qvwm::Addr(pWQCF), nFound,
           nFound >= 0 ? static_cast<unsigned int>(pWQCF[nFound].nMessageID) : 0u);
    return nFound;
}
