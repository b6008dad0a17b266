// Receiving across processes: order, type ranges, the filter, the retry passes,
// the buffer rules and the waits, checked in the record and the control file.
#include <unistd.h>

#include <cstring>
#include <map>
#include <regex>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

// In a child: sends each text to nTarget as one message of szType (with
// bHiPrio the last one high priority); 0 when all were queued.
int SendAll(long nTarget, const char* szType, const std::vector<std::string>& texts,
            bool bHiPrio = false) {
    CWorkMessages wm;
    int rc = wm.nLastError == 0 ? 0 : 90;
    for (size_t i = 0; i < texts.size() && rc == 0; ++i) {
        WorkMsg m = MsgTo(nTarget, texts[i].c_str(), static_cast<long>(texts[i].size()));
        const long n = wm.Send(101, szType, &m, bHiPrio && i + 1 == texts.size());
        rc = n == M_OK || n == M_NOTACT ? 0 : 91;
    }
    return rc;
}

std::string Code(long rc) {
    return "code " + std::to_string(rc);
}

class ReceiveTest : public WmTest {
protected:
    // State in the control file of the message in use with this slot ID.
    long FileState(long id) {
        const std::string s = ReadFile(wqcfFile);
        for (long n = 0; 64 * (n + 2) <= static_cast<long>(s.size()); ++n) {
            const _WQCF_ rec = ImageSlot(s, n);
            if (rec.nflag != WQCF_Available && rec.nMessageID == id) return rec.nflag;
        }
        return WQCF_Available;
    }
    // Receives one message: its text, or Code(rc) when none came; the record
    // goes to last.
    std::string Next(CWorkMessages& wm, long uid, long lo = -1, long hi = -1, bool retry = false,
                     bool (*filter)(void*) = nullptr, long wait = 1) {
        char buf[64] = "";
        last = MsgTo(0, buf, sizeof(buf) - 1);
        const long rc = wm.ReceiveByMsg(uid, wait, &last, lo, hi, retry, filter);
        return rc == M_OK ? std::string(buf) : Code(rc);
    }
    WorkMsg last{};
};

std::vector<std::string> vecSeen; // what Choosy was offered, in order
std::string strRefused;           // " a b ": the texts Choosy refuses
bool Choosy(void* p) {
    vecSeen.emplace_back(static_cast<const char*>(p));
    return strRefused.find(" " + vecSeen.back() + " ") == std::string::npos;
}

// After a refusal the search goes on with the next candidate in the
// receiver's order: each is offered once, none is passed over, the first
// accepted is delivered; in both orders, within type ranges, and through
// both retry passes.
TEST_F(ReceiveTest, TheFilterIsOfferedEveryCandidateOnceInOrder) {
    CWorkMessages wm;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(wm.SetInput(103, "ORDER", nullptr, true), M_OK);
    const char* const types[] = {"ORDER", "INVOICE", "REPORT", "ALERT"}; // 1 to 4
    const std::vector<std::string> texts = {"o1", "i2", "r3", "a4", "o5", "i6", "r7", "a8"};
    ASSERT_EQ(RunChild([&] {
                  int n = 0;
                  for (long uid : {103, 102}) // 103 from slot 0 on
                      for (size_t i = 0; i < texts.size(); ++i)
                          n |= SendAll(uid, types[i % 4], {texts[i]});
                  return n;
              }),
              0);
    std::map<std::string, long> ids;
    // "offered > delivered" for one receive through Choosy.
    auto take = [&](long uid, long lo, long hi, bool retry, const std::string& refuse) {
        strRefused = " " + refuse + " ";
        vecSeen.clear();
        const std::string got = Next(wm, uid, lo, hi, retry, Choosy);
        ids[got] = last.nMessageID;
        std::string seen;
        for (const std::string& s : vecSeen)
            seen += s + " ";
        return seen + "> " + got;
    };
    EXPECT_EQ(take(102, -1, -1, false, "o1 i2 r3 a4"), "o1 i2 r3 a4 o5 > o5");
    EXPECT_EQ(take(102, 2, 3, false, "i2"), "i2 r3 > r3");
    EXPECT_EQ(take(102, -1, 2, false, "o1 i2"), "o1 i2 i6 > i6");
    EXPECT_EQ(take(102, 4, 4, false, "a4"), "a4 a8 > a8");
    ASSERT_EQ(wm.Retry(102, ids["o5"], true, 0) | wm.Retry(102, ids["r3"], false, 0) |
                  wm.Retry(102, ids["i6"], false, 0),
              M_OK);
    EXPECT_EQ(take(102, -1, -1, true, "r3"), "r3 i6 > i6");
    EXPECT_EQ(take(102, -1, -1, true, "r3"), "r3 o5 > o5"); // then the delayed pass
    EXPECT_EQ(take(102, -1, -1, true, "r3"), "r3 > " + Code(M_NONE));
    EXPECT_EQ(FileState(ids["r3"]), WQCF_Retry); // refused: as it was
    EXPECT_EQ(FileState(ids["a8"]), WQCF_Received);
    EXPECT_EQ(Next(wm, 102), "o1");
    EXPECT_EQ(Next(wm, 102, 5, 9), Code(M_TIMEOUT)); // no type in the range

    EXPECT_EQ(take(103, -1, -1, false, "a8 r7 i6 o5"), "a8 r7 i6 o5 a4 > a4");
    EXPECT_EQ(take(103, 1, 2, false, "i6 o5"), "i6 o5 i2 > i2");
    EXPECT_EQ(take(103, 3, -1, false, "a8 r7"), "a8 r7 i6 > i6"); // no upper bound: all types
    ASSERT_EQ(wm.Retry(103, ids["a4"], false, 0) | wm.Retry(103, ids["i2"], false, 0) |
                  wm.Retry(103, ids["i6"], true, 0),
              M_OK);
    EXPECT_EQ(take(103, -1, -1, true, "a4"), "a4 i2 > i2");
    EXPECT_EQ(take(103, -1, -1, true, "a4"), "a4 i6 > i6");
    // Refused candidates are not offered again while the wait goes on.
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(take(103, -1, -1, false, "a8 r7 o5 r3 o1"), "a8 r7 o5 r3 o1 > " + Code(M_TIMEOUT));
    EXPECT_GT(Elapsed(t0), 0.9);
    EXPECT_EQ(Next(wm, 103, 99, -1), "a8"); // no upper bound: every type
}

