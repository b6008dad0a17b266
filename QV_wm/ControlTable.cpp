// The control table: one 64-byte control slot per queued message, in the
// Queues segment that every process of the host shares, written through to
// the control file WQCF.bdb so that the queues outlive the shared memory.
//
// The file is a 64-byte header (slot count, next message ID) followed by one
// record per slot; slot i lies at offset 64 * (i + 1), and a record missing
// at the end stands for a free slot. The first constructor rebuilds the table
// from the file (optionally dropping free slots and received messages);
// every later change of a slot rewrites the header and that slot's record.
//
// Slots are taken lowest first, and two words of the Controls segment keep
// bounds of what the table holds (see kCtlSlotHighWater and kCtlTopMessageID
// in WorkMessages.h): every scan stops at the high-water mark, and Send skips
// its check for an ID in use when the new ID is above the top one. Both are
// raised before a slot is written through (_NoteSlot, from _UpdateWQCF,
// which every change of a slot goes through), lowered when the top slot is
// cleared, and rebuilt by the loader.
//
// The table grows by 128 slots when Send finds none free. Growth replaces the
// segment and publishes the new handle in the Controls segment; every process
// compares that handle with the segment it has mapped at the start of each
// operation (_GetPointers) and attaches the new one when they differ. By
// default the mapping goes at the end of each call (_Return); with the host
// setting WM_KeepAttached it stays until a call finds the handle changed.
//
// Locks: nothing here takes a lock. Every function runs while the calling
// thread holds the Controls lock, which guards the Queues segment, the
// fields nQueuesHandle, nQSlotCount, nMsgCounter, nLastCleanup and nXtnRate
// of the Controls segment, the words kCtlSlotHighWater and kCtlTopMessageID,
// and the control file. The object's header buffer
// (pQctl) and pWQCFile belong to the object.
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const long kRecordSize = sizeof(_WQCF_);
const long kInitialSlots = 512;
const long kGrowthSlots = 128;
// The most slots a table or a control file may have (see WM_MAX_SLOTS).
// Growth stops here too, so the library never writes a header that its own
// loader would refuse.
const long kMaxSlots = WM_MAX_SLOTS;
const int32_t kFirstMsgID = 0x40000000;
const int kShmCreate = IPC_CREAT | 0666;
// Records checked per read when looking past the header's slot count.
const long kScanChunk = 512;

size_t TableBytes(long nSlots) {
    return static_cast<size_t>(nSlots) * kRecordSize;
}

long SlotOffset(long nSlot) {
    return (nSlot + 1) * kRecordSize;
}

// Slot count of the table after a cleaning load that kept nKept messages.
long CleanedCount(long nKept) {
    return nKept < kInitialSlots ? kInitialSlots : (nKept / kGrowthSlots + 1) * kGrowthSlots;
}

// What is wrong with a stored record that is in use, or null when it can be
// loaded. A message with an unknown state or a data reference outside the
// data store cannot be delivered or deleted correctly; loading it would have
// later operations read or free the wrong data. The library never writes
// such a record, so no crash leaves one; wmctl fsck --repair clears it.
const char* RecordFault(const _WQCF_& rec, long& nValue) {
    if (rec.nflag >= WQCF_Last) {
        nValue = rec.nflag;
        return "an unknown state";
    }
    // Send gives IDs from 1 to 0x7FFFFFFE, the only ones a receive selects;
    // Delete refuses 0 (DeleteBy would stop at such a message every time).
    if (rec.nMessageID < 1 || rec.nMessageID > 0x7FFFFFFE) {
        nValue = rec.nMessageID;
        return "a message ID outside 1 to 0x7FFFFFFE";
    }
    if (rec.nDepDataSlot < -1 || rec.nDepDataSlot > 65535) {
        nValue = rec.nDepDataSlot;
        return "a dependent data slot outside -1 to 65535";
    }
    if (rec.nDepDataLength < 0 || rec.nDepDataLength > WM_MAX_DEPDATA) {
        nValue = rec.nDepDataLength;
        return "a dependent data length outside 0 to 8192";
    }
    return nullptr;
}

