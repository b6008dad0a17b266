// Receiving messages end to end, across processes of one IPC namespace: the
// order, the type ranges, the retry passes, the buffer rules, the filter and
// the waits, each outcome checked in the record and in the control file.
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"
#include "WorkMessages.h"

namespace {

class ReceiveTest : public wmtest::WmTest {};

const long kPrioMax = 0x00FFFFFFL;

WorkMsg Msg(long target, const void* data = nullptr, long len = 0) {
    WorkMsg m;
    memset(&m, 0, sizeof(m));
    m.nTargetUID = target;
    m.pDepData = const_cast<void*>(data);
    m.nDepDataLength = len;
    return m;
}

// The control file's record of the message in use that holds this slot ID.
_WQCF_ FileRecord(const std::string& wqcf, long id) {
    const std::string s = wmtest::ReadFile(wqcf);
    _WQCF_ rec{};
    for (size_t off = 64; off + 64 <= s.size(); off += 64) {
        memcpy(&rec, s.data() + off, 64);
        if (rec.nflag != WQCF_Available && rec.nMessageID == id) return rec;
    }
    memset(&rec, 0, sizeof(rec));
    return rec;
}

// A child that sends each text as one message of type szType to nTarget;
// with bHiPrio the last one goes as high priority. Exits 0 when every send
// returned one of the two codes that queue the message.
int SendAll(long nTarget, const char* szType, const std::vector<std::string>& texts,
            bool bHiPrio = false, useconds_t nDelay = 0) {
    usleep(nDelay);
    CWorkMessages wm;
    if (wm.nLastError != 0) return 90;
    for (size_t i = 0; i < texts.size(); ++i) {
        WorkMsg m = Msg(nTarget, texts[i].c_str(), static_cast<long>(texts[i].size()));
        const long rc = wm.Send(101, szType, &m, bHiPrio && i + 1 == texts.size());
        if (rc != M_OK && rc != M_NOTACT) return 91;
    }
    return 0;
}

double Seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Receives one message into buf and returns its text ("" with the code when
// nothing came).
std::string Next(CWorkMessages& wm, long uid, long* rc, long lo = -1, long hi = -1,
                 bool retry = false, bool (*filter)(void*) = nullptr, WorkMsg* out = nullptr) {
    char buf[64];
    memset(buf, 0, sizeof(buf));
    WorkMsg r = Msg(0, buf, sizeof(buf) - 1);
    *rc = wm.ReceiveByMsg(uid, 1, &r, lo, hi, retry, filter);
    if (out) *out = r;
    return *rc == M_OK ? std::string(buf) : std::string();
}

TEST_F(ReceiveTest, OldestOrNewestFirstAndHighPriority) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(wm.SetInput(103, "REPORT", nullptr, true), M_OK); // LIFO for every type
    ASSERT_EQ(wmtest::RunChild([] {
                  return SendAll(102, "ORDER", {"A", "B", "C", "D"}, true);
              }),
              0);
    ASSERT_EQ(wmtest::RunChild([] {
                  return SendAll(103, "ORDER", {"A", "B", "C", "D"}, true);
              }),
              0);
    long rc = 0;
    WorkMsg r;
    std::string order;
    for (int i = 0; i < 4; ++i) {
        order += Next(wm, 102, &rc, -1, -1, false, nullptr, &r);
        EXPECT_EQ(FileRecord(wqcfFile, r.nMessageID).nflag, WQCF_Received) << i;
        if (i == 0) {
            EXPECT_LE(r.nMessageID, kPrioMax); // the slot's reduced ID
        }
    }
    EXPECT_EQ(order, "DABC");
    order.clear();
    for (int i = 0; i < 4; ++i)
        order += Next(wm, 103, &rc);
    EXPECT_EQ(order, "CBAD");
    EXPECT_EQ(acc.LockOwner(), 0);
}

TEST_F(ReceiveTest, TypeRangesChooseTypesNotRegistrations) {
    CWorkMessages wm;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(wmtest::RunChild([] {
                  int rc = 0;
                  for (const char* type : {"ALERT", "REPORT", "INVOICE", "ORDER"})
                      rc |= SendAll(102, type, {type});
                  return rc;
              }),
              0);
    long rc = 0;
    EXPECT_EQ(Next(wm, 102, &rc, 3, 3), "REPORT");
    EXPECT_EQ(Next(wm, 102, &rc, -1, 2), "INVOICE"); // types up to 2, oldest first
    EXPECT_EQ(Next(wm, 102, &rc, -1, 2), "ORDER");
    EXPECT_EQ(Next(wm, 102, &rc, 2, 3), "");
    EXPECT_EQ(rc, M_TIMEOUT);                       // ALERT (4) still waits outside the range
    EXPECT_EQ(Next(wm, 102, &rc, 99, -1), "ALERT"); // no upper bound: every type
}

TEST_F(ReceiveTest, RetryPassesTakeRetryBeforeDelayedAndStampTheRetry) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    long rc = 0;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(Next(wm, 102, &rc, -1, -1, true), "");
    EXPECT_EQ(rc, M_NONE); // nothing to retry: at once, no waiting
    EXPECT_LT(Seconds(t0), 0.5);

