// Receiver registry: registration, removal, activity, growth of the table and
// the callback count.
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"

namespace {

class RegistryTest : public wmtest::WmTest {};

const long kOrder = 1, kReport = 3;
const int kPRLKey = CWorkMessages::cstWMPRListSHMKey;
const WMCallback CallbackA = [](long n) { return n; };
const WMCallback CallbackB = [](long n) { return n + 1; };

// Registers (uid, type) pairs with CallbackB from a forked process.
int RegisterInChild(std::vector<std::pair<long, const char*>> regs) {
    return wmtest::RunChild([=] {
        CWorkMessages other;
        long rc = other.nLastError;
        for (size_t i = 0; i < regs.size() && rc == M_OK; ++i)
            rc = other.SetInput(regs[i].first, regs[i].second, CallbackB, false);
        return static_cast<int>(-rc);
    });
}

// The table as the object sees it now.
std::vector<_PRL_CTL_> Entries(CWorkMessages& wm) {
    CWorkMessagesTestAccess acc(wm);
    EXPECT_EQ(acc.GetPointers(), M_OK);
    return std::vector<_PRL_CTL_>(acc.PRLs(), acc.PRLs() + acc.Controls()->nPRLSlotCount);
}

bool Same(const std::vector<_PRL_CTL_>& a, const std::vector<_PRL_CTL_>& b) {
    return a.size() == b.size() && memcmp(a.data(), b.data(), a.size() * sizeof(_PRL_CTL_)) == 0;
}

TEST_F(RegistryTest, OneEntryPerProcessAndUnsetInputRemovesOnlyTheGivenProcessEntries) {
    CWorkMessages wm;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(wm.SetInput(201, "ORDER", nullptr, false), M_OK);
    ASSERT_EQ(wm.SetInput(201, "order", CallbackA, true), M_OK); // same type, any case
    ASSERT_EQ(wm.SetInput(201, "REPORT", nullptr, false), M_OK);
    ASSERT_EQ(RegisterInChild({{201, "ORDER"}, {201, "INVOICE"}, {202, "ORDER"}}), 0);
    const std::vector<_PRL_CTL_> e = Entries(wm);
    EXPECT_TRUE(e[0].nUID == 201 && e[0].nPID == getpid() && e[0].nMsgNo == kOrder &&
                e[0].GetCallback() == CallbackA && e[0].bUseLIFO == 1 && e[1].nMsgNo == kReport);
    EXPECT_TRUE(e[2].nUID == 201 && e[2].nPID != getpid() && e[5].nUID == 0);

    const pid_t nOther = e[4].nPID;                        // the child's entries outlive it
    EXPECT_EQ(wm.UnsetInput(201, "INVOICE", 0), M_NOTACT); // not this process's entry
    EXPECT_EQ(wm.UnsetInput(201, "INVOICE", nOther), M_OK);
    EXPECT_EQ(wm.UnsetInput(201, "ALLQ", nOther), M_OK);
    EXPECT_EQ(acc.KnownRequest(201, kOrder, nOther), M_NOTACT);
    EXPECT_EQ(acc.KnownRequest(201, kOrder, getpid()), 0);
    EXPECT_EQ(wm.TargetActive(202, -1), M_OK); // an ended process still counts
    EXPECT_EQ(wm.UnsetInput(201, "ALLQ", 0), M_OK);
    EXPECT_EQ(wm.TargetActive(201, -1), M_NOTACT);
    ASSERT_EQ(wm.SetInput(203, "ALERT", nullptr, false), M_OK);
    EXPECT_EQ(Entries(wm)[0].nUID, 203) << "the lowest free entry is reused";
}

TEST_F(RegistryTest, GrowthKeepsEntriesInPlaceAndPeersFollow) {
    // The child must inherit no mapping of the table it sees replaced.
    WriteConfig("WM_KeepAttached=false\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.TargetActive(1, -1), M_NOTACT); // the child inherits no attachment
    const int nOldId = wmtest::SegmentId(kPRLKey);
    int ready[2], grown[2];
    ASSERT_TRUE(pipe(ready) == 0 && pipe(grown) == 0);
    const pid_t child = wmtest::StartChild([&] {
        CWorkMessages peer; // attached to the 128-entry table until its next call
        char c = 0;
        if (write(ready[1], &c, 1) != 1 || read(grown[0], &c, 1) != 1) return 90;
        if (peer.TargetActive(1128, kOrder) != M_OK) return 1;
        if (CWorkMessagesTestAccess(peer).Controls()->nPRLSlotCount != 160) return 2;
        struct shmid_ds ds;
        return shmctl(nOldId, IPC_STAT, &ds) == 0 ? 3 : 0; // the old table is gone
    });
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    for (long uid = 1000; uid < 1128; ++uid)
        ASSERT_EQ(wm.SetInput(uid, "ORDER", nullptr, false), M_OK);
    std::vector<_PRL_CTL_> before = Entries(wm);
    ASSERT_EQ(wm.SetInput(1128, "ORDER", nullptr, false), M_OK) << wm.szErrorMsg;
    ASSERT_EQ(write(grown[1], &c, 1), 1);
    EXPECT_EQ(wmtest::WaitChild(child), 0);
    std::vector<_PRL_CTL_> after = Entries(wm);
    ASSERT_EQ(after.size(), 160u);
    EXPECT_EQ(after[128].nUID, 1128);
    after[128] = _PRL_CTL_{};
    before.resize(160, _PRL_CTL_{});
    EXPECT_TRUE(Same(after, before));
}

// One count per process: another object replaces this process's entry.
TEST_F(RegistryTest, CallbackCountFollowsThisProcesssRegistrations) {
    CWorkMessages wm, wm2;
    CWorkMessagesTestAccess acc(wm), acc2(wm2);
    EXPECT_EQ(wm.SetInput(0, "ORDER", CallbackA, true), M_OK); // UID 0 marks free entries
    ASSERT_TRUE(acc.GetControlsLock(1)); // held elsewhere: the call gives up, counts nothing
    EXPECT_EQ(wm.SetInput(101, "ORDER", CallbackA, false), M_LOCK);
    acc.FreeControlsLock(true);
    EXPECT_TRUE(Same(Entries(wm), std::vector<_PRL_CTL_>(128)) && acc.CallbackCount() == 0);
    ASSERT_EQ(wm.SetInput(101, "ORDER", CallbackA, false), M_OK);
    ASSERT_EQ(wm.SetInput(101, "ORDER", CallbackB, false), M_OK); // replaced, still one
    ASSERT_EQ(wm.SetInput(101, "INVOICE", CallbackA, false), M_OK);
    ASSERT_EQ(RegisterInChild({{301, "ORDER"}}), 0);
    EXPECT_EQ(wm.UnsetInput(301, "ORDER", Entries(wm)[2].nPID), M_OK);
    EXPECT_EQ(acc.CallbackCount(), 2) << "another process's entry was never counted here";
    ASSERT_EQ(wm2.SetInput(101, "INVOICE", nullptr, false), M_OK);
    EXPECT_TRUE(acc.CallbackCount() == 1 && acc2.CallbackCount() == 1);
    EXPECT_EQ(wm2.UnsetInput(101, "ORDER", 0), M_OK);
    EXPECT_EQ(acc.CallbackCount(), 0);
}

} // namespace
