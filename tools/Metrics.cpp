// `wmctl metrics`: the live state of the host's queues as gauges in the
// Prometheus text exposition format, for node_exporter's textfile collector
// (run it from cron or a timer with -o DIR/wm.prom).
//
// It reads the same snapshot as `status` (Ipc.cpp: read-only attachments,
// never the Controls lock), so a lock held by a dead thread is reported
// instead of hanging the collector. Every series of a family is written on
// every run, zeros included (every type and process of the directory), so
// that a series never vanishes while its value is merely zero. Label values
// keep printable ASCII only: any other byte of a name becomes '?', and the
// numeric label beside it keeps series of such names apart.
//
// With -o the file is written beside its final name and renamed over it, so
// the collector never reads half a file; when the state cannot be read
// nothing is written (the file's age then shows that the data is stale).
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "Wmctl.h"

namespace wmctl {

namespace {

const char* const kPrefix = "qv_wm_";

std::string LabelValue(const std::string& s) {
    std::string out;
    for (unsigned char c : s) {
        if (c == '\\' || c == '"')
            out += '\\', out += static_cast<char>(c);
        else
            out += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
    }
    return out;
}

// Writes one metric family: its HELP and TYPE lines, then its samples.
class Exposition {
public:
    void Family(const char* szName, const char* szHelp) {
        strName = std::string(kPrefix) + szName;
        text += "# HELP " + strName + " " + szHelp + "\n# TYPE " + strName + " gauge\n";
    }
    void Sample(long long nValue) { text += strName + " " + std::to_string(nValue) + "\n"; }
    void Sample(const std::string& strLabels, long long nValue) {
        text += strName + "{" + strLabels + "} " + std::to_string(nValue) + "\n";
    }
    void Gauge(const char* szName, const char* szHelp, long long nValue) {
        Family(szName, szHelp);
        Sample(nValue);
    }
    const std::string& Text() const { return text; }

private:
    std::string strName;
    std::string text;
};

// "name" and numeric labels of one series of a by-type or by-process family.
std::string NamedLabels(const char* szName, const std::string& strValue, const char* szIdName,
                        int32_t nId) {
    return std::string(szName) + "=\"" + LabelValue(strValue) + "\"," + szIdName + "=\"" +
           std::to_string(nId) + "\"";
}

std::string Render(const LiveState& st) {
    Exposition x;
    x.Gauge("up", "1 when the shared state exists (a process uses the queues), 0 when not.",
            st.bControls ? 1 : 0);
    if (!st.bControls) return x.Text();

    x.Gauge("attached_processes", "Attachments of the Controls segment.", st.segments[2].nAttached);

    const StateCounts counts = CountStates(st);
    x.Family("messages", "Messages in the control table, by state.");
    for (int i = 1; i < 5; ++i)
        x.Sample(std::string("state=\"") + kStateKeys[i] + "\"", counts.arrStates[i]);
    x.Sample("state=\"invalid\"", counts.nInvalid);

    // Every type and process of the directory, then any number a message
    // names that the directory does not know.
    std::map<int32_t, long> byType, byTarget;
    for (const _WQCONF_& r : st.names)
        byType[r.nID];
    for (const _PRUID_& r : st.processes)
        byTarget[r.nUID];
    for (const _WQCF_& s : st.slots) {
        if (s.nflag == WQCF_Available) continue;
        ++byType[s.nMsgNo];
        ++byTarget[s.nTargetUID];
    }
    x.Family("messages_by_type", "Messages in the control table (any state), by message type.");
    for (const auto& t : byType)
        x.Sample(NamedLabels("type", TypeNameOf(st, t.first), "type_id", t.first), t.second);
    x.Family("messages_by_target", "Messages in the control table (any state), by target process.");
    for (const auto& t : byTarget)
        x.Sample(NamedLabels("target", ProcessNameOf(st, t.first), "target_uid", t.first),
                 t.second);

    const long nSlots = static_cast<long>(st.slots.size());
    x.Gauge("control_slots", "Slots of the control table.", nSlots);
    x.Gauge("control_slots_used", "Control slots holding a message.",
            nSlots - counts.arrStates[WQCF_Available]);
    x.Gauge("data_slots", "Data slots of the host.", kDataSlots);
    x.Gauge("data_slots_used", "Data slots marked in use in the slot allocation table.",
            st.nDataSlotsUsed);

    long nEntries = 0, nGone = 0;
    for (const _PRL_CTL_& e : st.registry) {
        if (e.nUID == 0) continue;
        ++nEntries;
        if (!ProcessExists(e.nPID)) ++nGone;
    }
    x.Gauge("registry_slots", "Entries of the receiver registry table.",
            static_cast<long long>(st.registry.size()));
    x.Gauge("registry_entries", "Receiver registrations in use.", nEntries);
    x.Gauge("registry_entries_gone", "Receiver registrations whose process no longer exists.",
            nGone);

    const bool bHeld = st.nLockOwner != 0;
    x.Gauge("controls_lock_held", "1 when a thread holds the Controls lock.", bHeld ? 1 : 0);
    x.Gauge("controls_lock_holder_exists",
            "1 when the Controls lock is held and its holder's thread still exists; held with "
            "0 here means the holder died and operations fail until the state is rebuilt.",
            bHeld && ThreadExists(st.nLockOwner) ? 1 : 0);
    x.Gauge("next_message_id", "The message ID the next Send gives.",
            static_cast<long long>(static_cast<uint32_t>(st.nMsgCounter)));
    return x.Text();
}

// Writes text to strPath through a temporary file in the same directory,
// renamed over it; the temporary file goes on every failure.
bool ReplaceFile(const std::string& strPath, const std::string& text, std::string* pError) {
    const std::string strTemp = strPath + "." + std::to_string(getpid()) + ".tmp";
    FILE* fp = fopen(strTemp.c_str(), "w");
    if (fp == nullptr) {
        *pError = "cannot create " + strTemp + ": " + strerror(errno);
        return false;
    }
    const bool bWritten = fwrite(text.data(), 1, text.size(), fp) == text.size();
    const int nWriteErrno = errno;
    if (fclose(fp) != 0 || !bWritten) {
        *pError = "cannot write " + strTemp + ": " + strerror(bWritten ? errno : nWriteErrno);
        unlink(strTemp.c_str());
        return false;
    }
    if (rename(strTemp.c_str(), strPath.c_str()) != 0) {
        *pError = "cannot rename " + strTemp + " to " + strPath + ": " + strerror(errno);
        unlink(strTemp.c_str());
        return false;
    }
    return true;
}

} // namespace

int CmdMetrics(const MetricsOpts& o) {
    const char* kCmd = "metrics";
    LiveState st;
    const bool bRead = ReadLiveState(&st, kLiveAll);
    // A table that could not be read would show as zeros: report nothing
    // rather than values that look real.
    if (!bRead || !st.problems.empty()) {
        for (const std::string& p : st.problems)
            Failure(kCmd, kExitFailed, p);
        return Failure(kCmd, kExitFailed, "the shared state could not be read; nothing written");
    }
    const std::string text = Render(st);
    if (o.strOut.empty()) {
        fwrite(text.data(), 1, text.size(), stdout);
        return fflush(stdout) == 0 ? kExitOk : kExitFailed;
    }
    std::string strError;
    return ReplaceFile(o.strOut, text, &strError) ? kExitOk : Failure(kCmd, kExitFailed, strError);
}

} // namespace wmctl