// True when no two messages in use hold one message ID or one data slot;
// otherwise false, with their slots and what they share. Delete, Reject and
// Retry take the first message with an ID, whichever was meant; deleting one
// of two messages with one data slot frees the other's data for the next
// message to overwrite.
bool NothingShared(const _WQCF_* pTable, long nCount, long& nFirst, long& nSecond,
                   const char*& szWhat, long& nValue) {
    std::vector<std::pair<long, long>> ids, data; // (value, slot)
    for (long i = 0; i < nCount; ++i) {
        if (pTable[i].nflag == WQCF_Available) continue;
        ids.emplace_back(pTable[i].nMessageID, i);
        if (pTable[i].nDepDataSlot != -1) data.emplace_back(pTable[i].nDepDataSlot, i);
    }
    for (auto* v : {&ids, &data}) {
        std::sort(v->begin(), v->end());
        for (size_t k = 1; k < v->size(); ++k) {
            if ((*v)[k].first != (*v)[k - 1].first) continue;
            nFirst = (*v)[k - 1].second;
            nSecond = (*v)[k].second;
            nValue = (*v)[k].first;
            szWhat = v == &ids ? "message ID" : "dependent data slot";
            return false;
        }
    }
    return true;
}

// The image of a new control file after its header: 512 free slots.
const char kNewFileSlots[kInitialSlots * kRecordSize] = {};
} // namespace

long CWorkMessages::_GetPointers() {
    _TraceEntry("_GetPointers");
    if (!qvwm::Attached(pSMCtlrs)) {
        _Failed(M_SHMERR, "Failed to update shared-memory Queues pointer", EINVAL);
        return M_SHMERR;
    }

    // The handle may name a new segment: a mapping of any other segment is
    // detached before the current one is attached, so no replaced table
    // stays mapped here. A mapping that is still current is kept: attaching
    // it again would cost a map, an unmap and a page fault per page touched,
    // and give the same bytes.
    void* pOld = pWQCF;
    if (!qvwm::MapSegment(pWQCF, pQueuesMap, nQueuesMapHandle, pSMCtlrs->nQueuesHandle,
                          &bQueuesFresh)) {
        _Failed(M_SHMERR, "Failed to update shared-memory Queues pointer", -1);
        return M_SHMERR;
    }
    if (pOld != nullptr && pOld != pWQCF)
        _Trace("Queues were relocated: Old:%.08lX,  New:%.08lX", qvwm::Addr(pOld),
               qvwm::Addr(pWQCF));

    pOld = pPRLL;
    if (!qvwm::MapSegment(pPRLL, pPRLMap, nPRLMapHandle, pSMCtlrs->nPRListHandle, nullptr)) {
        _Failed(M_SHMERR, "Failed to update shared-memory PRL pointer", -1);
        return M_SHMERR;
    }
    if (pOld != nullptr && pOld != pPRLL)
        _Trace("PRLs were relocated: Old:%.08lX,  New:%.08lX", qvwm::Addr(pOld), qvwm::Addr(pPRLL));
    return M_OK;
}

void CWorkMessages::_PrefaultQueues() {
#ifdef MADV_POPULATE_READ
    if (!bQueuesFresh || !qvwm::Attached(pWQCF)) return;
    bQueuesFresh = false;
    // A new mapping has no page tables: a scan of the slots in use takes one
    // fault per page, a microsecond or more each. One call maps them all for
    // a fraction of that, and a scan that stays on one page needs none. A
    // kernel older than 5.14 refuses the advice, and the scan then faults the
    // pages in as before.
    const size_t nBytes = TableBytes(_ScanEnd());
    if (nBytes > 4096) madvise(pWQCF, nBytes, MADV_POPULATE_READ);
#endif
}

