// WorkMsg: persistent work messages between the processes of one host.
//
// A process constructs one CWorkMessages and through it sends messages of a
// named type to another process (named by its process UID), receives the
// messages addressed to it, and deletes, rejects or retries them. All queue
// state lives in six System V shared segments guarded by one process-shared
// mutex (the Controls lock); every change is written through to the control
// file WQCF.bdb and the data file WDDF.bdb, so the queues survive a reboot.
//
// Layout rule: the records shared between processes and written to the files
// keep the byte layout of the 32-bit i386 host on every build (fixed-width
// fields at fixed offsets, asserted below). The public API keeps long, time_t
// and pointers native.
#ifndef WORKMESSAGES_H
#define WORKMESSAGES_H

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "GPLibrary.h"
#include "QVshmkeys.h"
#include "QVtypes.h"

// Result codes of every operation (0 or negative).
enum Message_Return {
    M_OK = 0,
    M_NAME = -100,
    M_ILSEQ = -99,
    M_TIMEOUT = -98,
    M_TOOBIG = -97,
    M_NOTACT = -96,
    M_MSGID = -95,
    M_SYSERR = -94,
    M_SHMERR = -93,
    M_CTLFILE = -92,
    M_LOCK = -91,
    M_DDFULL = -90,
    M_LOGIC = -89,
    M_NONE = -88,
    M_PARTIAL = -87
};

// States of a control slot (its nflag).
enum WQCFstates {
    WQCF_Available = 0,
    WQCF_Pending = 1,
    WQCF_Received = 2,
    WQCF_Retry = 3,
    WQCF_Delayed_Retry = 4,
    WQCF_Last = 5
};

// Largest dependent data of one message, and the size of one data slot.
#define WM_MAX_DEPDATA 8192

// The most control slots a table or a control file may have. Two million
// messages queued at once is far beyond any real load; a larger count can
// only come from a damaged header, and honouring it would ask for gigabytes
// of shared memory.
#define WM_MAX_SLOTS (1L << 21)

// ---------------------------------------------------------------------------
// Shared records. Each is also the byte image in a segment or a file; the
// static_asserts after them pin the i386 layout. A failed assert means the
// stored files, or a process of the other build, no longer match this one.
// ---------------------------------------------------------------------------

// The Controls segment: handles and counts of the other five segments, the
// message counter and the Controls lock.
typedef struct _SM_Controls_ {
    int32_t Lock;         // -1 when created; unused
    uint32_t ThreadID;    // 0; unused
    int32_t nMsgCounter;  // next message ID
    int32_t nNamesHandle; // shm IDs of the segments (0: never created)
    int32_t nUIDsHandle;
    int32_t nQueuesHandle;
    int32_t nPRListHandle;
    int32_t nDDSATHandle;
    int32_t nQNameCount;   // rows of the Names Table
    int32_t nUIDsCount;    // rows of the Unique IDs table
    int32_t nQSlotCount;   // control slots in the Queues segment
    int32_t nPRLSlotCount; // entries in the PRLs segment
    int32_t nLastCleanup;  // time of the last load of the control table
    int32_t nXtnRate;      // 0; unused
    // Reserved[0..5]: the words named kCtl* below.
    int32_t Reserved[18];
    // Process-shared, error-checking; 24 bytes on i386, 40 on x86_64. Its
    // owner word (__data.__owner) holds the holder's kernel thread ID.
    pthread_mutex_t MutexCtlrs;
} SMControls, *pSMControls;

// One control slot; also the record of the control file.
typedef struct _WQCF_ {
    ByteInt nflag; // WQCFstates; 0 = free
    ByteInt nResponse;
    ByteInt nResponseRequired;
    ByteInt nUserFlags; // set by Retry, handed to the retry receiver
    int32_t nMessageID; // high priority: low 24 bits only
    int32_t nTargetUID;
    int32_t nSenderUID;
    int32_t nMsgNo; // message type number
    int32_t nTimeSent;
    int32_t nTimePosted;    // first delivery; 0 until then
    int32_t nTimeRetry;     // last delivery by a retry receive
    int32_t nDepDataLength; // 0 to 8192
    int32_t nDepDataSlot;   // data slot, -1 for none
    ByteInt nCBnotified;
    ByteInt xMsgMask; // high priority: the ID's top byte
    ByteInt nReserved[2];
    int32_t nReserved1[5];
} * pWQControl;

