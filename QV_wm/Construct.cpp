// Construction and teardown: creating, attaching, detaching and removing the
// host's shared state.
//
// The first constructor on the host (no Controls segment, or one that no
// process is attached to any more) creates the Controls segment and its
// mutex, loads the names and process-UID files, creates the registry, and
// rebuilds the control table and the data slot table from the files. A later
// constructor only attaches. The last object to be destroyed on the host
// removes all six segments and destroys the mutex; the files stay.
//
// Locks: the decision "first or later" and the decision "remove" are taken
// under the constructor lock (the lock file), and constructors attach the
// Controls segment only while they hold it, so an attach count of 0 seen
// under that lock cannot rise before the removal ends. The first constructor
// takes the Controls lock before it gives up the constructor lock and keeps it
// until every table is built, so later constructors and all operations wait
// for a complete state. Lock order: constructor lock, then Controls lock; the
// destructor gives up the Controls lock before it asks for the constructor
// lock.
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
const char kTag[] = "QV_wm";
// The module's version record: source time stamp, file, revision and path.
const char kVersionRecord[] =
    "@(#) 2026-11-23 Construct.cpp rev " QV_WM_VERSION " QV_wm/Construct.cpp QV_wm work messages";
static_assert(sizeof(kVersionRecord) <= 145, "the version record holds at most 144 characters");

const uid_t kDefaultUID = 507;
const gid_t kDefaultGID = 504;
const long kDefaultTimeout = 5;
const long kInitialPRLs = 128;
const int kShmCreate = IPC_CREAT | 0666;

// Attaches segment nId; null when it cannot be attached.
template <class T> T* AttachSegment(int nId) {
    void* p = shmat(nId, nullptr, 0);
    return p == qvwm::ShmFailed() ? nullptr : static_cast<T*>(p);
}

// Detaches p when it is attached and sets it to null.
template <class T> void DetachSegment(T*& p) {
    if (qvwm::Attached(p)) shmdt(p);
    p = nullptr;
}
} // namespace

