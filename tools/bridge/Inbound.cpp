// Inbound: messages for this host's processes, from the stream to the local
// queues.
//
// A durable pull consumer (`wmb_<host>`) takes the subjects of this host, in
// stream order, one message at a time (at most one unacknowledged). Each message is Sent into the
// local queue as from its original sender (by name, resolved on this host), with its type, data,
// priority and response flag; the stream's message is acknowledged only after
// Send returned M_OK or M_NOTACT, and the next message is handled only after
// that, so messages of one sender to one target keep their order.
//
// The delivery record (`wmbridge.delivered` in WM_DBPath: the stream's
// creation time and the last stream sequence delivered here, 16 bytes
// rewritten in place after each Send) turns the stream's redeliveries into
// no-ops: a message at or below the recorded sequence was delivered already
// and is only acknowledged again. A redelivery follows every delivery whose
// acknowledgement the stream did not get (bridge or server killed, an ack
// lost on the way); the record leaves one window for a duplicate: a kill
// after Send returned and before the record's write, a few microseconds.
//
// A message that can never be delivered (not made by a bridge: headers
// missing, or data over 8192 bytes) is logged and terminated. One whose type
// or processes this host does not know, or that the local queue refuses for
// now (M_DDFULL, M_LOCK, ...), is tried again every half second, and nothing
// behind it passes it: an operator sees it in the log and mends the host.
#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>

#include "Bridge.h"
#include "GPLibrary.h"
#include "Internal.h"
#include "WorkMessages.h"

namespace wmbridge {

namespace {

const char* const kRecordFile = "wmbridge.delivered";
const int64_t kFetchWaitMs = 1000;
const unsigned kRetryStepUsecs = 500000;
const int64_t kAckWaitNs = 10LL * 1000 * 1000 * 1000;

// The delivery record's bytes in the file: fixed widths, little-endian.
struct DeliveryRecord {
    int64_t nStreamCreated; // nanoseconds since 1970, as the server reports it
    uint64_t nLastSeq;      // last stream sequence delivered here
};
static_assert(sizeof(DeliveryRecord) == 16, "the record file is 16 bytes");

// What a bridged message says, taken from its headers.
struct InMessage {
    const char* szType = nullptr;
    const char* szSender = nullptr;
    const char* szTarget = nullptr;
    bool bHigh = false;
    bool bResponse = false;
};

bool Header(natsMsg* msg, const char* szKey, const char** pValue) {
    return natsMsgHeader_Get(msg, szKey, pValue) == NATS_OK && *pValue != nullptr;
}

class Inbound {
public:
    Inbound(const Config& c, jsCtx* j, Counters* p) : cfg(c), js(j), pCounters(p), wm(true) {}
    ~Inbound() {
        natsSubscription_Destroy(sub);
        if (fdRecord >= 0) close(fdRecord);
    }
    Inbound(const Inbound&) = delete;
    Inbound& operator=(const Inbound&) = delete;

    bool Start() {
        if (wm.nLastError != 0) {
            Log("inbound: cannot attach to the queues: %s", wm.szErrorMsg);
            return false;
        }
        return OpenRecord() && Subscribe();
    }

    void Run() {
        bool bLogged = false;
        while (!g_bStop) {
            natsMsgList list = {nullptr, 0};
            const natsStatus s = natsSubscription_Fetch(&list, sub, 1, kFetchWaitMs, nullptr);
            auto destroy = qvwm::OnScopeExit([&list]() { natsMsgList_Destroy(&list); });
            if (s == NATS_TIMEOUT) continue;
            if (s != NATS_OK) {
                if (!bLogged)
                    Log("inbound: fetching failed: %s; trying again", natsStatus_GetText(s));
                bLogged = true;
                Usleep(kRetryStepUsecs);
                continue;
            }
            if (bLogged) Log("inbound: fetching works again");
            bLogged = false;
            // The messages left when the bridge stops are not acknowledged:
            // the stream hands them out again.
            for (int i = 0; i < list.Count && !g_bStop; ++i)
                Handle(list.Msgs[i]);
        }
    }

private:
    bool OpenRecord() {
        const std::string strPath = cfg.strDbPath + "/" + kRecordFile;
        fdRecord = open(strPath.c_str(), O_RDWR | O_CREAT, 0660);
        if (fdRecord < 0) {
            Log("inbound: cannot open %s: %s", strPath.c_str(), strerror(errno));
            return false;
        }
        if (pread(fdRecord, &record, sizeof(record), 0) != static_cast<ssize_t>(sizeof(record)))
            record = DeliveryRecord{0, 0};
        // Sequences count from 1 again in a stream made anew: a record of
        // another stream must not hide its messages.
        jsStreamInfo* si = nullptr;
        const natsStatus s = js_GetStreamInfo(&si, js, cfg.strStream.c_str(), nullptr, nullptr);
        if (s != NATS_OK) {
            Log("inbound: cannot read the stream %s: %s", cfg.strStream.c_str(),
                natsStatus_GetText(s));
            return false;
        }
        const int64_t nCreated = si->Created;
        jsStreamInfo_Destroy(si);
        if (record.nStreamCreated != nCreated) {
            if (record.nStreamCreated != 0)
                Log("inbound: the stream %s was made anew; the delivery record starts over",
                    cfg.strStream.c_str());
            record = DeliveryRecord{nCreated, 0};
            return WriteRecord();
        }
        return true;
    }

