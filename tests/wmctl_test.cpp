// wmctl, driven as an operator drives it: the real binary, run in the
// test's private IPC namespace with the test's configuration, checked by its
// output and exit code (0 success, 1 failure with the library's text,
// 2 usage). A library object of the test process keeps the shared state
// alive between commands, as the host's own processes do; without it every
// wmctl run would be the first and the last user of the segments.
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

// The run ended with code rc and its output (stdout or stderr) holds each part.
::testing::AssertionResult Ran(const Outcome& r, int rc, std::vector<std::string> parts = {}) {
    bool ok = r.rc == rc;
    for (const std::string& p : parts)
        ok = ok && (Contains(r.out, p) || Contains(r.err, p));
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

    // A library object of the test process keeps the shared state alive.
    bool Hold() {
        holder.reset(new CWorkMessages);
        return holder->nLastError == 0;
    }
    std::unique_ptr<CWorkMessages> holder;

    ::testing::AssertionResult Runs(const std::string& cmdline, int rc,
                                    std::vector<std::string> parts = {}) {
        return Ran(Wmctl(cmdline), rc, parts);
    }

    // The hexadecimal ID that "sent message 0x...:" or "received message
    // 0x...:" names.
    static std::string IdOf(const std::string& text) {
        size_t p = text.find("message 0x");
        return p == std::string::npos ? "" : text.substr(p + 8, 10);
    }
};

TEST_F(WmctlTest, UsageErrorsExitTwoAndEveryCommandHasHelp) {
    for (const char* cmd :
         {"demo", "send", "recv", "delete", "reject", "retry", "register", "unregister", "deleteby",
          "count", "status", "metrics", "ipc-clean", "dump", "fsck"})
        EXPECT_TRUE(Runs(std::string(cmd) + " --help", 0, {"Usage:"})) << cmd;
    for (const std::string& args : std::vector<std::string>{
             "", "frobnicate", "send PROCA PROCB", "send PROCA PROCB ORDER data --file x",
             "delete 0xZZ", "delete 12345678901", "recv PROCB --wait soon",
             "recv PROCB --type-range 1:2:3", "retry 5 --flags 256", "deleteby",
             "deleteby --all --type ORDER", "count --by colour", "dump a b",
             "fsck " + dbDir + " --slot 1"}) {
        const Outcome r = Wmctl(args);
        EXPECT_TRUE(r.rc == 2 && !r.err.empty()) << args << ": " << r.rc << r.err;
    }
}

TEST_F(WmctlTest, SendReceiveDeleteKeepDataExactAndFailWithTheLibrarysText) {
    ASSERT_TRUE(Hold());
    // Failures queue nothing: the receives below find exactly three messages.
    EXPECT_TRUE(Runs("send PROCA PROCX ORDER x", 1, {"UID for PROCX was not found", "M_NAME"}));
    EXPECT_TRUE(Runs("send PROCA PROCB BOGUS x", 1, {"WorkMsg 'BOGUS' is not valid"}));
    EXPECT_TRUE(Runs("send PROCA PROCB 99", 1, {"no message type has the number 99"}));
    EXPECT_TRUE(
        Ran(Wmctl("send PROCA PROCB ORDER -f -", std::string(8193, 'x')), 1, {"8193 bytes"}));
    for (const char* args : {"recv NOBODY", "count --by type ORDER BOGUS",
                             "deleteby --sender NOBODY", "register PROCB BOGUS"})
        EXPECT_TRUE(Runs(args, 1, {"WorkMsg object:"})) << args;

    // Binary data with zero bytes at its end: the received length must be
    // the sent one, not the zero-padded block.
    const std::string binary = std::string("\xff\x00\x01 binary", 9) + std::string(20, '\0');
    WriteFile(root + "/in.bin", binary);
    Outcome r = Wmctl("send PROCA PROCB ORDER hello");
    EXPECT_TRUE(Ran(r, 0, {"not active"})); // M_NOTACT: queued anyway
    const std::string firstId = IdOf(r.out);
    EXPECT_EQ(firstId, "0x40000000") << r.out;
    EXPECT_TRUE(Runs("send PROCA 102 2 -f " + root + "/in.bin", 0));
    EXPECT_TRUE(Ran(Wmctl("send PROCA PROCB REPORT -f - --json", "from stdin"), 0,
                    {"\"message_id_hex\": \"0x40000002\"", "\"target_active\": false"}));

    r = Wmctl("recv PROCB ORDER");
    EXPECT_TRUE(Ran(r, 0, {"received message 0x40000000: ORDER from PROCA (101)"}));
    EXPECT_EQ(r.out, "hello"); // the data alone on stdout
    EXPECT_TRUE(Runs("recv PROCB --out " + root + "/out.bin", 0));
    EXPECT_EQ(ReadFile(root + "/out.bin"), binary);
    EXPECT_TRUE(Runs("recv PROCB --json", 0,
                     {"\"message_id\": 1073741826", "\"type_name\": \"REPORT\"",
                      "\"sender_name\": \"PROCA\"", "\"length\": 10", "\"data\": \"from stdin\""}));

    // Nothing left: the wait is honoured, and a failed receive leaves an
    // existing output file alone.
    WriteFile(root + "/keep.txt", "keep");
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(Runs("recv PROCB --wait 1 -o " + root + "/keep.txt", 1, {"M_TIMEOUT"}));
    EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 0.9);
    EXPECT_EQ(ReadFile(root + "/keep.txt"), "keep");

    EXPECT_TRUE(Runs("delete " + firstId + " --as PROCB", 0));
    EXPECT_TRUE(Runs("delete " + firstId, 1, {"Message ID 40000000 not found"}));
    EXPECT_TRUE(Runs("delete 1073741825", 0));
    // recv registered PROCB only for its own life.
    EXPECT_TRUE(Runs("status --json", 0, {"\"registry\": []"}));
}

