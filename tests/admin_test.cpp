// Administration: counting the queues, deleting in bulk, and the slot repairs
// of derived classes, checked against the table, the slot allocation table
// and both files.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"
#include "WorkMessages.h"

namespace {

class AdminTest : public wmtest::WmTest {};

const long kFirstID = 0x40000000L;
const long kSlots = 512; // slots of a new control file

_WQCF_ FileSlot(const std::string& wqcf, long slot) {
    _WQCF_ rec;
    memset(static_cast<void*>(&rec), 0xEE, sizeof(rec));
    const std::string s = wmtest::ReadFile(wqcf);
    const size_t offset = 64 * static_cast<size_t>(slot + 1);
    if (s.size() >= offset + sizeof(rec)) memcpy(&rec, s.data() + offset, sizeof(rec));
    return rec;
}
_WQCF_ MemSlot(CWorkMessages& wm, long slot) {
    CWorkMessagesTestAccess acc(wm);
    EXPECT_EQ(acc.GetPointers(), M_OK);
    return acc.Queues()[slot];
}
bool AllZero(const void* p, size_t n) {
    const char* c = static_cast<const char*>(p);
    for (size_t i = 0; i < n; ++i)
        if (c[i] != 0) return false;
    return true;
}
bool SlotFreeEverywhere(CWorkMessages& wm, const std::string& wqcf, long slot) {
    const _WQCF_ mem = MemSlot(wm, slot), disk = FileSlot(wqcf, slot);
    return AllZero(&mem, sizeof(mem)) && AllZero(&disk, sizeof(disk));
}
// Data block n of the data file is all zero (or lies beyond its end).
bool DataBlockZero(const std::string& wddf, long n) {
    const std::string s = wmtest::ReadFile(wddf);
    const size_t offset = 8192 * static_cast<size_t>(n + 1);
    return s.size() <= offset ||
           AllZero(s.data() + offset, std::min<size_t>(8192, s.size() - offset));
}

long Send(CWorkMessages& wm, long from, const char* type, long to, const char* data = "data") {
    WorkMsg m{};
    m.nTargetUID = to;
    m.pDepData = const_cast<char*>(data);
    m.nDepDataLength = data ? static_cast<long>(strlen(data)) : 0;
    const long rc = wm.Send(from, type, &m, false);
    EXPECT_TRUE(rc == M_OK || rc == M_NOTACT) << rc << " " << wm.szErrorMsg;
    return m.nMessageID;
}
__GET_COUNTERS__ENTRY2 ByState(CWorkMessages& wm) {
    __GET_COUNTERS__ENTRY2 row;
    memset(&row, 0x55, sizeof(row));
    EXPECT_EQ(wm.GetCounters(&row), M_OK);
    return row;
}
long InUse(CWorkMessages& wm) {
    const __GET_COUNTERS__ENTRY2 row = ByState(wm);
    return row.Counter[1] + row.Counter[2] + row.Counter[3] + row.Counter[4];
}

// A control file with the given slots, written before the first constructor.
void WriteControlFile(const std::string& path, const std::vector<_WQCF_>& slots) {
    std::string file(64 * (kSlots + 1), '\0');
    _WQCF_CTL_ head{};
    head.nEntriesAllocated = kSlots;
    head.nCurrentMsgID = static_cast<int32_t>(kFirstID + 0x100);
    memcpy(&file[0], &head, sizeof(head));
    for (size_t i = 0; i < slots.size(); ++i)
        memcpy(&file[64 * (i + 1)], &slots[i], sizeof(_WQCF_));
    wmtest::WriteFile(path, file);
}
// A pending ORDER from PROCA to PROCB without data.
_WQCF_ Pending(long id, long sent) {
    _WQCF_ s{};
    s.nflag = WQCF_Pending;
    s.nMessageID = static_cast<int32_t>(id);
    s.nTargetUID = 102;
    s.nSenderUID = 101;
    s.nMsgNo = 1;
    s.nTimeSent = static_cast<int32_t>(sent);
    s.nDepDataSlot = -1;
    return s;
}

TEST_F(AdminTest, CountersByTypeStateAndProcess) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    const long m1 = Send(wm, 101, "ORDER", 102);   // received below
    const long m2 = Send(wm, 101, "ORDER", 102);   // retry
    Send(wm, 103, "ORDER", 102);                   // pending
    const long m4 = Send(wm, 101, "INVOICE", 102); // delayed retry
    Send(wm, 102, "REPORT", 103);                  // pending
    char buf[16];
    WorkMsg r{};
    r.pDepData = buf;
    r.nDepDataLength = sizeof(buf);
    ASSERT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_OK) << wm.szErrorMsg;
    ASSERT_EQ(r.nMessageID, m1);
    ASSERT_EQ(wm.Retry(102, m2, false, 0), M_OK);
    ASSERT_EQ(wm.Retry(102, m4, true, 0), M_OK);

    // By type: names ignore case, counters are added to, an unknown name
    // gets -1 and the others are still counted.
    __GET_COUNTERS__ENTRY1 types[] = {{0, "ORDER"}, {5, "invoice"}, {0, "ALERT"},
                                      {0, "NOPE"},  {0, "ORDER"},   {0, ""}};
    EXPECT_EQ(wm.GetCounters(types), M_PARTIAL);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: WorkMsg 'NOPE' is not valid");
    EXPECT_EQ(types[0].Counter, 3);
    EXPECT_EQ(types[1].Counter, 6);
    EXPECT_EQ(types[2].Counter, 0);
    EXPECT_EQ(types[3].Counter, -1);
    EXPECT_EQ(types[4].Counter, 3); // a repeated name gets the full count again

    __GET_COUNTERS__ENTRY3 ts[] = {{0, {0, 0, 0, 0}, "Order"},
                                   {0, {0, 0, 0, 0}, "INVOICE"},
                                   {10, {1, 1, 1, 1}, "REPORT"},
                                   {0, {0, 0, 0, 0}, ""}};
    EXPECT_EQ(wm.GetCounters(ts), M_OK);
    EXPECT_EQ(ts[0].TotalCount, 3);
    EXPECT_TRUE(ts[0].Counter[0] == 1 && ts[0].Counter[1] == 1 && ts[0].Counter[2] == 1 &&
                ts[0].Counter[3] == 0);
    EXPECT_TRUE(ts[1].TotalCount == 1 && ts[1].Counter[3] == 1 && ts[1].Counter[0] == 0);
    EXPECT_TRUE(ts[2].TotalCount == 11 && ts[2].Counter[0] == 2 && ts[2].Counter[1] == 1);

    // By state: every slot of the table, whatever the row held before.
    const __GET_COUNTERS__ENTRY2 st = ByState(wm);
    EXPECT_EQ(st.Counter[0], kSlots - 5);
    EXPECT_TRUE(st.Counter[1] == 2 && st.Counter[2] == 1 && st.Counter[3] == 1 &&
                st.Counter[4] == 1);
    CWorkMessagesTestAccess acc(wm);
    EXPECT_EQ(st.Counter[0] + st.Counter[1] + st.Counter[2] + st.Counter[3] + st.Counter[4],
              acc.Controls()->nQSlotCount);

    __GET_COUNTERS__ENTRY4 procs[] = {{0, "PROCA"}, {0, "procb"}, {0, "PROCC"}, {0, ""}};
    EXPECT_EQ(wm.GetCounters(procs, true), M_OK);
    EXPECT_TRUE(procs[0].Counter == 0 && procs[1].Counter == 4 && procs[2].Counter == 1);
    for (auto& p : procs)
        p.Counter = 0;
    EXPECT_EQ(wm.GetCounters(procs, false), M_OK);
    EXPECT_TRUE(procs[0].Counter == 3 && procs[1].Counter == 1 && procs[2].Counter == 1);

    // Nothing counted is M_NONE, also when a name failed; the -1 stays.
    __GET_COUNTERS__ENTRY1 none[] = {{7, "ALERT"}, {7, "NOPE"}, {7, ""}};
    EXPECT_EQ(wm.GetCounters(none), M_NONE);
    EXPECT_TRUE(none[0].Counter == 7 && none[1].Counter == -1 && none[2].Counter == 7);
    __GET_COUNTERS__ENTRY4 nobody[] = {{0, "NOBODY"}, {0, ""}};
    EXPECT_EQ(wm.GetCounters(nobody, true), M_NONE);
    EXPECT_EQ(nobody[0].Counter, -1);
    __GET_COUNTERS__ENTRY3 empty[] = {{9, {9, 9, 9, 9}, ""}};
    EXPECT_EQ(wm.GetCounters(empty), M_NONE);
    EXPECT_TRUE(empty[0].TotalCount == 9 && empty[0].Counter[0] == 9);

    // A missing array is refused, not taken for an empty one.
    EXPECT_EQ(wm.GetCounters(static_cast<lpCountByTypes>(nullptr)), M_SYSERR);
    EXPECT_EQ(wm.GetCounters(static_cast<lpCountByStates>(nullptr)), M_SYSERR);
    EXPECT_EQ(wm.GetCounters(static_cast<lpCountByTsAndSs>(nullptr)), M_SYSERR);
    EXPECT_EQ(wm.GetCounters(static_cast<lpCountByUID>(nullptr), false), M_SYSERR);
    EXPECT_NE(strstr(wm.szErrorMsg, "null given"), nullptr);
    EXPECT_EQ(acc.LockOwner(), 0);
    EXPECT_EQ(wm.nLastError, 0);
}

