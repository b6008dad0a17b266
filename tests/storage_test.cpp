// The control table and the data store: the files, the tables rebuilt from
// them (crash leftovers included), data slot allocation, the scan bounds,
// streams kept open, and damaged or unreadable files, which fail the
// construction and stay as they were.
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

class StorageTest : public WmTest {};

const int kQueuesKey = 1049;
const int32_t kFirstID = 0x40000000;

// A control file whose spare header bytes must survive a rewrite.
std::string Image(int32_t count, long nRecords, const std::vector<_WQCF_>& recs = {},
                  long first = 0) {
    std::string img = ControlFileImage(count, kFirstID + 0x123, recs, nRecords, first);
    memset(&img[8], 'x', 56);
    return img;
}

// The table as this object sees it, under the lock; then the first free slot.
std::vector<_WQCF_> Table(CWorkMessages& wm, long* firstFree = nullptr) {
    CWorkMessagesTestAccess acc(wm);
    EXPECT_TRUE(acc.GetControlsLock(1));
    EXPECT_EQ(acc.GetPointers(), M_OK);
    std::vector<_WQCF_> t(acc.Queues(), acc.Queues() + acc.Controls()->nQSlotCount);
    if (firstFree) *firstFree = acc.GetWQCFSlot();
    acc.FreeControlsLock(true);
    return t;
}

} // namespace

// Cleaning drops free and received slots and packs the rest; the data file is only read.
TEST_F(StorageTest, ReloadWithAndWithoutCleaning) {
    const _WQCF_ pending = SlotRecord(WQCF_Pending, kFirstID + 1),
                 retry = SlotRecord(WQCF_Retry, kFirstID + 4, 7, 10);
    const std::string img =
        Image(512, 512, {pending, SlotRecord(WQCF_Received, kFirstID + 2), _WQCF_(), retry});
    std::string data = DataFileImage({{0, ""}, {2, ""}, {7, "0123456789"}});
    data.back() = 'z';
    WriteFile(wddfFile, data);
    for (bool noClean : {false, true}) {
        SCOPED_TRACE(noClean ? "no cleaning" : "cleaning");
        const std::string expect = noClean ? img : Image(512, 512, {pending, retry});
        WriteFile(wqcfFile, img);
        {
            CWorkMessages wm(noClean);
            ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
            CWorkMessagesTestAccess acc(wm);
            EXPECT_EQ(acc.GetWDDFSlot(), 1);
            EXPECT_EQ(acc.Controls()->nMsgCounter, kFirstID + 0x123);
            const std::vector<_WQCF_> t = Table(wm);
            EXPECT_TRUE(t.size() == 512u && memcmp(t.data(), &expect[64], 512 * 64) == 0);
        }
        EXPECT_EQ(ReadFile(wqcfFile), expect);
    }
    EXPECT_EQ(ReadFile(wddfFile), data);

    // A data file cut short within its table loads as far as it goes; the rest is free.
    WriteFile(wddfFile, std::string(100, '\x01'));
    CWorkMessages wm(true);
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    std::string sat(100, '\x01'); // data slot 7 of the retry message among them
    sat.resize(8192, '\0');
    EXPECT_EQ(std::string(reinterpret_cast<char*>(CWorkMessagesTestAccess(wm).SAT()), 8192), sat);
}

TEST_F(StorageTest, SlotCountsAfterLoading) {
    std::vector<_WQCF_> kept600; // messages of a file are told apart by their IDs
    for (int32_t i = 0; i < 600; ++i)
        kept600.push_back(SlotRecord(WQCF_Pending, kFirstID + i));
    std::vector<_WQCF_> kept512(kept600.begin(), kept600.begin() + 512);
    const struct {
        const char* what;
        std::string img;
        bool noClean;
        long slots, firstFree; // table after the load; -1: full, it grows
        int32_t header;        // file after the load
        long records;
    } cases[] = {
        {"100 stored", Image(100, 100, {SlotRecord(WQCF_Pending, 9)}, 99), false, 512, 1, 512, 512},
        {"600 kept of 1024", Image(1024, 600, kept600), false, 640, 600, 1024, 640},
        {"512 without cleaning", Image(512, 512, kept512), true, 512, -1, 640, 512},
        // Cut short by a crash: what is missing reads as zero; the rewrite makes it whole.
        {"header cut short", Image(512, 0).substr(0, 40), false, 512, 0, 512, 512},
        {"last record cut short", Image(512, 512, kept512).substr(0, 64 * 513 - 20), true, 512, 511,
         512, 512},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        WriteFile(wqcfFile, c.img);
        {
            CWorkMessages wm(c.noClean);
            ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
            long firstFree = -2;
            EXPECT_EQ(Table(wm, &firstFree).size(), static_cast<size_t>(c.slots));
            EXPECT_EQ(firstFree, c.firstFree < 0 ? c.slots : c.firstFree);
            size_t size = 0;
            EXPECT_TRUE(SegmentInfo(kQueuesKey, &size, nullptr) &&
                        size >= static_cast<size_t>(c.slots) * 64);
        }
        const std::string img = ReadFile(wqcfFile);
        EXPECT_EQ(img.size(), static_cast<size_t>(64 * (c.records + 1)));
        EXPECT_EQ(ImageHeader(img).nEntriesAllocated, c.header);
    }
}