TEST_F(WmctlTest, ReceiveOrderRangeRetryRejectAndPriority) {
    ASSERT_TRUE(Hold());
    for (const char* type : {"ORDER", "REPORT", "ALERT"})
        EXPECT_TRUE(Runs(std::string("send PROCA PROCB ") + type + " " + type, 0));
    Outcome r = Wmctl("send PROCA PROCB INVOICE urgent --high");
    EXPECT_TRUE(Ran(r, 0));
    const std::string highId = IdOf(r.out);
    EXPECT_EQ(highId, "0x00000003") << r.out; // found by the slot's ID

    // The range leaves the high-priority INVOICE and ORDER out; newest first
    // gives ALERT, oldest first the high-priority one.
    EXPECT_EQ(Wmctl("recv PROCB --type-range REPORT:").out, "REPORT");
    EXPECT_EQ(Wmctl("recv PROCB --type-range :1").out, "ORDER");
    EXPECT_TRUE(Runs("recv PROCB --type-range ALERT:ORDER", 2));
    EXPECT_EQ(Wmctl("recv PROCB --lifo").out, "ALERT");
    r = Wmctl("recv PROCB");
    EXPECT_TRUE(Ran(r, 0) && r.out == "urgent" && IdOf(r.err) == highId) << r.out << r.err;

    // Retry: a plain receive no longer sees it; a retry receive gets it with
    // the flags.
    EXPECT_TRUE(Runs("retry " + highId + " --flags 7 --as PROCB", 0));
    EXPECT_TRUE(Runs("recv PROCB --wait 0", 1));
    EXPECT_TRUE(Runs("recv PROCB --retry --json", 0, {"\"user_flags\": 7"}));
    EXPECT_TRUE(Runs("recv PROCB --retry", 1, {"M_NONE"}));

    // Reject: the file is named after the process and the type.
    EXPECT_TRUE(Runs("reject " + highId + " --as PROCB", 0));
    glob_t files{};
    ASSERT_EQ(glob((rejectDir + "/*").c_str(), 0, nullptr, &files), 0);
    ASSERT_EQ(files.gl_pathc, 1u);
    EXPECT_TRUE(Contains(files.gl_pathv[0], rejectDir + "/PROCB.INVOICE.")) << files.gl_pathv[0];
    EXPECT_EQ(ReadFile(files.gl_pathv[0]).substr(0, 6), "urgent");
    globfree(&files);
    EXPECT_TRUE(Runs("reject " + highId + " --as PROCB", 1, {"not found"}));
}