TEST_F(AdminTest, DeleteByEachCriterionAndAllAtOnce) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    Send(wm, 101, "ORDER", 102);   // 0  A->B ORDER
    Send(wm, 101, "INVOICE", 102); // 1  A->B INVOICE
    Send(wm, 103, "ORDER", 102);   // 2  C->B ORDER
    Send(wm, 102, "ORDER", 103);   // 3  B->C ORDER
    Send(wm, 101, "REPORT", 103);  // 4  A->C REPORT
    Send(wm, 103, "ORDER", 101);   // 5  C->A ORDER
    Send(wm, 101, "ORDER", 102);   // 6  A->B ORDER
    ASSERT_EQ(acc.SAT()[0], 0xFE);

    long n = 99;
    EXPECT_EQ(wm.DeleteBy(-1, "procc", nullptr, nullptr, &n), M_OK) << wm.szErrorMsg;
    EXPECT_EQ(n, 2);
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 3) && SlotFreeEverywhere(wm, wqcfFile, 4));
    EXPECT_TRUE(DataBlockZero(wddfFile, 3) && DataBlockZero(wddfFile, 4));
    EXPECT_FALSE(DataBlockZero(wddfFile, 2));
    EXPECT_EQ(acc.SAT()[0], 0xE6);
    EXPECT_EQ(static_cast<unsigned char>(wmtest::ReadFile(wddfFile)[0]), 0xE6);

    EXPECT_EQ(wm.DeleteBy(-1, -1L, 103L, -1L, &n), M_OK);
    EXPECT_EQ(n, 2);
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 2) && SlotFreeEverywhere(wm, wqcfFile, 5));
    EXPECT_EQ(wm.DeleteBy(-1, nullptr, nullptr, "Invoice", &n), M_OK);
    EXPECT_EQ(n, 1);
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 1));
    EXPECT_EQ(acc.SAT()[0], 0x82);

    // All four criteria at once: each survivor misses exactly one of them.
    Send(wm, 101, "ORDER", 102);                        // 1  selected
    Send(wm, 101, "ORDER", 103);                        // 2  other target
    Send(wm, 103, "ORDER", 102);                        // 3  other sender
    Send(wm, 101, "INVOICE", 102);                      // 4  other type
    EXPECT_EQ(wm.DeleteBy(5, -1L, -1L, -1L, &n), M_OK); // nothing is 5 days old
    EXPECT_EQ(n, 0);
    EXPECT_EQ(wm.DeleteBy(0, "PROCB", "proca", "order", &n), M_OK);
    EXPECT_EQ(n, 3);
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 0) && SlotFreeEverywhere(wm, wqcfFile, 1) &&
                SlotFreeEverywhere(wm, wqcfFile, 6));
    EXPECT_EQ(InUse(wm), 3);

    // A name that is not found ends the call before anything is deleted or
    // counted; the later names are not looked up.
    n = 77;
    EXPECT_EQ(wm.DeleteBy(-1, "PROCB", "NOBODY", "BADTYPE", &n), M_NAME);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: UID for NOBODY was not found");
    EXPECT_EQ(n, 77);
    EXPECT_EQ(wm.DeleteBy(-1, "NOONE", "NOBODY", nullptr, &n), M_NAME);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: UID for NOONE was not found");
    EXPECT_EQ(wm.DeleteBy(-1, "", nullptr, nullptr, &n), M_NAME);
    EXPECT_EQ(wm.DeleteBy(-1, nullptr, nullptr, "", &n), M_NAME);
    EXPECT_EQ(InUse(wm), 3);

    // Without a count every match is deleted all the same.
    EXPECT_EQ(wm.DeleteBy(-1, -1L, -1L, -1L, nullptr), M_OK);
    EXPECT_EQ(ByState(wm).Counter[0], kSlots);
    for (long i = 0; i < 7; ++i) {
        EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, i)) << i;
        EXPECT_TRUE(DataBlockZero(wddfFile, i)) << i;
    }
    EXPECT_TRUE(AllZero(acc.SAT(), 8192));
    const std::string ddf = wmtest::ReadFile(wddfFile);
    EXPECT_TRUE(ddf.size() >= 8192 && AllZero(ddf.data(), 8192));
    EXPECT_EQ(acc.LockOwner(), 0);
    EXPECT_FALSE(acc.InternalCall());
}