    bool WriteRecord() {
        if (pwrite(fdRecord, &record, sizeof(record), 0) == static_cast<ssize_t>(sizeof(record)))
            return true;
        Log("inbound: cannot write the delivery record: %s", strerror(errno));
        return false;
    }

    bool Subscribe() {
        const std::string strDurable = "wmb_" + cfg.strHost;
        const std::string strFilter = cfg.strSubject + "." + cfg.strHost + ".>";
        jsSubOptions so;
        jsSubOptions_Init(&so);
        so.Stream = cfg.strStream.c_str();
        so.Config.Durable = strDurable.c_str();
        so.Config.FilterSubject = strFilter.c_str();
        so.Config.AckPolicy = js_AckExplicit;
        so.Config.AckWait = kAckWaitNs;
        so.Config.DeliverPolicy = js_DeliverAll;
        so.Config.MaxDeliver = -1;
        // One unacknowledged message at a time: the server hands out the
        // next only after this one's ack, and a redelivery always comes
        // before anything behind it. That keeps the order under kills and
        // makes "at or below the recorded sequence" mean "delivered here".
        so.Config.MaxAckPending = 1;
        jsErrCode nErr = static_cast<jsErrCode>(0);
        const natsStatus s =
            js_PullSubscribe(&sub, js, strFilter.c_str(), strDurable.c_str(), nullptr, &so, &nErr);
        if (s != NATS_OK) {
            Log("inbound: cannot make the consumer %s: %s (%d)", strDurable.c_str(),
                natsStatus_GetText(s), static_cast<int>(nErr));
            return false;
        }
        return true;
    }

    void Handle(natsMsg* msg) {
        jsMsgMetaData* meta = nullptr;
        if (natsMsg_GetMetaData(&meta, msg) != NATS_OK) {
            Log("inbound: a message without stream data on %s; ignored", natsMsg_GetSubject(msg));
            return;
        }
        const uint64_t nSeq = meta->Sequence.Stream;
        const bool bRedelivered = meta->NumDelivered > 1;
        pCounters->nLag = meta->NumPending;
        jsMsgMetaData_Destroy(meta);
        if (bRedelivered) pCounters->nRedelivered++;
        if (nSeq <= record.nLastSeq) {
            pCounters->nDuplicates++;
            natsMsg_Ack(msg, nullptr);
            return;
        }

        InMessage in;
        const char* szHigh = nullptr;
        const char* szResponse = nullptr;
        const int nLength = natsMsg_GetDataLength(msg);
        if (!Header(msg, kHdrType, &in.szType) || !Header(msg, kHdrSender, &in.szSender) ||
            !Header(msg, kHdrTarget, &in.szTarget) || !Header(msg, kHdrHigh, &szHigh) ||
            !Header(msg, kHdrResponse, &szResponse) || nLength < 0 || nLength > WM_MAX_DEPDATA) {
            Log("inbound: message %" PRIu64 " on %s was not made by a bridge (headers missing or "
                "%d bytes of data); dropped",
                nSeq, natsMsg_GetSubject(msg), nLength);
            natsMsg_Term(msg, nullptr);
            return;
        }
        in.bHigh = strcmp(szHigh, "1") == 0;
        in.bResponse = strcmp(szResponse, "1") == 0;
        if (!Deliver(in, natsMsg_GetData(msg), nLength, nSeq)) return; // stopping
        record.nLastSeq = nSeq;
        if (!WriteRecord()) g_bStop = true; // without it a restart would repeat messages
        pCounters->nDelivered++;
        natsMsg_Ack(msg, nullptr);
    }

    // Sends until the local queue takes the message or the bridge stops.
    bool Deliver(const InMessage& in, const char* pData, int nLength, uint64_t nSeq) {
        bool bLogged = false;
        while (!g_bStop) {
            const long nSender = wm.GetUID(in.szSender, nullptr);
            const long nTarget = wm.GetUID(in.szTarget, nullptr);
            long rc = nSender <= 0 ? nSender : nTarget;
            if (nSender > 0 && nTarget > 0) {
                WorkMsg m;
                memset(&m, 0, sizeof(m));
                m.nTargetUID = nTarget;
                m.nResponseRequired = in.bResponse ? 1 : 0;
                m.pDepData = const_cast<char*>(pData);
                m.nDepDataLength = nLength;
                rc = wm.Send(nSender, in.szType, &m, in.bHigh);
                if (rc == M_OK || rc == M_NOTACT) return true;
            }
            if (!bLogged)
                Log("inbound: message %" PRIu64 " (%s from %s to %s) cannot be queued here: %ld "
                    "%s; trying again every %u ms",
                    nSeq, in.szType, in.szSender, in.szTarget, rc, wm.szErrorMsg,
                    kRetryStepUsecs / 1000);
            bLogged = true;
            Usleep(kRetryStepUsecs);
        }
        return false;
    }

    const Config& cfg;
    jsCtx* js;
    Counters* pCounters;
    CWorkMessages wm;
    natsSubscription* sub = nullptr;
    int fdRecord = -1;
    DeliveryRecord record = {0, 0};
};

} // namespace

bool RunInbound(const Config& cfg, jsCtx* js, Counters* pCounters) {
    Inbound in(cfg, js, pCounters);
    if (!in.Start()) return false;
    in.Run();
    return true;
}

} // namespace wmbridge
