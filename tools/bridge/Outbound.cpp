// Outbound: messages for processes of other hosts, from the local queue to
// the stream.
//
// The bridge registers (SetInput) as the receiver of every remote process for
// every type, so local senders see their targets active. It takes one
// message at a time with Receive, writes it to the journal (`wmbridge.journal`
// in WM_DBPath, replaced atomically), publishes it to the subject of its
// target's host and UID, and only after the stream has acknowledged the
// publish deletes the local message and then the journal. What that order
// guarantees, whatever moment a kill comes:
//   - before the journal is written: the message is marked received here and
//     never left the host; the next start finds it (received, for a remote
//     UID, no bridge running) and puts it back for a retry;
//   - after: the next start publishes the journal again under the same
//     message ID (origin host, message ID, send time), which the stream's
//     duplicate window drops if the first publish had arrived, then deletes
//     the local message (gone already is fine) and the journal.
// A message is thus deleted here only once the stream holds it, and it
// reaches the stream twice only when the bridge was killed after the
// stream's acknowledgement and stays down longer than the duplicate window.
// The journal also keeps the message when a cleaning restart of the queues
// (a process constructing without bNoClean while the bridge is down) drops
// messages that were received but not deleted.
//
// Order: messages of one sender to one target leave in the order Receive
// hands them out (oldest first, high priority first, as for any receiver),
// one at a time, each acknowledged before the next is taken.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Wmctl.h"
#include "Bridge.h"
#include "GPLibrary.h"
#include "Internal.h"
#include "WorkMessages.h"

namespace wmbridge {

namespace {

const char* const kJournalFile = "wmbridge.journal";
const unsigned kIdleStepUsecs = 50000; // looks at the queues 20 times a second when idle
const unsigned kRetryStepUsecs = 500000;
const int64_t kPublishWaitMs = 5000;

// One message on its way out: everything the publish needs, so the journal
// alone can repeat it.
struct OutMessage {
    std::string strSubject, strMsgId, strType, strSender, strTarget;
    long nTargetUID = 0, nMessageID = 0, nTimeSent = 0;
    bool bHigh = false, bResponse = false;
    std::string strData;
};

std::string JournalPath(const Config& cfg) {
    return cfg.strDbPath + "/" + kJournalFile;
}

// The journal: the fields a line each, then the data (its length is a field).
bool WriteJournal(const Config& cfg, const OutMessage& m) {
    std::ostringstream out;
    out << m.strSubject << "\n"
        << m.strMsgId << "\n"
        << m.strType << "\n"
        << m.strSender << "\n"
        << m.strTarget << "\n"
        << m.nTargetUID << " " << m.nMessageID << " " << m.nTimeSent << " " << m.bHigh << " "
        << m.bResponse << " " << m.strData.size() << "\n"
        << m.strData;
    const std::string strText = out.str();
    const std::string strTemp = JournalPath(cfg) + ".tmp";
    const int fd = open(strTemp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0660);
    if (fd < 0) return false;
    auto closeFd = qvwm::OnScopeExit([fd]() { close(fd); });
    if (write(fd, strText.data(), strText.size()) != static_cast<ssize_t>(strText.size()))
        return false;
    return rename(strTemp.c_str(), JournalPath(cfg).c_str()) == 0;
}

// False when there is no journal; a damaged one is logged and dropped (the
// message is then still received here, and the start's scan puts it back).
bool ReadJournal(const Config& cfg, OutMessage* m) {
    std::ifstream in(JournalPath(cfg), std::ios::binary);
    if (!in) return false;
    size_t nLength = 0;
    std::string strNumbers;
    bool bOk = std::getline(in, m->strSubject) && std::getline(in, m->strMsgId) &&
               std::getline(in, m->strType) && std::getline(in, m->strSender) &&
               std::getline(in, m->strTarget) && std::getline(in, strNumbers);
    if (bOk) {
        std::istringstream nums(strNumbers);
        bOk = static_cast<bool>(nums >> m->nTargetUID >> m->nMessageID >> m->nTimeSent >>
                                m->bHigh >> m->bResponse >> nLength) &&
              nLength <= WM_MAX_DEPDATA;
    }
    if (bOk) {
        m->strData.resize(nLength);
        bOk = nLength == 0 ||
              static_cast<bool>(in.read(&m->strData[0], static_cast<std::streamsize>(nLength)));
    }
    if (!bOk) {
        Log("outbound: the journal %s is damaged; dropped", JournalPath(cfg).c_str());
        unlink(JournalPath(cfg).c_str());
    }
    return bOk;
}

// Publishes until the stream acknowledges or the bridge stops.
bool Publish(jsCtx* js, const OutMessage& m) {
    bool bLogged = false;
    while (!g_bStop) {
        natsMsg* msg = nullptr;
        natsStatus s = natsMsg_Create(&msg, m.strSubject.c_str(), nullptr, m.strData.data(),
                                      static_cast<int>(m.strData.size()));
        auto destroy = qvwm::OnScopeExit([&msg]() { natsMsg_Destroy(msg); });
        const std::string strSent = std::to_string(m.nTimeSent);
        const std::string strHost = m.strMsgId.substr(0, m.strMsgId.find('.'));
        const std::pair<const char*, const char*> headers[] = {
            {kHdrType, m.strType.c_str()},
            {kHdrSender, m.strSender.c_str()},
            {kHdrTarget, m.strTarget.c_str()},
            {kHdrHigh, m.bHigh ? "1" : "0"},
            {kHdrResponse, m.bResponse ? "1" : "0"},
            {kHdrSent, strSent.c_str()},
            {kHdrOrigin, strHost.c_str()}};
        for (const auto& h : headers)
            if (s == NATS_OK) s = natsMsgHeader_Set(msg, h.first, h.second);
        jsPubOptions opts;
        jsPubOptions_Init(&opts);
        opts.MsgId = m.strMsgId.c_str();
        opts.MaxWait = kPublishWaitMs;
        jsPubAck* ack = nullptr;
        jsErrCode nErr = static_cast<jsErrCode>(0);
        if (s == NATS_OK) s = js_PublishMsg(&ack, js, msg, &opts, &nErr);
        jsPubAck_Destroy(ack);
        if (s == NATS_OK) {
            if (bLogged) Log("outbound: the stream takes messages again");
            return true;
        }
        if (!bLogged)
            Log("outbound: publishing message %s failed: %s (%d); trying again every %u ms",
                m.strMsgId.c_str(), natsStatus_GetText(s), static_cast<int>(nErr),
                kRetryStepUsecs / 1000);
        bLogged = true;
        Usleep(kRetryStepUsecs);
    }
    return false;
}

class Outbound {
public:
    Outbound(const Config& c, jsCtx* j, Counters* p) : cfg(c), js(j), pCounters(p), wm(true) {}

