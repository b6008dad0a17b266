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
    for (int key : kKeys)
        n += SegmentId(key) >= 0;
    return n;
}

class ConstructTest : public WmTest {};

TEST_F(ConstructTest, FirstConstructorCreatesLaterAttachesLastRemoves) {
    auto* first = new CWorkMessages;
    ASSERT_EQ(first->nLastError, 0) << first->szErrorMsg;
    // Names: four types of 48 bytes; Queues: 512 slots; PRLs: 128 entries;
    // Unique IDs: three processes; SAT: 8192 bytes.
    const size_t sizes[] = {4 * 48, 512 * 64, sizeof(_SM_Controls_), 128 * 32, 3 * 48, 8192};
    for (int i = 0; i < 6; ++i) {
        size_t size = 0;
        EXPECT_TRUE(SegmentInfo(kKeys[i], &size, nullptr) && size == sizes[i]) << kKeys[i];
    }

    // A later constructor only attaches: a broken names file does not matter.
    WriteFile(namesFile, "garbage\n");
    {
        CWorkMessages second;
        long nattch = 0;
        EXPECT_TRUE(second.nLastError == 0 && SegmentInfo(1050, nullptr, &nattch) && nattch == 2);
    }
    EXPECT_EQ(CountSegments(), 6); // the second object went; the first holds them
    delete first;
    EXPECT_EQ(CountSegments(), 0);
    EXPECT_TRUE(FileExists(wqcfFile) && FileExists(wddfFile));
}

TEST_F(ConstructTest, AnotherBuildsSegmentIsRefusedInUseAndRebuiltAsALeftover) {
    // An attached Controls segment of another size: a process of the other
    // build (32-bit against 64-bit) owns the host's segments.
    const int id = shmget(1050, sizeof(void*) == 8 ? 152 : 168, IPC_CREAT | 0666);
    void* p = shmat(id, nullptr, 0);
    ASSERT_TRUE(id >= 0 && p != reinterpret_cast<void*>(-1));
    {
        CWorkMessages wm;
        EXPECT_TRUE(wm.nLastError == M_SHMERR && Contains(wm.szErrorMsg, "cannot share"))
            << wm.szErrorMsg;
    }
    // Unattached, it is a dead process's leftover: rebuilt, the names read again.
    shmdt(p);
    WriteFile(namesFile, std::string(kDefaultNames) + "NAME=EXTRA,ID=9,DESC=Extra\n");
    CWorkMessages wm;
    EXPECT_TRUE(wm.nLastError == 0 && wm.Translate("EXTRA") == 9) << wm.szErrorMsg;
}

TEST_F(ConstructTest, FailedConstructionNamesItsCauseAndLeavesNoSegments) {
    const std::string names = kDefaultNames, uids = kDefaultUIDs;
    const struct {
        const char* conf; // nullptr: the fixture's; "": no configuration file
        std::string names, uids;
        long code;
        std::string text;
    } cases[] = {
        {"", names, uids, M_SYSERR, configFile},
        {"[Global]\nLevel=Dev\n", names, uids, M_SYSERR, "Root"},
        {nullptr, "", uids, M_CTLFILE, "is empty!"},
        // The process-UID file cannot be loaded: M_NAME whatever the loader said.
        {nullptr, names, "NAME=X,ID=1\n", M_NAME, ""},
        // Comments only: no row, and the Names Table cannot have 0 bytes.
        {nullptr, "# nothing\n", uids, M_SHMERR, "create handle for shared-memory Names Table"},
    };
    for (const auto& c : cases) {
        WriteConfig();
        if (c.conf && *c.conf) WriteFile(configFile, c.conf);
        if (c.conf && !*c.conf) unlink(configFile.c_str());
        WriteFile(namesFile, c.names);
        WriteFile(uidsFile, c.uids);
        {
            CWorkMessages wm;
            EXPECT_TRUE(wm.nLastError == c.code && Contains(wm.szErrorMsg, c.text))
                << c.code << " " << wm.szErrorMsg;
        }
        EXPECT_EQ(CountSegments(), 0) << c.text;
    }
}

TEST_F(ConstructTest, DefaultsApplyWhenKeysAreMissing) {
    // No WM_DBPath: Root/<level>/data/msgq, which is the fixture's dbDir.
    WriteFile(configFile,
              "[Global]\nLevel=Dev\nRoot=" + root + "\n[Dev]\nRunning_UID=no-such-user-here\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    EXPECT_EQ(acc.DBPath(), root + "/Dev/data/msgq");
    EXPECT_TRUE(acc.FileUID() == 507u && acc.FileGID() == 504u);
    EXPECT_TRUE(acc.LockTimeOut() == 5 && !acc.Trace() && !acc.KeepAttached());
    struct stat st; // ownership can be given only as root
    EXPECT_TRUE(getuid() != 0 || (stat(wqcfFile.c_str(), &st) == 0 && st.st_uid == 507u &&
                                  st.st_gid == 504u && (st.st_mode & 0777) == 0664u));
}

} // namespace