    ASSERT_EQ(wmtest::RunChild([] { return SendAll(102, "ORDER", {"late", "soon"}); }), 0);
    WorkMsg late, soon;
    Next(wm, 102, &rc, -1, -1, false, nullptr, &late);
    Next(wm, 102, &rc, -1, -1, false, nullptr, &soon);
    ASSERT_NE(late.nTimePosted, 0);
    ASSERT_EQ(FileRecord(wqcfFile, late.nMessageID).nTimePosted, late.nTimePosted);
    // Another process hands them back, the older one delayed.
    ASSERT_EQ(wmtest::RunChild([&] {
                  CWorkMessages other;
                  return static_cast<int>(-other.Retry(102, late.nMessageID, true, 0x5A) -
                                          other.Retry(102, soon.nMessageID, false, 0x11));
              }),
              0);
    EXPECT_EQ(Next(wm, 102, &rc), ""); // a normal receive no longer sees them
    EXPECT_EQ(rc, M_TIMEOUT);

    // The first delivery's time is kept, whatever the slot holds by then.
    ASSERT_EQ(acc.GetPointers(), M_OK);
    const long slot = acc.SearchMSGID(late.nMessageID);
    ASSERT_GE(slot, 0);
    acc.Queues()[slot].nTimePosted = 1000;
    const time_t tRetry = time(nullptr);
    WorkMsg r;
    EXPECT_EQ(Next(wm, 102, &rc, -1, -1, true, nullptr, &r), "soon");
    EXPECT_EQ(r.nUserFlags, 0x11);
    char buf[16] = "";
    r = Msg(0, buf, sizeof(buf));
    EXPECT_EQ(wm.Receive(102, 1, &r, true, nullptr), M_OK); // the same two passes
    EXPECT_STREQ(buf, "late");
    EXPECT_TRUE(r.nUserFlags == 0x5A && r.nTimePosted == 1000 && r.nTimeRetry >= tRetry);
    const _WQCF_ rec = FileRecord(wqcfFile, late.nMessageID);
    EXPECT_TRUE(rec.nflag == WQCF_Received && rec.nTimeRetry == r.nTimeRetry);
    EXPECT_EQ(Next(wm, 102, &rc, -1, -1, true), "");
    EXPECT_EQ(rc, M_NONE);
}

TEST_F(ReceiveTest, TooSmallBufferGivesTheNeededLengthAndTheMessageWaits) {
    CWorkMessages wm;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    const std::string data(100, 'd');
    ASSERT_EQ(wmtest::RunChild([&] { return SendAll(102, "ORDER", {data, ""}); }), 0);
    std::vector<char> buf(300, '\xEE');
    WorkMsg r = Msg(0, buf.data(), 99);
    ASSERT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_TOOBIG);
    EXPECT_EQ(r.nDepDataLength, 100);
    EXPECT_EQ(buf[0], '\xEE');
    EXPECT_EQ(FileRecord(wqcfFile, r.nMessageID).nflag, WQCF_Pending);
    WorkMsg noBuf = Msg(0, nullptr, 500); // no buffer: capacity 0
    ASSERT_EQ(wm.Receive(102, 1, &noBuf, false, nullptr), M_TOOBIG);
    EXPECT_TRUE(noBuf.nDepDataLength == 100 && noBuf.nMessageID == r.nMessageID);

    r = Msg(0, buf.data(), 200);
    ASSERT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_OK);
    EXPECT_EQ(r.nDepDataLength, 200); // the capacity stays the caller's
    EXPECT_EQ(std::string(buf.data(), 100), data);
    EXPECT_EQ(std::string(buf.data() + 100, 100), std::string(100, '\0')); // zero padding
    EXPECT_EQ(buf[200], '\xEE');
    EXPECT_EQ(FileRecord(wqcfFile, r.nMessageID).nflag, WQCF_Received);
    buf.assign(300, '\xEE'); // a message without data leaves the buffer alone
    ASSERT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_OK);
    EXPECT_EQ(buf[0], '\xEE');

    EXPECT_EQ(wm.Receive(102, 1, nullptr, false, nullptr), M_SYSERR);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: Receive needs a message record (null given)");
}