    bool Start() {
        if (wm.nLastError != 0) {
            Log("outbound: cannot attach to the queues: %s", wm.szErrorMsg);
            return false;
        }
        for (const RemoteProcess& r : cfg.remotes) {
            for (const std::string& strType : cfg.types) {
                const long rc = wm.SetInput(r.nUID, strType.c_str(), nullptr, false);
                if (rc != M_OK) {
                    Log("outbound: cannot receive %s for %s: %s", strType.c_str(),
                        r.strName.c_str(), wm.szErrorMsg);
                    return false;
                }
            }
        }
        return Recover();
    }

    void Run() {
        while (!g_bStop) {
            wmctl::LiveState st;
            bool bWork = false;
            if (wmctl::ReadLiveState(&st, wmctl::kLiveQueues)) {
                for (const RemoteProcess& r : cfg.remotes) {
                    int nPending = 0, nRetry = 0;
                    for (const _WQCF_& s : st.slots) {
                        if (s.nTargetUID != r.nUID) continue;
                        if (s.nflag == WQCF_Pending) ++nPending;
                        if (s.nflag == WQCF_Retry || s.nflag == WQCF_Delayed_Retry) ++nRetry;
                    }
                    // Messages put back for a retry are older: they go first.
                    if (nRetry > 0) bWork = Drain(r, true, nRetry) || bWork;
                    if (nPending > 0) bWork = Drain(r, false, nPending) || bWork;
                }
            }
            if (!bWork) Usleep(kIdleStepUsecs);
        }
        for (const RemoteProcess& r : cfg.remotes)
            wm.UnsetInput(r.nUID, kAllTypes, 0);
    }

private:
    // Takes the nCount messages the look saw for one remote UID, then the
    // next UID has its turn. Receive finds each at once: only this bridge
    // receives for the UID, so what the look saw is still there.
    bool Drain(const RemoteProcess& r, bool bRetry, int nCount) {
        int n = 0;
        for (; n < nCount && !g_bStop; ++n) {
            WorkMsg msg;
            memset(&msg, 0, sizeof(msg));
            msg.pDepData = buf;
            msg.nDepDataLength = sizeof(buf);
            const long rc = wm.Receive(r.nUID, 1, &msg, bRetry, nullptr);
            if (rc == M_TIMEOUT || rc == M_NONE) break;
            if (rc != M_OK) {
                Log("outbound: Receive for %s failed: %s", r.strName.c_str(), wm.szErrorMsg);
                break;
            }
            OutMessage m;
            if (!Describe(r, msg, buf, &m)) break;
            if (!WriteJournal(cfg, m)) {
                // Without a journal the message stays received here; it is put
                // back at the next start. Stop taking messages until then.
                Log("outbound: cannot write the journal %s: %s; stopping", JournalPath(cfg).c_str(),
                    strerror(errno));
                g_bStop = true;
                break;
            }
            if (!Finish(m)) break;
        }
        return n > 0;
    }