// High priority comes first; the retry passes take retries before delayed
// ones and keep the first delivery's time; a short buffer learns the length
// it needs and the message waits.
TEST_F(ReceiveTest, HighPriorityRetryPassesAndShortBuffers) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(RunChild([] { return SendAll(102, "ORDER", {"late", "soon", "first"}, true); }), 0);
    EXPECT_EQ(Next(wm, 102), "first");
    EXPECT_LE(last.nMessageID, 0x00FFFFFFL); // high priority: the slot's ID
    ASSERT_EQ(Next(wm, 102), "late");
    const WorkMsg late = last; // "soon" has the next ID
    ASSERT_TRUE(Next(wm, 102) == "soon" && late.nTimePosted != 0);
    ASSERT_EQ(RunChild([&] {
                  CWorkMessages other; // hands them back, the older one delayed
                  return static_cast<int>(-other.Retry(102, late.nMessageID, true, 0x5A) -
                                          other.Retry(102, late.nMessageID + 1, false, 0x11));
              }),
              0);
    EXPECT_EQ(Next(wm, 102), Code(M_TIMEOUT)); // a normal receive no longer sees them
    // The first delivery's time is kept, whatever the slot holds by then.
    ASSERT_EQ(acc.GetPointers(), M_OK);
    acc.Queues()[acc.SearchMSGID(late.nMessageID)].nTimePosted = 1000;
    const time_t tRetry = time(nullptr);
    char buf[300] = "";
    WorkMsg r = MsgTo(0, buf, 16);
    EXPECT_EQ(wm.Receive(102, 1, &r, true, nullptr), M_OK); // as ReceiveByMsg does
    EXPECT_TRUE(strcmp(buf, "soon") == 0 && r.nUserFlags == 0x11) << buf;
    EXPECT_EQ(Next(wm, 102, -1, -1, true), "late");
    EXPECT_TRUE(last.nUserFlags == 0x5A && last.nTimePosted == 1000 && last.nTimeRetry >= tRetry);
    EXPECT_EQ(FileState(late.nMessageID), WQCF_Received);

    const std::string data(100, 'd');
    ASSERT_EQ(RunChild([&] { return SendAll(102, "ORDER", {data, ""}); }), 0);
    memset(buf, 0xEE, sizeof(buf));
    r = MsgTo(0, buf, 99);
    WorkMsg noBuf = MsgTo(0, nullptr, 500); // no buffer: capacity 0
    ASSERT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_TOOBIG);
    EXPECT_TRUE(r.nDepDataLength == 100 && buf[0] == '\xEE');
    EXPECT_EQ(FileState(r.nMessageID), WQCF_Pending);
    ASSERT_EQ(wm.Receive(102, 1, &noBuf, false, nullptr), M_TOOBIG);
    EXPECT_TRUE(noBuf.nDepDataLength == 100 && noBuf.nMessageID == r.nMessageID);
    r = MsgTo(0, buf, 200);
    ASSERT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_OK);
    EXPECT_EQ(r.nDepDataLength, 200); // the capacity stays the caller's
    EXPECT_EQ(std::string(buf, 201), data + std::string(100, '\0') + '\xEE');
    EXPECT_EQ(FileState(r.nMessageID), WQCF_Received);
    // A negative capacity is short of every message, one without data too.
    r = MsgTo(0, buf, -1);
    ASSERT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_TOOBIG);
    EXPECT_EQ(r.nDepDataLength, 0);
}

