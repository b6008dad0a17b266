// wmctl's view of the live shared state, and `wmctl ipc-clean`.
//
// Everything here reads the six segments through read-only attachments and
// never takes the Controls lock: an operator looks at the queues precisely
// when something hangs, and a lock whose owner died must not hang the look.
// The copies are bounded by the segments' real sizes (shmctl IPC_STAT), not
// by the counts stored in the Controls segment, so a damaged count cannot
// make a read leave a segment.
//
// The constructor lock (WM.lock) is what the library's constructors and
// last destructors take to decide "create, attach or remove"; ipc-clean and
// fsck --repair take it too, so no process can attach while they work.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Wmctl.h"

namespace wmctl {

namespace {

const int kKeys[] = {QVshmKeysBase::cstWMNamesSHMKey,   QVshmKeysBase::cstWMQueuesSHMKey,
                     QVshmKeysBase::cstWMctlSHMKey,     QVshmKeysBase::cstWMPRListSHMKey,
                     QVshmKeysBase::cstWMUIDListSHMKey, QVshmKeysBase::cstWMDDSATSHMKey};
const char* const kNames[] = {"Names Table", "Queues", "Controls", "PRLs", "Unique IDs", "SAT"};

// Offsets in the Controls segment; the same in every build.
const size_t kOffMsgCounter = 8;
const size_t kOffNamesHandle = 12;
const size_t kOffUIDsHandle = 16;
const size_t kOffQueuesHandle = 20;
const size_t kOffPRListHandle = 24;
const size_t kOffDDSATHandle = 28;
const size_t kOffQNameCount = 32;
const size_t kOffUIDsCount = 36;
const size_t kOffQSlotCount = 40;
const size_t kOffPRLSlotCount = 44;
const size_t kOffLastCleanup = 48;
const size_t kOffReserved = 56;
const size_t kOffLockOwner = 136;
const size_t kControlsMin = kOffLockOwner + 4;
static_assert(offsetof(_SM_Controls_, nQSlotCount) == kOffQSlotCount, "Controls layout");
static_assert(offsetof(_SM_Controls_, Reserved) == kOffReserved, "Controls layout");

// A read-only attachment, detached when the object goes.
class ReadOnlySegment {
public:
    explicit ReadOnlySegment(int nId) {
        struct shmid_ds ds;
        memset(&ds, 0, sizeof(ds));
        if (nId < 0 || shmctl(nId, IPC_STAT, &ds) != 0) {
            nErrno = nId < 0 ? EINVAL : errno;
            return;
        }
        void* p = shmat(nId, nullptr, SHM_RDONLY);
        if (p == reinterpret_cast<void*>(-1)) {
            nErrno = errno;
            return;
        }
        pData = static_cast<const unsigned char*>(p);
        nSize = ds.shm_segsz;
    }
    ~ReadOnlySegment() {
        if (pData) shmdt(pData);
    }
    ReadOnlySegment(const ReadOnlySegment&) = delete;
    ReadOnlySegment& operator=(const ReadOnlySegment&) = delete;