long CWorkMessages::_ScanEnd() const {
    const long nCount = pSMCtlrs->nQSlotCount;
    const long nMark = qvwm::LoadWord(pSMCtlrs->Reserved[kCtlSlotHighWater]);
    // A mark outside the table (a segment whose words were never set) bounds
    // nothing: the whole table is scanned.
    return nMark >= 0 && nMark <= nCount ? nMark : nCount;
}

void CWorkMessages::_NoteSlot(long nSlot) {
    int32_t& nMark = pSMCtlrs->Reserved[kCtlSlotHighWater];
    int32_t& nTopID = pSMCtlrs->Reserved[kCtlTopMessageID];
    const _WQCF_& slot = pWQCF[nSlot];
    // A message written in a state that a receive takes is announced to
    // waiting receivers once the lock is released (Wake.cpp).
    if (slot.nflag == WQCF_Pending || slot.nflag == WQCF_Retry || slot.nflag == WQCF_Delayed_Retry)
        bAnnounce = bWakeReceivers;
    if (slot.nflag != WQCF_Available) {
        if (nSlot >= _ScanEnd()) qvwm::StoreWord(nMark, static_cast<int32_t>(nSlot + 1));
        if (slot.nMessageID > qvwm::LoadWord(nTopID)) qvwm::StoreWord(nTopID, slot.nMessageID);
        return;
    }
    // Clearing the top slot in use: the mark goes down past the free slots
    // below it. An empty table holds no ID, so IDs rise unchecked again.
    long nEnd = _ScanEnd();
    if (nSlot + 1 != nEnd) return;
    while (nEnd > 0 && pWQCF[nEnd - 1].nflag == WQCF_Available)
        --nEnd;
    qvwm::StoreWord(nMark, static_cast<int32_t>(nEnd));
    if (nEnd == 0) qvwm::StoreWord(nTopID, 0);
}

void CWorkMessages::_RebuildMarks() {
    long nEnd = 0;
    int32_t nTopID = 0;
    for (long i = 0; i < pSMCtlrs->nQSlotCount; ++i) {
        if (pWQCF[i].nflag == WQCF_Available) continue;
        nEnd = i + 1;
        if (pWQCF[i].nMessageID > nTopID) nTopID = pWQCF[i].nMessageID;
    }
    qvwm::StoreWord(pSMCtlrs->Reserved[kCtlSlotHighWater], static_cast<int32_t>(nEnd));
    qvwm::StoreWord(pSMCtlrs->Reserved[kCtlTopMessageID], nTopID);
}

long CWorkMessages::_GetWQCFSlot() {
    _TraceEntry("_GetWQCFSlot");
    if (!qvwm::Attached(pWQCF)) {
        _Failed(M_SHMERR, "Failed to update shared-memory Queues pointer", EINVAL);
        return M_SHMERR;
    }
    // The lowest free slot: one below the high-water mark, or the mark itself.
    const long nEnd = _ScanEnd();
    for (long i = 0; i < nEnd; ++i) {
        if (pWQCF[i].nflag == WQCF_Available) return i;
    }
    if (nEnd < pSMCtlrs->nQSlotCount) return nEnd;
    return _ResizeWQCF(kGrowthSlots, false);
}

