// Nonsense arguments, and every operation of an object whose construction
// failed: each call answers with a code (and a text where the code has one)
// and changes nothing, neither the tables nor the files.
#include <unistd.h>

#include <cstring>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

class BadArgsTest : public WmTest {};

TEST_F(BadArgsTest, NonsenseGetsACodeAndChangesNothing) {
    {
        CWorkMessages wm;
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        CWorkMessagesTestAccess acc(wm);
        ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
        char buf[16] = "";
        WorkMsg sent = MsgTo(102, "payload", 7), other = sent, any = MsgTo(0, buf, 16);
        ASSERT_EQ(wm.Send(101, "ORDER", &sent, false), M_OK);
        const std::string wqcf = ReadFile(wqcfFile), wddf = ReadFile(wddfFile);
        const std::string sat(reinterpret_cast<const char*>(acc.SAT()), 8192);
        // 64-bit callers: an ID whose low 32 bits name a message is not that message.
        const long wide = sizeof(long) > 4 ? static_cast<long>(sent.nMessageID + (1LL << 32)) : -1;
        const struct {
            const char* what;
            std::function<long()> fn;
            long code;
            bool text; // the code comes with a text
        } calls[] = {
            {"receive into no record", [&] { return wm.Receive(102, 1, nullptr, false, nullptr); },
             M_SYSERR, false},
            {"delete ID -1", [&] { return wm.Delete(102, -1); }, M_MSGID, true},
            {"delete a 64-bit ID", [&] { return wm.Delete(102, wide); }, M_MSGID, true},
            {"send an empty name", [&] { return wm.Send(101, "", &other, false); }, M_NAME, true},
        };
        for (const auto& c : calls) {
            strcpy(wm.szErrorMsg, "");
            EXPECT_EQ(c.fn(), c.code) << c.what;
            EXPECT_TRUE(!c.text || *wm.szErrorMsg) << c.what;
        }
        EXPECT_EQ(ReadFile(wqcfFile), wqcf);
        EXPECT_EQ(ReadFile(wddfFile), wddf);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(acc.SAT()), 8192), sat);
        EXPECT_TRUE(acc.LockOwner() == 0 && wm.nLastError == 0);
        any = MsgTo(0, buf, 16);
        ASSERT_EQ(wm.Receive(102, 1, &any, false, nullptr), M_OK); // still there, whole
        EXPECT_TRUE(any.nMessageID == sent.nMessageID && strcmp(buf, "payload") == 0);
    }

    // An object whose construction failed, before (no configuration) and
    // after (an empty names file) it created the Controls segment.
    const std::string wqcf = ReadFile(wqcfFile), wddf = ReadFile(wddfFile);
    for (int k = 0; k < 2; ++k) {
        if (k == 0) unlink(configFile.c_str());
        if (k == 1) WriteConfig(), WriteFile(namesFile, "");
        CWorkMessages bad;
        ASSERT_LT(bad.nLastError, 0);
        char buf[16];
        WorkMsg m = MsgTo(102, buf, sizeof(buf));
        long n = 0;
        __GET_COUNTERS__ENTRY3 both[2] = {{0, {}, "ORDER"}, {0, {}, ""}};
        const std::function<long()> ops[] = {
            [&] { return bad.Translate("ORDER"); },
            [&] { return bad.Send(101, "ORDER", &m, true); },
            [&] { return bad.ReceiveByMsg(102, 1, &m, 1, 4, true, nullptr); },
            [&] { return bad.DeleteBy(-1, nullptr, nullptr, nullptr, &n); },
            [&] { return bad.GetCounters(both); },
        };
        for (const auto& op : ops)
            EXPECT_LT(op(), 0) << "operation " << &op - ops << " of failed object " << k;
        EXPECT_EQ(n, 0);
        EXPECT_EQ(ReadFile(wqcfFile), wqcf);
        EXPECT_EQ(ReadFile(wddfFile), wddf);
    }
    for (int key = 1048; key <= 1053; ++key)
        EXPECT_LT(SegmentId(key), 0) << key;
}

} // namespace