TEST_F(AdminTest, DeleteByAgeCountsWholeDaysTruncated) {
    const long now = static_cast<long>(time(nullptr));
    const long day = 86400;
    WriteControlFile(wqcfFile, {Pending(kFirstID + 1, now - day / 2),
                                Pending(kFirstID + 2, now - day - day / 2),
                                Pending(kFirstID + 3, now - 3 * day),
                                Pending(kFirstID + 4, now + day + day / 2)});
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    ASSERT_EQ(InUse(wm), 4);
    long n = -5;
    EXPECT_EQ(wm.DeleteBy(1, -1L, -1L, -1L, &n), M_OK);
    EXPECT_EQ(n, 2); // 1.5 and 3 days old
    EXPECT_EQ(MemSlot(wm, 0).nMessageID, kFirstID + 1);
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 1) && SlotFreeEverywhere(wm, wqcfFile, 2));
    EXPECT_EQ(MemSlot(wm, 3).nMessageID, kFirstID + 4);
    // Half a day is age 0; one and a half days ahead is age -1, not 0.
    EXPECT_EQ(wm.DeleteBy(0, -1L, -1L, -1L, &n), M_OK);
    EXPECT_EQ(n, 1);
    EXPECT_EQ(MemSlot(wm, 0).nflag, WQCF_Available);
    EXPECT_EQ(MemSlot(wm, 3).nflag, WQCF_Pending);
}

