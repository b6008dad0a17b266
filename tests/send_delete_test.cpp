// Sending, deleting, rejecting and retrying end to end: what the table, the
// callbacks, both files and the reject directory hold afterwards.
#include <glob.h>

#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

const long kFirstID = 0x40000000L;
const long kOrder = 1;

class SendDeleteTest : public WmTest {
protected:
    // Control file record of slot (-1: the header); with wm, equal in memory.
    _WQCF_ Slot(long slot, CWorkMessages* wm = nullptr) {
        const _WQCF_ rec = ImageSlot(ReadFile(wqcfFile), slot);
        if (!wm) return rec;
        CWorkMessagesTestAccess acc(*wm);
        EXPECT_EQ(acc.GetPointers(), M_OK);
        EXPECT_EQ(memcmp(&rec, &acc.Queues()[slot], sizeof(rec)), 0) << "slot " << slot;
        return rec;
    }
};

std::vector<long> calls; // arguments CountingCallback was called with in this process
long CountingCallback(long n) {
    calls.push_back(n);
    return 0;
}

TEST_F(SendDeleteTest, SendStoresSlotDataAndCounterAndRefusesBadInput) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    std::vector<char> big(8193, 'x');
    WorkMsg m = MsgTo(102, "0123456789", 10), none = MsgTo(102),
            full = MsgTo(102, big.data(), 8192);
    ASSERT_EQ(wm.Send(101, "ORDER", &m, false), M_OK) << wm.szErrorMsg;
    const _WQCF_ s = Slot(0, &wm);
    EXPECT_TRUE(m.nMessageID == kFirstID && m.nMsgNo == kOrder && s.nflag == WQCF_Pending &&
                s.nMessageID == kFirstID && s.nMsgNo == kOrder && s.xMsgMask == 0);
    EXPECT_TRUE(s.nTargetUID == 102 && s.nSenderUID == 101 && s.nTimePosted == 0 &&
                s.nTimeSent > 0 && s.nDepDataLength == 10 && s.nDepDataSlot == 0);
    const std::string ddf = ReadFile(wddfFile);
    EXPECT_EQ(ddf.substr(8192, 8192), "0123456789" + std::string(8182, '\0'));
    EXPECT_TRUE(ddf[0] == '\x80' && acc.SAT()[0] == 0x80);
    ASSERT_EQ(wm.Send(101, "ORDER", &none, false), M_OK);
    ASSERT_EQ(wm.Send(101, "ORDER", &full, false), M_OK);
    EXPECT_TRUE(Slot(1, &wm).nDepDataSlot == -1 && Slot(2, &wm).nDepDataLength == 8192);

    // Refused input changes neither the counter nor the table.
    WorkMsg tooBig = MsgTo(102, big.data(), 8193);
    EXPECT_EQ(wm.Send(101, "ORDER", &tooBig, false), M_TOOBIG);
    EXPECT_EQ(wm.Send(101, "ORDER", nullptr, false), M_SYSERR);
    EXPECT_TRUE(acc.Controls()->nMsgCounter == kFirstID + 3 && Slot(-1).nMessageID == kFirstID + 3);
    EXPECT_EQ(Slot(3, &wm).nflag, WQCF_Available);
    EXPECT_TRUE(acc.SAT()[0] == 0xC0 && acc.LockOwner() == 0);
}

TEST_F(SendDeleteTest, OnlyThisProcessCallbacksRunWhicheverObjectSends) {
    CWorkMessages wm, other;
    // Another process registers the same function: its entry is not called here.
    ASSERT_EQ(RunChild([] {
                  return int(-CWorkMessages().SetInput(102, "ORDER", CountingCallback, false));
              }),
              0);
    ASSERT_EQ(wm.SetInput(101, "ORDER", CountingCallback, false), M_OK);
    WorkMsg m = MsgTo(102), inv = MsgTo(102), late = MsgTo(103, "late", 4), again = MsgTo(102);
    ASSERT_EQ(wm.Send(101, "ORDER", &m, false), M_OK);
    EXPECT_EQ(wm.Send(101, "INVOICE", &inv, false), M_NOTACT); // no callback for the type
    EXPECT_EQ(wm.Send(101, "ORDER", &late, false), M_NOTACT);  // none for a queued-only one
    // Registered through wm, run on a send through any object of the process.
    ASSERT_EQ(other.Send(101, "ORDER", &again, false), M_OK);
    EXPECT_EQ(calls, (std::vector<long>{kOrder, kOrder}));
}

