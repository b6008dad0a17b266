// The dependent-data store: up to 8192 bytes of data per message, kept in
// fixed 8192-byte slots of the data file WDDF.bdb and never in shared memory.
//
// Which of the 65536 data slots are in use is one bit per slot in the slot
// allocation table (DDSAT), an 8192-byte shared segment that every process
// allocates from. Slot n is the bit 0x80 >> (n % 8) of byte n / 8. The table
// is written through to the head of the data file on every change, and slot n
// lies at offset 8192 * (n + 1). The first constructor loads the table from
// the file (or creates the file); the control slot that refers to a data slot
// keeps the data's length, the file keeps none. After a lock holder died, the
// rebuild (Recovery.cpp) loads the table the same way and then keeps exactly
// the slots that stored messages reference (_FreeUnreferencedData).
//
// Locks: nothing here takes a lock. Every function runs while the calling
// thread holds the Controls lock, which guards the SAT segment, the field
// nDDSATHandle of the Controls segment and the data file; the search for a
// free slot, the write of the data and the marking of its bit happen inside
// one locked operation, so two senders never get the same slot. pWDDFile
// belongs to the object.
//
// This file also owns how an operation gets at the two database files
// (_OpenDbFile, _DoneDbFile): by default each write-through opens the file
// and closes it again. With WM_KeepFilesOpen the object keeps the stream
// from one call to the next and closes it in its destructor (or after a
// failed read or write, so that the next call opens the file again). All
// reads and writes are positioned, so a kept stream has no position to lose,
// also when a forked child shares it. A kept stream stays on the file it
// opened: the library itself never removes or replaces the files while the
// shared state exists (only a first constructor creates or rewrites them,
// when no object is attached, and wmctl fsck refuses to run while one is).
// A file that someone else removes or replaces behind running processes is
// not followed: their writes go on to the old file and are lost with it.
// Stop the processes before touching the files.
//
// Locks: the streams belong to the object; they are used only under the
// Controls lock.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const long kSlotSize = WM_MAX_DEPDATA;
const size_t kSATSize = 8192;
const int kLastSlot = 65535;
const int kShmCreate = IPC_CREAT | 0666;

long SlotOffset(int nSlot) {
    return (static_cast<long>(nSlot) + 1) * kSlotSize;
}

// Marks the data slot of every message in the table as used; returns how
// many the slot table showed free. A process killed inside Delete, between
// freeing the data and clearing the control slot, leaves such a message; if
// its slot stayed free, the next message sent would take it, and deleting
// the old message would then free the new one's data.
long MarkDataInUse(const _WQCF_* pTable, long nCount, pByteInt pSAT) {
    long nMarked = 0;
    for (long i = 0; i < nCount; ++i) {
        const long nSlot = pTable[i].nDepDataSlot;
        if (pTable[i].nflag == WQCF_Available || !qvwm::IsDataSlot(nSlot)) continue;
        const ByteInt nMask = static_cast<ByteInt>(0x80 >> (nSlot % 8));
        if ((pSAT[nSlot / 8] & nMask) != 0) continue;
        pSAT[nSlot / 8] |= nMask;
        ++nMarked;
    }
    return nMarked;
}

// Writes the slot table at the head of the open data file: null, or what
// failed.
const char* WriteSlotTable(FILE* fp, const ByteInt* pSAT) {
    if (!qvwm::WriteAt(fp, pSAT, kSATSize, 0)) return "Failed to update DDSAT into WDDF database";
    return nullptr;
}
} // namespace

FILE* CWorkMessages::_OpenDbFile(FILE** fileDesc, const std::string& strPath) {
    if (*fileDesc == nullptr) *fileDesc = qvwm::OpenDbFile(strPath.c_str(), "r+");
    return *fileDesc;
}

void CWorkMessages::_DoneDbFile(FILE** fileDesc, bool bFailed) {
    if (!bKeepFiles || bFailed) _CloseFile(fileDesc);
}

long CWorkMessages::_GetWDDFSlot() {
    _TraceEntry("_GetWDDFSlot");
    if (!qvwm::Attached(pDDSAT)) {
        _Failed(M_SHMERR, "Shared-memory SAT is not attached", EINVAL);
        return M_SHMERR;
    }
    for (size_t i = 0; i < kSATSize; ++i) {
        const ByteInt nByte = pDDSAT[i];
        if (nByte == 0xFF) continue;
        if (nByte == 0) return static_cast<long>(8 * i);
        for (int nBit = 0; nBit < 8; ++nBit) {
            if ((nByte & (0x80 >> nBit)) == 0) return static_cast<long>(8 * i) + nBit;
        }
        return M_LOGIC;
    }
    snprintf(szErrorMsg, sizeof(szErrorMsg), "WorkMsg object: Dependent Data database is full");
    return M_DDFULL;
}

