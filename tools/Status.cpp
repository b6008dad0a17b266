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
#include "BridgeStats.h"
#include "Wmctl.h"

namespace wmctl {

namespace {

// The host's bridge, from its stats file; false when none ever ran here.
bool ReadBridge(wmbridge::BridgeStatus* pBridge) {
    std::string strDir, strWhyNot;
    return ConfiguredDbDir(&strDir, &strWhyNot) && wmbridge::ReadStats(strDir, pBridge);
}

} // namespace

int CmdStatus(const StatusOpts& o) {
    LiveState st;
    const bool bRead = ReadLiveState(&st, kLiveAll);

    const StateCounts counts = CountStates(st);
    const long* arrStates = counts.arrStates;
    const long nInvalid = counts.nInvalid;
    const bool bOwnerAlive = ThreadExists(st.nLockOwner);
    const bool bRobust = (st.nLockFlags & cstLockRobust) != 0;
    const bool bPending = (st.nLockFlags & cstRecoveryPending) != 0;
    std::vector<const _PRL_CTL_*> entries;
    for (const _PRL_CTL_& e : st.registry)
        if (e.nUID != 0) entries.push_back(&e);

    if (o.bJson) {
        Json segs = Json::array();
        for (const SegmentState& s : st.segments) {
            Json j = {{"key", s.nKey}, {"name", s.szName}, {"present", s.bPresent}};
            if (s.bPresent) {
                j["id"] = s.nId;
                j["size"] = s.nSize;
                j["attached"] = s.nAttached;
            }
            segs.push_back(std::move(j));
        }
        Json out = {{"segments", std::move(segs)}, {"controls", nullptr}};
        if (st.bControls) {
            out["controls"] = {{"size", st.nControlsSize},
                               {"lock_owner", st.nLockOwner},
                               {"lock_owner_alive", bOwnerAlive},
                               {"lock_robust", bRobust},
                               {"recoveries", st.nRecoveries},
                               {"recovery_pending", bPending},
                               {"last_recovery", st.nLastRecovery},
                               {"last_dead_owner", st.nDeadOwner},
                               {"slots", st.nQSlotCount},
                               {"message_counter", st.nMsgCounter},
                               {"message_counter_hex", HexId(st.nMsgCounter)},
                               {"last_load", st.nLastCleanup},
                               {"names", st.nQNameCount},
                               {"processes", st.nUIDsCount},
                               {"registry_entries", st.nPRLSlotCount}};
            Json& msgs = out["messages"];
            for (int i = 0; i < 5; ++i)
                msgs[kStateKeys[i]] = arrStates[i];
            msgs["invalid"] = nInvalid;
            Json& reg = out["registry"] = Json::array();
            for (const _PRL_CTL_* e : entries)
                reg.push_back({{"uid", e->nUID},
                               {"process", ProcessNameOf(st, e->nUID)},
                               {"pid", e->nPID},
                               {"pid_alive", ProcessExists(e->nPID)},
                               {"type", e->nMsgNo},
                               {"type_name", TypeNameOf(st, e->nMsgNo)},
                               {"lifo", e->bUseLIFO != 0},
                               {"callback", e->HasCallback()}});
            wmbridge::BridgeStatus b;
            if (ReadBridge(&b)) {
                Json bridged = Json::array();
                for (const wmbridge::BridgedProcess& p : b.bridged)
                    bridged.push_back(
                        {{"process", p.strName}, {"uid", p.nUID}, {"host", p.strHost}});
                out["bridge"] = {{"pid", b.nPid},
                                 {"pid_alive", ProcessExists(static_cast<int32_t>(b.nPid))},
                                 {"host", b.strHost},
                                 {"bridged", std::move(bridged)}};
            }
        }
        out["problems"] = st.problems;
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