    // Fills m from a message just received for remote process r.
    bool Describe(const RemoteProcess& r, const WorkMsg& msg, const unsigned char* pData,
                  OutMessage* m) {
        _WQCF_ slot;
        if (!wmctl::FindReceivedSlot(r.nUID, msg, &slot)) {
            Log("outbound: message %08lX for %s vanished after Receive", msg.nMessageID,
                r.strName.c_str());
            return false;
        }
        const char* szType = wm.Translate(msg.nMsgNo, nullptr);
        const char* szSender = wm.GetUID(msg.nSenderUID, nullptr);
        if (wmctl::IsCodePointer(szType) || wmctl::IsCodePointer(szSender)) {
            Log("outbound: message %08lX has a type or sender without a name", msg.nMessageID);
            return false;
        }
        m->strSubject = SubjectFor(cfg, r.strHost, r.nUID);
        char szId[80];
        snprintf(szId, sizeof(szId), "%s.%08lX.%ld", cfg.strHost.c_str(),
                 static_cast<unsigned long>(msg.nMessageID), static_cast<long>(msg.nTimeSent));
        m->strMsgId = szId;
        m->strType = szType;
        m->strSender = szSender;
        m->strTarget = r.strName;
        m->nTargetUID = r.nUID;
        m->nMessageID = msg.nMessageID;
        m->nTimeSent = static_cast<long>(msg.nTimeSent);
        m->bHigh = slot.xMsgMask != 0;
        m->bResponse = slot.nResponseRequired != 0;
        const size_t nLength =
            slot.nDepDataSlot == -1 ? 0 : static_cast<size_t>(slot.nDepDataLength);
        m->strData.assign(reinterpret_cast<const char*>(pData), nLength);
        return true;
    }

    // Publishes a journaled message, then deletes it here and the journal.
    bool Finish(const OutMessage& m) {
        if (!Publish(js, m)) return false; // stopping: the journal repeats it
        pCounters->nPublished++;
        const long rc = wm.Delete(m.nTargetUID, m.nMessageID);
        if (rc != M_OK && rc != M_MSGID)
            Log("outbound: message %08lX is published but Delete failed: %s", m.nMessageID,
                wm.szErrorMsg);
        unlink(JournalPath(cfg).c_str());
        return true;
    }

    // At start no other bridge runs, so whatever a remote UID holds in the
    // received state was taken by a bridge that died: the journal's message
    // is published again, every other one is put back for a retry.
    bool Recover() {
        OutMessage m;
        if (ReadJournal(cfg, &m)) {
            Log("outbound: publishing message %s of the journal again", m.strMsgId.c_str());
            if (!Finish(m)) return false;
        }
        wmctl::LiveState st;
        if (!wmctl::ReadLiveState(&st, wmctl::kLiveQueues)) return true;
        long nPutBack = 0;
        for (const _WQCF_& s : st.slots) {
            if (s.nflag != WQCF_Received) continue;
            for (const RemoteProcess& r : cfg.remotes) {
                if (r.nUID == s.nTargetUID && wm.Retry(r.nUID, s.nMessageID, false, 0) == M_OK)
                    ++nPutBack;
            }
        }
        if (nPutBack > 0)
            Log("outbound: %ld message(s) taken by a stopped bridge are sent again", nPutBack);
        return true;
    }

    const Config& cfg;
    jsCtx* js;
    Counters* pCounters;
    CWorkMessages wm;
    unsigned char buf[WM_MAX_DEPDATA];
};

} // namespace

bool RunOutbound(const Config& cfg, jsCtx* js, Counters* pCounters) {
    Outbound out(cfg, js, pCounters);
    if (!out.Start()) return false;
    out.Run();
    return true;
}

} // namespace wmbridge