    bool Ok() const { return pData != nullptr; }
    const unsigned char* Data() const { return pData; }
    size_t Size() const { return nSize; }
    int Errno() const { return nErrno; }
    int32_t Int32At(size_t nOff) const {
        int32_t n = 0;
        if (pData && nOff + 4 <= nSize) memcpy(&n, pData + nOff, 4);
        return n;
    }

private:
    const unsigned char* pData = nullptr;
    size_t nSize = 0;
    int nErrno = 0;
};

// Copies up to nCount records of type T from segment nId; bounded by the
// segment's size. Notes a problem when the segment is missing or short.
template <class T>
void CopyTable(int nId, int32_t nCount, const char* szName, std::vector<T>* pOut,
               std::vector<std::string>* pProblems) {
    pOut->clear();
    if (nId == 0) return; // never created
    ReadOnlySegment seg(nId);
    if (!seg.Ok()) {
        pProblems->push_back(std::string("cannot attach the ") + szName + " segment (id " +
                             std::to_string(nId) + "): " + strerror(seg.Errno()));
        return;
    }
    size_t nWanted = nCount > 0 ? static_cast<size_t>(nCount) : 0;
    const size_t nFits = seg.Size() / sizeof(T);
    if (nWanted > nFits) {
        pProblems->push_back(std::string("the ") + szName + " segment holds " +
                             std::to_string(nFits) + " rows, the Controls segment says " +
                             std::to_string(nCount));
        nWanted = nFits;
    }
    pOut->resize(nWanted);
    if (nWanted) memcpy(static_cast<void*>(pOut->data()), seg.Data(), nWanted * sizeof(T));
}

} // namespace

std::vector<SegmentState> InspectSegments() {
    std::vector<SegmentState> out;
    for (size_t i = 0; i < sizeof(kKeys) / sizeof(kKeys[0]); ++i) {
        SegmentState s;
        s.nKey = kKeys[i];
        s.szName = kNames[i];
        s.nId = shmget(kKeys[i], 0, 0);
        if (s.nId < 0) {
            s.nErrno = errno == ENOENT ? 0 : errno;
        } else {
            struct shmid_ds ds;
            memset(&ds, 0, sizeof(ds));
            if (shmctl(s.nId, IPC_STAT, &ds) == 0) {
                s.bPresent = true;
                s.nSize = ds.shm_segsz;
                s.nAttached = static_cast<long>(ds.shm_nattch);
            } else {
                s.nErrno = errno;
            }
        }
        out.push_back(s);
    }
    return out;
}

bool ReadLiveState(LiveState* p, unsigned nParts) {
    *p = LiveState();
    p->segments = InspectSegments();
    const SegmentState& ctl = p->segments[2];
    if (!ctl.bPresent) {
        if (ctl.nErrno != 0)
            p->problems.push_back(std::string("cannot look up the Controls segment: ") +
                                  strerror(ctl.nErrno));
        return ctl.nErrno == 0;
    }
    ReadOnlySegment seg(ctl.nId);
    if (!seg.Ok()) {
        p->problems.push_back(std::string("cannot attach the Controls segment: ") +
                              strerror(seg.Errno()));
        return false;
    }
    if (seg.Size() < kControlsMin) {
        p->problems.push_back("the Controls segment is " + std::to_string(seg.Size()) +
                              " bytes, too small for a Controls record");
        return false;
    }
    p->bControls = true;
    p->nControlsSize = seg.Size();

    // The Queues and PRLs segments are replaced when they grow: read the
    // handles, copy, and read them again; retry when they moved meanwhile.
    for (int nTry = 0; nTry < 5; ++nTry) {
        p->problems.clear();
        p->nMsgCounter = seg.Int32At(kOffMsgCounter);
        p->nNamesHandle = seg.Int32At(kOffNamesHandle);
        p->nUIDsHandle = seg.Int32At(kOffUIDsHandle);
        p->nQueuesHandle = seg.Int32At(kOffQueuesHandle);
        p->nPRListHandle = seg.Int32At(kOffPRListHandle);
        p->nDDSATHandle = seg.Int32At(kOffDDSATHandle);
        p->nQNameCount = seg.Int32At(kOffQNameCount);
        p->nUIDsCount = seg.Int32At(kOffUIDsCount);
        p->nQSlotCount = seg.Int32At(kOffQSlotCount);
        p->nPRLSlotCount = seg.Int32At(kOffPRLSlotCount);
        p->nLastCleanup = seg.Int32At(kOffLastCleanup);
        p->nLockOwner = seg.Int32At(kOffLockOwner);
        p->nLockFlags = seg.Int32At(kOffReserved + 4 * cstCtlLockFlags);
        p->nRecoveries = seg.Int32At(kOffReserved + 4 * cstCtlRecoveries);
        p->nDeadOwner = seg.Int32At(kOffReserved + 4 * cstCtlDeadOwner);
        p->nLastRecovery = seg.Int32At(kOffReserved + 4 * cstCtlLastRecovery);
        if (nParts & kLiveQueues)
            CopyTable(p->nQueuesHandle, p->nQSlotCount, "Queues", &p->slots, &p->problems);
        if (nParts & kLiveRegistry)
            CopyTable(p->nPRListHandle, p->nPRLSlotCount, "PRLs", &p->registry, &p->problems);
        if (seg.Int32At(kOffQueuesHandle) == p->nQueuesHandle &&
            seg.Int32At(kOffPRListHandle) == p->nPRListHandle)
            break;
    }
    if (nParts & kLiveDirectory) {
        CopyTable(p->nNamesHandle, p->nQNameCount, "Names Table", &p->names, &p->problems);
        CopyTable(p->nUIDsHandle, p->nUIDsCount, "Unique IDs", &p->processes, &p->problems);
    }
    if (nParts & kLiveDataSlots) {
        // One bit per data slot; counted in place, bounded by the segment.
        ReadOnlySegment sat(p->nDDSATHandle);
        if (!sat.Ok()) {
            p->problems.push_back("cannot attach the SAT segment (id " +
                                  std::to_string(p->nDDSATHandle) + "): " + strerror(sat.Errno()));
        } else {
            const size_t nBytes = std::min(sat.Size(), static_cast<size_t>(kDataSlots / 8));
            p->nDataSlotsUsed = 0;
            for (size_t i = 0; i < nBytes; ++i)
                p->nDataSlotsUsed += __builtin_popcount(sat.Data()[i]);
        }
    }
    return true;
}

bool FindReceivedSlot(long nUID, const WorkMsg& msg, _WQCF_* pSlot) {
    LiveState st;
    if (!ReadLiveState(&st, kLiveQueues)) return false;
    for (const _WQCF_& s : st.slots) {
        if (s.nflag == WQCF_Received && s.nMessageID == msg.nMessageID && s.nTargetUID == nUID &&
            s.nMsgNo == msg.nMsgNo && s.nTimeSent == static_cast<int32_t>(msg.nTimeSent)) {
            // A length outside a data slot comes only from a damaged slot.
            if (s.nDepDataSlot != -1 && (s.nDepDataLength < 0 || s.nDepDataLength > WM_MAX_DEPDATA))
                return false;
            *pSlot = s;
            return true;
        }
    }
    return false;
}

const char* const kStateKeys[5] = {"free", "pending", "received", "retry", "delayed_retry"};

StateCounts CountStates(const LiveState& st) {
    StateCounts c;
    for (const _WQCF_& s : st.slots) {
        if (s.nflag < 5)
            ++c.arrStates[s.nflag];
        else
            ++c.nInvalid;
    }
    return c;
}

namespace {
std::string NameOf(const char* szName, size_t nMax) {
    size_t n = 0;
    while (n < nMax && szName[n] != '\0')
        ++n;
    return std::string(szName, n);
}
} // namespace

std::string TypeNameOf(const LiveState& st, int32_t nMsgNo) {
    for (const _WQCONF_& r : st.names)
        if (r.nID == nMsgNo) return NameOf(r.szName, sizeof(r.szName));
    return "#" + std::to_string(nMsgNo);
}

std::string ProcessNameOf(const LiveState& st, int32_t nUID) {
    for (const _PRUID_& r : st.processes)
        if (r.nUID == nUID) return NameOf(r.szName, sizeof(r.szName));
    return "#" + std::to_string(nUID);
}

bool ThreadExists(int32_t nTid) {
    if (nTid <= 0) return false;
    return access(("/proc/" + std::to_string(nTid)).c_str(), F_OK) == 0;
}

bool ProcessExists(int32_t nPid) {
    if (nPid <= 0) return false;
    return kill(static_cast<pid_t>(nPid), 0) == 0 || errno == EPERM;
}

// ---------------------------------------------------------------------------
// The constructor lock and the configured database directory
// ---------------------------------------------------------------------------

ConstructorLock::~ConstructorLock() {
    if (fp == nullptr) return;
    int nAction = 2;
    FileLock(fp, &nAction, 4);
    fclose(fp);
}

bool ConstructorLock::Take(const std::string& strDbDir, long nSeconds, std::string* pError) {
    const std::string strPath = strDbDir + "/WM.lock";
    struct stat st;
    const bool bExisted = stat(strPath.c_str(), &st) == 0;
    const mode_t nOldMask = umask(002);
    fp = fopen(strPath.c_str(), "a");
    umask(nOldMask);
    if (fp == nullptr) {
        *pError = "cannot open the lock file " + strPath + ": " + strerror(errno);
        return false;
    }
    // A lock file made by root here must stay usable by the library's users:
    // give it the owner of the database directory, as the library gives its
    // files to the configured user.
    struct stat stDir;
    if (!bExisted && geteuid() == 0 && stat(strDbDir.c_str(), &stDir) == 0 &&
        fchown(fileno(fp), stDir.st_uid, stDir.st_gid) != 0)
        fprintf(stderr, "wmctl: note: cannot give %s to the owner of %s: %s\n", strPath.c_str(),
                strDbDir.c_str(), strerror(errno));
    int nAction = 1;
    const long nAttempts = nSeconds > 0 ? nSeconds * 20 : 1;
    for (long i = 0; i < nAttempts; ++i) {
        nAction = 1;
        if (FileLock(fp, &nAction, 4)) return true;
        if (nAction < 0) break; // an error, not a holder
        if (i + 1 < nAttempts) Usleep(50000);
    }
    if (nAction > 0)
        *pError = "the constructor lock " + strPath + " is held by process " +
                  std::to_string(nAction) + " (a library object is being created or removed)";
    else if (nAction < 0)
        *pError = "cannot lock " + strPath + ": " + strerror(-nAction);
    else
        *pError = "the constructor lock " + strPath + " is held by another process";
    fclose(fp);
    fp = nullptr;
    return false;
}

bool ConfiguredPaths(HostPaths* p, std::string* pWhyNot) {
    CGDDA gdda(nullptr, false);
    if (gdda.CreateError) {
        *pWhyNot = gdda.szErrorMsg;
        return false;
    }
    if (!gdda.GetValue("Root", p->strRoot, CGDDA::Global, true)) {
        *pWhyNot = gdda.szErrorMsg;
        return false;
    }
    char szLevel[10] = "";
    const CGDDA::Levels nLevel = gdda.GetSystemLevel(szLevel);
    if (nLevel == CGDDA::Invalid) {
        *pWhyNot = gdda.szErrorMsg;
        return false;
    }
    p->strLevel = szLevel;
    p->nLevel = static_cast<unsigned char>(nLevel);
    if (!gdda.GetValue("WM_DBPath", p->strDbDir, p->nLevel, true))
        p->strDbDir = p->strRoot + "/" + szLevel + "/data/msgq";
    return true;
}

bool ConfiguredDbDir(std::string* pDir, std::string* pWhyNot) {
    HostPaths paths;
    if (!ConfiguredPaths(&paths, pWhyNot)) return false;
    *pDir = paths.strDbDir;
    return true;
}

// ---------------------------------------------------------------------------
// wmctl ipc-clean
// ---------------------------------------------------------------------------

int CmdIpcClean(const IpcCleanOpts& o) {
    const char* kCmd = "ipc-clean";
    std::string strDbDir = o.strDbDir, strWhyNot, strNote;
    if (strDbDir.empty() && !ConfiguredDbDir(&strDbDir, &strWhyNot)) {
        strDbDir.clear();
        strNote = "no configuration (" + strWhyNot +
                  "): segments are removed without the constructor lock";
    }
    ConstructorLock lock;
    std::string strError;
    if (!strDbDir.empty() && !lock.Take(strDbDir, 5, &strError))
        return Failure(kCmd, kExitFailed, strError + "; nothing removed");

    std::vector<SegmentState> segs = InspectSegments();
    const SegmentState& ctl = segs[2];
    if (ctl.bPresent && ctl.nAttached > 0)
        return Failure(kCmd, kExitFailed,
                       std::to_string(ctl.nAttached) +
                           " process(es) attached to the Controls segment (key 1050): the "
                           "shared state is in use; nothing removed");

    Json removed = Json::array(), kept = Json::array();
    std::vector<std::string> lines;
    bool bClean = true;
    for (const SegmentState& s : segs) {
        std::string strWhat = std::string(s.szName) + " (key " + std::to_string(s.nKey) + ", id " +
                              std::to_string(s.nId) + ")";
        if (!s.bPresent) {
            if (s.nErrno != 0) {
                bClean = false;
                lines.push_back("cannot look up " + std::string(s.szName) + " (key " +
                                std::to_string(s.nKey) + "): " + strerror(s.nErrno));
                kept.push_back(
                    {{"key", s.nKey}, {"name", s.szName}, {"reason", strerror(s.nErrno)}});
            }
            continue;
        }
        std::string strReason;
        if (s.nAttached > 0)
            strReason = std::to_string(s.nAttached) + " process(es) attached";
        else if (shmctl(s.nId, IPC_RMID, nullptr) != 0)
            strReason = std::string("cannot remove: ") + strerror(errno);
        if (strReason.empty()) {
            lines.push_back("removed " + strWhat);
            removed.push_back(
                {{"key", s.nKey}, {"name", s.szName}, {"id", s.nId}, {"size", s.nSize}});
        } else {
            bClean = false;
            lines.push_back("kept " + strWhat + ": " + strReason);
            kept.push_back(
                {{"key", s.nKey}, {"name", s.szName}, {"id", s.nId}, {"reason", strReason}});
        }
    }
    if (o.bJson) {
        Json out = {{"removed", std::move(removed)}, {"kept", std::move(kept)}};
        if (!strNote.empty()) out["note"] = strNote;
        PrintJson(out);
    } else {
        if (!strNote.empty()) printf("note: %s\n", strNote.c_str());
        if (lines.empty()) printf("no segment of the six keys (1048 to 1053) exists\n");
        for (const std::string& l : lines)
            printf("%s\n", l.c_str());
    }
    return bClean ? kExitOk : kExitFailed;
}

} // namespace wmctl