long CWorkMessages::_ResizeWQCF(long nSize, bool bCountNotIncr) {
    _Trace("Queues resize/relocation started: Old:%.08lX, Incr: %ld", qvwm::Addr(pWQCF), nSize);
    const long nOldCount = pSMCtlrs->nQSlotCount;
    const long nNewCount = bCountNotIncr ? nSize : nOldCount + nSize;
    if (!qvwm::Attached(pWQCF)) {
        _Failed(M_SHMERR, "Failed to update shared-memory Queues pointer", EINVAL);
        return M_SHMERR;
    }
    // The table keeps every slot index for its life, so it never shrinks; and
    // it stops at the count that the loader accepts.
    if (nNewCount < nOldCount || nNewCount > kMaxSlots) {
        _Failedf(M_SYSERR, ENOSPC, "Queues can't be resized from %ld to %ld slots (at most %ld)",
                 nOldCount, nNewCount, kMaxSlots);
        return nLastError;
    }

    // The buffer has the new size: copied whole into the new segment, it also
    // clears the new slots.
    void* pSaved = calloc(static_cast<size_t>(nNewCount), kRecordSize);
    if (pSaved == nullptr) {
        _Failedf(M_SYSERR, -1,
                 "Failed to allocate %d bytes of memory for Queues resize/reallocation",
                 static_cast<int>(TableBytes(nNewCount)));
        return nLastError;
    }
    auto freeSaved = qvwm::OnScopeExit([pSaved] { free(pSaved); });
    memcpy(pSaved, static_cast<const void*>(pWQCF), TableBytes(nOldCount));

    long nResult = nOldCount;
    const long nAlloc = _AllocateQueues(nNewCount, true);
    if (nAlloc != M_OK) {
        nResult = nAlloc;
    } else {
        memcpy(static_cast<void*>(pWQCF), pSaved, TableBytes(nNewCount));
        const long nUpdate = _UpdateWQCF(-1, false);
        if (nUpdate != M_OK) nResult = nUpdate;
    }
    _Trace("Queues resize/relocation completed: New:%.08lX", qvwm::Addr(pWQCF));
    return nResult;
}

long CWorkMessages::_AllocateQueues(long nCount, bool bRealloc) {
    _TraceEntry("_AllocateQueues");
    if (bRealloc) {
        _Trace("Relocating Queues. Old count:%ld  New count:%ld",
               static_cast<long>(pSMCtlrs->nQSlotCount), nCount);
        // Removing frees the key at once; processes still attached to the old
        // segment keep it until they detach at the end of their call (or,
        // with WM_KeepAttached, at their next call).
        if (qvwm::Attached(pWQCF)) shmdt(pWQCF);
        if (pSMCtlrs->nQueuesHandle >= 0) shmctl(pSMCtlrs->nQueuesHandle, IPC_RMID, nullptr);
    } else if (qvwm::Attached(pWQCF)) {
        // Attaching the same segment again must not leave the earlier
        // attachment mapped for the life of the process.
        shmdt(pWQCF);
    }
    // The mapping just detached may be the one _GetPointers keeps.
    if (pQueuesMap == pWQCF) pQueuesMap = nullptr;
    pWQCF = nullptr;

    const int nId = shmget(cstWMQueuesSHMKey, TableBytes(nCount), kShmCreate);
    pSMCtlrs->nQueuesHandle = nId;
    if (nId < 0) {
        _Failed(M_SHMERR, "Failed to get create handle for shared-memory Queues", -1);
        return M_SHMERR;
    }
    void* p = shmat(nId, nullptr, 0);
    if (p == qvwm::ShmFailed()) {
        const int nErr = errno;
        // A replacement that no process can attach would be taken for the
        // table by every other process; without it they fail in _GetPointers
        // until the state is rebuilt from the control file.
        if (bRealloc) {
            shmctl(nId, IPC_RMID, nullptr);
            pSMCtlrs->nQueuesHandle = -1;
        }
        _Failed(M_SHMERR, "Failed to attach shared-memory Queues", nErr);
        return M_SHMERR;
    }
    pWQCF = static_cast<pWQControl>(p);
    pSMCtlrs->nQSlotCount = static_cast<int32_t>(nCount);
    return M_OK;
}