TEST_F(SendDeleteTest, HighPriorityIdsAndTheCounterSkipWhatCannotBeUsed) {
    CWorkMessages wm;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    WorkMsg hi = MsgTo(102), asks = MsgTo(102), a = MsgTo(102);
    hi.nResponseRequired = asks.nResponseRequired = 1;
    ASSERT_EQ(wm.Send(101, "ORDER", &hi, true), M_OK);
    EXPECT_EQ(hi.nMessageID, kFirstID + 1); // 0x40000000 would leave slot ID 0
    // The sender is not registered for ORDER: no response is required.
    EXPECT_TRUE(Slot(0).nMessageID == 1 && Slot(0).xMsgMask == 0x40 && !Slot(0).nResponseRequired);
    ASSERT_EQ(wm.SetInput(101, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(wm.Send(101, "ORDER", &asks, false), M_OK);
    EXPECT_EQ(Slot(1).nResponseRequired, 1);
    // Only the slot's value names it.
    EXPECT_TRUE(wm.Delete(101, hi.nMessageID) == M_MSGID && wm.Delete(101, 1) == M_OK);

    // The counter skips IDs in use and wraps before 0x7FFFFFFF (never received).
    const pSMControls ctl = CWorkMessagesTestAccess(wm).Controls();
    ctl->nMsgCounter = static_cast<int32_t>(asks.nMessageID);
    ASSERT_EQ(wm.Send(101, "ORDER", &a, false), M_OK);
    EXPECT_TRUE(a.nMessageID == kFirstID + 3 && Slot(-1).nMessageID == kFirstID + 4);
    ctl->nMsgCounter = 0x7FFFFFFE;
    ASSERT_EQ(wm.Send(101, "ORDER", &a, false), M_OK);
    EXPECT_TRUE(a.nMessageID == 0x7FFFFFFE && Slot(-1).nMessageID == kFirstID);
}

TEST_F(SendDeleteTest, DeleteRetryAndRejectWriteThroughOrKeepTheMessage) {
    // A type name with "/" must not lead the reject file out of its directory.
    WriteFile(namesFile, std::string(kDefaultNames) + "NAME=a/b,ID=9,DESC=Slash\n");
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    WorkMsg keep = MsgTo(102, "kept", 4), gone = MsgTo(102, "gone", 4),
            rej = MsgTo(102, "payload", 7);
    WorkMsg noData = MsgTo(102);
    for (WorkMsg* m : {&keep, &gone, &rej})
        ASSERT_EQ(wm.Send(101, "ORDER", m, false), M_NOTACT);
    ASSERT_EQ(wm.Send(101, "a/b", &noData, false), M_NOTACT) << wm.szErrorMsg;

    ASSERT_EQ(wm.Delete(0, gone.nMessageID), M_OK) << wm.szErrorMsg;
    const _WQCF_ freed = Slot(1, &wm), zero{};
    EXPECT_EQ(memcmp(&freed, &zero, sizeof(zero)), 0);
    const std::string ddf = ReadFile(wddfFile);
    EXPECT_TRUE(acc.SAT()[0] == 0xA0 && ddf[0] == '\xA0'); // data slot 1 freed, 0 and 2 kept
    EXPECT_EQ(ddf.substr(2 * 8192, 8192), std::string(8192, '\0'));
    EXPECT_EQ(wm.Delete(101, gone.nMessageID), M_MSGID);
    EXPECT_EQ(wm.Delete(101, 0), M_MSGID); // a free slot's ID names no message

    ASSERT_EQ(wm.Retry(102, keep.nMessageID, true, 0x22), M_OK);
    const _WQCF_ s = Slot(0, &wm);
    EXPECT_TRUE(s.nflag == WQCF_Delayed_Retry && s.nUserFlags == 0x22 && s.nDepDataSlot == 0);

    // Reject saves exactly 8192 bytes, then deletes.
    ASSERT_EQ(wm.Reject(102, rej.nMessageID), M_OK) << wm.szErrorMsg;
    ASSERT_EQ(wm.Reject(102, noData.nMessageID), M_OK) << wm.szErrorMsg;
    EXPECT_TRUE(Slot(2, &wm).nflag == WQCF_Available && Slot(3).nflag == WQCF_Available);
    glob_t g{}; // the reject directory's files, sorted
    ASSERT_EQ(glob((rejectDir + "/*").c_str(), 0, nullptr, &g), 0);
    const std::vector<std::string> files(g.gl_pathv, g.gl_pathv + g.gl_pathc);
    globfree(&g);
    ASSERT_EQ(files.size(), 2u);
    const std::string stamp = "\\.[0-9]{6}_[0-9]{6}\\.", both = files[0] + " " + files[1];
    EXPECT_TRUE(std::regex_match(
        both, std::regex(".*/PROCB\\.ORDER" + stamp + std::to_string(rej.nMessageID) +
                         " .*/PROCB\\.a_b" + stamp + std::to_string(noData.nMessageID))))
        << both;
    EXPECT_EQ(ReadFile(files[0]), "payload" + std::string(8185, '\0'));
    EXPECT_EQ(ReadFile(files[1]), std::string(8192, '\0'));
    // Without the directory nothing is written and the message stays.
    ASSERT_EQ(rename(rejectDir.c_str(), (rejectDir + ".off").c_str()), 0);
    EXPECT_EQ(wm.Reject(102, keep.nMessageID), M_SYSERR);
    EXPECT_TRUE(Contains(wm.szErrorMsg, rejectDir + "/PROCB.ORDER.")) << wm.szErrorMsg;
    EXPECT_EQ(Slot(0, &wm).nflag, WQCF_Delayed_Retry);
    EXPECT_EQ(acc.LockOwner(), 0);
}

} // namespace
