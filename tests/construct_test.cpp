// Construction and teardown: who creates the shared state, who only attaches,
// who removes it, and what a failed construction leaves behind.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {
const int kKeys[] = {1048, 1049, 1050, 1051, 1052, 1053};

int CountSegments() {
    int n = 0;
    for (int key : kKeys) n += SegmentId(key) >= 0;
    return n;
}
} // namespace

class ConstructTest : public WmTest {};

TEST_F(ConstructTest, FirstConstructorCreatesLaterAttachesLastRemoves) {
    StderrCapture cap;
    WriteConfig("WM_Trace=true\n");
    auto* first = new CWorkMessages;
    std::string log = cap.Stop();
    ASSERT_EQ(first->nLastError, 0) << first->szErrorMsg;
    EXPECT_NE(first->strVersion.find("QV_wm"), std::string::npos);
    for (const char* line :
         {"First constructor. Names Table handle: ", "First constructor. Queues handle: ",
          "First constructor. PRLs handle: ", "First constructor. SAT handle: ",
          "First constructor. Unique IDs handle: "})
        EXPECT_NE(log.find(line), std::string::npos) << line;

    size_t size = 0;
    long nattch = 0;
    ASSERT_TRUE(SegmentInfo(1050, &size, &nattch));
    EXPECT_EQ(size, sizeof(_SM_Controls_));
    EXPECT_EQ(nattch, 1);
    ASSERT_TRUE(SegmentInfo(1048, &size, nullptr));
    EXPECT_EQ(size, 4u * 48u); // four types in the names file
    ASSERT_TRUE(SegmentInfo(1052, &size, nullptr));
    EXPECT_EQ(size, 3u * 48u); // three processes
    ASSERT_TRUE(SegmentInfo(1051, &size, nullptr));
    EXPECT_EQ(size, 128u * 32u);
    ASSERT_TRUE(SegmentInfo(1049, &size, nullptr));
    EXPECT_EQ(size, 512u * 64u);
    ASSERT_TRUE(SegmentInfo(1053, &size, nullptr));
    EXPECT_EQ(size, 8192u);

    CWorkMessagesTestAccess acc(*first);
    const pSMControls ctl = acc.Controls();
    EXPECT_EQ(ctl->Lock, -1);
    EXPECT_EQ(ctl->nMsgCounter, 0x40000000);
    EXPECT_EQ(ctl->nQNameCount, 4);
    EXPECT_EQ(ctl->nUIDsCount, 3);
    EXPECT_EQ(ctl->nQSlotCount, 512);
    EXPECT_EQ(ctl->nPRLSlotCount, 128);
    EXPECT_EQ(acc.LockOwner(), 0); // no lock left held
    EXPECT_EQ(acc.LockFilename(), dbDir + "/WM.lock");
    EXPECT_EQ(acc.RejectDir(), rejectDir + "/");

    // A later constructor in another process only attaches: it logs the
    // "Nth constructor." lines and loads no file (a broken names file now
    // does not matter).
    WriteFile(namesFile, "garbage\n");
    EXPECT_EQ(RunChild([&] {
                  StderrCapture c;
                  CWorkMessages later;
                  std::string out = c.Stop();
                  long n = 0;
                  SegmentInfo(1050, nullptr, &n);
                  if (later.nLastError != 0) return 1;
                  // Ours, the copy of ours the fork gave the child, and the child's.
                  if (n != 3) return 2;
                  if (out.find("Nth constructor. Queues handle: ") == std::string::npos) return 3;
                  return out.find("First constructor") == std::string::npos ? 0 : 4;
              }),
              0);
    EXPECT_EQ(CountSegments(), 6); // the child's object went; ours holds them

    // Two objects in one process are two attachments.
    {
        CWorkMessages second;
        ASSERT_EQ(second.nLastError, 0) << second.szErrorMsg;
        ASSERT_TRUE(SegmentInfo(1050, nullptr, &nattch));
        EXPECT_EQ(nattch, 2);
    }
    EXPECT_EQ(CountSegments(), 6);

    delete first;
    EXPECT_EQ(CountSegments(), 0);
    EXPECT_TRUE(FileExists(wqcfFile));
    EXPECT_TRUE(FileExists(wddfFile));
}

