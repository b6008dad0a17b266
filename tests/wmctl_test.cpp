// wmctl, driven as an operator drives it: the real binary, run in the
// test's private IPC namespace with the test's configuration, checked by its
// output and exit code (0 success, 1 failure with the library's text,
// 2 usage). Each case is a table of command lines run in order, with the
// exit code and output each must give. A library object of the test process
// keeps the shared state alive between commands, as the host's own processes
// do; without it every wmctl run would be the first and the last user of the
// segments.
#include <glob.h>
#include <pthread.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <sstream>

#include "TestEnv.h"

namespace {

using namespace wmtest;

struct Outcome {
    int rc = -1;
    std::string out, err;
};

// One command line of a table, with the parts its output must hold,
// separated by '|'. Each must be in stdout or stderr; "=text" means stdout
// is exactly text, "!text" that neither holds text.
struct Step {
    std::string cmd;
    int rc;
    std::string parts = "";
    std::string in = "";
};

std::vector<std::string> Parts(const std::string& joined) {
    std::vector<std::string> out;
    std::istringstream in(joined);
    for (std::string p; std::getline(in, p, '|');)
        out.push_back(p);
    return out;
}

::testing::AssertionResult Ran(const Outcome& r, int rc, const std::vector<std::string>& parts) {
    bool ok = r.rc == rc;
    for (const std::string& p : parts) {
        const std::string rest = p.substr(p.empty() ? 0 : 1);
        if (!p.empty() && p[0] == '=')
            ok = ok && r.out == rest;
        else if (!p.empty() && p[0] == '!')
            ok = ok && !Contains(r.out, rest) && !Contains(r.err, rest);
        else
            ok = ok && (Contains(r.out, p) || Contains(r.err, p));
    }
    if (ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "exit " << r.rc << "\nstdout:\n"
                                         << r.out << "stderr:\n"
                                         << r.err;
}

std::string WmctlPath() {
    const char* dir = getenv("QV_WM_BINARY_DIR"); // set by CTest; else run from build/tests
    return std::string(dir ? dir : "..") + "/tools/wmctl";
}

class WmctlTest : public WmTest {
protected:
    // Runs wmctl with the arguments of cmdline (split at blanks); stdin from
    // `in`; in directory `cwd` when given.
    Outcome Wmctl(const std::string& cmdline, const std::string& in = "",
                  const std::string& cwd = "") {
        const std::string io = root + "/io.";
        WriteFile(io + "in", in);
        std::vector<std::string> args = {WmctlPath()};
        if (!Emulator().empty()) args.insert(args.begin(), Emulator());
        std::istringstream words(cmdline);
        for (std::string w; words >> w;)
            args.push_back(w);
        Outcome r;
        r.rc = RunChild([&] {
            if (!freopen((io + "in").c_str(), "r", stdin) ||
                !freopen((io + "out").c_str(), "w", stdout) ||
                !freopen((io + "err").c_str(), "w", stderr))
                return 120;
            if (!cwd.empty() && chdir(cwd.c_str()) != 0) return 121;
            std::vector<char*> argv;
            for (std::string& a : args)
                argv.push_back(&a[0]);
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            return 122;
        });
        r.out = ReadFile(io + "out");
        r.err = ReadFile(io + "err");
        // A memory fault in the tool shows here whatever its exit code.
        EXPECT_FALSE(Contains(r.err, "Sanitizer") || Contains(r.err, "runtime error")) << r.err;
        return r;
    }
    void Steps(const std::vector<Step>& steps) {
        for (const Step& s : steps)
            EXPECT_TRUE(Ran(Wmctl(s.cmd, s.in), s.rc, Parts(s.parts))) << s.cmd;
    }

    // A library object of the test process keeps the shared state alive.
    bool Hold() {
        holder.reset(new CWorkMessages);
        return holder->nLastError == 0;
    }
    std::unique_ptr<CWorkMessages> holder;
};

double SecondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

TEST_F(WmctlTest, UsageErrorsExitTwoAndEveryCommandHasHelp) {
    for (const char* cmd :
         {"demo", "send", "recv", "delete", "reject", "retry", "register", "unregister", "deleteby",
          "count", "status", "metrics", "ipc-clean", "dump", "fsck"})
        EXPECT_TRUE(Ran(Wmctl(std::string(cmd) + " --help"), 0, {"Usage:"})) << cmd;
    for (const std::string& args : std::vector<std::string>{
             "", "frobnicate", "send PROCA PROCB", "send PROCA PROCB ORDER data --file x",
             "delete 0xZZ", "delete 12345678901", "recv PROCB --wait soon",
             "recv PROCB --type-range 1:2:3", "retry 5 --flags 256", "deleteby",
             "deleteby --all --type ORDER", "count --by colour", "dump a b",
             "fsck " + dbDir + " --slot 1", "recv PROCB --type-range ALERT:ORDER"}) {
        const Outcome r = Wmctl(args);
        EXPECT_TRUE(r.rc == 2 && !r.err.empty()) << args << ": " << r.rc << r.err;
    }
}

TEST_F(WmctlTest, SendReceiveDeleteKeepDataExactAndFailWithTheLibrarysText) {
    ASSERT_TRUE(Hold());
    // Binary data with zero bytes at its end: the received length must be
    // the sent one, not the zero-padded block.
    const std::string binary = std::string("\xff\x00\x01 binary", 9) + std::string(20, '\0');
    WriteFile(root + "/in.bin", binary);
    WriteFile(root + "/keep.txt", "keep");
    // Failures queue nothing: the receives below find exactly three messages.
    Steps({{"send PROCA PROCX ORDER x", 1, "UID for PROCX was not found|M_NAME"},
           {"send PROCA PROCB BOGUS x", 1, "WorkMsg 'BOGUS' is not valid"},
           {"send PROCA PROCB 99", 1, "no message type has the number 99"},
           {"send PROCA PROCB ORDER -f -", 1, "8193 bytes", std::string(8193, 'x')},
           {"recv NOBODY", 1, "WorkMsg object:"},
           {"count --by type ORDER BOGUS", 1, "WorkMsg object:"},
           {"deleteby --sender NOBODY", 1, "WorkMsg object:"},
           {"register PROCB BOGUS", 1, "WorkMsg object:"},
           {"send PROCA PROCB ORDER hello", 0, "not active|message 0x40000000"},
           {"send PROCA 102 2 -f " + root + "/in.bin", 0},
           {"send PROCA PROCB REPORT -f - --json", 0,
            "\"message_id_hex\": \"0x40000002\"|\"target_active\": false", "from stdin"},
           {"recv PROCB ORDER", 0, "received message 0x40000000: ORDER from PROCA (101)|=hello"},
           {"recv PROCB --out " + root + "/out.bin", 0},
           {"recv PROCB --json", 0,
            "\"message_id\": 1073741826|\"type_name\": \"REPORT\"|\"sender_name\": "
            "\"PROCA\"|\"length\": 10|\"data\": \"from stdin\""}});
    EXPECT_EQ(ReadFile(root + "/out.bin"), binary);

    // Nothing left: the wait is honoured, and a failed receive leaves an
    // existing output file alone.
    auto t0 = std::chrono::steady_clock::now();
    Steps({{"recv PROCB --wait 1 -o " + root + "/keep.txt", 1, "M_TIMEOUT"}});
    EXPECT_GE(SecondsSince(t0), 0.9);
    EXPECT_EQ(ReadFile(root + "/keep.txt"), "keep");
    Steps({{"delete 0x40000000 --as PROCB", 0},
           {"delete 0x40000000", 1, "Message ID 40000000 not found"},
           {"delete 1073741825", 0},
           {"status --json", 0, "\"registry\": []"}}); // recv registered only while it ran
}

TEST_F(WmctlTest, ReceiveOrderRangeRetryRejectAndPriority) {
    ASSERT_TRUE(Hold());
    // The range leaves the high-priority INVOICE and ORDER out; newest first
    // gives ALERT, oldest first the high-priority one, found by its slot's ID.
    Steps({{"send PROCA PROCB ORDER ORDER", 0},
           {"send PROCA PROCB REPORT REPORT", 0},
           {"send PROCA PROCB ALERT ALERT", 0},
           {"send PROCA PROCB INVOICE urgent --high", 0, "sent message 0x00000003"},
           {"recv PROCB --type-range REPORT:", 0, "=REPORT"},
           {"recv PROCB --type-range :1", 0, "=ORDER"},
           {"recv PROCB --lifo", 0, "=ALERT"},
           {"recv PROCB", 0, "=urgent|received message 0x00000003"},
           // Retry: a plain receive no longer sees it; a retry receive gets
           // it with the flags.
           {"retry 0x00000003 --flags 7 --as PROCB", 0},
           {"recv PROCB --wait 0", 1},
           {"recv PROCB --retry --json", 0, "\"user_flags\": 7"},
           {"recv PROCB --retry", 1, "M_NONE"},
           {"reject 0x00000003 --as PROCB", 0}});
    // The reject file is named after the process and the type.
    glob_t files{};
    ASSERT_EQ(glob((rejectDir + "/*").c_str(), 0, nullptr, &files), 0);
    ASSERT_EQ(files.gl_pathc, 1u);
    EXPECT_TRUE(Contains(files.gl_pathv[0], rejectDir + "/PROCB.INVOICE.")) << files.gl_pathv[0];
    EXPECT_EQ(ReadFile(files.gl_pathv[0]).substr(0, 6), "urgent");
    globfree(&files);
    Steps({{"reject 0x00000003 --as PROCB", 1, "not found"}});
}

TEST_F(WmctlTest, RegisterStaysUntilUnregistered) {
    // With no other process, the entry goes with the shared state: say so.
    Steps({{"register PROCB ORDER", 0, "no other process is attached"}});
    ASSERT_TRUE(Hold());
    Steps({{"register PROCB ORDER --lifo", 0},
           {"register PROCB INVOICE", 0},
           {"status --json", 0, "\"type_name\": \"ORDER\"|\"pid_alive\": false|\"lifo\": true"},
           {"send PROCA PROCB ORDER --json", 0, "\"target_active\": true|!warning"},
           {"unregister PROCB ORDER", 0, "removed 1 registration"},
           {"unregister PROCB ORDER", 1, "M_NOTACT"},
           {"unregister PROCB --pid 1", 1},
           {"unregister PROCB", 0, "removed 1 registration"},
           {"status", 0, "Receivers (0 of 128 entries in use)"}});
}

TEST_F(WmctlTest, CountAndDeleteBy) {
    ASSERT_TRUE(Hold());
    std::vector<Step> steps(3, {"send PROCA PROCB ORDER", 0});
    steps.resize(5, {"send PROCB PROCC INVOICE", 0});
    Steps(steps);
    Steps({{"recv PROCC", 0},
           {"count --by type order 2", 0, "ORDER         3|INVOICE       2"},
           {"count --by type-state --json", 0, "\"states\"|\"received\": 1"},
           {"count --by sender PROCB", 0, "PROCB         2"},
           {"count --json", 0, "\"pending\": 4|\"free\": 507"},
           {"deleteby --target PROCC --type INVOICE", 0, "deleted 2 message(s)"},
           {"deleteby --age 1", 0, "deleted 0"},
           {"deleteby --all", 0, "deleted 3 message(s)"},
           {"count", 0, "free           512"}});
}

TEST_F(WmctlTest, StatusNeedsNoLockAndNamesADeadOwner) {
    Steps({{"status", 0, "No Controls segment"}, {"status --json", 0, "\"controls\": null"}});
    ASSERT_TRUE(Hold());
    Steps({{"status", 0, "Controls lock: free|Control slots: 512|!missing"}});

    // A process dies holding the Controls lock.
    ASSERT_EQ(RunChild([] {
                  int id = shmget(CWorkMessages::cstWMctlSHMKey, 0, 0);
                  auto* ctl = static_cast<_SM_Controls_*>(shmat(id, nullptr, 0));
                  if (ctl == reinterpret_cast<void*>(-1)) return 1;
                  return pthread_mutex_lock(&ctl->MutexCtlrs) == 0 ? 0 : 2;
              }),
              0);
    auto t0 = std::chrono::steady_clock::now();
    Steps({{"status --json", 0, "\"lock_owner_alive\": false|!\"lock_owner\": 0,"}});
    EXPECT_LT(SecondsSince(t0), 5.0);
    Steps({{"status", 0, "which no longer exists"},
           {"metrics", 0, "qv_wm_controls_lock_held 1|qv_wm_controls_lock_holder_exists 0"},
           {"send PROCA PROCB ORDER", 1, "M_LOCK|failed to acquire the Controls Lock"}});
}

// The metrics of a known state, read back through the exposition format's
// own parser (python3-prometheus-client), one "name,label=value value" line
// per sample. Debian's interpreter, the one that package is installed for.
TEST_F(WmctlTest, MetricsParseAndMatchTheState) {
    Steps({{"metrics", 0, "qv_wm_up 0"}});
    ASSERT_TRUE(Hold());
    WriteFile(root + "/in.bin", "\xff\x01\"\n");
    Steps({{"register PROCC ORDER", 0, ""}, // its process is gone when it returns
           {"send PROCA PROCB ORDER x", 0, ""},
           {"send PROCA PROCB ORDER x", 0, ""},
           {"send PROCA PROCB ORDER x", 0, ""},
           {"send PROCB PROCC INVOICE -f " + root + "/in.bin", 0, ""},
           {"recv PROCC INVOICE --json", 0, "\"data\": \"\\u00ff\\u0001\\\"\\n\""},
           {"metrics -o " + root + "/wm.prom", 0, ""}});

    const std::string script =
        "import sys\n"
        "from prometheus_client.parser import text_string_to_metric_families as parse\n"
        "for f in parse(open(sys.argv[1]).read()):\n"
        "    for s in f.samples:\n"
        "        print(s.name + ''.join(',%s=%s' % l for l in sorted(s.labels.items())), "
        "int(s.value))\n";
    WriteFile(root + "/parse.py", script);
    FILE* p = popen(("/usr/bin/python3 " + root + "/parse.py " + root + "/wm.prom").c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::string parsed = "\n";
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;)
        parsed.append(buf, n);
    ASSERT_EQ(pclose(p), 0) << parsed;
    for (const char* sample :
         {"qv_wm_up 1", "qv_wm_messages,state=pending 3", "qv_wm_messages,state=received 1",
          "qv_wm_messages,state=retry 0", "qv_wm_messages_by_type,type=ORDER,type_id=1 3",
          "qv_wm_messages_by_type,type=INVOICE,type_id=2 1",
          "qv_wm_messages_by_type,type=ALERT,type_id=4 0",
          "qv_wm_messages_by_target,target=PROCA,target_uid=101 0",
          "qv_wm_messages_by_target,target=PROCB,target_uid=102 3",
          "qv_wm_messages_by_target,target=PROCC,target_uid=103 1", "qv_wm_control_slots 512",
          "qv_wm_control_slots_used 4", "qv_wm_data_slots_used 4", "qv_wm_registry_slots 128",
          "qv_wm_registry_entries 1", "qv_wm_registry_entries_gone 1", "qv_wm_controls_lock_held 0",
          "qv_wm_next_message_id 1073741828"})
        EXPECT_TRUE(Contains(parsed, std::string("\n") + sample + "\n")) << sample << parsed;
}

TEST_F(WmctlTest, IpcCleanRemovesOnlyUnattachedSegments) {
    Steps({{"ipc-clean", 0, "no segment"}});
    ASSERT_TRUE(Hold());
    Steps({{"ipc-clean", 1, "in use; nothing removed"}});
    EXPECT_GE(SegmentId(CWorkMessages::cstWMctlSHMKey), 0);
    holder.reset();
    // A process that dies attached leaves all six segments behind.
    ASSERT_EQ(RunChild([] {
                  CWorkMessages wm;
                  _exit(wm.nLastError == 0 ? 0 : 1);
                  return 1;
              }),
              0);
    EXPECT_GE(SegmentId(CWorkMessages::cstWMQueuesSHMKey), 0);
    Steps({{"status", 0, "No process is attached"}, {"ipc-clean", 0}});
    for (int key = 1048; key <= 1053; ++key)
        EXPECT_LT(SegmentId(key), 0) << key;
}

TEST_F(WmctlTest, DumpDecodesFilesAndReportsDamage) {
    WriteFile(wqcfFile, ControlFileImage(512, 0x40000002,
                                         {SlotRecord(WQCF_Pending, 0x40000000, 0, 5), _WQCF_(),
                                          SlotRecord(WQCF_Received, 0x40000001)}));
    WriteFile(wddfFile, DataFileImage({{0, "hello"}}));
    Steps(
        {{"dump " + dbDir, 0,
          "header: 512 slots, next message ID 0x40000002|3 records stored, 2 in use|slot 0: "
          "pending, ID 0x40000000|slot 2: received, ID 0x40000001|1 data slots in use: 0|!problem"},
         {"dump --slot 0", 0, "68 65 6c 6c 6f|hello"}, // WM_DBPath
         {"dump " + dbDir + " --slot 9", 0},           // free, inside the table
         {"dump " + dbDir + " --slot 512", 1}});

    // Damage: a record cut short, a data slot far outside the table, a data
    // file shorter than its table. Nothing is read past the files.
    const std::string cf =
        ControlFileImage(512, 0x40000006, {SlotRecord(WQCF_Pending, 0x40000005, 70000, 9000)});
    WriteFile(wqcfFile, cf + cf.substr(64, 20));
    WriteFile(wddfFile, std::string(100, '\xff'));
    Steps({{"dump " + dbDir, 0,
            "ends inside the record of slot 1 (20 of 64 bytes)|shorter than its 8192-byte data "
            "slot table"},
           {"dump " + dbDir + " --slot 0", 0, "out of range"}});
    WriteFile(wqcfFile, "short");
    Steps({{"dump " + dbDir + " --json", 0, "ends inside its header (5 of 64 bytes)"}});
    unlink(wqcfFile.c_str());
    unlink(wddfFile.c_str());
    Steps({{"dump " + dbDir, 1}, {"dump " + root + "/nowhere", 1}});
}

TEST_F(WmctlTest, FsckRepairsALeakedDataSlot) {
    // One pending message in data slot 0; data slot 5 is marked in use with
    // data that no message refers to.
    WriteFile(wqcfFile,
              ControlFileImage(512, 0x40000001, {SlotRecord(WQCF_Pending, 0x40000000, 0, 5)}));
    WriteFile(wddfFile, DataFileImage({{0, "hello"}, {5, "leaked"}}));
    Steps({{"fsck " + dbDir, 1,
            "data slot 5 is marked in use but no message refers to it|!data slot 0 is marked"},
           {"fsck " + dbDir + " --json", 1,
            "\"kind\": \"leaked-data-slot\"|\"found\": 1|\"clean\": false"}});

    // Refused while a process is attached; nothing changes.
    const std::string dataBefore = ReadFile(wddfFile);
    ASSERT_TRUE(Hold());
    Steps({{"fsck " + dbDir + " --repair", 1, "attached"}});
    EXPECT_TRUE(ReadFile(wddfFile) == dataBefore);
    holder.reset();
    const std::string controlBefore = ReadFile(wqcfFile);

    Steps({{"fsck " + dbDir + " --repair", 0, "-- repaired"}});
    const std::string data = ReadFile(wddfFile);
    EXPECT_TRUE(DataSlotMarked(data, 0) && !DataSlotMarked(data, 5));
    EXPECT_EQ(data.substr(8192, 5), "hello");
    EXPECT_TRUE(DataBlockZero(data, 5));
    EXPECT_TRUE(ReadFile(wqcfFile) == controlBefore);
    // The library still delivers the message with its data.
    Steps({{"fsck", 0, "fsck " + dbDir + ":|clean"}, {"recv PROCB", 0, "=hello"}}); // WM_DBPath
}

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
    // Everything but the duplicate IDs and the shared data slot is
    // repaired, so the exit stays 1.
    Steps({{"fsck " + dbDir + " --json", 1, kinds},
           {"fsck " + dbDir + " --repair", 1, "not repairable by fsck"}});
    const std::string control = ReadFile(wqcfFile), data = ReadFile(wddfFile);
    EXPECT_EQ(ImageHeader(control).nEntriesAllocated, 512);
    EXPECT_EQ(ImageHeader(control).nCurrentMsgID, 0x4000000A);
    EXPECT_EQ(control.substr(64, 64), std::string(64, '\0'));     // impossible slot
    EXPECT_EQ(control.substr(64 * 5, 64), std::string(64, '\0')); // dirty free slot
    EXPECT_EQ(ImageSlot(control, 1).nflag, WQCF_Pending);         // kept
    EXPECT_FALSE(DataSlotMarked(data, 3));                        // its data leaked
    EXPECT_TRUE(DataSlotMarked(data, 7));                         // referenced: marked
    Steps({{"fsck " + dbDir, 1,
            "2 problem(s)|message ID 0x40000004 is held by control slots 1, 2"
            "|data slot 7 is referred to by control slots 3, 5"}});
}

TEST_F(WmctlTest, FsckRepairMendsEveryRecordTheLoaderSendsItTo) {
    const int32_t first = 0x40000000, next = first + 9;
    const std::string records[] = {
        ControlFileImage(-1, next),
        ControlFileImage(0x7FFFFFFF, next),
        ControlFileImage(512, next, {SlotRecord(9, first)}),
        ControlFileImage(512, next, {SlotRecord(WQCF_Pending, 0)}),
        ControlFileImage(512, next, {SlotRecord(WQCF_Pending, first, 65536)}),
        ControlFileImage(512, next, {SlotRecord(WQCF_Retry, first, 0, 8193)}),
        ControlFileImage(100, next, {SlotRecord(WQCF_Pending, first)}, 512, 300),
    };
    for (const std::string& img : records) {
        WriteFile(wqcfFile, img);
        unlink(wddfFile.c_str());
        {
            CWorkMessages wm;
            EXPECT_TRUE(wm.nLastError == M_CTLFILE &&
                        Contains(wm.szErrorMsg, "wmctl fsck --repair"))
                << wm.szErrorMsg;
        }
        Steps({{"fsck --repair", 0, "-- repaired"}});
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    }
}

TEST_F(WmctlTest, DemoRunsInItsOwnRoot) {
    // With no root, under the current directory.
    EXPECT_TRUE(Ran(Wmctl("demo", "", root), 0,
                    {"note: GDDA_CONFIG", "private root " + root + "/demo-root", "demo OK"}));
    EXPECT_TRUE(FileExists(root + "/demo-root/Dev/data/msgq/WQCF.bdb"));
    EXPECT_FALSE(FileExists(wqcfFile)); // the test's own files were not touched
    Steps({{"demo " + root + "/other", 0, "demo OK"}});
    EXPECT_TRUE(FileExists(root + "/other/Dev/data/msgq/WQCF.bdb"));
}

} // namespace
