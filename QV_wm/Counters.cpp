// GetCounters: counts the messages of the shared control table into rows
// that the caller provides: by message type, by state, by type and state, and
// by target or sender process.
//
// The counts are a snapshot. The Controls lock is held only while the
// per-call segments are re-attached and the slot count is read; the slots are
// then read without it, so a slot that changes meanwhile may be counted in
// its old or its new state. Nothing shared and no file is written here.
//
// Locks: only the Controls lock, and only around _GetPointers and the reads of
// nQSlotCount and the high-water mark (unless the call is nested in an operation that holds it).
// The process lookups of the by-process overload (GetUID) take and release it themselves, one row
// at a time. The table is never read past the slot count taken under the lock: another process may
// grow the table meanwhile, which raises nQSlotCount and publishes a larger segment, while this
// object still has the smaller one attached. Segments only grow while the shared state exists, so
// every later attachment (GetUID re-attaches) holds at least as many slots as the count taken here.
#include <cstring>

#include "Internal.h"
#include "WorkMessages.h"

namespace {

// A row's name as a string of at most its field's length: a caller that
// fills all nine bytes without a NUL gets a name that does not match, and no
// lookup reads past the row.
template <size_t N> struct RowName {
    explicit RowName(const char (&szField)[N]) {
        const size_t nLength = strnlen(szField, N);
        memcpy(szName, szField, nLength);
        szName[nLength] = '\0';
    }
    char szName[N + 1];
};

// The common scheme of the overloads with named rows. For each row up to the
// first one with an empty name: lookup(name) gives the row's number; a number
// below 1 (unknown name, failed lookup, or a stored number of 0 or below)
// marks the row with -1 through markFailed(row) and makes the result
// M_PARTIAL; otherwise every slot in use for which match(slot, number) holds
// is added to the row by add(row, slot). table() gives the table attached at
// that moment (a lookup may have re-attached it), or null when none is.
template <size_t N, class Row, class Name, class Lookup, class Table, class Match, class Add,
          class MarkFailed>
long CountRows(Row* pRows, long nSlots, Name name, Lookup lookup, Table table, Match match, Add add,
               MarkFailed markFailed) {
    long nResult = M_OK;
    bool bAllEmpty = true;
    for (Row* pRow = pRows; name(*pRow)[0] != '\0'; ++pRow) {
        const long nNumber = lookup(RowName<N>(name(*pRow)).szName);
        if (nNumber < 1) {
            markFailed(*pRow);
            nResult = M_PARTIAL;
            continue;
        }
        const _WQCF_* pTable = table();
        if (pTable == nullptr) continue;
        for (long i = 0; i < nSlots; ++i) {
            const _WQCF_& slot = pTable[i];
            if (slot.nflag == WQCF_Available || !match(slot, nNumber)) continue;
            add(*pRow, slot);
            bAllEmpty = false;
        }
    }
    // Nothing counted (also: no row at all) says more than a partial result.
    return bAllEmpty ? static_cast<long>(M_NONE) : nResult;
}

} // namespace

// The common entry of the four overloads: records the caller, refuses a null
// array, takes the lock, re-attaches and reads the slot count (*pnSlots) and
// the high-water mark (*pnEnd: no slot at or above it was in use) once, under
// the lock, with the attachment they belong to; then releases the lock, so that the
// counting runs without it. A null array is a caller's fault with no code of
// its own: it is refused with the general failure code and a text, before any
// lock, and nothing is touched (the "nothing counted" answer M_NONE would
// hide the mistake).
long CWorkMessages::_CountersEntry(const void* lpCounts, long* pnSlots, long* pnEnd) {
    _RecordCaller();
    _TraceEntry("GetCounters");
    if (lpCounts == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: GetCounters needs an array of counter rows (null given)");
        return M_SYSERR;
    }
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return M_LOCK;
    const long nResult = _GetPointers();
    *pnSlots = nResult == M_OK ? pSMCtlrs->nQSlotCount : 0;
    *pnEnd = nResult == M_OK ? _ScanEnd() : 0;
    if (!bInternalCall) _FreeControlsLock(true);
    return nResult;
}