TEST_F(StorageTest, DataSlotsLowestFirstAndWrittenThrough) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_TRUE(acc.GetControlsLock(1));
    pByteInt sat = acc.SAT();
    const char data[] = "0123456789";
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(acc.GetWDDFSlot(), i);
        ASSERT_EQ(acc.UpdateWDDF(CWorkMessages::wddfADD, i, 10, data), M_OK) << wm.szErrorMsg;
    }
    ASSERT_EQ(acc.UpdateWDDF(CWorkMessages::wddfDELETE, 3, 0, nullptr), M_OK);
    EXPECT_EQ(acc.GetWDDFSlot(), 3);
    EXPECT_EQ(sat[0], 0xEF); // slot 0 is the highest bit

    // The table heads the file; a freed block is zeroed.
    ASSERT_EQ(acc.UpdateWDDF(CWorkMessages::wddfDELETE, 5, 0, nullptr), M_OK);
    const std::string file = ReadFile(wddfFile);
    EXPECT_TRUE(file.size() == 8192u * 9 && memcmp(file.data(), sat, 8192) == 0);
    EXPECT_TRUE(DataBlockZero(file, 5) && !DataBlockZero(file, 6));

    // Slots and lengths outside the store are refused and nothing is written.
    EXPECT_EQ(acc.UpdateWDDF(CWorkMessages::wddfADD, 65536, 1, data), M_LOGIC);
    EXPECT_EQ(acc.UpdateWDDF(CWorkMessages::wddfADD, 9, 8193, data), M_LOGIC);
    EXPECT_EQ(acc.UpdateWQCF(512, false), M_LOGIC);
    EXPECT_TRUE(ReadFile(wddfFile) == file && ReadFile(wqcfFile).size() == 513 * 64u);

    sat[0] = 0xFF; // the first free slot in the second byte
    sat[1] = 0x80;
    EXPECT_EQ(acc.GetWDDFSlot(), 9);
    memset(sat, 0xFF, 8192);
    EXPECT_EQ(acc.GetWDDFSlot(), M_DDFULL);
}

TEST_F(StorageTest, DamagedFilesFailTheConstructionAndStayAsTheyWere) {
    const struct {
        std::string img;
        const char* text;
    } cases[] = {
        {Image(-1, 512), "header gives -1 slots"},
        {Image(0x7FFFFFFF, 512), "header gives 2147483647 slots"},
        {Image(512, 512, {SlotRecord(9, 1)}, 2), "slot 2 has an unknown state"},
        {Image(512, 512, {SlotRecord(1, 0)}, 3), "slot 3 has a message ID"},
        {Image(512, 512, {SlotRecord(1, 1, -2)}, 4), "slot 4 has a dependent data"},
        {Image(512, 512, {SlotRecord(2, 1, 65536)}), "(65536)"},
        {Image(512, 512, {SlotRecord(3, 1, 0, 8193)}), "(8193)"},
        {Image(512, 512, {SlotRecord(1, 1, 7), SlotRecord(1, 2, 7)}),
         "the same dependent data slot (7)"},
        {Image(100, 512, {SlotRecord(1, 1)}, 300), "slot 300 holds a message"},
    };
    for (const auto& c : cases) {
        for (bool noClean : {false, true}) {
            SCOPED_TRACE(std::string(c.text) + (noClean ? " (no cleaning)" : ""));
            WriteFile(wqcfFile, c.img);
            unlink(wddfFile.c_str());
            {
                CWorkMessages wm(noClean);
                EXPECT_TRUE(wm.nLastError == M_CTLFILE &&
                            Contains(wm.szErrorMsg, wqcfFile + " is damaged") &&
                            Contains(wm.szErrorMsg, c.text) &&
                            Contains(wm.szErrorMsg, "; wmctl fsck"))
                    << wm.szErrorMsg;
            }
            EXPECT_EQ(ReadFile(wqcfFile), c.img);
            EXPECT_EQ(SegmentId(kQueuesKey), -1);
        }
    }
}