TEST_F(WmctlTest, RegisterStaysUntilUnregistered) {
    // With no other process, the entry goes with the shared state: say so.
    EXPECT_TRUE(Runs("register PROCB ORDER", 0, {"no other process is attached"}));

    ASSERT_TRUE(Hold());
    EXPECT_TRUE(Runs("register PROCB ORDER --lifo", 0));
    EXPECT_TRUE(Runs("register PROCB INVOICE", 0));
    EXPECT_TRUE(Runs("status --json", 0,
                     {"\"type_name\": \"ORDER\"", "\"pid_alive\": false", "\"lifo\": true"}));
    const Outcome r = Wmctl("send PROCA PROCB ORDER --json");
    EXPECT_TRUE(Ran(r, 0, {"\"target_active\": true"}) && r.err.empty()) << r.err;

    EXPECT_TRUE(Runs("unregister PROCB ORDER", 0, {"removed 1 registration"}));
    EXPECT_TRUE(Runs("unregister PROCB ORDER", 1, {"M_NOTACT"}));
    EXPECT_TRUE(Runs("unregister PROCB --pid 1", 1));
    EXPECT_TRUE(Runs("unregister PROCB", 0, {"removed 1 registration"}));
    EXPECT_TRUE(Runs("status", 0, {"Receivers (0 of 128 entries in use)"}));
}

TEST_F(WmctlTest, CountAndDeleteBy) {
    ASSERT_TRUE(Hold());
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(Runs("send PROCA PROCB ORDER", 0));
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(Runs("send PROCB PROCC INVOICE", 0));
    EXPECT_TRUE(Runs("recv PROCC", 0));

    EXPECT_TRUE(Runs("count --by type order 2", 0, {"ORDER         3", "INVOICE       2"}));
    EXPECT_TRUE(Runs("count --by type-state --json", 0, {"\"states\"", "\"received\": 1"}));
    EXPECT_TRUE(Runs("count --by sender PROCB", 0, {"PROCB         2"}));
    EXPECT_TRUE(Runs("count --json", 0, {"\"pending\": 4", "\"free\": 507"}));

    EXPECT_TRUE(Runs("deleteby --target PROCC --type INVOICE", 0, {"deleted 2 message(s)"}));
    EXPECT_TRUE(Runs("deleteby --age 1", 0, {"deleted 0"}));
    EXPECT_TRUE(Runs("deleteby --all", 0, {"deleted 3 message(s)"}));
    EXPECT_TRUE(Runs("count", 0, {"free           512"}));
}

TEST_F(WmctlTest, StatusNeedsNoLockAndNamesADeadOwner) {
    EXPECT_TRUE(Runs("status", 0, {"No Controls segment"}));
    EXPECT_TRUE(Runs("status --json", 0, {"\"controls\": null"}));
    ASSERT_TRUE(Hold());
    Outcome r = Wmctl("status");
    EXPECT_TRUE(Ran(r, 0, {"Controls lock: free", "Control slots: 512"}));
    EXPECT_FALSE(Contains(r.out, "missing")) << r.out;

    // A process dies holding the Controls lock.
    ASSERT_EQ(RunChild([] {
                  int id = shmget(CWorkMessages::cstWMctlSHMKey, 0, 0);
                  auto* ctl = static_cast<_SM_Controls_*>(shmat(id, nullptr, 0));
                  if (ctl == reinterpret_cast<void*>(-1)) return 1;
                  return pthread_mutex_lock(&ctl->MutexCtlrs) == 0 ? 0 : 2;
              }),
              0);
    auto t0 = std::chrono::steady_clock::now();
    r = Wmctl("status --json");
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 5.0);
    EXPECT_TRUE(Ran(r, 0, {"\"lock_owner_alive\": false"}));
    EXPECT_FALSE(Contains(r.out, "\"lock_owner\": 0,")) << r.out;
    EXPECT_TRUE(Runs("status", 0, {"which no longer exists"}));
    EXPECT_TRUE(
        Runs("metrics", 0, {"qv_wm_controls_lock_held 1", "qv_wm_controls_lock_holder_exists 0"}));
    // Operations time out with the library's text.
    EXPECT_TRUE(
        Runs("send PROCA PROCB ORDER", 1, {"M_LOCK", "failed to acquire the Controls Lock"}));
}