CWorkMessages::CWorkMessages(bool bNoClean)
    : nLastError(0), pMe(this), callerPID(0), callerTID(0), callerUID(0), nUID(kDefaultUID),
      nGID(kDefaultGID), objGDDA(nullptr), nSystemLevel(CGDDA::Invalid),
      nLockTimeOut(kDefaultTimeout), bTrace(false), arrNamesLocal(nullptr), nNamesCount(0),
      arrUIDs(nullptr), nUIDsCount(0), pSMCtlrs(nullptr), nControlsHandle(-1), pWQCF(nullptr),
      pDDSAT(nullptr), pPRLL(nullptr), pWQCFile(nullptr), pWDDFile(nullptr), pLOCKFile(nullptr),
      pREJECTFile(nullptr), nRecvCslot(M_NONE), bMsgAvail(false), bInternalCall(false),
      bHoldingConstructorLock(false), tAcquiredMutex(0), nWhineCount(0), pQctl(nullptr),
      bKeepAttached(false), pQueuesMap(nullptr), nQueuesMapHandle(-1), pPRLMap(nullptr),
      nPRLMapHandle(-1), bQueuesFresh(false), bRecoverDeadOwner(false), bKeepFiles(false),
      bWakeReceivers(false), bBlockingLock(false), bAnnounce(false) {
    szErrorMsg[0] = '\0';
    szTempBuff[0] = '\0';
    szTrace[0] = '\0';

    strVersion = BKVersion(kVersionRecord, false);
    qvwm::CallerIds(&callerPID, &callerTID);
    callerUID = getuid();

    // Configuration. Each failure writes its text directly; nothing is logged.
    char szLevel[10] = "";
    objGDDA = new (std::nothrow) CGDDA(nullptr, false);
    if (objGDDA == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg), "WorkMsg object: Failed to create GDDA oblect");
        nLastError = M_SYSERR;
    } else if (objGDDA->CreateError) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: GDDA object initialization failed.\n Reason: %s",
                 objGDDA->szErrorMsg);
        nLastError = M_SYSERR;
    } else if (!objGDDA->GetValue("Root", strGDDA_Root, CGDDA::Global, true)) {
        snprintf(szErrorMsg, sizeof(szErrorMsg), "WorkMsg object: %s", objGDDA->szErrorMsg);
        nLastError = M_SYSERR;
    } else if ((nSystemLevel = objGDDA->GetSystemLevel(szLevel)) == CGDDA::Invalid) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: Failed to get system level.\nReason: %s", objGDDA->szErrorMsg);
        nLastError = M_SYSERR;
    } else {
        const unsigned char nLevel = static_cast<unsigned char>(nSystemLevel);
        if (objGDDA->GetValue("Running_UID", strDefUser, nLevel, true)) {
            struct passwd pw;
            struct passwd* pResult = nullptr;
            std::vector<char> buf(16384);
            if (getpwnam_r(strDefUser.c_str(), &pw, buf.data(), buf.size(), &pResult) == 0 &&
                pResult != nullptr) {
                nUID = pw.pw_uid;
                nGID = pw.pw_gid;
            }
        }
        if (!objGDDA->GetValue("WM_DBPath", strDBPath, nLevel, true))
            strDBPath = strGDDA_Root + "/" + szLevel + "/data/msgq";
        if (!objGDDA->GetValue("WM_Timeout_Secs", &nLockTimeOut, nLevel, true))
            nLockTimeOut = kDefaultTimeout;
        if (!objGDDA->GetValue("WM_Trace", &bTrace, nLevel, true)) bTrace = false;
        if (callerPID == 1) bTrace = false; // init never traces
        if (!objGDDA->GetValue("WM_RecoverDeadOwner", &bRecoverDeadOwner, nLevel, true))
            bRecoverDeadOwner = false;
        // The opt-ins: each as its own key says, and when that is not given,
        // on with WM_FastPath=true.
        bool bFastPath = false;
        if (!objGDDA->GetValue("WM_FastPath", &bFastPath, nLevel, true)) bFastPath = false;
        const std::pair<const char*, bool*> arrOptIns[] = {{"WM_KeepAttached", &bKeepAttached},
                                                           {"WM_KeepFilesOpen", &bKeepFiles},
                                                           {"WM_WakeReceivers", &bWakeReceivers},
                                                           {"WM_BlockingLock", &bBlockingLock}};
        for (const auto& optIn : arrOptIns) {
            if (!objGDDA->GetValue(optIn.first, optIn.second, nLevel, true))
                *optIn.second = bFastPath;
        }
    }
    delete objGDDA;
    objGDDA = nullptr;
    if (nLastError != 0) return;

    pQctl = static_cast<pqControl>(calloc(1, sizeof(_WQCF_CTL_)));
    if (pQctl == nullptr) {
        _Failed(M_SYSERR, "Failed to allocate Message Queues Control buffer", -1);
        return;
    }

    strWQCFFilename = strDBPath + "/" + "WQCF.bdb";
    strWDDFFilename = strDBPath + "/" + "WDDF.bdb";
    strLOCKFilename = strDBPath + "/" + "WM.lock";
    const std::string strLevelDir = strGDDA_Root + "/" + szLevel;
    strWMConfigFilename = strLevelDir + "/control/appconf/WorkMsg.ini";
    strUIDConfigFilename = strLevelDir + "/control/appconf/ProcessUID.ini";
    strRMSGQdir = strLevelDir + "/data/rmsgq/";

    if (!_GetConstructorLock(nLockTimeOut)) return;
    if (callerUID == 0 && chown(strLOCKFilename.c_str(), nUID, nGID) != 0) {
        _Failed(M_SYSERR, "Failed to set owner of Message Queues Lock File", -1);
        return;
    }

    // First or later constructor, decided under the constructor lock.
    bool bFirst = false;
    nControlsHandle = shmget(cstWMctlSHMKey, 0, 0666);
    if (nControlsHandle < 0) {
        if (errno != ENOENT) {
            _Failed(M_SHMERR, "Failed to get initial handle for shared-memory Controls", -1);
            return;
        }
        bFirst = true;
    } else {
        struct shmid_ds ds;
        memset(&ds, 0, sizeof(ds));
        if (shmctl(nControlsHandle, IPC_STAT, &ds) != 0) {
            _Failed(M_SHMERR, "Failed to determine status of shared-memory Controls", -1);
            return;
        }
        if (ds.shm_nattch == 0) {
            // Left over from processes that have all gone: rebuild from the files.
            _FreeAllMemory(nullptr);
            bFirst = true;
        } else if (ds.shm_segsz != sizeof(_SM_Controls_)) {
            // The segment was made by a build with another mutex size: a
            // 32-bit and a 64-bit process cannot share one host's segments.
            _Failedf(M_SHMERR, EPROTO,
                     "Shared-memory Controls is %lu bytes but this build needs %lu: processes of "
                     "a 32-bit and a 64-bit build cannot share the segments of one host",
                     static_cast<unsigned long>(ds.shm_segsz),
                     static_cast<unsigned long>(sizeof(_SM_Controls_)));
            return;
        }
    }

    if (bFirst) {
        nControlsHandle = shmget(cstWMctlSHMKey, sizeof(_SM_Controls_), kShmCreate);
        if (nControlsHandle < 0) {
            _Failed(M_SHMERR, "Failed to get create handle for shared-memory Controls", -1);
            return;
        }
        pSMCtlrs = AttachSegment<_SM_Controls_>(nControlsHandle);
        if (pSMCtlrs == nullptr) {
            _Failed(M_SHMERR, "Failed to attach(1) shared-memory Controls", -1);
            return;
        }
        memset(static_cast<void*>(pSMCtlrs), 0, sizeof(_SM_Controls_));
        pSMCtlrs->Lock = -1;

        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        if (bRecoverDeadOwner && !qvwm::KernelReportsDeadOwners()) {
            _Log("WM_RecoverDeadOwner: this system does not report the death of a lock holder "
                 "(no robust lock list); the Controls lock is made as without the key");
        } else if (bRecoverDeadOwner) {
            // A holder that dies hands the lock to the next attempt with
            // EOWNERDEAD instead of keeping it (Recovery.cpp).
            pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
            pSMCtlrs->Reserved[cstCtlLockFlags] = cstLockRobust;
        }
        int rc = pthread_mutex_init(&pSMCtlrs->MutexCtlrs, &attr);
        pthread_mutexattr_destroy(&attr);
        if (rc != 0) {
            _Failed(M_LOCK, "Failed to initialize Controls lock", rc);
            return;
        }

        tAcquiredMutex = 0;
        if (!_GetControlsLock(1)) {
            nLastError = M_LOCK;
        } else {
            _FreeConstructorLock(); // later constructors now wait on the Controls lock
            _BuildSharedTables(bNoClean);
        }
    } else {
        pSMCtlrs = AttachSegment<_SM_Controls_>(nControlsHandle);
        if (pSMCtlrs == nullptr) {
            _Failed(M_SHMERR, "Failed to attach(n) shared-memory Controls", -1);
            return;
        }
        if (!_GetControlsLock(nLockTimeOut)) {
            nLastError = M_LOCK;
        } else {
            _FreeConstructorLock();
            _AttachSharedTables();
        }
    }
    if (nLastError != 0) _Unlock();
}