// Header record of the control file.
typedef struct _WQCF_CTL_ {
    int32_t nEntriesAllocated; // slot count when last written
    int32_t nCurrentMsgID;     // next message ID
    char notUsed[56];
} * pqControl;

// One receiver registration (PRLs segment; never written to a file).
typedef long (*WMCallback)(long);
typedef struct _PRL_CTL_ {
    int32_t nUID;      // receiver's process UID; 0 = free entry
    int32_t nPID;      // OS process ID of the registering process
    int32_t nMsgNo;    // message type number
    uint32_t Callback; // callback address, low 32 bits (see GetCallback)
    ByteInt bUseLIFO;  // deliver newest first
    ByteInt Reserved_1[3];
    int32_t Reserved_4[3];

    // The callback address is valid only in the process nPID. On a 64-bit
    // build its high 32 bits are kept in Reserved_4[0]: the registry lives
    // only in shared memory, and only processes of one build can share a
    // host's segments (the Controls segment's size differs), so every reader
    // of an entry agrees on this place. On i386 Reserved_4[0] stays 0.
    WMCallback GetCallback() const {
        uint64_t nAddr = Callback;
        if (sizeof(void*) > 4) nAddr |= (uint64_t)(uint32_t)Reserved_4[0] << 32;
        return reinterpret_cast<WMCallback>(static_cast<uintptr_t>(nAddr));
    }
    void SetCallback(WMCallback fn) {
        uint64_t nAddr = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(fn));
        Callback = static_cast<uint32_t>(nAddr);
        if (sizeof(void*) > 4) Reserved_4[0] = static_cast<int32_t>(nAddr >> 32);
    }
    bool HasCallback() const { return GetCallback() != nullptr; }
} * pPRLlist;

// One message type (Names Table), filled from the names file.
typedef struct _WQCONF_ {
    int32_t nID;
    char szName[9];
    char szDesc[33];
    char nPad[2];
} * pWMNames;

// One process (Unique IDs table), filled from the process-UID file.
typedef struct _PRUID_ {
    int32_t nUID;
    char cLogMsgID;
    char szName[9];
    char szDesc[33];
    char nPad[1];
} * pUIDlist;

// Words of _SM_Controls_::Reserved, by index. Each is read and written with
// 32-bit atomic accesses, because some are read without the Controls lock.
//
// kCtlSlotHighWater: no control slot at this index or above is in use, so
// every scan of the table stops here. An upper bound, never too low: every
// writer of a slot raises it under the Controls lock before the slot holds a
// message (_UpdateWQCF), the clearing of the top slot lowers it to just past
// the highest slot still in use, and the loader of the control file sets it.
// Read under the lock by every scan.
//
// kCtlTopMessageID: no slot in use holds a message ID above this one (an
// upper bound, kept with the high-water mark, and 0 when the table is
// empty). Send skips its check that a new ID is unused when the ID is above
// it: IDs are handed out in rising order, so until the counter starts again
// at its first value no message can hold the next one.
//
// kCtlWakeSeq: a sequence number that processes with WM_WakeReceivers bump
// after they made a message receivable (Send, Retry, slot repair); a
// receiver of such a process sleeps on it (a futex on the shared word) for
// at most its 250 ms step. Written without the lock.
//
// kCtlWakeWaiters: how many receivers sleep on kCtlWakeSeq, raised and
// lowered by each of them around its sleep; an announcer makes the wake-up
// system call only when it is above 0. Written without the lock.
//
// Reserved[4] and Reserved[5] are kept for this group of words and are 0.
enum {
    kCtlSlotHighWater = 0,
    kCtlTopMessageID = 1,
    kCtlWakeSeq = 2,
    kCtlWakeWaiters = 3,
};

// Slot counts of the shared records. Changing any of these breaks the
// stored files or the peers attached to the segments.
static_assert(sizeof(_SM_Controls_) == 128 + sizeof(pthread_mutex_t),
              "Controls record: 128 bytes of fields, then the native mutex");
static_assert(offsetof(_SM_Controls_, nMsgCounter) == 8, "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nNamesHandle) == 12,
              "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nUIDsHandle) == 16, "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nQueuesHandle) == 20,
              "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nPRListHandle) == 24,
              "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nDDSATHandle) == 28,
              "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nQNameCount) == 32, "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nUIDsCount) == 36, "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nQSlotCount) == 40, "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nPRLSlotCount) == 44,
              "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nLastCleanup) == 48,
              "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, nXtnRate) == 52, "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, Reserved) == 56, "Controls layout is shared by all peers");
