// wmctl as an operator drives it: the real binary in the test's IPC
// namespace and configuration, each case a table of command lines with the
// exit code (0 done, 1 the library's failure, 2 usage) and output each must
// give. A library object of the test process (Hold) keeps the shared state
// alive between commands, as the host's own processes do.
#include <pthread.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <sstream>

#include "TestEnv.h"

namespace {

using namespace wmtest;

struct Outcome {
    int rc;
    std::string out, err;
};
struct Step {
    std::string cmd;
    int rc;
    std::string parts = "", in = "";
};

// parts: '|'-separated texts each in stdout or stderr; "=text": stdout is
// exactly text; "!text": neither holds text.
::testing::AssertionResult Ran(const Outcome& r, int rc, const std::string& parts) {
    bool ok = r.rc == rc;
    std::istringstream in(parts);
    for (std::string p; std::getline(in, p, '|') && !p.empty();) {
        const std::string rest = p.substr(1), both = r.out + "\n" + r.err;
        ok = ok && (p[0] == '='   ? r.out == rest
                    : p[0] == '!' ? !Contains(both, rest)
                                  : Contains(both, p));
    }
    if (ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "exit " << r.rc << "\n" << r.out << "\n" << r.err;
}

class WmctlTest : public WmTest {
protected:
    // Runs wmctl with the words of cmdline (no shell quoting needed), stdin
    // from `in`, in cwd.
    Outcome Wmctl(const std::string& cmdline, const std::string& in = "",
                  const std::string& cwd = ".") {
        const std::string io = root + "/io.";
        WriteFile(io + "in", in);
        const char* dir = getenv("QV_WM_BINARY_DIR"); // set by CTest; else run from build/tests
        const int status =
            system(("cd " + cwd + " && " + Emulator() + " " + (dir ? dir : "..") + "/tools/wmctl " +
                    cmdline + " <" + io + "in >" + io + "out 2>" + io + "err")
                       .c_str());
        Outcome r{WIFEXITED(status) ? WEXITSTATUS(status) : 128, ReadFile(io + "out"),
                  ReadFile(io + "err")};
        // A memory fault in the tool shows here whatever its exit code.
        EXPECT_FALSE(Contains(r.err, "Sanitizer") || Contains(r.err, "runtime error")) << r.err;
        return r;
    }
    void Steps(const std::vector<Step>& steps) {
        for (const Step& s : steps)
            EXPECT_TRUE(Ran(Wmctl(s.cmd, s.in), s.rc, s.parts)) << s.cmd;
    }
    bool Hold() {
        holder.reset(new CWorkMessages);
        return holder->nLastError == 0;
    }
    std::unique_ptr<CWorkMessages> holder;
};

TEST_F(WmctlTest, SendReceiveDeleteKeepDataExactAndFailWithTheLibrarysText) {
    ASSERT_TRUE(Hold());
    // Zero bytes at the end: the received length is the sent one, not the block's.
    const std::string binary = std::string("\xff\x00\x01 binary", 9) + std::string(20, '\0');
    WriteFile(root + "/in.bin", binary);
    // Failures queue nothing; usage errors exit 2, help (the manual page's source) 0.
    Steps({{"fsck --help", 0, "Usage:|--repair"},
           {"frobnicate", 2, "--help"},
           {"delete 12345678901", 2, "is not a message ID|--help"},
           {"deleteby --all --type ORDER", 2, "--help"},
           {"send PROCA PROCX ORDER x", 1, "UID for PROCX was not found|M_NAME"},
           {"send PROCA PROCB ORDER -f -", 1, "8193 bytes", std::string(8193, 'x')},
           {"recv NOBODY", 1, "WorkMsg object:"},
           {"send PROCA PROCB ORDER hello", 0, "not active|message 0x40000000"},
           {"send PROCA 102 2 -f " + root + "/in.bin --json", 0,
            "\"message_id_hex\": \"0x40000001\"|\"target_active\": false"},
           {"recv PROCB ORDER", 0, "received message 0x40000000: ORDER from PROCA (101)|=hello"},
           {"recv PROCB --out " + root + "/out.bin", 0},
           {"delete 0x40000000 --as PROCB", 0},
           {"delete 0x40000000", 1, "Message ID 40000000 not found"},
           {"status --json", 0, "\"registry\": []"}}); // recv registered only while it ran
    EXPECT_EQ(ReadFile(root + "/out.bin"), binary);
}

TEST_F(WmctlTest, ReceiveOrderRangeRetryRejectPriorityAndCounts) {
    ASSERT_TRUE(Hold());
    // The range leaves the high-priority INVOICE and ORDER out; newest first
    // gives ALERT, oldest first the high-priority one, found by its slot's ID.
    Steps({{"send PROCA PROCB ORDER ORDER", 0},
           {"send PROCA PROCB REPORT REPORT", 0},
           {"send PROCA PROCB ALERT ALERT", 0},
           {"send PROCA PROCB INVOICE urgent --high", 0, "sent message 0x00000003"},
           {"send PROCB PROCC INVOICE", 0},
           {"count --by type order 2", 0, "ORDER         1|INVOICE       2"},
           {"recv PROCB --type-range REPORT:", 0, "=REPORT"},
           {"recv PROCB --type-range :1", 0, "=ORDER"},
           {"recv PROCB --lifo", 0, "=ALERT"},
           {"recv PROCB", 0, "=urgent|received message 0x00000003"},
           // Retried: only a retry receive sees it, with the flags.
           {"retry 0x00000003 --flags 7 --as PROCB", 0},
           {"recv PROCB --wait 0", 1},
           {"recv PROCB --retry --json", 0, "\"user_flags\": 7"},
           {"reject 0x00000003 --as PROCB", 0},
           {"deleteby --target PROCC --type INVOICE", 0, "deleted 1 message(s)"},
           {"deleteby --all", 0, "deleted 3 message(s)"},
           {"count --json", 0, "\"free\": 512"}});
}

// Status and metrics read a lock whose owner died without taking it.
TEST_F(WmctlTest, StatusNeedsNoLockAndNamesADeadOwner) {
    // With no other process, a registration goes with the shared state: say so.
    Steps({{"status --json", 0, "\"controls\": null"},
           {"register PROCB ORDER", 0, "no other process is attached"}});
    ASSERT_TRUE(Hold());
    Steps({{"status", 0, "Controls lock: free|Control slots: 512|!missing"}});
    ASSERT_EQ(RunChild([] {
                  int id = shmget(CWorkMessages::cstWMctlSHMKey, 0, 0);
                  auto* ctl = static_cast<_SM_Controls_*>(shmat(id, nullptr, 0));
                  if (ctl == reinterpret_cast<void*>(-1)) return 1;
                  return pthread_mutex_lock(&ctl->MutexCtlrs) == 0 ? 0 : 2;
              }),
              0);
    Steps({{"status --json", 0, "\"lock_owner_alive\": false|!\"lock_owner\": 0,"},
           {"metrics", 0, "qv_wm_controls_lock_held 1|qv_wm_controls_lock_holder_exists 0"},
           {"send PROCA PROCB ORDER", 1, "M_LOCK|failed to acquire the Controls Lock"}});
}

// The metrics of a known state, read back through the exposition format's
// own parser (python3-prometheus-client), one "name,label=value value" line
// per sample.
TEST_F(WmctlTest, MetricsParseAndMatchTheState) {
    Steps({{"metrics", 0, "qv_wm_up 0"}});
    ASSERT_TRUE(Hold());
    WriteFile(root + "/in.bin", "\xff\x01\"\n");
    std::vector<Step> steps = {{"register PROCC ORDER", 0}}; // its process is gone when it returns
    steps.resize(4, {"send PROCA PROCB ORDER x", 0});
    steps.push_back({"send PROCB PROCC INVOICE -f " + root + "/in.bin", 0});
    steps.push_back({"recv PROCC INVOICE --json", 0, "\"data\": \"\\u00ff\\u0001\\\"\\n\""});
    steps.push_back({"metrics -o " + root + "/wm.prom", 0});
    steps.push_back({"unregister PROCC", 0, "removed 1 registration"});
    steps.push_back({"unregister PROCC ORDER", 1, "M_NOTACT"});
    Steps(steps);
    WriteFile(root + "/parse.py",
              "import sys\n"
              "from prometheus_client.parser import text_string_to_metric_families as parse\n"
              "for f in parse(open(sys.argv[1]).read()):\n"
              "    for s in f.samples:\n"
              "        print(s.name + ''.join(',%s=%s' % l for l in sorted(s.labels.items())), "
              "int(s.value))\n");
    const std::string parsed = root + "/parsed";
    ASSERT_EQ(
        system(("/usr/bin/python3 " + root + "/parse.py " + root + "/wm.prom >" + parsed).c_str()),
        0);
    const std::string samples = "\n" + ReadFile(parsed);
    for (const char* sample :
         {"qv_wm_up 1", "qv_wm_messages,state=pending 3", "qv_wm_messages,state=received 1",
          "qv_wm_messages_by_type,type=ORDER,type_id=1 3",
          "qv_wm_messages_by_type,type=INVOICE,type_id=2 1",
          "qv_wm_messages_by_target,target=PROCB,target_uid=102 3",
          "qv_wm_messages_by_target,target=PROCC,target_uid=103 1", "qv_wm_control_slots 512",
          "qv_wm_control_slots_used 4", "qv_wm_data_slots_used 4", "qv_wm_registry_slots 128",
          "qv_wm_registry_entries 1", "qv_wm_registry_entries_gone 1", "qv_wm_controls_lock_held 0",
          "qv_wm_next_message_id 1073741828"})
        EXPECT_TRUE(Contains(samples, std::string("\n") + sample + "\n")) << sample << samples;
}

// A process that dies attached leaves all six segments behind; ipc-clean
// removes them, never while a process is attached.
TEST_F(WmctlTest, IpcCleanRemovesOnlyUnattachedSegments) {
    ASSERT_TRUE(Hold());
    Steps({{"ipc-clean", 1, "in use; nothing removed"}});
    holder.reset();
    ASSERT_EQ(RunChild([]() -> int {
                  CWorkMessages wm;
                  _exit(wm.nLastError == 0 ? 0 : 1);
              }),
              0);
    Steps({{"status", 0, "No process is attached"},
           {"ipc-clean", 0},
           {"ipc-clean", 0, "no segment"}});
    for (int key = 1048; key <= 1053; ++key)
        EXPECT_LT(SegmentId(key), 0) << key;
}

// Damage: a record cut short, a data slot far outside the table, a data file
// shorter than its table, a header cut short. Nothing is read past the files.
TEST_F(WmctlTest, DumpDecodesFilesAndReportsDamage) {
    WriteFile(wqcfFile, ControlFileImage(512, 0x40000002,
                                         {SlotRecord(WQCF_Pending, 0x40000000, 0, 5), _WQCF_(),
                                          SlotRecord(WQCF_Received, 0x40000001)}));
    WriteFile(wddfFile, DataFileImage({{0, "hello"}}));
    Steps(
        {{"dump " + dbDir, 0,
          "header: 512 slots, next message ID 0x40000002|3 records stored, 2 in use|slot 0: "
          "pending, ID 0x40000000|slot 2: received, ID 0x40000001|1 data slots in use: 0|!problem"},
         {"dump --slot 0", 0, "68 65 6c 6c 6f|hello"}}); // WM_DBPath
    const std::string cf =
        ControlFileImage(512, 0x40000006, {SlotRecord(WQCF_Pending, 0x40000005, 70000, 9000)});
    WriteFile(wqcfFile, cf + cf.substr(64, 20));
    WriteFile(wddfFile, std::string(100, '\xff'));
    Steps({{"dump " + dbDir, 0, "ends inside the record of slot 1 (20 of 64 bytes)|shorter than"},
           {"dump " + dbDir + " --slot 0", 0, "out of range"}});
    WriteFile(wqcfFile, "short");
    Steps({{"dump " + dbDir + " --json", 0, "ends inside its header (5 of 64 bytes)"}});
}

// One pending message in data slot 0; data slot 5 marked in use, unreferenced.
TEST_F(WmctlTest, FsckRepairsALeakedDataSlot) {
    WriteFile(wqcfFile,
              ControlFileImage(512, 0x40000001, {SlotRecord(WQCF_Pending, 0x40000000, 0, 5)}));
    WriteFile(wddfFile, DataFileImage({{0, "hello"}, {5, "leaked"}}));
    Steps({{"fsck " + dbDir, 1,
            "data slot 5 is marked in use but no message refers to it|!data slot 0 is marked"},
           {"fsck " + dbDir + " --json", 1, "\"kind\": \"leaked-data-slot\"|\"clean\": false"}});
    // Refused while a process is attached; nothing changes.
    const std::string dataBefore = ReadFile(wddfFile);
    ASSERT_TRUE(Hold());
    Steps({{"fsck " + dbDir + " --repair", 1, "attached"}});
    EXPECT_TRUE(ReadFile(wddfFile) == dataBefore);
    holder.reset();
    const std::string controlBefore = ReadFile(wqcfFile);
    Steps({{"fsck " + dbDir + " --repair", 0, "-- repaired"}});
    const std::string data = ReadFile(wddfFile);
    EXPECT_TRUE(DataSlotMarked(data, 0) && !DataSlotMarked(data, 5) && DataBlockZero(data, 5));
    EXPECT_TRUE(ReadFile(wqcfFile) == controlBefore);
    Steps({{"fsck", 0, "fsck " + dbDir + ":|clean"}, {"recv PROCB", 0, "=hello"}}); // WM_DBPath
}

// Everything but the duplicate IDs and the shared data slot is repaired, so
// the exit stays 1.
TEST_F(WmctlTest, FsckFindsImpossibleSlotsDuplicatesAndABadHeader) {
    _WQCF_ dirtyFree = _WQCF_();
    dirtyFree.nTimeRetry = 5;
    WriteFile(wqcfFile,
              ControlFileImage(
                  2, 0x40000000,
                  {SlotRecord(9, 0x40000001, 3, 4), SlotRecord(WQCF_Pending, 0x40000004),
                   SlotRecord(WQCF_Retry, 0x40000004), SlotRecord(WQCF_Pending, 0x40000007, 7, 3),
                   dirtyFree, SlotRecord(WQCF_Pending, 0x40000009, 7, 3)}));
    WriteFile(wddfFile, DataFileImage({{3, "abcd"}}) + std::string(8192 * 5, 'z'));
    std::string kinds;
    for (const char* kind :
         {"impossible-slot", "duplicate-id", "unmarked-data-slot", "leaked-data-slot",
          "dirty-free-slot", "slot-count", "message-counter", "shared-data-slot"})
        kinds += std::string("|\"kind\": \"") + kind + "\"";
    Steps({{"fsck " + dbDir + " --json", 1, kinds},
           {"fsck " + dbDir + " --repair", 1, "not repairable by fsck"}});
    const std::string control = ReadFile(wqcfFile), data = ReadFile(wddfFile);
    EXPECT_EQ(ImageHeader(control).nEntriesAllocated, 512);
    EXPECT_EQ(ImageHeader(control).nCurrentMsgID, 0x4000000A);
    EXPECT_EQ(control.substr(64, 64), std::string(64, '\0'));         // impossible slot
    EXPECT_EQ(control.substr(64 * 5, 64), std::string(64, '\0'));     // dirty free slot
    EXPECT_EQ(ImageSlot(control, 1).nflag, WQCF_Pending);             // kept
    EXPECT_TRUE(!DataSlotMarked(data, 3) && DataSlotMarked(data, 7)); // leaked; referenced
    Steps({{"fsck " + dbDir, 1,
            "2 problem(s)|message ID 0x40000004 is held by control slots 1, 2"
            "|data slot 7 is referred to by control slots 3, 5"}});
}

// Each file the loader refuses (the storage tests show it does, naming fsck)
// loads after a repair.
TEST_F(WmctlTest, FsckRepairMendsEveryRecordTheLoaderSendsItTo) {
    const int32_t first = 0x40000000, next = first + 9;
    for (const std::string& img : {
             ControlFileImage(0x7FFFFFFF, next),
             ControlFileImage(512, next, {SlotRecord(9, first)}),
             ControlFileImage(512, next, {SlotRecord(WQCF_Pending, 0)}),
             ControlFileImage(512, next, {SlotRecord(WQCF_Pending, first, 65536)}),
             ControlFileImage(512, next, {SlotRecord(WQCF_Retry, first, 0, 8193)}),
             ControlFileImage(100, next, {SlotRecord(WQCF_Pending, first)}, 512, 300),
         }) {
        WriteFile(wqcfFile, img);
        unlink(wddfFile.c_str());
        Steps({{"fsck --repair", 0, "-- repaired"}});
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    }
}

// With no root, under the current directory, with the default database path.
TEST_F(WmctlTest, DemoRunsInItsOwnRoot) {
    EXPECT_TRUE(Ran(Wmctl("demo", "", root), 0,
                    "note: GDDA_CONFIG|private root " + root + "/demo-root|demo OK"));
    EXPECT_TRUE(FileExists(root + "/demo-root/Dev/data/msgq/WQCF.bdb"));
    EXPECT_FALSE(FileExists(wqcfFile)); // the test's own files were not touched
    Steps({{"demo " + root + "/other", 0, "demo OK"}});
    EXPECT_TRUE(FileExists(root + "/other/Dev/data/msgq/WQCF.bdb"));
}

} // namespace