bool TakeOnly(void* p) {
    return strncmp(static_cast<char*>(p), "take", 4) == 0;
}
int nRefused = 0;
bool RefuseAll(void*) {
    ++nRefused;
    return false;
}

TEST_F(ReceiveTest, FilterRefusesCandidatesWhichKeepWaiting) {
    CWorkMessages wm;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(wmtest::RunChild([] {
                  return SendAll(102, "ORDER", {"skip1", "take", "skip2"});
              }),
              0);
    long rc = 0;
    WorkMsg r;
    EXPECT_EQ(Next(wm, 102, &rc, -1, -1, false, TakeOnly, &r), "take");
    EXPECT_EQ(FileRecord(wqcfFile, r.nMessageID).nflag, WQCF_Received);
    EXPECT_EQ(FileRecord(wqcfFile, r.nMessageID - 1).nflag, WQCF_Pending);

    auto t0 = std::chrono::steady_clock::now();
    char buf[16] = "";
    r = Msg(0, buf, sizeof(buf));
    EXPECT_EQ(wm.Receive(102, 1, &r, false, RefuseAll), M_TIMEOUT);
    EXPECT_GT(Seconds(t0), 0.9);
    EXPECT_EQ(nRefused, 2); // each once: the search goes on past a refused one
    EXPECT_STREQ(buf, "skip2");
    EXPECT_EQ(FileRecord(wqcfFile, r.nMessageID).nflag, WQCF_Pending);
}

TEST_F(ReceiveTest, WaitsAreCountedInSteps) {
    WriteConfig("WM_Trace=true\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(wmtest::RunChild([] { return SendAll(102, "ORDER", {"there"}); }), 0);
    char buf[16] = "";
    WorkMsg r = Msg(0, buf, sizeof(buf));
    EXPECT_EQ(wm.Receive(102, 0, &r, false, nullptr), M_TIMEOUT); // never looks
    EXPECT_EQ(wm.Receive(102, 0, &r, true, nullptr), M_TIMEOUT);  // no second pass
    EXPECT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_OK);
    EXPECT_STREQ(buf, "there");

    wmtest::StderrCapture log;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_TIMEOUT);
    const double waited = Seconds(t0);
    const std::string trace = log.Stop();
    size_t looks = 0;
    for (size_t p = 0; (p = trace.find("_GetNextMessage entered", p)) != std::string::npos; ++p)
        ++looks;
    EXPECT_EQ(looks, 4u);
    EXPECT_TRUE(waited > 0.9 && waited < 2.0) << waited;
    EXPECT_NE(trace.find("Receive request for msg -1 -> -1 from PROCB. Retry:false"),
              std::string::npos);
    EXPECT_NE(trace.find("Receive request completed. Timeout"), std::string::npos);

    // A message sent by another process while the receiver waits arrives,
    // with a limit of 1 s and without limit (any negative wait).
    for (long wait : {1L, -5L}) {
        const pid_t child =
            wmtest::StartChild([] { return SendAll(102, "ORDER", {"late"}, false, 300000); });
        t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(wm.Receive(102, wait, &r, false, nullptr), M_OK) << wait;
        EXPECT_GT(Seconds(t0), 0.25);
        EXPECT_STREQ(buf, "late");
        EXPECT_EQ(FileRecord(wqcfFile, r.nMessageID).nflag, WQCF_Received);
        EXPECT_EQ(wmtest::WaitChild(child), 0);
    }
}

TEST_F(ReceiveTest, OnlyARegisteredReceiverReceivesAndWaits) {
    ASSERT_EQ(wmtest::RunChild([] { return SendAll(103, "INVOICE", {"x"}); }), 0);
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    long rc = 0;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(Next(wm, 103, &rc), "");
    EXPECT_EQ(rc, M_ILSEQ);
    EXPECT_LT(Seconds(t0), 0.5);
    ASSERT_EQ(wm.SetInput(103, "ALERT", nullptr, false), M_OK); // any type will do
    WorkMsg r;
    EXPECT_EQ(Next(wm, 103, &rc, -1, -1, false, nullptr, &r), "x");
    EXPECT_EQ(FileRecord(wqcfFile, r.nMessageID).nflag, WQCF_Received);

    // Another process removes the registrations while the receiver waits.
    const pid_t self = getpid();
    const pid_t child = wmtest::StartChild([self] {
        CWorkMessages other;
        usleep(400000);
        return static_cast<int>(-other.UnsetInput(103, "ALLQ", self));
    });
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(wm.Receive(103, 5, &r, false, nullptr), M_ILSEQ);
    EXPECT_LT(Seconds(t0), 2.0);
    EXPECT_EQ(wmtest::WaitChild(child), 0);
    EXPECT_EQ(acc.LockOwner(), 0);
}

} // namespace