static_assert(offsetof(_SM_Controls_, Reserved) + 4 * kCtlSlotHighWater == 56,
              "every peer keeps the slot high-water mark at segment offset 56");
static_assert(offsetof(_SM_Controls_, Reserved) + 4 * kCtlTopMessageID == 60,
              "every peer keeps the top message ID at segment offset 60");
static_assert(offsetof(_SM_Controls_, Reserved) + 4 * kCtlWakeSeq == 64,
              "every peer announces and waits on the futex word at segment offset 64");
static_assert(offsetof(_SM_Controls_, Reserved) + 4 * kCtlWakeWaiters == 68,
              "every peer counts sleeping receivers at segment offset 68");
static_assert(offsetof(_SM_Controls_, MutexCtlrs) == 128, "the mutex follows the 128 field bytes");
static_assert(offsetof(_SM_Controls_, MutexCtlrs) + offsetof(pthread_mutex_t, __data.__owner) ==
                  136,
              "the lock owner is read at segment offset 136 by every peer");
// Reserved words of the Controls record used by dead-owner recovery:
// Reserved[cstCtlLockFlags] to Reserved[cstCtlLastRecovery], segment offsets
// 80 to 95 in every build. wmctl status reads them without the lock.
enum ControlsRecoveryWords {
    // Bits: cstLockRobust, written by the first constructor before it makes
    // the mutex; cstTablesBuilt, written by the first constructor once every
    // table is built; cstRecoveryPending, set by the thread that takes the
    // lock from a dead owner and cleared when its rebuild is complete (a
    // rebuild that failed leaves it set, and the next holder rebuilds).
    cstCtlLockFlags = 6,
    // Recoveries completed since the segments were built; the recovering
    // thread, under the lock.
    cstCtlRecoveries = 7,
    // Kernel thread ID of the dead owner that the last recovery replaced (-1
    // when it was not seen); the recovering thread, under the lock.
    cstCtlDeadOwner = 8,
    // time() of the last completed recovery; the recovering thread.
    cstCtlLastRecovery = 9
};
enum ControlsLockFlags { cstLockRobust = 1, cstTablesBuilt = 2, cstRecoveryPending = 4 };
static_assert(offsetof(_SM_Controls_, Reserved) + cstCtlLockFlags * sizeof(int32_t) == 80 &&
                  offsetof(_SM_Controls_, Reserved) + cstCtlLastRecovery * sizeof(int32_t) == 92,
              "the recovery words lie at segment offsets 80 to 95 for every peer and wmctl");
#if defined(__i386__)
static_assert(sizeof(_SM_Controls_) == 152, "i386 Controls segment is 152 bytes");
#elif defined(__x86_64__)
static_assert(sizeof(_SM_Controls_) == 168, "x86_64 Controls segment is 168 bytes");
#endif

static_assert(sizeof(_WQCF_) == 64, "control slot = control file record: 64 bytes");
static_assert(offsetof(_WQCF_, nResponse) == 1, "control file record layout");
static_assert(offsetof(_WQCF_, nResponseRequired) == 2, "control file record layout");
static_assert(offsetof(_WQCF_, nUserFlags) == 3, "control file record layout");
static_assert(offsetof(_WQCF_, nMessageID) == 4, "control file record layout");
static_assert(offsetof(_WQCF_, nTargetUID) == 8, "control file record layout");
static_assert(offsetof(_WQCF_, nSenderUID) == 12, "control file record layout");
static_assert(offsetof(_WQCF_, nMsgNo) == 16, "control file record layout");
static_assert(offsetof(_WQCF_, nTimeSent) == 20, "control file record layout");
static_assert(offsetof(_WQCF_, nTimePosted) == 24, "control file record layout");
static_assert(offsetof(_WQCF_, nTimeRetry) == 28, "control file record layout");
static_assert(offsetof(_WQCF_, nDepDataLength) == 32, "control file record layout");
static_assert(offsetof(_WQCF_, nDepDataSlot) == 36, "control file record layout");
static_assert(offsetof(_WQCF_, nCBnotified) == 40, "control file record layout");
static_assert(offsetof(_WQCF_, xMsgMask) == 41, "control file record layout");
static_assert(offsetof(_WQCF_, nReserved) == 42, "control file record layout");
static_assert(offsetof(_WQCF_, nReserved1) == 44, "control file record layout");