long CWorkMessages::_UpdateWQCF(long nSlot, bool bClean) {
    _TraceEntry("_UpdateWQCF");
    // A slot outside the table would write bytes from beyond the segment
    // into the file; refuse before the file is touched.
    if (nSlot >= 0 && (!qvwm::Attached(pWQCF) || nSlot >= pSMCtlrs->nQSlotCount)) {
        _Failedf(M_LOGIC, EINVAL,
                 "Slot %ld is outside the Queues table of %ld slots; %s not written", nSlot,
                 static_cast<long>(pSMCtlrs->nQSlotCount), strWQCFFilename.c_str());
        return nLastError;
    }

    // The bounds follow the slot in shared memory, also when the file below
    // can't be written: the slot is in the table either way.
    if (nSlot >= 0) _NoteSlot(nSlot);

    if (bClean) {
        // Truncating may create the file: a stream of its own, never kept.
        _CloseFile(&pWQCFile);
        pWQCFile = qvwm::OpenDbFile(strWQCFFilename.c_str(), "w");
    } else {
        _OpenDbFile(&pWQCFile, strWQCFFilename);
    }
    if (pWQCFile == nullptr) {
        _Failedf(M_SYSERR, -1, "Failed to open WQCF database: %s", strWQCFFilename.c_str());
        return nLastError;
    }
    pQctl->nEntriesAllocated = pSMCtlrs->nQSlotCount;
    pQctl->nCurrentMsgID = pSMCtlrs->nMsgCounter;
    // A failed write of the header is not reported: the header is written
    // again with every later change.
    qvwm::WriteAt(pWQCFile, pQctl, sizeof(_WQCF_CTL_), 0);

    bool bFailed = false;
    if (!bClean && nSlot >= 0 &&
        !qvwm::WriteAt(pWQCFile, &pWQCF[nSlot], sizeof(_WQCF_), SlotOffset(nSlot))) {
        _Failedf(M_SYSERR, -1, "Failed to write slot %ld into WQCF database: %s", nSlot,
                 strWQCFFilename.c_str());
        bFailed = true;
    }
    if (bClean)
        _CloseFile(&pWQCFile);
    else
        _DoneDbFile(&pWQCFile, bFailed);
    return bFailed ? M_SYSERR : M_OK;
}

