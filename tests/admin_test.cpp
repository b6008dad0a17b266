// Administration: counting the queues, deleting in bulk and the slot repairs
// of derived classes, checked against the table, the SAT and both files.
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

const long kFirstID = 0x40000000L;
const long kSlots = 512; // slots of a new control file

// Messages by state: every slot of the table, whatever the row held before.
std::vector<long> ByState(CWorkMessages& wm) {
    __GET_COUNTERS__ENTRY2 row;
    memset(&row, 0x55, sizeof(row));
    EXPECT_EQ(wm.GetCounters(&row), M_OK);
    return std::vector<long>(row.Counter, row.Counter + 5);
}

class AdminTest : public WmTest {
protected:
    _WQCF_ FileSlot(long slot) { return ImageSlot(ReadFile(wqcfFile), slot); }
    // Each control slot is all zero in the table and in the file.
    bool SlotsFree(CWorkMessages& wm, std::vector<long> slots) {
        const std::string zero(64, '\0'), file = ReadFile(wqcfFile);
        for (long n : slots)
            if (memcmp(&MemSlot(wm, n), zero.data(), 64) != 0 ||
                file.compare(64 * (n + 1), 64, zero) != 0)
                return false;
        return true;
    }
    static _WQCF_& MemSlot(CWorkMessages& wm, long slot) {
        CWorkMessagesTestAccess acc(wm);
        EXPECT_EQ(acc.GetPointers(), M_OK);
        return acc.Queues()[slot];
    }
    static long InUse(CWorkMessages& wm) { return kSlots - ByState(wm)[0]; }
};

TEST_F(AdminTest, CountersByTypeStateAndProcess) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    SendText(wm, 101, "ORDER", 102);                   // received below
    const long m2 = SendText(wm, 101, "ORDER", 102);   // retry
    SendText(wm, 103, "ORDER", 102);                   // pending
    const long m4 = SendText(wm, 101, "INVOICE", 102); // delayed retry
    SendText(wm, 102, "REPORT", 103);                  // pending
    ASSERT_EQ(acc.ModifySlot(0, WQCF_Received, -1, -1, true), M_OK);
    ASSERT_EQ(wm.Retry(102, m2, false, 0) | wm.Retry(102, m4, true, 0), M_OK);

    // By type: any case, added to; an unknown name gets -1, the rest still count.
    __GET_COUNTERS__ENTRY1 types[] = {{0, "ORDER"}, {5, "invoice"}, {0, "ALERT"},
                                      {0, "NOPE"},  {0, "ORDER"},   {0, ""}};
    EXPECT_EQ(wm.GetCounters(types), M_PARTIAL);
    EXPECT_TRUE(Contains(wm.szErrorMsg, "'NOPE' is not valid")) << wm.szErrorMsg;
    EXPECT_TRUE(types[0].Counter == 3 && types[1].Counter == 6 && types[2].Counter == 0 &&
                types[3].Counter == -1 && types[4].Counter == 3);
    __GET_COUNTERS__ENTRY3 ts[] = {{0, {0, 0, 0, 0}, "Order"}, {10, {1, 1, 1, 1}, "REPORT"}, {}};
    EXPECT_EQ(wm.GetCounters(ts), M_OK);
    EXPECT_TRUE(ts[0].TotalCount == 3 && ts[0].Counter[0] == 1 && ts[0].Counter[1] == 1 &&
                ts[0].Counter[2] == 1 && ts[0].Counter[3] == 0);
    EXPECT_TRUE(ts[1].TotalCount == 11 && ts[1].Counter[0] == 2 && ts[1].Counter[1] == 1);
    EXPECT_EQ(ByState(wm), (std::vector<long>{kSlots - 5, 2, 1, 1, 1}));
    __GET_COUNTERS__ENTRY4 procs[] = {{0, "PROCA"}, {0, "procb"}, {0, "PROCC"}, {0, ""}};
    EXPECT_EQ(wm.GetCounters(procs, true), M_OK);
    EXPECT_TRUE(procs[0].Counter == 0 && procs[1].Counter == 4 && procs[2].Counter == 1);
    EXPECT_EQ(wm.GetCounters(procs, false), M_OK); // by sender, added to
    EXPECT_TRUE(procs[0].Counter == 3 && procs[1].Counter == 5 && procs[2].Counter == 2);

    // Nothing counted is M_NONE, also when a name failed; the -1 stays.
    __GET_COUNTERS__ENTRY1 none[] = {{7, "ALERT"}, {7, "NOPE"}, {7, ""}};
    EXPECT_EQ(wm.GetCounters(none), M_NONE);
    EXPECT_TRUE(none[0].Counter == 7 && none[1].Counter == -1 && none[2].Counter == 7);
    EXPECT_EQ(acc.LockOwner(), 0);
}