static_assert(sizeof(_WQCF_CTL_) == 64, "control file header: 64 bytes");
static_assert(offsetof(_WQCF_CTL_, nCurrentMsgID) == 4, "control file header layout");
static_assert(offsetof(_WQCF_CTL_, notUsed) == 8, "control file header layout");

static_assert(sizeof(_PRL_CTL_) == 32, "registry entry: 32 bytes in every build");
static_assert(offsetof(_PRL_CTL_, nPID) == 4, "registry entry layout");
static_assert(offsetof(_PRL_CTL_, nMsgNo) == 8, "registry entry layout");
static_assert(offsetof(_PRL_CTL_, Callback) == 12, "registry entry layout");
static_assert(offsetof(_PRL_CTL_, bUseLIFO) == 16, "registry entry layout");
static_assert(offsetof(_PRL_CTL_, Reserved_1) == 17, "registry entry layout");
static_assert(offsetof(_PRL_CTL_, Reserved_4) == 20, "registry entry layout");
static_assert(sizeof(void*) <= 8, "a callback address fits in Callback and Reserved_4[0]");

static_assert(sizeof(_WQCONF_) == 48, "Names Table row: 48 bytes");
static_assert(offsetof(_WQCONF_, szName) == 4, "Names Table row layout");
static_assert(offsetof(_WQCONF_, szDesc) == 13, "Names Table row layout");

static_assert(sizeof(_PRUID_) == 48, "Unique IDs row: 48 bytes");
static_assert(offsetof(_PRUID_, cLogMsgID) == 4, "Unique IDs row layout");
static_assert(offsetof(_PRUID_, szName) == 5, "Unique IDs row layout");
static_assert(offsetof(_PRUID_, szDesc) == 14, "Unique IDs row layout");

// ---------------------------------------------------------------------------
// Caller-visible records (native widths).
// ---------------------------------------------------------------------------

typedef struct Message_Queue_ {
    ByteInt nResponse;
    ByteInt nResponseRequired;
    ByteInt nUserFlags;
    ByteInt nReserved[1];
    long nMessageID;
    long nTargetUID;
    long nSenderUID;
    long nMsgNo;
    time_t nTimeSent;
    time_t nTimePosted;
    time_t nTimeRetry;
    long
        nDepDataLength; // Send: data length; Receive: buffer capacity in, needed length on M_TOOBIG
    void* pDepData;
} WorkMsg;

// Counter rows of GetCounters. A list ends with a row whose name is empty.
typedef struct __GET_COUNTERS__ENTRY1 {
    long Counter;
    char MsgID[9];
} * lpCountByTypes;

typedef struct __GET_COUNTERS__ENTRY2 {
    long Counter[5]; // slots in each state 0 to 4
} * lpCountByStates;

typedef struct __GET_COUNTERS__ENTRY3 {
    long TotalCount;
    long Counter[4]; // states 1 to 4
    char MsgID[9];
} * lpCountByTsAndSs;

typedef struct __GET_COUNTERS__ENTRY4 {
    long Counter;
    char UID[9];
} * lpCountByUID;

// Exported for compatibility; does nothing.
extern "C" void _PostCallback(int nSigno);

class CWorkMessagesTestAccess;

class CWorkMessages : public QVshmKeysBase {
    friend class CWorkMessagesTestAccess;

public:
    enum { wddfADD = 0, wddfDELETE = 1, wddfUPDATE = 2 };

    explicit CWorkMessages(bool bNoClean = false);
    ~CWorkMessages();
    CWorkMessages(const CWorkMessages&) = delete;
    CWorkMessages& operator=(const CWorkMessages&) = delete;

    // Directory lookups.
    long Translate(const char* pMname);
    char* Translate(long nMsgID, char* pMdesc);
    long GetUID(const char* pPname, char* pLogMsg);
    char* GetUID(long nUID, char* pPdesc);

    // Receiver registry.
    long SetInput(long nUID, const char* szMname, long (*Callback)(long), bool bUseLIFO);
    long UnsetInput(long nUID, const char* szMname, long nPID);
    long TargetActive(long nUID, long nMID);

    // Message operations.
    long Send(long nUID, const char* pMname, WorkMsg* wMsg, bool bHiPrio);
    long Receive(long nUID, long nMaxWait, WorkMsg* wMsg, bool bRetry, bool (*Filter)(void*));
    long ReceiveByMsg(long nUID, long nMaxWait, WorkMsg* wMsg, long nMsgNoLo, long nMsgNoHi,
                      bool bRetry, bool (*Filter)(void*));
    long Delete(long nUID, long nMessageID);
    long Reject(long nUID, long nMessageID);
    long Retry(long nUID, long nMessageID, bool bDelay, ByteInt nUserFlags);