TEST_F(StorageTest, FilesThatCannotBeReadAreNeverReplaced) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to prepare files another user cannot read";
    // The unprivileged child must reach the configuration and create the lock file.
    ASSERT_TRUE(chmod(root.c_str(), 0755) == 0 && chmod(dbDir.c_str(), 0777) == 0);
    const std::string ctl = Image(512, 512, {SlotRecord(WQCF_Pending, kFirstID, 0, 4)});
    const std::string data(8192 * 2, '\x80');
    WriteFile(wqcfFile, ctl);
    WriteFile(wddfFile, data);
    auto constructAsNobody = [&](const std::string& expect) {
        return RunChild([&] {
            if (setgid(65534) != 0 || setuid(65534) != 0) return 90;
            CWorkMessages wm;
            return wm.nLastError == M_SYSERR && Contains(wm.szErrorMsg, expect) ? 0 : 1;
        });
    };
    ASSERT_EQ(chmod(wqcfFile.c_str(), 0644), 0); // readable, but not writable
    EXPECT_EQ(constructAsNobody("Failed to open Message Queues Control File"), 0);
    ASSERT_TRUE(chmod(wqcfFile.c_str(), 0666) == 0 && chmod(wddfFile.c_str(), 0600) == 0);
    EXPECT_EQ(constructAsNobody("Failed to open Message Queues Data File " + wddfFile), 0);
    EXPECT_TRUE(ReadFile(wqcfFile) == ctl && ReadFile(wddfFile) == data);
}

TEST_F(StorageTest, ScansStopAtAHighWaterMarkThatEveryWriterKeeps) {
    // Messages at slots 0 and 300 of a stored table, loaded in place.
    std::string img = Image(512, 301, {SlotRecord(WQCF_Pending, kFirstID + 1)});
    const _WQCF_ far = SlotRecord(WQCF_Retry, kFirstID + 300);
    memcpy(&img[64 * 301], &far, 64);
    WriteFile(wqcfFile, img);
    CWorkMessages wm(true);
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    const int32_t* words = acc.Controls()->Reserved;
    auto marks = [&] { return std::make_pair(words[kCtlSlotHighWater], words[kCtlTopMessageID]); };
    EXPECT_EQ(marks(), std::make_pair(301, kFirstID + 300)); // rebuilt by the loader

    // Clearing the top slot lowers the mark past every free slot below it.
    const long sent = SendText(wm, 101, "ORDER", 102);
    EXPECT_EQ(wm.Delete(0, kFirstID + 300), M_OK);
    EXPECT_EQ(marks(), std::make_pair(2, kFirstID + 300));
    // An empty table has no top ID.
    EXPECT_TRUE(wm.Delete(0, sent) == M_OK && wm.Delete(0, kFirstID + 1) == M_OK);
    EXPECT_EQ(marks(), std::make_pair(0, 0));
}

TEST_F(StorageTest, FilesKeptOpenStayOneStreamAndTakeEveryWrite) {
    for (bool keep : {false, true}) {
        SCOPED_TRACE(keep ? "WM_KeepFilesOpen=true" : "WM_KeepFilesOpen=false");
        WriteConfig(keep ? "WM_KeepFilesOpen=true\n" : "WM_KeepFilesOpen=false\n");
        unlink(wqcfFile.c_str());
        unlink(wddfFile.c_str());
        CWorkMessages wm; // the first constructor creates both files
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        CWorkMessagesTestAccess acc(wm);
        EXPECT_EQ(ReadFile(wqcfFile), ControlFileImage(512, kFirstID, {}, 512));
        EXPECT_EQ(ReadFile(wddfFile), std::string(8192, '\0'));
        ASSERT_EQ(wm.SetInput(102, "ORDER", nullptr, false), M_OK);
        const long id = SendText(wm, 101, "ORDER", 102, "kept");
        FILE *const control = acc.ControlFile(), *const data = acc.DataFile();
        EXPECT_EQ(control != nullptr && data != nullptr, keep);
        EXPECT_EQ(ImageSlot(ReadFile(wqcfFile), 0).nMessageID, id);
        EXPECT_EQ(ReadFile(wddfFile).compare(8192, 5, "kept\0", 5), 0);

        char buf[16] = "";
        WorkMsg r = MsgTo(0, buf, sizeof(buf));
        ASSERT_EQ(wm.Receive(102, 1, &r, false, nullptr), M_OK);
        EXPECT_STREQ(buf, "kept");
        ASSERT_EQ(wm.Delete(102, id), M_OK);
        EXPECT_TRUE(acc.ControlFile() == control && acc.DataFile() == data);
        const std::string ddf = ReadFile(wddfFile);
        EXPECT_EQ(ImageSlot(ReadFile(wqcfFile), 0).nflag, WQCF_Available);
        EXPECT_TRUE(!DataSlotMarked(ddf, 0) && DataBlockZero(ddf, 0));
    }
}