long CWorkMessages::_UpdateWDDF(int nfunc, int nslot, int datalen, const void* pdata) {
    _TraceEntry("_UpdateWDDF");
    const bool bStore = nfunc == wddfADD || nfunc == wddfUPDATE;
    // Callers pass what a control slot holds; a value outside the store
    // would write outside the file's slots or read past the caller's data.
    // Refused before anything is written.
    if (nslot < 0 || nslot > kLastSlot) {
        _Failedf(M_LOGIC, EINVAL, "UpdateWDDF(): data slot %d is outside 0 to %d; %s not written",
                 nslot, kLastSlot, strWDDFFilename.c_str());
        return nLastError;
    }
    if (bStore && (datalen < 0 || datalen > WM_MAX_DEPDATA)) {
        _Failedf(M_LOGIC, EINVAL, "UpdateWDDF(): data length %d is outside 0 to %d; %s not written",
                 datalen, WM_MAX_DEPDATA, strWDDFFilename.c_str());
        return nLastError;
    }
    if (bStore && datalen > 0 && pdata == nullptr) {
        _Failedf(M_LOGIC, EINVAL, "UpdateWDDF(): no data given for %d bytes; %s not written",
                 datalen, strWDDFFilename.c_str());
        return nLastError;
    }
    if (!qvwm::Attached(pDDSAT)) {
        _Failed(M_SHMERR, "Shared-memory SAT is not attached", EINVAL);
        return M_SHMERR;
    }

    void* pBlock = calloc(1, kSlotSize);
    if (pBlock == nullptr) {
        _Failedf(M_SYSERR, -1, "UpdateWDDF(): Failed to allocate %d bytes of memory",
                 static_cast<int>(kSlotSize));
        return nLastError;
    }
    bool bFailed = true; // until both writes are done
    auto release = qvwm::OnScopeExit([this, pBlock, &bFailed] {
        _DoneDbFile(&pWDDFile, bFailed);
        free(pBlock);
    });
    if (bStore && datalen > 0) memcpy(pBlock, pdata, static_cast<size_t>(datalen));

    const char* szPath = strWDDFFilename.c_str();
    if (_OpenDbFile(&pWDDFile, strWDDFFilename) == nullptr) {
        _Failedf(M_SYSERR, -1, "Failed to open WDDF database: %s", szPath);
        return nLastError;
    }
    if (!qvwm::WriteAt(pWDDFile, pBlock, kSlotSize, SlotOffset(nslot))) {
        _Failedf(M_SYSERR, -1, "Failed to write slot into WDDF database: %s", szPath);
        return nLastError;
    }

    const ByteInt nMask = static_cast<ByteInt>(0x80 >> (nslot % 8));
    if (bStore)
        pDDSAT[nslot / 8] |= nMask;
    else
        pDDSAT[nslot / 8] &= static_cast<ByteInt>(~nMask);
    if (const char* szFault = WriteSlotTable(pWDDFile, pDDSAT)) {
        _Failedf(M_SYSERR, -1, "%s: %s", szFault, szPath);
        return nLastError;
    }
    bFailed = false;
    return M_OK;
}

pByteInt CWorkMessages::_ReadWDDF(int nslot) {
    _TraceEntry("_ReadWDDF");
    if (nslot < 0 || nslot > kLastSlot) {
        _Failedf(M_LOGIC, EINVAL, "ReadWDDF(): data slot %d is outside 0 to %d in %s", nslot,
                 kLastSlot, strWDDFFilename.c_str());
        return nullptr;
    }

    const char* szPath = strWDDFFilename.c_str();
    bool bFailed = true; // until the block is read
    auto closeFile = qvwm::OnScopeExit([this, &bFailed] { _DoneDbFile(&pWDDFile, bFailed); });
    if (_OpenDbFile(&pWDDFile, strWDDFFilename) == nullptr) {
        _Failedf(M_SYSERR, -1, "Failed to open WDDF database: %s", szPath);
        return nullptr;
    }
    pByteInt pBlock = static_cast<pByteInt>(calloc(1, kSlotSize));
    if (pBlock == nullptr) {
        _Failedf(M_SYSERR, -1, "Failed to allocate %d bytes of memory for Dependent Data buffer",
                 static_cast<int>(kSlotSize));
        return nullptr;
    }
    // A short read (the file ends inside or before the slot, which may lie
    // past the end) leaves zeros; only an error fails.
    if (!qvwm::ReadAt(pWDDFile, pBlock, kSlotSize, SlotOffset(nslot))) {
        // Unreadable is not the same as empty: the caller must not take the
        // zeros for the message's data.
        free(pBlock);
        _Failedf(M_SYSERR, -1, "Failed to read WDDF database: %s", szPath);
        return nullptr;
    }
    bFailed = false;
    return pBlock;
}