// First constructor, holding the Controls lock: loads the directory files
// into their segments, creates the registry, rebuilds the control table and
// the data slot table. On failure nLastError is set and the locks are
// released.
void CWorkMessages::_BuildSharedTables(bool bNoClean) {
    // The loaders leave heap arrays in arrNamesLocal/arrUIDs, also when they
    // fail; take them over here so that every path frees them.
    bool bLoaded = _LoadNames(strWMConfigFilename);
    pWMNames pNames = arrNamesLocal;
    arrNamesLocal = nullptr;
    auto freeNames = qvwm::OnScopeExit([&] { free(pNames); });
    if (!bLoaded) {
        // A names file with no line at all is reported by the loader without
        // a code; it is as unusable as a malformed one.
        if (nLastError == 0) nLastError = M_CTLFILE;
        _Unlock();
        return;
    }
    pSMCtlrs->nNamesHandle =
        shmget(cstWMNamesSHMKey, static_cast<size_t>(nNamesCount) * sizeof(_WQCONF_), kShmCreate);
    if (pSMCtlrs->nNamesHandle < 0) {
        _Failed(M_SHMERR, "Failed to get create handle for shared-memory Names Table", -1);
        return;
    }
    arrNamesLocal = AttachSegment<_WQCONF_>(pSMCtlrs->nNamesHandle);
    if (arrNamesLocal == nullptr) {
        _Failed(M_SHMERR, "Failed to attach(1) shared-memory Names Table", -1);
        return;
    }
    memcpy(static_cast<void*>(arrNamesLocal), pNames,
           static_cast<size_t>(nNamesCount) * sizeof(_WQCONF_));
    pSMCtlrs->nQNameCount = nNamesCount;

    bLoaded = _LoadUIDs(strUIDConfigFilename);
    pUIDlist pUIDs = arrUIDs;
    arrUIDs = nullptr;
    auto freeUIDs = qvwm::OnScopeExit([&] { free(pUIDs); });
    if (!bLoaded) {
        nLastError = M_NAME;
        _Unlock();
        return;
    }
    pSMCtlrs->nUIDsHandle =
        shmget(cstWMUIDListSHMKey, static_cast<size_t>(nUIDsCount) * sizeof(_PRUID_), kShmCreate);
    if (pSMCtlrs->nUIDsHandle < 0) {
        _Failed(M_SHMERR, "Failed to get create handle for shared-memory Unique IDs", -1);
        return;
    }
    arrUIDs = AttachSegment<_PRUID_>(pSMCtlrs->nUIDsHandle);
    if (arrUIDs == nullptr) {
        _Failed(M_SHMERR, "Failed to attach(1) shared-memory Unique IDs", -1);
        return;
    }
    memcpy(static_cast<void*>(arrUIDs), pUIDs, static_cast<size_t>(nUIDsCount) * sizeof(_PRUID_));
    pSMCtlrs->nUIDsCount = nUIDsCount;

    if (_AllocatePRL(kInitialPRLs, false) != 0) return;
    if (!_LoadAndCleanWQCF(bNoClean)) return;
    if (!_ReadOrInitWDDF()) return;
    // From here on a holder's death can be repaired from the files alone.
    pSMCtlrs->Reserved[cstCtlLockFlags] |= cstTablesBuilt;
    _FreeControlsLock(true);

    _Trace("First constructor. Names Table handle: %.08X", pSMCtlrs->nNamesHandle);
    _Trace("First constructor. Queues handle: %.08X", pSMCtlrs->nQueuesHandle);
    _Trace("First constructor. PRLs handle: %.08X", pSMCtlrs->nPRListHandle);
    _Trace("First constructor. SAT handle: %.08X", pSMCtlrs->nDDSATHandle);
    _Trace("First constructor. Unique IDs handle: %.08X", pSMCtlrs->nUIDsHandle);
}