// In a child configured by config: waits until a receiver sleeps on the
// wake-up word, then sends text to 102.
pid_t SendToASleeper(const std::string& config, const char* text) {
    return StartChild([config, text] {
        setenv("GDDA_CONFIG", config.c_str(), 1);
        CWorkMessages wm;
        CWorkMessagesTestAccess acc(wm);
        const int32_t* waiters = &acc.Controls()->Reserved[kCtlWakeWaiters];
        for (int i = 0; i < 20000 && __atomic_load_n(waiters, __ATOMIC_SEQ_CST) == 0; ++i)
            usleep(1000);
        return SendAll(102, "ORDER", {text});
    });
}

TEST_F(ReceiveTest, AWaitingReceiverIsWokenBySendsOfProcessesWithTheKey) {
    const std::string poll = configFile + ".poll"; // a sender without the key
    WriteFile(poll, ReadFile(configFile) + "WM_WakeReceivers=false\n");
    WriteConfig("WM_WakeReceivers=true\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    // A sleep of ten seconds that only a wake-up can end early.
    pid_t child = SendToASleeper(configFile, "woken");
    acc.RecordCaller();
    EXPECT_LT(acc.WaitStep(10000000, acc.WakeSeq()), 5000000);
    EXPECT_EQ(WaitChild(child), 0);
    EXPECT_EQ(Next(wm, 102), "woken");
    // A waiting receive finds the message of a sender without the key at
    // its next look.
    child = SendToASleeper(poll, "sent");
    EXPECT_EQ(Next(wm, 102, -1, -1, false, nullptr, 20), "sent");
    EXPECT_EQ(WaitChild(child), 0);
    EXPECT_EQ(acc.Controls()->Reserved[kCtlWakeWaiters], 0);
}

TEST_F(ReceiveTest, WaitsAreCountedInStepsAndNeedARegistration) {
    WriteConfig("WM_Trace=true\n");
    // Sent before the receiver registers: queued all the same.
    ASSERT_EQ(RunChild([] { return SendAll(103, "INVOICE", {"x"}); }), 0);
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(Next(wm, 103), Code(M_ILSEQ));
    EXPECT_LT(Elapsed(t0), 0.5);                                // no registration: at once
    ASSERT_EQ(wm.SetInput(103, "ALERT", nullptr, false), M_OK); // any type will do
    EXPECT_EQ(Next(wm, 103, -1, -1, false, nullptr, 0), Code(M_TIMEOUT)); // never looks
    EXPECT_EQ(Next(wm, 103, -1, -1, true, nullptr, 0), Code(M_TIMEOUT));  // no second pass
    StderrCapture cap; // only the process lookup of the trace runs nested
    EXPECT_EQ(Next(wm, 103), "x");
    const std::string out = cap.Stop();
    EXPECT_TRUE(std::regex_search(out, std::regex("GetUID entered [^\n]*=true")) &&
                !std::regex_search(out, std::regex("Translate entered [^\n]*=true")))
        << out;

    StderrCapture log; // a wait of 1 s is four steps of 250 ms
    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(Next(wm, 103), Code(M_TIMEOUT));
    const double waited = Elapsed(t0);
    const std::string trace = log.Stop();
    const std::regex look("_GetNextMessage entered");
    EXPECT_EQ(std::distance(std::sregex_iterator(trace.begin(), trace.end(), look), {}), 4);
    EXPECT_TRUE(waited > 0.9 && waited < 2.0) << waited;

    // A negative wait has no limit: another process's later message arrives.
    pid_t child = StartChild([] { return usleep(300000) | SendAll(103, "INVOICE", {"late"}); });
    EXPECT_EQ(Next(wm, 103, -1, -1, false, nullptr, -5), "late");
    EXPECT_EQ(WaitChild(child), 0);
    EXPECT_EQ(acc.LockOwner(), 0);
}

} // namespace