    // Administration.
    long DeleteBy(long nDaysOld, long nTargetUID, long nSenderUID, long nMsgNo, LPLONG lpCount);
    long DeleteBy(long nDaysOld, LPCSZ lpszTarget, LPCSZ lpszSender, LPCSZ lpszMsgNo,
                  LPLONG lpCount);
    long GetCounters(lpCountByTypes lpCounts);
    long GetCounters(lpCountByStates lpCounts);
    long GetCounters(lpCountByTsAndSs lpCounts);
    long GetCounters(lpCountByUID lpCounts, bool bTargets);

    char szErrorMsg[512];
    long nLastError;
    std::string strVersion;

private:
    CWorkMessages* pMe;
    pid_t callerPID;
    pid_t callerTID;
    uid_t callerUID;
    std::string strDefUser;
    uid_t nUID;
    gid_t nGID;
    CGDDA* objGDDA;
    CGDDA::Levels nSystemLevel;
    std::string strGDDA_Root;
    long nLockTimeOut;
    bool bTrace;
    std::string strDBPath;

protected:
    pWMNames arrNamesLocal;
    int nNamesCount;
    pUIDlist arrUIDs;
    int nUIDsCount;
    pSMControls pSMCtlrs;
    int nControlsHandle;
    pWQControl pWQCF;
    pByteInt pDDSAT;
    pPRLlist pPRLL;

    // Reads data slot nslot into a new zero-filled 8192-byte buffer that the
    // caller frees with free(); null on failure (nLastError set).
    pByteInt _ReadWDDF(int nslot);

    // Slot repair for derived classes: by slot index, not by message ID.
    long __DeleteSlot(long nSlot);
    long __ModifySlot(long nSlot, long NewState, long nID, long nLUID, bool bTargetUID);
    long __SetPrio(long nSlot, bool bResetHigh);

private:
    FILE* pWQCFile;
    FILE* pWDDFile;
    FILE* pLOCKFile;
    FILE* pREJECTFile;
    long nRecvCslot;
    bool bMsgAvail;
    bool bInternalCall;
    bool bHoldingConstructorLock;
    time_t tAcquiredMutex;
    int nWhineCount;
    char szTempBuff[512];
    std::string strWMConfigFilename;
    std::string strUIDConfigFilename;
    std::string strWQCFFilename;
    std::string strWDDFFilename;
    std::string strLOCKFilename;
    std::string strRMSGQdir;
    char szTrace[512];
    pqControl pQctl;
    // This process's registrations that carry a callback, through any of its
    // objects (Registry.cpp).
    static std::atomic<long> nCallbackCount;
    // The per-call segments: the mappings _GetPointers made and the segment
    // IDs they were made for, reused while the published handle is unchanged.
    // _Return detaches them at the end of every top-level call, unless
    // WM_KeepAttached (bKeepAttached) keeps them for the next one; either
    // way _Return leaves pWQCF and pPRLL null. bQueuesFresh: the Queues
    // mapping has no page tables yet (see _PrefaultQueues).
    bool bKeepAttached;
    pWQControl pQueuesMap;
    int nQueuesMapHandle;
    pPRLlist pPRLMap;
    int nPRLMapHandle;
    bool bQueuesFresh;
    // WM_RecoverDeadOwner: a first constructor makes the Controls mutex
    // robust. Every object recovers from a dead owner whatever it says (the
    // mutex's kind belongs to the host).
    bool bRecoverDeadOwner;
    // Opt-ins of the host's level, each off by default (WM_FastPath turns
    // them all on, with bKeepAttached): keep the database files open between
    // calls (bKeepFiles), wake waiting receivers through kCtlWakeSeq
    // (bWakeReceivers), wait for the Controls lock blocking instead of
    // polling (bBlockingLock). bAnnounce: this operation made a message
    // receivable; _FreeControlsLock announces it after the release.
    bool bKeepFiles;
    bool bWakeReceivers;
    bool bBlockingLock;
    bool bAnnounce;