TEST_F(AdminTest, DeleteByStopsAtTheFirstFailedDeletion) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    Send(wm, 101, "ORDER", 102, nullptr); // no data: the data file is not needed
    Send(wm, 101, "ORDER", 102, nullptr);
    Send(wm, 101, "ORDER", 102, "data");
    Send(wm, 101, "ORDER", 102, nullptr);
    ASSERT_EQ(unlink(wddfFile.c_str()), 0);
    ASSERT_EQ(mkdir(wddfFile.c_str(), 0775), 0);

    long n = -1;
    EXPECT_EQ(wm.DeleteBy(-1, -1L, -1L, -1L, &n), M_SYSERR);
    EXPECT_EQ(n, 2);
    EXPECT_NE(strstr(wm.szErrorMsg, "Failed to open WDDF database"), nullptr) << wm.szErrorMsg;
    EXPECT_EQ(wm.nLastError, M_SYSERR);
    EXPECT_EQ(acc.LockOwner(), 0);
    EXPECT_FALSE(acc.InternalCall());
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 0) && SlotFreeEverywhere(wm, wqcfFile, 1));
    EXPECT_EQ(FileSlot(wqcfFile, 2).nflag, WQCF_Pending); // the failed one is whole
    EXPECT_EQ(FileSlot(wqcfFile, 3).nflag, WQCF_Pending); // not reached
    EXPECT_EQ(acc.SAT()[0], 0x80);
}