// Later constructor, holding the Controls lock: attaches the five other
// segments through the handles in the Controls segment.
void CWorkMessages::_AttachSharedTables() {
    _Trace("Nth constructor. Names Table handle: %.08X", pSMCtlrs->nNamesHandle);
    _Trace("Nth constructor. Queues handle: %.08X", pSMCtlrs->nQueuesHandle);
    _Trace("Nth constructor. PRLs handle: %.08X", pSMCtlrs->nPRListHandle);
    _Trace("Nth constructor. SAT handle: %.08X", pSMCtlrs->nDDSATHandle);
    _Trace("Nth constructor. Unique IDs handle: %.08X", pSMCtlrs->nUIDsHandle);

    if ((pWQCF = AttachSegment<_WQCF_>(pSMCtlrs->nQueuesHandle)) == nullptr) {
        _Failed(M_SHMERR, "Failed to attach(n) shared-memory Queues", -1);
    } else if ((arrNamesLocal = AttachSegment<_WQCONF_>(pSMCtlrs->nNamesHandle)) == nullptr) {
        _Failed(M_SHMERR, "Failed to attach(n) shared-memory Names Table", -1);
    } else if ((pPRLL = AttachSegment<_PRL_CTL_>(pSMCtlrs->nPRListHandle)) == nullptr) {
        _Failed(M_SHMERR, "Failed to attach(n) shared-memory PRLs", -1);
    } else if ((pDDSAT = AttachSegment<ByteInt>(pSMCtlrs->nDDSATHandle)) == nullptr) {
        _Failed(M_SHMERR, "Failed to attach(n) shared-memory SAT", -1);
    } else if ((arrUIDs = AttachSegment<_PRUID_>(pSMCtlrs->nUIDsHandle)) == nullptr) {
        _Failed(M_SHMERR, "Failed to attach(n) shared-memory Unique IDs", -1);
    } else {
        _FreeControlsLock(true);
    }
}