TEST_F(AdminTest, DeleteByEachCriterionAndAllAtOnce) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    SendText(wm, 101, "ORDER", 102);   // 0  A->B ORDER
    SendText(wm, 101, "INVOICE", 102); // 1  A->B INVOICE
    SendText(wm, 103, "ORDER", 102);   // 2  C->B ORDER
    SendText(wm, 102, "ORDER", 103);   // 3  B->C ORDER
    SendText(wm, 101, "REPORT", 103);  // 4  A->C REPORT
    SendText(wm, 103, "ORDER", 101);   // 5  C->A ORDER
    SendText(wm, 101, "ORDER", 102);   // 6  A->B ORDER
    long n = 99;
    EXPECT_TRUE(wm.DeleteBy(-1, "procc", nullptr, nullptr, &n) == M_OK && n == 2) << n;
    EXPECT_TRUE(SlotsFree(wm, {3, 4}) && acc.SAT()[0] == 0xE6);
    EXPECT_TRUE(wm.DeleteBy(-1, -1L, 103L, -1L, &n) == M_OK && n == 2) << n;
    EXPECT_TRUE(SlotsFree(wm, {2, 5}));
    EXPECT_TRUE(wm.DeleteBy(-1, nullptr, nullptr, "Invoice", &n) == M_OK && n == 1) << n;
    EXPECT_TRUE(SlotsFree(wm, {1}));

    // All four criteria at once: each survivor misses exactly one of them.
    SendText(wm, 101, "ORDER", 102);   // 1  selected
    SendText(wm, 101, "ORDER", 103);   // 2  other target
    SendText(wm, 103, "ORDER", 102);   // 3  other sender
    SendText(wm, 101, "INVOICE", 102); // 4  other type
    EXPECT_TRUE(wm.DeleteBy(0, "PROCB", "proca", "order", &n) == M_OK && n == 3) << n;
    EXPECT_TRUE(SlotsFree(wm, {0, 1, 6}) && InUse(wm) == 3);

    // A name not found ends the call before anything is deleted or counted.
    n = 77;
    EXPECT_EQ(wm.DeleteBy(-1, "PROCB", "NOBODY", "BADTYPE", &n), M_NAME);
    EXPECT_TRUE(Contains(wm.szErrorMsg, "NOBODY") && n == 77) << wm.szErrorMsg;
    EXPECT_EQ(InUse(wm), 3);
    // Without a count every match is deleted all the same.
    EXPECT_EQ(wm.DeleteBy(-1, -1L, -1L, -1L, nullptr), M_OK);
    EXPECT_TRUE(InUse(wm) == 0 && SlotsFree(wm, {0, 1, 2, 3, 4, 5, 6}));
    EXPECT_TRUE(acc.LockOwner() == 0 && !acc.InternalCall());
}

TEST_F(AdminTest, DeleteByAgeCountsWholeDaysTruncated) {
    const int32_t now = static_cast<int32_t>(time(nullptr)), day = 86400;
    auto sent = [](long id, int32_t t) {
        return SlotRecord(WQCF_Pending, kFirstID + id, -1, 0, t);
    };
    WriteFile(wqcfFile, ControlFileImage(kSlots, kFirstID + 0x100,
                                         {sent(1, now - day / 2), sent(2, now - day - day / 2),
                                          sent(3, now - 3 * day), sent(4, now + day + day / 2)},
                                         kSlots));
    CWorkMessages wm;
    ASSERT_EQ(InUse(wm), 4);
    long n = -5;
    EXPECT_TRUE(wm.DeleteBy(1, -1L, -1L, -1L, &n) == M_OK && n == 2) << n; // 1.5 and 3 days old
    EXPECT_TRUE(SlotsFree(wm, {1, 2}));
    // Half a day is age 0; one and a half days ahead is age -1, not 0.
    EXPECT_TRUE(wm.DeleteBy(0, -1L, -1L, -1L, &n) == M_OK && n == 1) << n;
    EXPECT_TRUE(MemSlot(wm, 0).nflag == WQCF_Available && MemSlot(wm, 3).nflag == WQCF_Pending);
}

TEST_F(AdminTest, SlotRepairsChangeOnlyWhatTheyAreToldAndRefuseBadInput) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    SendText(wm, 101, "ORDER", 102, "zero"); // data slot 0
    SendText(wm, 101, "ORDER", 102, nullptr);
    const _WQCF_ before = MemSlot(wm, 0);
    // Sender only: the target and the rest stay, in the table and the file.
    EXPECT_EQ(acc.ModifySlot(0, WQCF_Received, 3, 103, false), M_OK);
    _WQCF_ disk = FileSlot(0);
    EXPECT_EQ(memcmp(&disk, &MemSlot(wm, 0), sizeof(disk)), 0);
    EXPECT_TRUE(disk.nflag == WQCF_Received && disk.nMsgNo == 3 && disk.nSenderUID == 103);
    EXPECT_TRUE(disk.nTargetUID == 102 && disk.nMessageID == before.nMessageID &&
                disk.nDepDataSlot == 0 && disk.nTimeSent == before.nTimeSent);
    EXPECT_TRUE(acc.ModifySlot(0, -1, -1, 101, true) == M_OK && FileSlot(0).nTargetUID == 101);
    // Refusals touch nothing and leave the lock free.
    EXPECT_EQ(acc.ModifySlot(0, WQCF_Last, -1, -1, true), M_LOGIC);
    EXPECT_EQ(acc.ModifySlot(kSlots, 1, -1, -1, true), M_LOGIC);
    EXPECT_TRUE(FileSlot(0).nflag == WQCF_Received && acc.LockOwner() == 0);

    // Clearing a free slot or a message without data must not free data slot 0.
    EXPECT_TRUE(acc.DeleteSlot(5) == M_OK && acc.DeleteSlot(1) == M_OK);
    EXPECT_TRUE(SlotsFree(wm, {1}) && acc.SAT()[0] == 0x80);
    EXPECT_EQ(acc.DeleteSlot(0), M_OK);
    const std::string data = ReadFile(wddfFile);
    EXPECT_TRUE(SlotsFree(wm, {0}) && acc.SAT()[0] == 0);
    EXPECT_TRUE(!DataSlotMarked(data, 0) && DataBlockZero(data, 0) && acc.LockOwner() == 0);
}

} // namespace