bool CWorkMessages::_ReadOrInitWDDF(long* pnKept) {
    _TraceEntry("_ReadOrInitWDDF");
    // A rebuild after a dead lock owner reloads the segment this object is
    // already attached to: the segment stays (every process keeps it mapped),
    // the attachment is made again.
    if (qvwm::Attached(pDDSAT)) shmdt(pDDSAT);
    pDDSAT = nullptr;
    const int nId = shmget(cstWMDDSATSHMKey, kSATSize, kShmCreate);
    pSMCtlrs->nDDSATHandle = nId;
    if (nId < 0) {
        _Failed(M_SHMERR, "Failed to get create handle for shared-memory SAT", -1);
        return false;
    }
    void* p = shmat(nId, nullptr, 0);
    if (p == qvwm::ShmFailed()) {
        _Failed(M_SHMERR, "Failed to attach(1) shared-memory for SAT", -1);
        return false;
    }
    pDDSAT = static_cast<pByteInt>(p);
    // The key may have found a segment left over by a crash: start clean.
    memset(pDDSAT, 0, kSATSize);

    const char* szPath = strWDDFFilename.c_str();
    auto closeFile = qvwm::OnScopeExit([this] { _CloseFile(&pWDDFile); });
    // The loaded control table is attached here; on every successful load
    // its messages keep their data slots (the file's table follows with the
    // next change of the store). With pnKept the count goes to the caller,
    // which logs it, instead of a line of its own.
    auto keepData = [this, szPath, pnKept] {
        const long nMarked =
            qvwm::Attached(pWQCF) ? MarkDataInUse(pWQCF, pSMCtlrs->nQSlotCount, pDDSAT) : 0;
        if (pnKept != nullptr)
            *pnKept = nMarked;
        else if (nMarked > 0)
            _Log("_ReadOrInitWDDF: %ld data slot(s) of stored messages were free in %s; they are "
                 "kept for their messages",
                 nMarked, szPath);
        return true;
    };
    pWDDFile = qvwm::OpenDbFile(szPath, "r");
    if (pWDDFile != nullptr) {
        // A file shorter than its table (a crash or a full disk while it was
        // created) gives the table as far as it goes; the rest stays as it
        // was, free. The slots of the stored messages are marked in use
        // below whatever the file says, so no message's data is given away.
        struct stat st;
        if (fstat(fileno(pWDDFile), &st) != 0) {
            _Failedf(M_SYSERR, -1, "Failed to examine Message Queues Data File %s", szPath);
            return false;
        }
        if (!S_ISREG(st.st_mode)) {
            // A directory or a device opens for reading but holds no table.
            errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
            _Failedf(M_SYSERR, -1, "Failed to open Message Queues Data File %s", szPath);
            return false;
        }
        if (fread(pDDSAT, 1, kSATSize, pWDDFile) < kSATSize && ferror(pWDDFile)) {
            _Failedf(M_SYSERR, -1, "Failed to read Message Queues Data File %s", szPath);
            return false;
        }
        return keepData();
    }
    if (errno != ENOENT) {
        // The file is there but can't be read (permissions, a directory in
        // its place). Creating a new one over it would free every data slot
        // of the stored messages.
        _Failedf(M_SYSERR, -1, "Failed to open Message Queues Data File %s", szPath);
        return false;
    }

    pWDDFile = qvwm::OpenDbFile(szPath, "w");
    if (pWDDFile == nullptr) {
        _Failed(M_SYSERR, "Failed to create Message Queues Data File", -1);
        return false;
    }
    if (fwrite(pDDSAT, 1, kSATSize, pWDDFile) != kSATSize) {
        // Without the fragment the next start creates the file again.
        const int nErr = errno;
        _CloseFile(&pWDDFile);
        unlink(szPath);
        _Failed(M_SYSERR, "Failed to create Message Queues Data File", nErr);
        return false;
    }
    _CloseFile(&pWDDFile);
    if (callerUID == 0 && chown(szPath, nUID, nGID) != 0) {
        _Failed(M_SYSERR, "Failed to set ownner of Message Queues Data File", -1);
        return false;
    }
    return keepData();
}

long CWorkMessages::_FreeUnreferencedData() {
    _TraceEntry("_FreeUnreferencedData");
    if (!qvwm::Attached(pDDSAT) || !qvwm::Attached(pWQCF)) {
        _Failed(M_SHMERR, "Shared-memory SAT or Queues is not attached", EINVAL);
        return M_SHMERR;
    }
    // The slots the loaded control table references; every other marked
    // slot belongs to no message (a Send that died between storing its data
    // and writing its control slot) and would stay taken for good.
    ByteInt arrUsed[kSATSize] = {};
    MarkDataInUse(pWQCF, pSMCtlrs->nQSlotCount, arrUsed);
    long nFreed = 0;
    for (size_t i = 0; i < kSATSize; ++i) {
        nFreed += __builtin_popcount(pDDSAT[i] & static_cast<ByteInt>(~arrUsed[i]));
        pDDSAT[i] &= arrUsed[i];
    }

    // Written whole, also when nothing was freed: the slots kept for stored
    // messages (_ReadOrInitWDDF) reach the file here too.
    const char* szPath = strWDDFFilename.c_str();
    auto closeFile = qvwm::OnScopeExit([this] { _CloseFile(&pWDDFile); });
    pWDDFile = qvwm::OpenDbFile(szPath, "r+");
    if (pWDDFile == nullptr) {
        _Failedf(M_SYSERR, -1, "Failed to open WDDF database: %s", szPath);
        return nLastError;
    }
    if (const char* szFault = WriteSlotTable(pWDDFile, pDDSAT)) {
        _Failedf(M_SYSERR, -1, "%s: %s", szFault, szPath);
        return nLastError;
    }
    return nFreed;
}