TEST_F(AdminTest, PriorityRoundTripAndWhatDeleteFinds) {
    WriteControlFile(wqcfFile,
                     {Pending(0x40000005, 0), Pending(0x41000005, 0), Pending(0x42000000, 0)});
    WriteConfig("WM_Trace=true\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);

    wmtest::StderrCapture log;
    ASSERT_EQ(acc.SetPrio(0, false), M_OK) << wm.szErrorMsg;
    const std::string trace = log.Stop();
    EXPECT_NE(trace.find("__SetPrio entered by pid/tid"), std::string::npos) << trace;
    EXPECT_NE(trace.find("Set slot 0 high prio."), std::string::npos);
    EXPECT_NE(trace.find("Set high prio request completed. Ctl slot:0"), std::string::npos);
    _WQCF_ disk = FileSlot(wqcfFile, 0);
    EXPECT_TRUE(disk.nMessageID == 5 && disk.xMsgMask == 0x40);
    const _WQCF_ mem = MemSlot(wm, 0);
    EXPECT_EQ(memcmp(&disk, &mem, sizeof(disk)), 0);

    // A second high keeps the saved byte; IDs that would be 0 or another
    // message's are refused and the slots stay as they were.
    EXPECT_EQ(acc.SetPrio(0, false), M_OK);
    EXPECT_EQ(MemSlot(wm, 0).xMsgMask, 0x40);
    EXPECT_EQ(acc.SetPrio(1, false), M_LOGIC);
    EXPECT_EQ(acc.SetPrio(2, false), M_LOGIC);
    EXPECT_TRUE(MemSlot(wm, 1).nMessageID == 0x41000005 && MemSlot(wm, 1).xMsgMask == 0);
    EXPECT_EQ(FileSlot(wqcfFile, 2).nMessageID, 0x42000000);

    EXPECT_EQ(wm.Delete(0, 0x40000005), M_MSGID);
    EXPECT_EQ(acc.SetPrio(0, true), M_OK);
    disk = FileSlot(wqcfFile, 0);
    EXPECT_TRUE(disk.nMessageID == 0x40000005 && disk.xMsgMask == 0);
    EXPECT_EQ(acc.SetPrio(0, true), M_OK); // already normal: unchanged
    EXPECT_EQ(FileSlot(wqcfFile, 0).nMessageID, 0x40000005);
    EXPECT_EQ(wm.Delete(0, 5), M_MSGID);
    EXPECT_EQ(acc.SetPrio(0, false), M_OK);
    EXPECT_EQ(wm.Delete(0, 5), M_OK);
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 0));
    EXPECT_EQ(acc.LockOwner(), 0);
}