TEST_F(ConstructTest, LeftoversOfDeadProcessesAreRemovedAndRebuilt) {
    // A process that dies without destroying its object leaves segments with
    // no attachment.
    ASSERT_EQ(RunChild([] {
                  auto* wm = new CWorkMessages;
                  return wm->nLastError == 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(CountSegments(), 6);
    const int oldQueues = SegmentId(1049);

    // Change a directory file: only a first constructor reads it.
    WriteFile(namesFile, std::string(kDefaultNames) + "NAME=EXTRA,ID=9,DESC=Extra\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    EXPECT_EQ(acc.Controls()->nQNameCount, 5);
    EXPECT_EQ(wm.Translate("EXTRA"), 9);
    EXPECT_NE(SegmentId(1049), oldQueues);
}

TEST_F(ConstructTest, ConfigurationFailuresAreReportedWithTheStoreReason) {
    struct Case {
        std::string conf;
        std::string expect;
    } cases[] = {
        {"", "WorkMsg object: GDDA object initialization failed.\n Reason: "},
        {"[Global]\nLevel=Dev\n", "WorkMsg object: "},
        {"[Global]\nRoot=/tmp\nLevel=Nowhere\n",
         "WorkMsg object: Failed to get system level.\nReason: "},
    };
    for (const Case& c : cases) {
        if (c.conf.empty())
            unlink(configFile.c_str());
        else
            WriteFile(configFile, c.conf);
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, M_SYSERR) << c.conf;
        EXPECT_EQ(std::string(wm.szErrorMsg).rfind(c.expect, 0), 0u) << wm.szErrorMsg;
        EXPECT_EQ(CountSegments(), 0);
    }
    // The missing file is named in the reason.
    unlink(configFile.c_str());
    CWorkMessages wm;
    EXPECT_NE(std::string(wm.szErrorMsg).find(configFile), std::string::npos) << wm.szErrorMsg;
}

TEST_F(ConstructTest, DefaultsApplyWhenKeysAreMissing) {
    // No WM_DBPath: Root/<level>/data/msgq, which is the fixture's dbDir.
    WriteConfig("Running_UID=no-such-user-here\n", false);
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    EXPECT_EQ(acc.DBPath(), root + "/Dev/data/msgq");
    EXPECT_EQ(acc.FileUID(), 507u);
    EXPECT_EQ(acc.FileGID(), 504u);
    EXPECT_EQ(acc.LockTimeOut(), 1);
    EXPECT_FALSE(acc.Trace());
    if (getuid() == 0) {
        struct stat st;
        ASSERT_EQ(stat(wqcfFile.c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, 507u);
        EXPECT_EQ(st.st_gid, 504u);
        EXPECT_EQ(st.st_mode & 0777, 0664u);
    }
}

TEST_F(ConstructTest, FailedFirstConstructionLeavesANegativeCodeAndNoSegments) {
    // A names file without any line.
    WriteFile(namesFile, "");
    {
        CWorkMessages wm;
        EXPECT_LT(wm.nLastError, 0);
        EXPECT_EQ(wm.nLastError, M_CTLFILE);
        EXPECT_NE(std::string(wm.szErrorMsg).find("is empty!"), std::string::npos);
        // Operations refuse to work on a failed object: its tables are missing.
        EXPECT_EQ(wm.TargetActive(101, -1), M_SHMERR);
    }
    EXPECT_EQ(CountSegments(), 0);

    // The process-UID file cannot be loaded: M_NAME whatever the loader said.
    WriteFile(namesFile, kDefaultNames);
    WriteFile(uidsFile, "NAME=X,ID=1\n");
    {
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, M_NAME);
    }
    EXPECT_EQ(CountSegments(), 0);

    // A names file with comments only has no row: the Names Table cannot be
    // created with 0 bytes.
    WriteFile(uidsFile, kDefaultUIDs);
    WriteFile(namesFile, "# nothing\n");
    {
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, M_SHMERR);
        EXPECT_NE(std::string(wm.szErrorMsg)
                      .find("Failed to get create handle for shared-memory Names Table"),
                  std::string::npos);
    }
    EXPECT_EQ(CountSegments(), 0);
}

TEST_F(ConstructTest, AControlsSegmentOfAnotherBuildIsRefused) {
    // An attached Controls segment of another size: a process of the other
    // build (32-bit against 64-bit) owns the host's segments.
    const size_t otherSize = sizeof(void*) == 8 ? 152 : 168;
    int id = shmget(1050, otherSize, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    void* p = shmat(id, nullptr, 0);
    ASSERT_NE(p, reinterpret_cast<void*>(-1));
    {
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, M_SHMERR);
        EXPECT_NE(std::string(wm.szErrorMsg).find("cannot share"), std::string::npos)
            << wm.szErrorMsg;
    }
    // With no attachment left it is a leftover: removed and rebuilt.
    shmdt(p);
    CWorkMessages wm;
    EXPECT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    size_t size = 0;
    ASSERT_TRUE(SegmentInfo(1050, &size, nullptr));
    EXPECT_EQ(size, sizeof(_SM_Controls_));
}
