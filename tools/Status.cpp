// `wmctl status`: what the host's shared state looks like right now.
//
// It shows the six segments (ID, size, attachments), who holds the Controls
// lock and whether that thread still exists, whether the lock is robust and
// how often a dead owner was recovered, the control table's size and
// message counter, every receiver registration with its process and whether
// that process still runs, and the messages by state. It reads a snapshot
// through read-only attachments and never takes the lock (Ipc.cpp), so it
// answers even when a dead owner keeps the lock held, which is exactly when
// an operator needs it.
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "BridgeStats.h"
#include "Wmctl.h"

namespace wmctl {

namespace {

bool ThreadExists(int32_t nTid) {
    if (nTid <= 0) return false;
    return access(("/proc/" + std::to_string(nTid)).c_str(), F_OK) == 0;
}

bool ProcessExists(int32_t nPid) {
    if (nPid <= 0) return false;
    return kill(static_cast<pid_t>(nPid), 0) == 0 || errno == EPERM;
}

std::string NameOf(const char* szName, size_t nMax) {
    size_t n = 0;
    while (n < nMax && szName[n] != '\0')
        ++n;
    return std::string(szName, n);
}

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

// The host's bridge, from its stats file; false when none ever ran here.
bool ReadBridge(wmbridge::BridgeStatus* pBridge) {
    std::string strDir, strWhyNot;
    return ConfiguredDbDir(&strDir, &strWhyNot) && wmbridge::ReadStats(strDir, pBridge);
}

const char* const kStateKeys[] = {"free", "pending", "received", "retry", "delayed_retry"};

} // namespace

int CmdStatus(const StatusOpts& o) {
    LiveState st;
    const bool bRead = ReadLiveState(&st, kLiveAll);

    long arrStates[5] = {0, 0, 0, 0, 0};
    long nInvalid = 0;
    for (const _WQCF_& s : st.slots) {
        if (s.nflag < 5)
            ++arrStates[s.nflag];
        else
            ++nInvalid;
    }
    const bool bOwnerAlive = ThreadExists(st.nLockOwner);
    const bool bRobust = (st.nLockFlags & cstLockRobust) != 0;
    const bool bPending = (st.nLockFlags & cstRecoveryPending) != 0;
    std::vector<const _PRL_CTL_*> entries;
    for (const _PRL_CTL_& e : st.registry)
        if (e.nUID != 0) entries.push_back(&e);

    if (o.bJson) {
        Json out = Json::Object();
        Json segs = Json::Array();
        for (const SegmentState& s : st.segments) {
            Json j = Json::Object();
            j.Add("key", s.nKey).Add("name", s.szName).Add("present", s.bPresent);
            if (s.bPresent) j.Add("id", s.nId).Add("size", s.nSize).Add("attached", s.nAttached);
            segs.Push(std::move(j));
        }
        out.Add("segments", std::move(segs));
        if (st.bControls) {
            out.Add("controls", Json::Object()
                                    .Add("size", st.nControlsSize)
                                    .Add("lock_owner", st.nLockOwner)
                                    .Add("lock_owner_alive", bOwnerAlive)
                                    .Add("lock_robust", bRobust)
                                    .Add("recoveries", st.nRecoveries)
                                    .Add("recovery_pending", bPending)
                                    .Add("last_recovery", st.nLastRecovery)
                                    .Add("last_dead_owner", st.nDeadOwner)
                                    .Add("slots", st.nQSlotCount)
                                    .Add("message_counter", st.nMsgCounter)
                                    .Add("message_counter_hex", HexId(st.nMsgCounter))
                                    .Add("last_load", st.nLastCleanup)
                                    .Add("names", st.nQNameCount)
                                    .Add("processes", st.nUIDsCount)
                                    .Add("registry_entries", st.nPRLSlotCount));
            Json msgs = Json::Object();
            for (int i = 0; i < 5; ++i)
                msgs.Add(kStateKeys[i], arrStates[i]);
            msgs.Add("invalid", nInvalid);
            out.Add("messages", std::move(msgs));
            Json reg = Json::Array();
            for (const _PRL_CTL_* e : entries)
                reg.Push(Json::Object()
                             .Add("uid", e->nUID)
                             .Add("process", ProcessNameOf(st, e->nUID))
                             .Add("pid", e->nPID)
                             .Add("pid_alive", ProcessExists(e->nPID))
                             .Add("type", e->nMsgNo)
                             .Add("type_name", TypeNameOf(st, e->nMsgNo))
                             .Add("lifo", e->bUseLIFO != 0)
                             .Add("callback", e->HasCallback()));
            out.Add("registry", std::move(reg));
            wmbridge::BridgeStatus b;
            if (ReadBridge(&b)) {
                Json bridged = Json::Array();
                for (const wmbridge::BridgedProcess& p : b.bridged)
                    bridged.Push(Json::Object()
                                     .Add("process", p.strName)
                                     .Add("uid", p.nUID)
                                     .Add("host", p.strHost));
                out.Add("bridge", Json::Object()
                                      .Add("pid", b.nPid)
                                      .Add("pid_alive", ProcessExists(static_cast<int32_t>(b.nPid)))
                                      .Add("host", b.strHost)
                                      .Add("bridged", std::move(bridged)));
            }
        } else {
            out.Add("controls", Json());
        }
        Json problems = Json::Array();
        for (const std::string& p : st.problems)
            problems.Push(p);
        out.Add("problems", std::move(problems));
        PrintJson(out);
        return bRead ? kExitOk : kExitFailed;
    }

    printf("Shared segments:\n  %-5s %-12s %10s %10s %9s\n", "key", "segment", "id", "size",
           "attached");
    bool bLeftovers = false;
    for (const SegmentState& s : st.segments) {
        if (s.bPresent) {
            printf("  %-5d %-12s %10d %10llu %9ld\n", s.nKey, s.szName, s.nId, s.nSize,
                   s.nAttached);
            if (s.nKey != QVshmKeysBase::cstWMctlSHMKey) bLeftovers = true;
        } else {
            printf("  %-5d %-12s %10s %10s %9s  missing\n", s.nKey, s.szName, "-", "-", "-");
        }
    }
    for (const std::string& p : st.problems)
        printf("problem: %s\n", p.c_str());
    if (!st.bControls) {
        if (bRead) {
            printf("No Controls segment (key 1050): no process uses the queues on this host.\n");
            if (bLeftovers)
                printf("Segments without the Controls segment are left over; "
                       "'wmctl ipc-clean' removes them.\n");
        }
        return bRead ? kExitOk : kExitFailed;
    }

    if (st.segments[2].nAttached == 0)
        printf("No process is attached: the segments are left over (the next process rebuilds "
               "them from the files; 'wmctl ipc-clean' removes them).\n");
    if (st.nLockOwner == 0)
        printf("Controls lock: free\n");
    else if (bOwnerAlive)
        printf("Controls lock: held by thread %d\n", st.nLockOwner);
    else if (bRobust)
        printf("Controls lock: held by thread %d, which no longer exists: the next operation "
               "takes it over and rebuilds the tables from the files\n",
               st.nLockOwner);
    else
        printf("Controls lock: held by thread %d, which no longer exists: operations fail with "
               "M_LOCK until every process has detached and the shared state is rebuilt\n",
               st.nLockOwner);
    if (!bRobust)
        printf("Dead-owner recovery: off (the lock is not robust)\n");
    else if (st.nRecoveries == 0)
        printf("Dead-owner recovery: on (robust lock), no recovery since the segments were "
               "built\n");
    else
        printf("Dead-owner recovery: on (robust lock), %d recover%s since the segments were "
               "built, the last at %s after thread %d died\n",
               st.nRecoveries, st.nRecoveries == 1 ? "y" : "ies",
               FormatTime(st.nLastRecovery).c_str(), st.nDeadOwner);
    if (bPending)
        printf("Recovery pending: a rebuild after thread %d died has not completed; the next "
               "operation tries again\n",
               st.nDeadOwner);
    printf("Control slots: %d   next message ID: %s   last load: %s\n", st.nQSlotCount,
           HexId(st.nMsgCounter).c_str(), FormatTime(st.nLastCleanup).c_str());
    printf("Messages: %ld pending, %ld received, %ld retry, %ld delayed retry (%ld slots free",
           arrStates[1], arrStates[2], arrStates[3], arrStates[4], arrStates[0]);
    if (nInvalid) printf(", %ld in an invalid state", nInvalid);
    printf(")\n");
    printf("Receivers (%zu of %d entries in use):\n", entries.size(), st.nPRLSlotCount);
    for (const _PRL_CTL_* e : entries) {
        const bool bAlive = ProcessExists(e->nPID);
        printf("  %s (%d) for %s (%d), pid %d %s, %s%s\n", ProcessNameOf(st, e->nUID).c_str(),
               e->nUID, TypeNameOf(st, e->nMsgNo).c_str(), e->nMsgNo, e->nPID,
               bAlive ? "running" : "gone", e->bUseLIFO ? "newest first" : "oldest first",
               e->HasCallback() ? ", callback" : "");
    }
    wmbridge::BridgeStatus b;
    if (ReadBridge(&b)) {
        printf("Bridge: host %s, wmbridge pid %ld %s; receives here for:\n", b.strHost.c_str(),
               b.nPid, ProcessExists(static_cast<int32_t>(b.nPid)) ? "running" : "gone");
        for (const wmbridge::BridgedProcess& p : b.bridged)
            printf("  %s (%ld) on host %s\n", p.strName.c_str(), p.nUID, p.strHost.c_str());
    }
    return kExitOk;
}

} // namespace wmctl