CWorkMessages::~CWorkMessages() {
    if (qvwm::Attached(pSMCtlrs)) {
        _SM_Controls_ snapshot;
        memcpy(static_cast<void*>(&snapshot), pSMCtlrs, sizeof(snapshot));
        _FreeControlsLock(false);
        DetachSegment(pSMCtlrs);
        DetachSegment(arrNamesLocal);
        DetachSegment(arrUIDs);
        qvwm::UnmapSegment(pWQCF, pQueuesMap, nQueuesMapHandle, false);
        qvwm::UnmapSegment(pPRLL, pPRLMap, nPRLMapHandle, false);
        DetachSegment(pDDSAT);

        // Cheap test first, then again under the constructor lock: constructors
        // attach only while they hold it, so a count of 0 seen under the lock
        // stays 0 until the removal ends.
        struct shmid_ds ds;
        memset(&ds, 0, sizeof(ds));
        if (shmctl(nControlsHandle, IPC_STAT, &ds) == 0 && ds.shm_nattch == 0 &&
            _GetConstructorLock(1)) {
            memset(&ds, 0, sizeof(ds));
            if (shmctl(nControlsHandle, IPC_STAT, &ds) == 0 && ds.shm_nattch == 0)
                _FreeAllMemory(&snapshot);
            _FreeConstructorLock();
        }
    }
    _CloseFile(&pWQCFile);
    _CloseFile(&pWDDFile);
    _CloseFile(&pREJECTFile);
    _CloseFile(&pLOCKFile);
    free(pQctl);
    pQctl = nullptr;
}

void CWorkMessages::_FreeAllMemory(_SM_Controls_* lpCtls) {
    if (bTrace) {
        snprintf(szTrace, sizeof(szTrace),
                 "_FreeAllMemory entered by pid/tid %ld/%ld(%.8lX). bHoldingConstructorLock=%s",
                 static_cast<long>(callerPID), static_cast<long>(callerTID), qvwm::Addr(pMe),
                 qvwm::TF(bHoldingConstructorLock));
        Log2cerr(szTrace, kTag, true);
    }
    szTempBuff[0] = '\0';
    char szDesc[256];

    const int nHandle = lpCtls ? nControlsHandle : shmget(cstWMctlSHMKey, 0, 0666);
    if (nHandle < 0) {
        snprintf(szTempBuff, sizeof(szTempBuff),
                 "WorkMsg object: _FreeAllMemory: failed to get handle for shared-memory "
                 "Controls\nReason: %s",
                 strerror_r(errno, szDesc, sizeof(szDesc)));
    } else if ((pSMCtlrs = AttachSegment<_SM_Controls_>(nHandle)) == nullptr) {
        snprintf(szTempBuff, sizeof(szTempBuff),
                 "WorkMsg object: _FreeAllMemory: failed to attach shared-memory Controls\n"
                 "Reason: %s",
                 strerror_r(errno, szDesc, sizeof(szDesc)));
    } else {
        // A segment left by a build with another mutex size holds no mutex
        // this build can destroy; it is only removed.
        struct shmid_ds ds;
        memset(&ds, 0, sizeof(ds));
        if (shmctl(nHandle, IPC_STAT, &ds) == 0 && ds.shm_segsz == sizeof(_SM_Controls_)) {
            int rc = pthread_mutex_destroy(&pSMCtlrs->MutexCtlrs);
            if (rc != 0)
                snprintf(szTempBuff, sizeof(szTempBuff),
                         "WorkMsg object: _FreeAllMemory: pthread_mutex_destroy failed(rc=%d)\n"
                         "Reason: %s",
                         rc, strerror_r(rc, szDesc, sizeof(szDesc)));
        }
        tAcquiredMutex = 0;
        DetachSegment(pSMCtlrs);
    }
    if (szTempBuff[0] != '\0') Log2cerr(szTempBuff, kTag, true);

    if (lpCtls != nullptr) {
        const int32_t arrHandles[] = {lpCtls->nNamesHandle, lpCtls->nUIDsHandle,
                                      lpCtls->nQueuesHandle, lpCtls->nPRListHandle,
                                      lpCtls->nDDSATHandle};
        for (int32_t nId : arrHandles)
            if (nId != 0) shmctl(nId, IPC_RMID, nullptr);
        shmctl(nControlsHandle, IPC_RMID, nullptr);
    } else {
        const int arrKeys[] = {cstWMctlSHMKey,    cstWMNamesSHMKey,   cstWMQueuesSHMKey,
                               cstWMPRListSHMKey, cstWMUIDListSHMKey, cstWMDDSATSHMKey};
        for (int nKey : arrKeys) {
            int nId = shmget(nKey, 0, 0666);
            if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
        }
    }
    _CloseFile(&pWQCFile);
    _CloseFile(&pWDDFile);
}
