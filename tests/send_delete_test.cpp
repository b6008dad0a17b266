// Sending, deleting, rejecting and retrying messages, end to end: what the
// table, the registry callbacks, the control and data files and the reject
// directory hold afterwards.
#include <dirent.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"
#include "WorkMessages.h"

namespace {

class SendDeleteTest : public wmtest::WmTest {};

const long kFirstID = 0x40000000L;
const long kOrder = 1;

template <class T> T RecordAt(const std::string& path, long offset) {
    T rec;
    memset(static_cast<void*>(&rec), 0xEE, sizeof(rec));
    const std::string s = wmtest::ReadFile(path);
    if (offset >= 0 && s.size() >= offset + sizeof(rec))
        memcpy(&rec, s.data() + offset, sizeof(rec));
    return rec;
}
_WQCF_ FileSlot(const std::string& wqcf, long slot) {
    return RecordAt<_WQCF_>(wqcf, 64 * (slot + 1));
}
long FileCounter(const std::string& wqcf) {
    return RecordAt<_WQCF_CTL_>(wqcf, 0).nCurrentMsgID;
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

WorkMsg Msg(long target, const void* data = nullptr, long len = 0, int respReq = 0) {
    WorkMsg m;
    memset(&m, 0, sizeof(m));
    m.nTargetUID = target;
    m.pDepData = const_cast<void*>(data);
    m.nDepDataLength = len;
    m.nResponseRequired = static_cast<ByteInt>(respReq);
    return m;
}

std::vector<std::string> DirEntries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

int nHits = 0;
long nLastArg = 0;
long CountingCallback(long n) {
    ++nHits;
    nLastArg = n;
    return 0;
}

TEST_F(SendDeleteTest, SendStoresSlotDataAndCounterAndRefusesBadInput) {
    WriteConfig("WM_Trace=true\n");
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    const char data[] = "0123456789";
    WorkMsg m = Msg(102, data, 10);
    const time_t t0 = time(nullptr);
    wmtest::StderrCapture log;
    ASSERT_EQ(wm.Send(101, "ORDER", &m, false), M_OK) << wm.szErrorMsg;
    const std::string trace = log.Stop();
    EXPECT_NE(trace.find("Send ORDER request from PROCA."), std::string::npos) << trace;
    EXPECT_NE(trace.find("Send request: ORDER to PROCB completed. Ctl slot:"), std::string::npos);
    EXPECT_NE(trace.find("[0], Data slot:0, MsgID:40000000"), std::string::npos);
    EXPECT_EQ(m.nMessageID, kFirstID);
    EXPECT_EQ(m.nMsgNo, kOrder);
    EXPECT_EQ(FileCounter(wqcfFile), kFirstID + 1);
    const _WQCF_ s = FileSlot(wqcfFile, 0), inMemory = MemSlot(wm, 0);
    EXPECT_EQ(memcmp(&s, &inMemory, sizeof(s)), 0);
    EXPECT_EQ(s.nflag, WQCF_Pending);
    EXPECT_TRUE(s.nMessageID == kFirstID && s.nTargetUID == 102 && s.nSenderUID == 101);
    EXPECT_TRUE(s.nMsgNo == kOrder && s.nTimePosted == 0 && s.nResponse == 0 && s.xMsgMask == 0);
    EXPECT_TRUE(s.nTimeSent >= t0 && s.nTimeSent <= time(nullptr));
    EXPECT_TRUE(s.nDepDataLength == 10 && s.nDepDataSlot == 0);
    const std::string ddf = wmtest::ReadFile(wddfFile);
    ASSERT_GE(ddf.size(), 2u * 8192);
    EXPECT_EQ(ddf.compare(8192, 10, data), 0);
    EXPECT_TRUE(AllZero(ddf.data() + 8192 + 10, 8192 - 10));
    EXPECT_EQ(static_cast<unsigned char>(ddf[0]), 0x80);
    EXPECT_EQ(acc.SAT()[0], 0x80);

    WorkMsg none = Msg(102);
    ASSERT_EQ(wm.Send(101, "ORDER", &none, false), M_OK);
    EXPECT_EQ(none.nMessageID, kFirstID + 1);
    EXPECT_EQ(FileCounter(wqcfFile), kFirstID + 2);
    EXPECT_EQ(FileSlot(wqcfFile, 1).nDepDataSlot, -1);

    std::vector<char> big(8193, 'x');
    WorkMsg full = Msg(102, big.data(), 8192);
    ASSERT_EQ(wm.Send(101, "ORDER", &full, false), M_OK);
    EXPECT_EQ(FileSlot(wqcfFile, 2).nDepDataLength, 8192);

    // Refused input changes neither the counter nor the table.
    WorkMsg tooBig = Msg(102, big.data(), 8193);
    EXPECT_EQ(wm.Send(101, "ORDER", &tooBig, false), M_TOOBIG);
    EXPECT_STREQ(wm.szErrorMsg,
                 "The given Dependent Data length ( 8193 ) execeeds the maximum of 8192");
    WorkMsg negative = Msg(102, big.data(), -5);
    EXPECT_EQ(wm.Send(101, "ORDER", &negative, false), M_TOOBIG);
    EXPECT_STREQ(wm.szErrorMsg, "The given Dependent Data length ( -5 ) is negative");
    EXPECT_EQ(wm.Send(101, "NOPE", &none, false), M_NAME);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: WorkMsg 'NOPE' is not valid");
    EXPECT_EQ(wm.Send(101, nullptr, &none, false), M_NAME);
    EXPECT_EQ(wm.Send(101, "ORDER", nullptr, false), M_SYSERR);
    EXPECT_EQ(acc.Controls()->nMsgCounter, kFirstID + 3);
    EXPECT_EQ(FileCounter(wqcfFile), kFirstID + 3);
    EXPECT_EQ(MemSlot(wm, 3).nflag, WQCF_Available);
    EXPECT_EQ(acc.SAT()[0], 0xC0);
    EXPECT_EQ(acc.LockOwner(), 0);
}

TEST_F(SendDeleteTest, InactiveTargetKeepsTheMessageUntilItRegisters) {
    CWorkMessages wm;
    const char data[] = "late";
    WorkMsg m = Msg(103, data, 4);
    ASSERT_EQ(wm.Send(101, "INVOICE", &m, false), M_NOTACT);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: Requested target process is not active");
    EXPECT_EQ(FileSlot(wqcfFile, 0).nflag, WQCF_Pending);
    ASSERT_EQ(wm.SetInput(103, "INVOICE", nullptr, false), M_OK);
    char buf[16] = "";
    WorkMsg r = Msg(0, buf, sizeof(buf));
    ASSERT_EQ(wm.Receive(103, 1, &r, false, nullptr), M_OK) << wm.szErrorMsg;
    EXPECT_EQ(r.nMessageID, m.nMessageID);
    EXPECT_STREQ(buf, "late");
}

TEST_F(SendDeleteTest, HighPriorityNeverUsesSlotIdZeroAndResponseNeedsASenderEntry) {
    CWorkMessages wm;
    ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
    WorkMsg hi = Msg(102, nullptr, 0, 1);
    ASSERT_EQ(wm.Send(101, "ORDER", &hi, true), M_OK);
    EXPECT_EQ(hi.nMessageID, kFirstID + 1); // 0x40000000 would leave slot ID 0
    const _WQCF_ s = FileSlot(wqcfFile, 0);
    EXPECT_TRUE(s.nMessageID == 1 && s.xMsgMask == 0x40);
    EXPECT_EQ(s.nResponseRequired, 0); // the sender is not registered for ORDER

    ASSERT_EQ(wm.SetInput(101, "ORDER", nullptr, false), M_OK);
    WorkMsg asks = Msg(102, nullptr, 0, 1);
    ASSERT_EQ(wm.Send(101, "ORDER", &asks, false), M_OK);
    EXPECT_EQ(FileSlot(wqcfFile, 1).nResponseRequired, 1);

    EXPECT_EQ(wm.Delete(101, hi.nMessageID), M_MSGID); // only the slot's value names it
    EXPECT_EQ(wm.Delete(101, 1), M_OK);
}

TEST_F(SendDeleteTest, OnlyThisProcessCallbacksRun) {
    CWorkMessages wm;
    // Another process registers the same function: its entry must not be
    // called here, which the hit count would show.
    ASSERT_EQ(wmtest::RunChild([] {
                  CWorkMessages other;
                  return static_cast<int>(-other.SetInput(102, "ORDER", CountingCallback, false));
              }),
              0);
    ASSERT_EQ(wm.SetInput(101, "ORDER", CountingCallback, false), M_OK);
    WorkMsg m = Msg(102);
    ASSERT_EQ(wm.Send(101, "ORDER", &m, false), M_OK);
    EXPECT_EQ(nHits, 1);
    EXPECT_EQ(nLastArg, kOrder);
    WorkMsg inv = Msg(102), inactive = Msg(103);
    EXPECT_EQ(wm.Send(101, "INVOICE", &inv, false), M_NOTACT);    // no callback for the type
    EXPECT_EQ(wm.Send(101, "ORDER", &inactive, false), M_NOTACT); // none for a queued-only one
    EXPECT_EQ(nHits, 1);
}

TEST_F(SendDeleteTest, CounterWrapsAndSkipsIdsInUse) {
    std::string file(64 * 513, '\0');
    _WQCF_CTL_ head{};
    head.nEntriesAllocated = 512;
    head.nCurrentMsgID = 0x7FFFFFFE;
    _WQCF_ old{};
    old.nflag = WQCF_Pending;
    old.nMessageID = static_cast<int32_t>(kFirstID);
    old.nTargetUID = 102;
    old.nMsgNo = kOrder;
    old.nDepDataSlot = -1;
    memcpy(&file[0], &head, sizeof(head));
    memcpy(&file[64], &old, sizeof(old));
    wmtest::WriteFile(wqcfFile, file);

    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    WorkMsg a = Msg(102), b = Msg(102);
    ASSERT_EQ(wm.Send(101, "ORDER", &a, false), M_NOTACT);
    EXPECT_EQ(a.nMessageID, 0x7FFFFFFE);
    EXPECT_EQ(FileCounter(wqcfFile), kFirstID); // 0x7FFFFFFF could never be received
    ASSERT_EQ(wm.Send(101, "ORDER", &b, false), M_NOTACT);
    EXPECT_EQ(b.nMessageID, kFirstID + 1);
    EXPECT_EQ(FileCounter(wqcfFile), kFirstID + 2);
}

TEST_F(SendDeleteTest, DeleteAndRetryWriteThrough) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    WorkMsg keep = Msg(102, "kept", 4), gone = Msg(102, "gone", 4);
    ASSERT_EQ(wm.Send(101, "ORDER", &keep, false), M_NOTACT);
    ASSERT_EQ(wm.Send(101, "ORDER", &gone, false), M_NOTACT);
    ASSERT_EQ(wm.Delete(0, gone.nMessageID), M_OK) << wm.szErrorMsg;
    _WQCF_ mem = MemSlot(wm, 1), disk = FileSlot(wqcfFile, 1);
    EXPECT_TRUE(AllZero(&mem, sizeof(mem)) && AllZero(&disk, sizeof(disk)));
    EXPECT_EQ(acc.SAT()[0], 0x80); // data slot 1 freed, slot 0 kept
    const std::string ddf = wmtest::ReadFile(wddfFile);
    EXPECT_EQ(static_cast<unsigned char>(ddf[0]), 0x80);
    EXPECT_TRUE(ddf.size() >= 3 * 8192 && AllZero(ddf.data() + 2 * 8192, 8192));
    EXPECT_EQ(wm.Delete(101, gone.nMessageID), M_MSGID);
    EXPECT_EQ(wm.Delete(101, 0), M_MSGID);
    EXPECT_STREQ(wm.szErrorMsg, "Message ID 00000000 not found");

    ASSERT_EQ(wm.Retry(102, keep.nMessageID, false, 0x11), M_OK);
    EXPECT_TRUE(MemSlot(wm, 0).nflag == WQCF_Retry && MemSlot(wm, 0).nUserFlags == 0x11);
    ASSERT_EQ(wm.Retry(102, keep.nMessageID, true, 0x22), M_OK);
    mem = MemSlot(wm, 0);
    disk = FileSlot(wqcfFile, 0);
    EXPECT_EQ(memcmp(&mem, &disk, sizeof(mem)), 0);
    EXPECT_TRUE(disk.nflag == WQCF_Delayed_Retry && disk.nUserFlags == 0x22);
    EXPECT_TRUE(disk.nMessageID == keep.nMessageID && disk.nDepDataSlot == 0);
    EXPECT_EQ(wm.Retry(102, gone.nMessageID, true, 0), M_MSGID);
    EXPECT_EQ(acc.LockOwner(), 0);
}

TEST_F(SendDeleteTest, RejectSavesExactly8192BytesInTheDirectoryThenDeletes) {
    // A name with "/" must not lead the file out of the reject directory.
    wmtest::WriteFile(namesFile, std::string(wmtest::kDefaultNames) + "NAME=a/b,ID=9,DESC=Slash\n");
    CWorkMessages wm;
    WorkMsg withData = Msg(102, "payload", 7), noData = Msg(102), stays = Msg(102);
    ASSERT_EQ(wm.Send(101, "ORDER", &withData, false), M_NOTACT);
    ASSERT_EQ(wm.Send(101, "a/b", &noData, false), M_NOTACT) << wm.szErrorMsg;
    ASSERT_EQ(wm.Send(101, "ORDER", &stays, false), M_NOTACT);

    ASSERT_EQ(wm.Reject(102, withData.nMessageID), M_OK) << wm.szErrorMsg;
    ASSERT_EQ(wm.Reject(102, noData.nMessageID), M_OK) << wm.szErrorMsg;
    EXPECT_EQ(wm.Reject(102, noData.nMessageID), M_MSGID);
    const std::vector<std::string> files = DirEntries(rejectDir);
    ASSERT_EQ(files.size(), 2u);
    for (const std::string& name : files) {
        const bool isOrder = name.find(".ORDER.") != std::string::npos;
        const long id = isOrder ? withData.nMessageID : noData.nMessageID;
        EXPECT_TRUE(std::regex_match(
            name, std::regex("PROCB\\.(ORDER|a_b)\\.[0-9]{6}_[0-9]{6}\\." + std::to_string(id))))
            << name;
        const std::string content = wmtest::ReadFile(rejectDir + "/" + name);
        ASSERT_EQ(content.size(), 8192u);
        const size_t n = isOrder ? 7 : 0;
        EXPECT_EQ(content.compare(0, n, "payload", n), 0);
        EXPECT_TRUE(AllZero(content.data() + n, 8192 - n)) << name;
    }
    EXPECT_EQ(FileSlot(wqcfFile, 0).nflag, WQCF_Available);

    // A short copy is removed and the message stays.
    EXPECT_EQ(wmtest::RunChild([&] {
                  signal(SIGXFSZ, SIG_IGN);
                  const struct rlimit lim = {4096, 4096};
                  if (setrlimit(RLIMIT_FSIZE, &lim) != 0) return 90;
                  CWorkMessages other;
                  if (other.Reject(102, stays.nMessageID) != M_SYSERR) return 1;
                  return strstr(other.szErrorMsg, "Failed to write Reject file: ") ? 0 : 2;
              }),
              0);
    EXPECT_EQ(DirEntries(rejectDir).size(), 2u);
    EXPECT_EQ(FileSlot(wqcfFile, 2).nflag, WQCF_Pending);

    // Without the directory nothing is written and the message stays.
    ASSERT_EQ(rename(rejectDir.c_str(), (rejectDir + ".off").c_str()), 0);
    EXPECT_EQ(wm.Reject(102, stays.nMessageID), M_SYSERR);
    EXPECT_NE(strstr(wm.szErrorMsg,
                     ("Failed to open new Reject file: " + rejectDir + "/PROCB.ORDER.").c_str()),
              nullptr)
        << wm.szErrorMsg;
    EXPECT_EQ(wm.nLastError, M_SYSERR);
    EXPECT_EQ(FileSlot(wqcfFile, 2).nflag, WQCF_Pending);
    EXPECT_EQ(wm.Retry(102, stays.nMessageID, false, 0), M_OK);
}

} // namespace