// The metrics of a known state, read back through the exposition format's
// own parser (python3-prometheus-client), one "name,label=value value" line
// per sample. Debian's interpreter, the one that package is installed for.
TEST_F(WmctlTest, MetricsParseAndMatchTheState) {
    EXPECT_TRUE(Runs("metrics", 0, {"qv_wm_up 0"}));
    ASSERT_TRUE(Hold());
    EXPECT_TRUE(Runs("register PROCC ORDER", 0)); // its process is gone when it returns
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(Runs("send PROCA PROCB ORDER x", 0));
    WriteFile(root + "/in.bin", "\xff\x01\"\n");
    EXPECT_TRUE(Runs("send PROCB PROCC INVOICE -f " + root + "/in.bin", 0));
    EXPECT_TRUE(Runs("recv PROCC INVOICE --json", 0, {"\"data\": \"\\u00ff\\u0001\\\"\\n\""}));
    ASSERT_TRUE(Runs("metrics -o " + root + "/wm.prom", 0));

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
    EXPECT_TRUE(Runs("ipc-clean", 0, {"no segment"}));
    ASSERT_TRUE(Hold());
    EXPECT_TRUE(Runs("ipc-clean", 1, {"in use; nothing removed"}));
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
    EXPECT_TRUE(Runs("status", 0, {"No process is attached"}));
    EXPECT_TRUE(Runs("ipc-clean", 0));
    for (int key = 1048; key <= 1053; ++key)
        EXPECT_LT(SegmentId(key), 0) << key;
}

TEST_F(WmctlTest, DumpDecodesFilesAndReportsDamage) {
    WriteFile(wqcfFile, ControlFileImage(512, 0x40000002,
                                         {SlotRecord(WQCF_Pending, 0x40000000, 0, 5), _WQCF_(),
                                          SlotRecord(WQCF_Received, 0x40000001)}));
    WriteFile(wddfFile, DataFileImage({{0, "hello"}}));
    Outcome r = Wmctl("dump " + dbDir);
    EXPECT_TRUE(Ran(r, 0,
                    {"header: 512 slots, next message ID 0x40000002", "3 records stored, 2 in use",
                     "slot 0: pending, ID 0x40000000", "slot 2: received, ID 0x40000001",
                     "1 data slots in use: 0"}));
    EXPECT_FALSE(Contains(r.out, "problem")) << r.out;
    EXPECT_TRUE(Runs("dump --slot 0", 0, {"68 65 6c 6c 6f", "|hello|"})); // WM_DBPath
    EXPECT_TRUE(Runs("dump " + dbDir + " --slot 9", 0));                  // free, inside the table
    EXPECT_TRUE(Runs("dump " + dbDir + " --slot 512", 1));

    // Damage: a record cut short, a data slot far outside the table, a data
    // file shorter than its table. Nothing is read past the files.
    const std::string cf =
        ControlFileImage(512, 0x40000006, {SlotRecord(WQCF_Pending, 0x40000005, 70000, 9000)});
    WriteFile(wqcfFile, cf + cf.substr(64, 20));
    WriteFile(wddfFile, std::string(100, '\xff'));
    EXPECT_TRUE(Runs("dump " + dbDir, 0,
                     {"ends inside the record of slot 1 (20 of 64 bytes)",
                      "shorter than its 8192-byte data slot table"}));
    EXPECT_TRUE(Runs("dump " + dbDir + " --slot 0", 0, {"out of range"}));
    WriteFile(wqcfFile, "short");
    EXPECT_TRUE(Runs("dump " + dbDir + " --json", 0, {"ends inside its header (5 of 64 bytes)"}));
    unlink(wqcfFile.c_str());
    unlink(wddfFile.c_str());
    EXPECT_TRUE(Runs("dump " + dbDir, 1));
    EXPECT_TRUE(Runs("dump " + root + "/nowhere", 1));
}

