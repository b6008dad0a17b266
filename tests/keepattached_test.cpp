// WM_KeepAttached keeps the Queues and PRLs mappings between calls. Such an
// object follows tables grown by another process or by itself, drops a
// replaced segment at the first call that sees the new handle, and as the last
// object leaves no segment behind.
#include <sys/ipc.h>
#include <sys/shm.h>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

class KeepAttachedTest : public WmTest {};

// Segments of the test's IPC namespace, removed ones still attached included.
int SegmentsInUse() {
    struct shm_info info = {};
    return shmctl(0, SHM_INFO, reinterpret_cast<struct shmid_ds*>(&info)) < 0 ? -1 : info.used_ids;
}

TEST_F(KeepAttachedTest, FollowsReplacedTablesAndLeavesNoSegmentBehind) {
    WriteConfig("WM_KeepAttached=true\n");
    {
        CWorkMessages wm;
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        CWorkMessagesTestAccess acc(wm);
        ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
        ASSERT_GT(SendText(wm, 101, "ORDER", 102, nullptr), 0);
        EXPECT_TRUE(acc.Queues() == nullptr && acc.PRLs() == nullptr); // as a derived class sees it

        // Another process grows both tables: 600 messages need 640 slots,
        // 130 more registrations 160 entries.
        ASSERT_EQ(RunChild([] {
                      CWorkMessages other;
                      for (long nUID = 1000; nUID < 1130; ++nUID)
                          if (other.SetInput(nUID, "ORDER", nullptr, false) != M_OK) return 1;
                      for (int i = 0; i < 600; ++i)
                          if (SendText(other, 101, "ORDER", 102, nullptr) == 0) return 2;
                      return other.nLastError == 0 ? 0 : 3;
                  }),
                  0);
        // The replaced Queues and PRLs live on while this object maps them.
        EXPECT_EQ(SegmentsInUse(), 8);
        EXPECT_EQ(ImageHeader(ReadFile(wqcfFile)).nEntriesAllocated, 640);

        char buffer[16];
        WorkMsg got = MsgTo(0, buffer, sizeof(buffer));
        ASSERT_EQ(wm.Receive(102, 1, &got, false, nullptr), M_OK) << wm.szErrorMsg;
        EXPECT_EQ(SegmentsInUse(), 6); // gone at the first call that saw the new handles
        EXPECT_TRUE(acc.Queues() == nullptr && acc.PRLs() == nullptr);
        EXPECT_EQ(wm.TargetActive(1129, 1), M_OK); // registered by the other process

        // This object grows both tables itself: 41 more messages overflow
        // the 640 slots, 31 more registrations the 160 entries.
        for (int i = 0; i < 41; ++i)
            ASSERT_GT(SendText(wm, 101, "ORDER", 102, nullptr), 0);
        for (long nUID = 2000; nUID < 2031; ++nUID)
            ASSERT_EQ(wm.SetInput(nUID, "ORDER", nullptr, false), M_OK) << wm.szErrorMsg;
        EXPECT_TRUE(acc.Controls()->nQSlotCount == 768 && acc.Controls()->nPRLSlotCount == 192);
        EXPECT_EQ(SegmentsInUse(), 6);
        ASSERT_EQ(wm.Delete(102, got.nMessageID), M_OK) << wm.szErrorMsg;
        __GET_COUNTERS__ENTRY2 row = {};
        EXPECT_TRUE(wm.GetCounters(&row) == M_OK && row.Counter[WQCF_Pending] == 641 &&
                    row.Counter[WQCF_Received] == 0);
        EXPECT_EQ(wm.TargetActive(2030, 1), M_OK);
    }
    EXPECT_EQ(SegmentsInUse(), 0); // the last object removes every segment
}

} // namespace