    // Frame and reporting (Frame.cpp).
    void _RecordCaller();
    void _TraceEntry(const char* szName);
    void _Trace(const char* szFormat, ...) __attribute__((format(printf, 2, 3)));
    void _Log(const char* szFormat, ...) __attribute__((format(printf, 2, 3)));
    void _Failed(long nErrorCode, const char* szMsgSeg, int nErrNo);
    void _Failedf(long nErrorCode, int nErrNo, const char* szFormat, ...)
        __attribute__((format(printf, 4, 5)));
    long _Return(long nCode);
    // Names for trace lines and reject file names: the table's name, or a
    // stand-in that shows the number when the table has no such entry.
    std::string _ProcessName(long nUID);
    std::string _TypeName(long nMsgNo);

    // Locks (Locks.cpp).
    bool _GetConstructorLock(long nMaxWait);
    void _FreeConstructorLock();
    bool _GetControlsLock(long nMaxWait);
    void _FreeControlsLock(bool bComplain);
    void _Unlock();
    void _CloseFile(FILE** fileDesc);
    pid_t _LockOwner() const;
    bool _LockTaken(int rc, pid_t nOwnerBefore);
    int _LockAttempt(const struct timespec* pDeadline);

    // Recovery from a dead lock owner (Recovery.cpp).
    bool _RecoverFromDeadOwner(pid_t nDeadOwner);

    // Database files (DataStore.cpp): a stream of the control or data file
    // for one operation, kept between calls with WM_KeepFilesOpen.
    FILE* _OpenDbFile(FILE** fileDesc, const std::string& strPath);
    void _DoneDbFile(FILE** fileDesc, bool bFailed);

    // Waking receivers (Wake.cpp).
    void _Announce();
    long _WaitStep(long nMaxUsecs, int32_t nSeenSeq);
    int32_t _WakeSeq() const;

    // Construction and teardown (Construct.cpp).
    void _BuildSharedTables(bool bNoClean);
    void _AttachSharedTables();
    void _FreeAllMemory(_SM_Controls_* lpCtls);

    // Directory (Directory.cpp).
    bool _LoadNames(LPCSTR strFilename);
    bool _LoadUIDs(LPCSTR strFilename);
    _WQCONF_* _SearchName(long nID);
    _WQCONF_* _SearchName(const char* szMname);
    _PRUID_* _SearchUID(long nUID);
    _PRUID_* _SearchUID(const char* szMname);
    // Translate and GetUID by name for an operation that uses the number:
    // M_NAME, with a text saying why, for a number stored below 0.
    long _TypeNumber(const char* szMname);
    long _ProcessNumber(const char* szPname);

    // Control table (ControlTable.cpp).
    long _GetPointers();
    void _PrefaultQueues();
    long _GetWQCFSlot();
    long _ResizeWQCF(long nSize, bool bCountNotIncr);
    long _AllocateQueues(long nCount, bool bRealloc);
    long _UpdateWQCF(long nSlot, bool bClean);
    void _NoteSlot(long nSlot);
    void _RebuildMarks();
    long _ScanEnd() const;
    bool _LoadAndCleanWQCF(bool bNoClean);

    // Data store (DataStore.cpp).
    long _GetWDDFSlot();
    long _UpdateWDDF(int nfunc, int nslot, int datalen, const void* pdata);
    bool _ReadOrInitWDDF(long* pnKept = nullptr);
    long _FreeUnreferencedData();

    // Registry (Registry.cpp).
    _PRL_CTL_* _SearchPRL(long nUID, long nMsgNo);
    _PRL_CTL_* _SearchPRL(long nMsgNo);
    long _KnownRequest(long nUID, long nID, pid_t nPID);
    long _GetPRLSlot();
    long _AllocatePRL(long nCount, bool bRealloc);
    // Send's notification: this process's callbacks for the type.
    void _RunCallbacks(long nMsgNo);
    long _CheckRegistry(long* pnKept);

    // Receive (Receive.cpp).
    long _Receive(long nUID, long nMaxWait, WorkMsg* wMSG, long nMsgNoLo, long nMsgNoHi,
                  WQCFstates ctlState, bool (*Filter)(void*));
    long _GetNextMessage(long nUID, WQCFstates ctlState, long nMsgNoLo, long nMsgNoHi,
                         long nCurrentMessage);
    long _GetNextMessage_R(long nUID, WQCFstates ctlState, long nMsgNoLo, long nMsgNoHi,
                           long nCurrentMessage);
    long _SearchMSGID(long nMID);

    // Counters (Counters.cpp).
    long _CountersEntry(const void* lpCounts, long* pnSlots, long* pnEnd);

    // Delete, Reject, Retry (Delete.cpp).
    long _FindMessage(long nMessageID);
    long _ClearSlot(long nSlot, long* pnDataSlot);
};

#endif