TEST_F(WmctlTest, FsckRepairsALeakedDataSlot) {
    // One pending message in data slot 0; data slot 5 is marked in use with
    // data that no message refers to.
    WriteFile(wqcfFile,
              ControlFileImage(512, 0x40000001, {SlotRecord(WQCF_Pending, 0x40000000, 0, 5)}));
    WriteFile(wddfFile, DataFileImage({{0, "hello"}, {5, "leaked"}}));
    Outcome r = Wmctl("fsck " + dbDir);
    EXPECT_TRUE(Ran(r, 1, {"data slot 5 is marked in use but no message refers to it"}));
    EXPECT_FALSE(Contains(r.out, "data slot 0 is marked")) << r.out;
    EXPECT_TRUE(Runs("fsck " + dbDir + " --json", 1,
                     {"\"kind\": \"leaked-data-slot\"", "\"found\": 1", "\"clean\": false"}));

    // Refused while a process is attached; nothing changes.
    const std::string dataBefore = ReadFile(wddfFile);
    ASSERT_TRUE(Hold());
    EXPECT_TRUE(Runs("fsck " + dbDir + " --repair", 1, {"attached"}));
    EXPECT_TRUE(ReadFile(wddfFile) == dataBefore);
    holder.reset();
    const std::string controlBefore = ReadFile(wqcfFile);

    EXPECT_TRUE(Runs("fsck " + dbDir + " --repair", 0, {"-- repaired"}));
    const std::string data = ReadFile(wddfFile);
    EXPECT_TRUE(DataSlotMarked(data, 0) && !DataSlotMarked(data, 5));
    EXPECT_EQ(data.substr(8192, 5), "hello");
    EXPECT_TRUE(DataBlockZero(data, 5));
    EXPECT_TRUE(ReadFile(wqcfFile) == controlBefore);
    EXPECT_TRUE(Runs("fsck", 0, {"fsck " + dbDir + ":", "clean"})); // WM_DBPath

    // The library still delivers the message with its data.
    r = Wmctl("recv PROCB");
    EXPECT_TRUE(Ran(r, 0) && r.out == "hello") << r.out;
}

TEST_F(WmctlTest, FsckFindsImpossibleSlotsDuplicatesAndABadHeader) {
    _WQCF_ dirtyFree = _WQCF_();
    dirtyFree.nTimeRetry = 5;
    WriteFile(wqcfFile, ControlFileImage(2, 0x40000000,
                                         {SlotRecord(9, 0x40000001, 3, 4),
                                          SlotRecord(WQCF_Pending, 0x40000004),
                                          SlotRecord(WQCF_Retry, 0x40000004),
                                          SlotRecord(WQCF_Pending, 0x40000007, 7, 3), dirtyFree}));
    WriteFile(wddfFile, DataFileImage({{3, "abcd"}}) + std::string(8192 * 5, 'z'));
    std::vector<std::string> kinds;
    for (const char* kind :
         {"impossible-slot", "duplicate-id", "unmarked-data-slot", "leaked-data-slot",
          "dirty-free-slot", "slot-count", "message-counter"})
        kinds.push_back(std::string("\"kind\": \"") + kind + "\"");
    EXPECT_TRUE(Runs("fsck " + dbDir + " --json", 1, kinds));

    // Everything but the duplicate IDs is repaired, so the exit stays 1.
    EXPECT_TRUE(Runs("fsck " + dbDir + " --repair", 1, {"not repairable by fsck"}));
    const std::string control = ReadFile(wqcfFile), data = ReadFile(wddfFile);
    EXPECT_EQ(ImageHeader(control).nEntriesAllocated, 512);
    EXPECT_EQ(ImageHeader(control).nCurrentMsgID, 0x40000008);
    EXPECT_EQ(control.substr(64, 64), std::string(64, '\0'));     // impossible slot
    EXPECT_EQ(control.substr(64 * 5, 64), std::string(64, '\0')); // dirty free slot
    EXPECT_EQ(ImageSlot(control, 1).nflag, WQCF_Pending);         // kept
    EXPECT_FALSE(DataSlotMarked(data, 3));                        // its data leaked
    EXPECT_TRUE(DataSlotMarked(data, 7));                         // referenced: marked
    EXPECT_TRUE(Runs("fsck " + dbDir, 1,
                     {"1 problem(s)", "message ID 0x40000004 is held by control slots 1, 2"}));
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
        EXPECT_TRUE(Runs("fsck --repair", 0, {"-- repaired"}));
        CWorkMessages wm;
        EXPECT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    }
}

TEST_F(WmctlTest, DemoRunsInItsOwnRoot) {
    EXPECT_TRUE(Ran(Wmctl("demo", "", root), 0, // with no root, under the current directory
                    {"note: GDDA_CONFIG", "private root " + root + "/demo-root", "demo OK"}));
    EXPECT_TRUE(FileExists(root + "/demo-root/Dev/data/msgq/WQCF.bdb"));
    EXPECT_FALSE(FileExists(wqcfFile)); // the test's own files were not touched
    EXPECT_TRUE(Runs("demo " + root + "/other", 0, {"demo OK"}));
    EXPECT_TRUE(FileExists(root + "/other/Dev/data/msgq/WQCF.bdb"));
}

} // namespace