long CWorkMessages::GetCounters(lpCountByTypes lpCounts) {
    long nSlots = 0, nEnd = 0;
    long nResult = _CountersEntry(lpCounts, &nSlots, &nEnd);
    if (nResult != M_OK) return _Return(nResult);

    const _WQCF_* pTable = pWQCF;
    nResult = CountRows<sizeof(lpCounts->MsgID)>(
        lpCounts, nEnd, [](const __GET_COUNTERS__ENTRY1& r) -> const char(&)[9] { return r.MsgID; },
        [this](const char* szName) { return _TypeNumber(szName); }, [pTable] { return pTable; },
        [](const _WQCF_& slot, long nMsgNo) { return slot.nMsgNo == nMsgNo; },
        [](__GET_COUNTERS__ENTRY1& r, const _WQCF_&) { ++r.Counter; },
        [](__GET_COUNTERS__ENTRY1& r) { r.Counter = -1; });
    return _Return(nResult);
}

long CWorkMessages::GetCounters(lpCountByStates lpCounts) {
    long nSlots = 0, nEnd = 0;
    const long nResult = _CountersEntry(lpCounts, &nSlots, &nEnd);
    // Rows the call could not reach stay untouched; once the lock was had,
    // the counters are set, to zero if the table could not be attached.
    if (nResult == M_LOCK || lpCounts == nullptr) return _Return(nResult);
    for (long& nCounter : lpCounts->Counter)
        nCounter = 0;
    if (nResult != M_OK) return _Return(nResult);

    const long nStates = static_cast<long>(sizeof(lpCounts->Counter) / sizeof(long));
    // Every slot from the high-water mark up was free.
    lpCounts->Counter[WQCF_Available] = nSlots - nEnd;
    for (long i = 0; i < nEnd; ++i) {
        // One read of the state: the slot may change while it is counted.
        const long nState = pWQCF[i].nflag;
        // The library stores only the states 0 to 4; a slot with another
        // value (a damaged control file loaded unchanged) has no counter and
        // is left out, so only then the five do not add up to the slot count.
        if (nState < nStates) ++lpCounts->Counter[nState];
    }
    return _Return(M_OK);
}

long CWorkMessages::GetCounters(lpCountByTsAndSs lpCounts) {
    long nSlots = 0, nEnd = 0;
    long nResult = _CountersEntry(lpCounts, &nSlots, &nEnd);
    if (nResult != M_OK) return _Return(nResult);

    const _WQCF_* pTable = pWQCF;
    nResult = CountRows<sizeof(lpCounts->MsgID)>(
        lpCounts, nEnd, [](const __GET_COUNTERS__ENTRY3& r) -> const char(&)[9] { return r.MsgID; },
        [this](const char* szName) { return _TypeNumber(szName); }, [pTable] { return pTable; },
        [](const _WQCF_& slot, long nMsgNo) { return slot.nMsgNo == nMsgNo; },
        [](__GET_COUNTERS__ENTRY3& r, const _WQCF_& slot) {
            ++r.TotalCount;
            // Counter[0] is WQCF_Pending. A state outside 1 to 4 (only in a
            // damaged table) is counted in the total alone.
            const long nIndex = static_cast<long>(slot.nflag) - WQCF_Pending;
            if (nIndex >= 0 && nIndex < static_cast<long>(sizeof(r.Counter) / sizeof(long)))
                ++r.Counter[nIndex];
        },
        [](__GET_COUNTERS__ENTRY3& r) { r.TotalCount = -1; });
    return _Return(nResult);
}

long CWorkMessages::GetCounters(lpCountByUID lpCounts, bool bTargets) {
    long nSlots = 0, nEnd = 0;
    long nResult = _CountersEntry(lpCounts, &nSlots, &nEnd);
    if (nResult != M_OK) return _Return(nResult);

    // Each GetUID re-attaches the Queues segment (it runs _GetPointers), so
    // the table is taken from pWQCF after every lookup, never kept across one.
    nResult = CountRows<sizeof(lpCounts->UID)>(
        lpCounts, nEnd, [](const __GET_COUNTERS__ENTRY4& r) -> const char(&)[9] { return r.UID; },
        [this](const char* szName) { return _ProcessNumber(szName); },
        [this]() -> const _WQCF_* { return qvwm::Attached(pWQCF) ? pWQCF : nullptr; },
        [bTargets](const _WQCF_& slot, long nUID) {
            return (bTargets ? slot.nTargetUID : slot.nSenderUID) == nUID;
        },
        [](__GET_COUNTERS__ENTRY4& r, const _WQCF_&) { ++r.Counter; },
        [](__GET_COUNTERS__ENTRY4& r) { r.Counter = -1; });
    return _Return(nResult);
}
