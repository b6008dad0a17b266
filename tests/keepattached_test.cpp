// WM_KeepAttached: an object keeps its Queues and PRLs mappings from one call
// to the next. It must still follow tables that another process, or the
// object itself, replaces by growing them; a replaced segment must go at the
// first call that sees the new handle; and the last object must leave no
// segment behind, not even a replaced one. The default is checked alongside:
// it keeps nothing between calls.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

class KeepAttachedTest : public WmTest {};

// Segments of the test's IPC namespace, removed ones still attached included.
int SegmentsInUse() {
    struct shm_info info;
    memset(&info, 0, sizeof(info));
    if (shmctl(0, SHM_INFO, reinterpret_cast<struct shmid_ds*>(&info)) < 0) return -1;
    return info.used_ids;
}

long SendTo(CWorkMessages& wm, long nTarget) {
    WorkMsg msg;
    memset(&msg, 0, sizeof(msg));
    msg.nTargetUID = nTarget;
    return wm.Send(101, "ORDER", &msg, false);
}

long PendingAndReceived(CWorkMessages& wm) {
    __GET_COUNTERS__ENTRY2 row;
    memset(&row, 0, sizeof(row));
    if (wm.GetCounters(&row) != M_OK) return -1;
    return row.Counter[WQCF_Pending] * 1000 + row.Counter[WQCF_Received];
}

TEST_F(KeepAttachedTest, FollowsReplacedTablesAndLeavesNoSegmentBehind) {
    for (bool bKeep : {true, false}) {
        SCOPED_TRACE(bKeep ? "WM_KeepAttached=true" : "default");
        WriteConfig(bKeep ? "WM_KeepAttached=true\n" : "WM_KeepAttached=false\n");
        unlink(wqcfFile.c_str()); // each setting starts with empty queues
        unlink(wddfFile.c_str());
        {
            CWorkMessages wm;
            ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
            CWorkMessagesTestAccess acc(wm);
            ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
            ASSERT_EQ(SendTo(wm, 102), M_OK);
            EXPECT_EQ(acc.Queues(), nullptr); // a derived class sees no difference
            EXPECT_EQ(acc.PRLs(), nullptr);

            // Another process grows both tables: 600 messages need 640 slots,
            // 130 more registrations 160 entries.
            ASSERT_EQ(RunChild([] {
                          CWorkMessages other;
                          for (long nUID = 1000; nUID < 1130; ++nUID)
                              if (other.SetInput(nUID, "ORDER", nullptr, false) != M_OK) return 1;
                          for (int i = 0; i < 600; ++i)
                              if (SendTo(other, 102) != M_OK) return 2;
                          return other.nLastError == 0 ? 0 : 3;
                      }),
                      0);
            // The replaced Queues and PRLs live on while this object maps them.
            EXPECT_EQ(SegmentsInUse(), bKeep ? 8 : 6);

            char buffer[16];
            WorkMsg got;
            memset(&got, 0, sizeof(got));
            got.nDepDataLength = sizeof(buffer);
            got.pDepData = buffer;
            ASSERT_EQ(wm.Receive(102, 1, &got, false, nullptr), M_OK) << wm.szErrorMsg;
            EXPECT_EQ(SegmentsInUse(), 6); // gone at the first call that saw the new handles
            EXPECT_EQ(acc.Queues(), nullptr);
            EXPECT_EQ(acc.PRLs(), nullptr);
            EXPECT_EQ(PendingAndReceived(wm), 600 * 1000 + 1);
            EXPECT_EQ(wm.TargetActive(1129, 1), M_OK); // registered by the other process

            // This object grows both tables itself: 41 more messages overflow
            // the 640 slots, 31 more registrations the 160 entries.
            for (int i = 0; i < 41; ++i)
                ASSERT_EQ(SendTo(wm, 102), M_OK) << wm.szErrorMsg;
            for (long nUID = 2000; nUID < 2031; ++nUID)
                ASSERT_EQ(wm.SetInput(nUID, "ORDER", nullptr, false), M_OK) << wm.szErrorMsg;
            EXPECT_EQ(acc.Controls()->nQSlotCount, 768);
            EXPECT_EQ(acc.Controls()->nPRLSlotCount, 192);
            EXPECT_EQ(SegmentsInUse(), 6);
            ASSERT_EQ(wm.Delete(102, got.nMessageID), M_OK) << wm.szErrorMsg;
            EXPECT_EQ(PendingAndReceived(wm), 641 * 1000);
            EXPECT_EQ(wm.TargetActive(2030, 1), M_OK);
        }
        // The last object removes every segment.
        EXPECT_EQ(SegmentsInUse(), 0);
    }
}

} // namespace