bool CWorkMessages::_LoadAndCleanWQCF(bool bNoClean) {
    _Trace("Entering _LoadAndCleanWQCF(%s)", qvwm::TF(bNoClean));
    const char* szPath = strWQCFFilename.c_str();
    auto closeFile = qvwm::OnScopeExit([this] {
        _CloseFile(&pWQCFile);
        _Trace("Exiting _LoadAndCleanWQCF() Queues: %.08lX, MsgID: %.08X", qvwm::Addr(pWQCF),
               static_cast<unsigned int>(pSMCtlrs->nMsgCounter));
    });

    long nStored = 0;            // slots the header announces
    long nTable = kInitialSlots; // the table's count: the stored count, at least 512
    long nFileRecords = 0;       // slot records the file really holds
    bool bExisting = false;

    // Everything is checked before anything is written: a file that fails to
    // load stays exactly as it was, for repair by hand.
    pWQCFile = qvwm::OpenDbFile(szPath, "r+");
    if (pWQCFile != nullptr) {
        bExisting = true;
        struct stat st;
        if (fstat(fileno(pWQCFile), &st) != 0) {
            _Failedf(M_SYSERR, -1, "Failed to examine Message Queues Control File %s", szPath);
            return false;
        }
        const long long nSize = st.st_size;
        // A write cut short by a full disk or a crash (the header of a file
        // being created, the record of a slot beyond the old end) leaves a
        // file that ends inside a record. What is missing reads as zero: a
        // header cut short keeps the fields it holds, and a record cut short
        // is a free slot, as is every record missing at the end. No message
        // was complete in such a record, so nothing is lost by it; the
        // rewrite below replaces it with a whole one.
        if (nSize > SlotOffset(kMaxSlots)) {
            _Failedf(M_CTLFILE, EFBIG,
                     "Message Queues Control File %s is damaged: %lld bytes hold more than %ld "
                     "slots",
                     szPath, nSize, kMaxSlots);
            return false;
        }
        nFileRecords = nSize > kRecordSize ? static_cast<long>(nSize / kRecordSize) - 1 : 0;

        memset(pQctl, 0, sizeof(_WQCF_CTL_));
        if (fread(pQctl, 1, sizeof(_WQCF_CTL_), pWQCFile) < sizeof(_WQCF_CTL_) &&
            ferror(pWQCFile)) {
            _Failedf(M_SYSERR, -1, "Failed to read Message Queues Control File %s", szPath);
            return false;
        }
        nStored = pQctl->nEntriesAllocated;
        if (nStored < 0 || nStored > kMaxSlots) {
            _Failedf(M_CTLFILE, EINVAL,
                     "Message Queues Control File %s is damaged: its header gives %ld slots (0 to "
                     "%ld allowed); wmctl fsck --repair writes the count its records need",
                     szPath, nStored, kMaxSlots);
            return false;
        }
        if (nStored > nTable) nTable = nStored;
        pSMCtlrs->nMsgCounter = pQctl->nCurrentMsgID;
    } else if (errno == ENOENT) {
        // A new file: the header (512 slots, first message ID 0x40000000)
        // and 512 free slots.
        memset(pQctl, 0, sizeof(_WQCF_CTL_));
        pQctl->nEntriesAllocated = static_cast<int32_t>(kInitialSlots);
        pQctl->nCurrentMsgID = kFirstMsgID;
        pSMCtlrs->nMsgCounter = kFirstMsgID;
        pWQCFile = qvwm::OpenDbFile(szPath, "w");
        if (pWQCFile == nullptr) {
            _Failed(M_SYSERR, "Failed to create Message Queues Control File", -1);
            return false;
        }
        if (fwrite(pQctl, sizeof(_WQCF_CTL_), 1, pWQCFile) != 1 ||
            fwrite(kNewFileSlots, sizeof(kNewFileSlots), 1, pWQCFile) != 1) {
            // A fragment left here would be loaded, or refused, at the next
            // start; without it the next start creates the file again.
            const int nErr = errno;
            _CloseFile(&pWQCFile);
            unlink(szPath);
            _Failed(M_SYSERR, "Failed to create Message Queues Control File", nErr);
            return false;
        }
        _CloseFile(&pWQCFile);
        if (callerUID == 0 && chown(szPath, nUID, nGID) != 0) {
            _Failed(M_SYSERR, "Failed to set ownner of Message Queues Control File", -1);
            return false;
        }
    } else {
        // The file is there but can't be opened (permissions, a directory in
        // its place): fail rather than create an empty file over it.
        _Failed(M_SYSERR, "Failed to open Message Queues Control File", -1);
        return false;
    }

    // A cleaning load can end with more slots than it started with (512
    // messages kept give 640 slots). The segment is made large enough for the
    // most that cleaning can produce, so that the cleaned table always fits
    // the segment it was loaded into.
    const long nSegment = bExisting && !bNoClean ? std::max(nTable, CleanedCount(nStored)) : nTable;
    if (_AllocateQueues(nSegment, false) != M_OK) return false;
    // The key may have found a segment left over by a crash: start clean.
    memset(static_cast<void*>(pWQCF), 0, TableBytes(nSegment));
    pSMCtlrs->nQSlotCount = static_cast<int32_t>(nTable);

    if (bExisting) {
        // The records the header announces and the file holds; records
        // missing at the end are free slots.
        const long nRead = std::min(nStored, nFileRecords);
        if (nRead > 0 && fread(pWQCF, sizeof(_WQCF_), static_cast<size_t>(nRead), pWQCFile) !=
                             static_cast<size_t>(nRead)) {
            _Failedf(M_SYSERR, -1, "Failed to read Message Queues Control File %s", szPath);
            return false;
        }
        // Every record in use is checked, also one that cleaning would drop:
        // a value out of range means the file is damaged, and the operator
        // should see it before anything in it is lost.
        for (long i = 0; i < nRead; ++i) {
            if (pWQCF[i].nflag == WQCF_Available) continue;
            long nValue = 0;
            const char* szFault = RecordFault(pWQCF[i], nValue);
            if (szFault != nullptr) {
                _Failedf(M_CTLFILE, EINVAL,
                         "Message Queues Control File %s is damaged: slot %ld has %s (%ld); "
                         "wmctl fsck --repair clears that slot",
                         szPath, i, szFault, nValue);
                return false;
            }
        }
        long nFirst = 0, nSecond = 0, nValue = 0;
        const char* szWhat = "";
        if (!NothingShared(pWQCF, nRead, nFirst, nSecond, szWhat, nValue)) {
            _Failedf(M_CTLFILE, EINVAL,
                     "Message Queues Control File %s is damaged: slots %ld and %ld hold the same "
                     "%s (%ld); wmctl fsck lists such messages for a decision by hand",
                     szPath, nFirst, nSecond, szWhat, nValue);
            return false;
        }
        // Records past the header's count are not loaded, and the rewrite
        // below drops them. A message there means the header is wrong; losing
        // it silently is not an option.
        if (nFileRecords > nStored) {
            _WQCF_ arrChunk[kScanChunk];
            for (long i = nStored; i < nFileRecords;) {
                const long nChunk = std::min(kScanChunk, nFileRecords - i);
                if (fread(arrChunk, sizeof(_WQCF_), static_cast<size_t>(nChunk), pWQCFile) !=
                    static_cast<size_t>(nChunk)) {
                    _Failedf(M_SYSERR, -1, "Failed to read Message Queues Control File %s", szPath);
                    return false;
                }
                for (long k = 0; k < nChunk; ++k, ++i) {
                    if (arrChunk[k].nflag != WQCF_Available) {
                        _Failedf(M_CTLFILE, EINVAL,
                                 "Message Queues Control File %s is damaged: slot %ld holds a "
                                 "message but the header gives %ld slots; wmctl fsck --repair "
                                 "writes the count its records need",
                                 szPath, i, nStored);
                        return false;
                    }
                }
            }
        }

        if (!bNoClean) {
            // Keep pending and retried messages, packed to the front in file
            // order; free slots and received messages are dropped.
            long nKept = 0;
            for (long i = 0; i < nRead; ++i) {
                const ByteInt nState = pWQCF[i].nflag;
                if (nState == WQCF_Available || nState == WQCF_Received) continue;
                if (nKept != i) memcpy(&pWQCF[nKept], &pWQCF[i], sizeof(_WQCF_));
                ++nKept;
            }
            memset(static_cast<void*>(&pWQCF[nKept]), 0, TableBytes(nSegment - nKept));
            // The segment already has room for the cleaned count (see above).
            pSMCtlrs->nQSlotCount = static_cast<int32_t>(CleanedCount(nKept));

            _CloseFile(&pWQCFile);
            pWQCFile = qvwm::OpenDbFile(szPath, "w");
            if (pWQCFile == nullptr) {
                _Failedf(M_SYSERR, -1,
                         "Failed to reopen Message Queues Control File %s for writing", szPath);
                return false;
            }
        }

        // The header keeps the count the table had before cleaning; the next
        // update writes the current one.
        pQctl->nEntriesAllocated = static_cast<int32_t>(nTable);
        const size_t nSlots = static_cast<size_t>(pSMCtlrs->nQSlotCount);
        if (fseek(pWQCFile, kRecordSize, SEEK_SET) != 0 ||
            fwrite(pWQCF, sizeof(_WQCF_), nSlots, pWQCFile) != nSlots ||
            fseek(pWQCFile, 0, SEEK_SET) != 0 ||
            fwrite(pQctl, sizeof(_WQCF_CTL_), 1, pWQCFile) != 1) {
            // The table is loaded and is the only whole copy now. Failing
            // here would remove it with the shared state, so the load goes
            // on; each later update writes its slot and the header again.
            char szDesc[256];
            _Log("Failed to rewrite Message Queues Control File %s: %s", szPath,
                 strerror_r(errno, szDesc, sizeof(szDesc)));
        }
    }

    _RebuildMarks();
    pSMCtlrs->nLastCleanup = static_cast<int32_t>(time(nullptr));
    pSMCtlrs->nXtnRate = 0;
    return true;
}