TEST_F(AdminTest, SlotRepairsChangeOnlyWhatTheyAreToldAndRefuseBadInput) {
    WriteConfig("WM_Trace=true\n");
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    Send(wm, 101, "ORDER", 102, "zero"); // data slot 0
    Send(wm, 101, "ORDER", 102, nullptr);
    ASSERT_EQ(acc.SAT()[0], 0x80);
    const _WQCF_ before = MemSlot(wm, 0);

    // All -1: the slot is written unchanged. Sender only: target stays.
    EXPECT_EQ(acc.ModifySlot(0, -1, -1, -1, true), M_OK);
    const _WQCF_ same = FileSlot(wqcfFile, 0);
    EXPECT_EQ(memcmp(&before, &same, sizeof(before)), 0);
    EXPECT_EQ(acc.ModifySlot(0, WQCF_Received, 3, 103, false), M_OK);
    _WQCF_ disk = FileSlot(wqcfFile, 0);
    EXPECT_TRUE(disk.nflag == WQCF_Received && disk.nMsgNo == 3 && disk.nSenderUID == 103);
    EXPECT_TRUE(disk.nTargetUID == 102 && disk.nMessageID == before.nMessageID &&
                disk.nDepDataSlot == 0 && disk.nTimeSent == before.nTimeSent);
    EXPECT_EQ(acc.ModifySlot(0, -1, -1, 101, true), M_OK);
    EXPECT_EQ(FileSlot(wqcfFile, 0).nTargetUID, 101);

    // Refusals touch nothing and leave the lock free.
    EXPECT_EQ(acc.ModifySlot(0, WQCF_Last, -1, -1, true), M_LOGIC);
    EXPECT_NE(strstr(wm.szErrorMsg, "state 5"), nullptr) << wm.szErrorMsg;
    EXPECT_EQ(acc.ModifySlot(0, -2, -1, -1, true), M_LOGIC);
    EXPECT_EQ(acc.ModifySlot(kSlots, 1, -1, -1, true), M_LOGIC);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: slot 512 is outside the control table (0 to 511)");
    EXPECT_EQ(acc.DeleteSlot(-1), M_LOGIC);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: slot -1 is outside the control table (0 to 511)");
    EXPECT_EQ(acc.SetPrio(kSlots, false), M_LOGIC);
    EXPECT_EQ(FileSlot(wqcfFile, 0).nflag, WQCF_Received);
    EXPECT_EQ(acc.LockOwner(), 0);
    EXPECT_EQ(wm.nLastError, 0);

    // A free slot reads as zeros: clearing it must not free data slot 0.
    wmtest::StderrCapture log;
    EXPECT_EQ(acc.DeleteSlot(5), M_OK);
    EXPECT_EQ(acc.DeleteSlot(1), M_OK); // a message without data
    std::string trace = log.Stop();
    EXPECT_NE(trace.find("Delete slot 5 request."), std::string::npos) << trace;
    EXPECT_NE(trace.find("Delete request completed. Ctl slot:5, Data slot:-1"), std::string::npos);
    EXPECT_NE(trace.find("Delete request completed. Ctl slot:1, Data slot:-1"), std::string::npos);
    EXPECT_EQ(acc.SAT()[0], 0x80);
    EXPECT_EQ(static_cast<unsigned char>(wmtest::ReadFile(wddfFile)[0]), 0x80);
    EXPECT_FALSE(DataBlockZero(wddfFile, 0));
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 1));

    wmtest::StderrCapture log2;
    EXPECT_EQ(acc.DeleteSlot(0), M_OK);
    trace = log2.Stop();
    EXPECT_NE(trace.find("Delete request completed. Ctl slot:0, Data slot:0"), std::string::npos);
    EXPECT_TRUE(SlotFreeEverywhere(wm, wqcfFile, 0));
    EXPECT_EQ(acc.SAT()[0], 0);
    EXPECT_TRUE(DataBlockZero(wddfFile, 0));
    EXPECT_EQ(acc.LockOwner(), 0);
}

} // namespace
