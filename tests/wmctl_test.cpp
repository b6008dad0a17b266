// wmctl, driven as an operator drives it: the real binary, run in the
// test's private IPC namespace with the test's configuration, checked by its
// output and exit code (0 success, 1 failure with the library's text,
// 2 usage). A holder process keeps the shared state alive between commands,
// as the host's own processes do; without it every wmctl run would be the
// first and the last user of the segments.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <dirent.h>

#include "TestEnv.h"
#include "WorkMessages.h"

namespace {

using namespace wmtest;

struct Outcome {
    int rc = -1;
    std::string out, err;
};

std::string WmctlPath() {
    if (const char* dir = getenv("QV_WM_BINARY_DIR")) return std::string(dir) + "/tools/wmctl";
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    std::string self(exe, n > 0 ? static_cast<size_t>(n) : 0);
    return self.substr(0, self.rfind('/')) + "/../tools/wmctl";
}

// Keeps one library object attached in a child process until Stop or Kill.
class Holder {
public:
    Holder() {
        int ready[2], stop[2];
        if (pipe(ready) != 0 || pipe(stop) != 0) return;
        fflush(nullptr);
        pid = fork();
        if (pid == 0) {
            close(ready[0]);
            close(stop[1]);
            char c = 'f';
            {
                CWorkMessages wm;
                if (wm.nLastError == 0) c = 'r';
                if (write(ready[1], &c, 1) != 1) _exit(1);
                (void)!read(stop[0], &c, 1);
            }
            _exit(0);
        }
        close(ready[1]);
        close(stop[0]);
        fdStop = stop[1];
        char c = 0;
        bOk = read(ready[0], &c, 1) == 1 && c == 'r';
        close(ready[0]);
    }
    ~Holder() { Stop(); }
    void Stop() {
        if (pid <= 0) return;
        close(fdStop);
        WaitChild(pid);
        pid = -1;
    }
    void Kill() {
        if (pid <= 0) return;
        kill(pid, SIGKILL);
        close(fdStop);
        WaitChild(pid);
        pid = -1;
    }
    bool bOk = false;

private:
    pid_t pid = -1;
    int fdStop = -1;
};

class WmctlTest : public WmTest {
protected:
    // Runs wmctl with args; stdin from `in`; in directory `cwd` when given.
    Outcome Wmctl(const std::vector<std::string>& args, const std::string& in = "",
                  const std::string& cwd = "") {
        const std::string inFile = root + "/io.in", outFile = root + "/io.out",
                          errFile = root + "/io.err";
        WriteFile(inFile, in);
        std::vector<std::string> argv = {WmctlPath()};
        argv.insert(argv.end(), args.begin(), args.end());
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            int fdIn = open(inFile.c_str(), O_RDONLY);
            int fdOut = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int fdErr = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (fdIn < 0 || fdOut < 0 || fdErr < 0 || dup2(fdIn, 0) < 0 || dup2(fdOut, 1) < 0 ||
                dup2(fdErr, 2) < 0)
                _exit(120);
            if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(121);
            std::vector<char*> cargv;
            for (std::string& a : argv)
                cargv.push_back(&a[0]);
            cargv.push_back(nullptr);
            execv(cargv[0], cargv.data());
            _exit(122);
        }
        Outcome r;
        r.rc = WaitChild(pid);
        r.out = ReadFile(outFile);
        r.err = ReadFile(errFile);
        // A memory fault in the tool shows here whatever its exit code.
        EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find("runtime error"), std::string::npos) << r.err;
        return r;
    }

    // The hexadecimal ID that "sent message 0x...:" or "received message
    // 0x...:" names.
    static std::string IdOf(const std::string& text) {
        size_t p = text.find("message 0x");
        return p == std::string::npos ? "" : text.substr(p + 8, 10);
    }

    std::vector<std::string> RejectFiles() {
        std::vector<std::string> out;
        if (DIR* d = opendir(rejectDir.c_str())) {
            while (dirent* e = readdir(d))
                if (e->d_name[0] != '.') out.push_back(e->d_name);
            closedir(d);
        }
        return out;
    }
};

#define EXPECT_RUN(r, code)                                                                        \
    EXPECT_EQ((r).rc, code) << "stdout:\n" << (r).out << "stderr:\n" << (r).err

// ---------------------------------------------------------------------------
// Crafted database files
// ---------------------------------------------------------------------------

_WQCF_ Slot(ByteInt nState, int32_t nId, int32_t nDataSlot, int32_t nLength) {
    _WQCF_ s;
    memset(&s, 0, sizeof(s));
    s.nflag = nState;
    s.nMessageID = nId;
    s.nTargetUID = 102;
    s.nSenderUID = 101;
    s.nMsgNo = 1;
    s.nTimeSent = 1700000000;
    s.nDepDataSlot = nDataSlot;
    s.nDepDataLength = nLength;
    return s;
}

std::string ControlFileBytes(int32_t nCount, int32_t nCounter, const std::vector<_WQCF_>& slots) {
    _WQCF_CTL_ h;
    memset(&h, 0, sizeof(h));
    h.nEntriesAllocated = nCount;
    h.nCurrentMsgID = nCounter;
    std::string out(reinterpret_cast<const char*>(&h), sizeof(h));
    for (const _WQCF_& s : slots)
        out.append(reinterpret_cast<const char*>(&s), sizeof(s));
    return out;
}

// A data file with the given slots marked and their blocks holding data.
std::string DataFileBytes(const std::vector<std::pair<int, std::string>>& blocks) {
    int nLast = -1;
    for (const auto& b : blocks)
        nLast = std::max(nLast, b.first);
    std::string out(static_cast<size_t>(8192 * (nLast + 2)), '\0');
    for (const auto& b : blocks) {
        out[static_cast<size_t>(b.first / 8)] |= static_cast<char>(0x80 >> (b.first % 8));
        out.replace(static_cast<size_t>(8192 * (b.first + 1)), b.second.size(), b.second);
    }
    return out;
}

bool SatBit(const std::string& wddf, int n) {
    return (static_cast<unsigned char>(wddf[static_cast<size_t>(n / 8)]) & (0x80 >> (n % 8))) != 0;
}

// ---------------------------------------------------------------------------
// Tests
// ---------------------------------------------------------------------------

TEST_F(WmctlTest, UsageErrorsExitTwoAndEveryCommandHasHelp) {
    for (const char* cmd :
         {"demo", "send", "recv", "delete", "reject", "retry", "register", "unregister", "deleteby",
          "count", "status", "ipc-clean", "dump", "fsck"}) {
        Outcome r = Wmctl({cmd, "--help"});
        EXPECT_RUN(r, 0);
        EXPECT_NE(r.out.find("Usage:"), std::string::npos) << cmd;
    }
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"frobnicate"},
        {"send", "PROCA", "PROCB"},
        {"send", "PROCA", "PROCB", "ORDER", "data", "--file", "x"},
        {"delete", "0xZZ"},
        {"delete", "12345678901"},
        {"recv", "PROCB", "--wait", "-2"},
        {"recv", "PROCB", "--wait", "soon"},
        {"recv", "PROCB", "--type-range", "1:2:3"},
        {"retry", "5", "--flags", "256"},
        {"reject", "5"},
        {"deleteby"},
        {"deleteby", "--all", "--type", "ORDER"},
        {"count", "--by", "colour"},
        {"count", "--by", "state", "ORDER"},
        {"dump"},
        {"fsck", dbDir, "--slot", "1"},
    };
    for (const auto& args : bad) {
        Outcome r = Wmctl(args);
        std::string line;
        for (const auto& a : args)
            line += a + " ";
        EXPECT_EQ(r.rc, 2) << line << "\n" << r.out << r.err;
        EXPECT_FALSE(r.err.empty()) << line;
    }
}

TEST_F(WmctlTest, UnknownNamesFailWithTheLibrarysText) {
    Holder h;
    ASSERT_TRUE(h.bOk);
    Outcome r = Wmctl({"send", "PROCA", "PROCX", "ORDER", "x"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("UID for PROCX was not found"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("M_NAME"), std::string::npos);

    r = Wmctl({"send", "PROCA", "PROCB", "BOGUS", "x"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("WorkMsg 'BOGUS' is not valid"), std::string::npos) << r.err;

    r = Wmctl({"send", "PROCA", "PROCB", "99"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("no message type has the number 99"), std::string::npos) << r.err;

    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"recv", "NOBODY"},
                                               {"count", "--by", "type", "ORDER", "BOGUS"},
                                               {"deleteby", "--sender", "NOBODY"},
                                               {"register", "PROCB", "BOGUS"}}) {
        r = Wmctl(args);
        EXPECT_RUN(r, 1);
        EXPECT_NE(r.err.find("WorkMsg object:"), std::string::npos) << args[0] << ": " << r.err;
    }
    // Data above the limit is refused before anything is queued.
    r = Wmctl({"send", "PROCA", "PROCB", "ORDER", "-f", "-"}, std::string(8193, 'x'));
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("8193 bytes"), std::string::npos) << r.err;
    r = Wmctl({"count", "--by", "target", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"count\": 0"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("\"count\": 1"), std::string::npos) << r.out;
}

TEST_F(WmctlTest, SendReceiveDeleteKeepDataExact) {
    Holder h;
    ASSERT_TRUE(h.bOk);
    // Binary data with zero bytes at its end: the received length must be
    // the sent one, not the zero-padded block.
    std::string binary = std::string("\xff\x00\x01 binary", 9) + std::string(20, '\0');
    WriteFile(root + "/in.bin", binary);
    Outcome r = Wmctl({"send", "PROCA", "PROCB", "ORDER", "hello"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.err.find("not active"), std::string::npos) << r.err; // M_NOTACT: queued anyway
    const std::string firstId = IdOf(r.out);
    EXPECT_EQ(firstId, "0x40000000") << r.out;
    EXPECT_RUN(Wmctl({"send", "PROCA", "102", "2", "-f", root + "/in.bin"}), 0);
    r = Wmctl({"send", "PROCA", "PROCB", "REPORT", "-f", "-", "--json"}, "from stdin");
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"message_id_hex\": \"0x40000002\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"target_active\": false"), std::string::npos) << r.out;

    r = Wmctl({"recv", "PROCB", "ORDER"});
    EXPECT_RUN(r, 0);
    EXPECT_EQ(r.out, "hello"); // the data alone on stdout
    EXPECT_NE(r.err.find("received message 0x40000000: ORDER from PROCA (101)"), std::string::npos)
        << r.err;
    r = Wmctl({"recv", "PROCB", "--out", root + "/out.bin"});
    EXPECT_RUN(r, 0);
    EXPECT_EQ(ReadFile(root + "/out.bin"), binary);
    r = Wmctl({"recv", "PROCB", "--json"});
    EXPECT_RUN(r, 0);
    for (const char* key :
         {"\"message_id\": 1073741826", "\"type_name\": \"REPORT\"", "\"sender_name\": \"PROCA\"",
          "\"length\": 10", "\"data\": \"from stdin\""})
        EXPECT_NE(r.out.find(key), std::string::npos) << key << "\n" << r.out;

    // Nothing left: the wait is honoured, and a failed receive leaves an
    // existing output file alone.
    WriteFile(root + "/keep.txt", "keep");
    auto t0 = std::chrono::steady_clock::now();
    r = Wmctl({"recv", "PROCB", "--wait", "1", "-o", root + "/keep.txt"});
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("M_TIMEOUT"), std::string::npos) << r.err;
    EXPECT_GE(secs, 0.9);
    EXPECT_EQ(ReadFile(root + "/keep.txt"), "keep");

    EXPECT_RUN(Wmctl({"delete", firstId, "--as", "PROCB"}), 0);
    r = Wmctl({"delete", firstId});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("Message ID 40000000 not found"), std::string::npos) << r.err;
    r = Wmctl({"delete", "1073741825", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"action\": \"delete\""), std::string::npos) << r.out;

    // recv registered PROCB only for its own life.
    r = Wmctl({"status", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"registry\": []"), std::string::npos) << r.out;
}

TEST_F(WmctlTest, ReceiveOrderRangeRetryAndPriority) {
    Holder h;
    ASSERT_TRUE(h.bOk);
    for (const char* type : {"ORDER", "REPORT", "ALERT"})
        EXPECT_RUN(Wmctl({"send", "PROCA", "PROCB", type, type}), 0);
    Outcome r = Wmctl({"send", "PROCA", "PROCB", "INVOICE", "urgent", "--high"});
    EXPECT_RUN(r, 0);
    const std::string highId = IdOf(r.out);
    EXPECT_EQ(highId, "0x00000003") << r.out; // found by the slot's ID

    // The range leaves the high-priority INVOICE and ORDER out.
    r = Wmctl({"recv", "PROCB", "--type-range", "REPORT:"});
    EXPECT_RUN(r, 0);
    EXPECT_EQ(r.out, "REPORT");
    r = Wmctl({"recv", "PROCB", "--type-range", ":1"});
    EXPECT_RUN(r, 0);
    EXPECT_EQ(r.out, "ORDER");
    r = Wmctl({"recv", "PROCB", "--type-range", "ALERT:ORDER"});
    EXPECT_RUN(r, 2);
    // Newest first would give ALERT; oldest first gives the high priority one.
    r = Wmctl({"recv", "PROCB", "--lifo"});
    EXPECT_RUN(r, 0);
    EXPECT_EQ(r.out, "ALERT");
    r = Wmctl({"recv", "PROCB"});
    EXPECT_RUN(r, 0);
    EXPECT_EQ(r.out, "urgent");
    EXPECT_EQ(IdOf(r.err), highId);

    // Retry: a plain receive no longer sees it; a retry receive gets it with
    // the flags.
    EXPECT_RUN(Wmctl({"retry", highId, "--flags", "7", "--as", "PROCB"}), 0);
    r = Wmctl({"recv", "PROCB", "--retry", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"user_flags\": 7"), std::string::npos) << r.out;
    r = Wmctl({"recv", "PROCB", "--retry"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("M_NONE"), std::string::npos) << r.err;
    r = Wmctl({"recv", "PROCB", "--wait", "0"});
    EXPECT_RUN(r, 1);

    // Reject: the file is named after the process and the type.
    EXPECT_TRUE(RejectFiles().empty());
    EXPECT_RUN(Wmctl({"reject", highId, "--as", "PROCB"}), 0);
    std::vector<std::string> files = RejectFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].rfind("PROCB.INVOICE.", 0), 0u) << files[0];
    EXPECT_EQ(ReadFile(rejectDir + "/" + files[0]).substr(0, 6), "urgent");
    r = Wmctl({"reject", highId, "--as", "PROCB"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("not found"), std::string::npos) << r.err;
}

TEST_F(WmctlTest, RegisterStaysUntilUnregistered) {
    // With no other process, the entry goes with the shared state: say so.
    Outcome r = Wmctl({"register", "PROCB", "ORDER"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.err.find("no other process is attached"), std::string::npos) << r.err;

    Holder h;
    ASSERT_TRUE(h.bOk);
    EXPECT_RUN(Wmctl({"register", "PROCB", "ORDER", "--lifo"}), 0);
    EXPECT_RUN(Wmctl({"register", "PROCB", "INVOICE"}), 0);
    r = Wmctl({"status", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"type_name\": \"ORDER\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"pid_alive\": false"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"lifo\": true"), std::string::npos) << r.out;
    r = Wmctl({"send", "PROCA", "PROCB", "ORDER", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"target_active\": true"), std::string::npos) << r.out;
    EXPECT_TRUE(r.err.empty()) << r.err;

    r = Wmctl({"unregister", "PROCB", "ORDER"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("removed 1 registration"), std::string::npos) << r.out;
    r = Wmctl({"unregister", "PROCB", "ORDER"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("M_NOTACT"), std::string::npos) << r.err;
    r = Wmctl({"unregister", "PROCB", "--pid", "1"});
    EXPECT_RUN(r, 1);
    r = Wmctl({"unregister", "PROCB", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"removed\": 1"), std::string::npos) << r.out;
    r = Wmctl({"status"});
    EXPECT_NE(r.out.find("Receivers (0 of 128 entries in use)"), std::string::npos) << r.out;
}

TEST_F(WmctlTest, CountAndDeleteBy) {
    Holder h;
    ASSERT_TRUE(h.bOk);
    for (int i = 0; i < 3; ++i)
        EXPECT_RUN(Wmctl({"send", "PROCA", "PROCB", "ORDER"}), 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_RUN(Wmctl({"send", "PROCB", "PROCC", "INVOICE"}), 0);
    EXPECT_RUN(Wmctl({"recv", "PROCC"}), 0);

    Outcome r = Wmctl({"count", "--by", "type", "order", "2"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("ORDER         3"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("INVOICE       2"), std::string::npos) << r.out;
    r = Wmctl({"count", "--by", "type-state", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"states\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"received\": 1"), std::string::npos) << r.out;
    r = Wmctl({"count", "--by", "sender", "PROCB"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("PROCB         2"), std::string::npos) << r.out;
    r = Wmctl({"count", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"pending\": 4"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"free\": 507"), std::string::npos) << r.out;

    r = Wmctl({"deleteby", "--target", "PROCC", "--type", "INVOICE"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("deleted 2 message(s)"), std::string::npos) << r.out;
    r = Wmctl({"deleteby", "--age", "1"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("deleted 0"), std::string::npos) << r.out;
    r = Wmctl({"deleteby", "--all", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"deleted\": 3"), std::string::npos) << r.out;
    r = Wmctl({"count"});
    EXPECT_NE(r.out.find("free           512"), std::string::npos) << r.out;
}

TEST_F(WmctlTest, StatusNeedsNoLockAndNamesADeadOwner) {
    Outcome r = Wmctl({"status"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("No Controls segment"), std::string::npos) << r.out;
    r = Wmctl({"status", "--json"});
    EXPECT_NE(r.out.find("\"controls\": null"), std::string::npos) << r.out;

    Holder h;
    ASSERT_TRUE(h.bOk);
    r = Wmctl({"status"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("Controls lock: free"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Control slots: 512"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("missing"), std::string::npos) << r.out;

    // A process dies holding the Controls lock.
    ASSERT_EQ(RunChild([] {
                  int id = shmget(CWorkMessages::cstWMctlSHMKey, 0, 0);
                  auto* ctl = static_cast<_SM_Controls_*>(shmat(id, nullptr, 0));
                  if (ctl == reinterpret_cast<void*>(-1)) return 1;
                  return pthread_mutex_lock(&ctl->MutexCtlrs) == 0 ? 0 : 2;
              }),
              0);
    auto t0 = std::chrono::steady_clock::now();
    r = Wmctl({"status", "--json"});
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 5.0);
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"lock_owner_alive\": false"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("\"lock_owner\": 0,"), std::string::npos) << r.out;
    r = Wmctl({"status"});
    EXPECT_NE(r.out.find("which no longer exists"), std::string::npos) << r.out;
    // Operations time out with the library's text.
    r = Wmctl({"send", "PROCA", "PROCB", "ORDER"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("M_LOCK"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("failed to acquire the Controls Lock"), std::string::npos) << r.err;
}

TEST_F(WmctlTest, IpcCleanRemovesOnlyUnattachedSegments) {
    Outcome r = Wmctl({"ipc-clean"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("no segment"), std::string::npos) << r.out;

    Holder h;
    ASSERT_TRUE(h.bOk);
    r = Wmctl({"ipc-clean"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.err.find("in use; nothing removed"), std::string::npos) << r.err;
    EXPECT_GE(SegmentId(CWorkMessages::cstWMctlSHMKey), 0);

    h.Kill(); // leaves all six segments behind, unattached
    EXPECT_GE(SegmentId(CWorkMessages::cstWMQueuesSHMKey), 0);
    r = Wmctl({"status"});
    EXPECT_NE(r.out.find("No process is attached"), std::string::npos) << r.out;
    r = Wmctl({"ipc-clean", "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("\"name\": \"Controls\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"kept\": []"), std::string::npos) << r.out;
    for (int key = 1048; key <= 1053; ++key)
        EXPECT_LT(SegmentId(key), 0) << key;
}

TEST_F(WmctlTest, DumpDecodesFilesAndReportsDamage) {
    WriteFile(wqcfFile, ControlFileBytes(512, 0x40000002,
                                         {Slot(WQCF_Pending, 0x40000000, 0, 5), _WQCF_(),
                                          Slot(WQCF_Received, 0x40000001, -1, 0)}));
    WriteFile(wddfFile, DataFileBytes({{0, "hello"}}));
    Outcome r = Wmctl({"dump", dbDir});
    EXPECT_RUN(r, 0);
    for (const char* s : {"header: 512 slots, next message ID 0x40000002",
                          "3 records stored, 2 in use", "slot 0: pending, ID 0x40000000",
                          "slot 2: received, ID 0x40000001", "1 data slots in use: 0"})
        EXPECT_NE(r.out.find(s), std::string::npos) << s << "\n" << r.out;
    EXPECT_EQ(r.out.find("problem"), std::string::npos) << r.out;
    r = Wmctl({"dump", dbDir, "--slot", "0"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("68 65 6c 6c 6f"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("|hello|"), std::string::npos) << r.out;
    r = Wmctl({"dump", dbDir, "--json"});
    EXPECT_RUN(r, 0);
    for (const char* key : {"\"control_file\"", "\"data_file\"", "\"slots\"", "\"ranges\"",
                            "\"entries_allocated\": 512"})
        EXPECT_NE(r.out.find(key), std::string::npos) << key;
    r = Wmctl({"dump", dbDir, "--slot", "9"}); // free, beyond the file, inside the table
    EXPECT_RUN(r, 0);
    EXPECT_RUN(Wmctl({"dump", dbDir, "--slot", "512"}), 1);

    // Damage: a record cut short, a data slot far outside the table, a data
    // file shorter than its table. Nothing is read past the files.
    _WQCF_ bad = Slot(WQCF_Pending, 0x40000005, 70000, 9000);
    std::string cf = ControlFileBytes(512, 0x40000006, {bad});
    WriteFile(wqcfFile, cf + cf.substr(64, 20));
    WriteFile(wddfFile, std::string(100, '\xff'));
    r = Wmctl({"dump", dbDir});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("ends inside the record of slot 1 (20 of 64 bytes)"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("shorter than its 8192-byte data slot table"), std::string::npos);
    r = Wmctl({"dump", dbDir, "--slot", "0"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("out of range"), std::string::npos) << r.out;
    WriteFile(wqcfFile, "short");
    r = Wmctl({"dump", dbDir, "--json"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("ends inside its header (5 of 64 bytes)"), std::string::npos) << r.out;

    unlink(wqcfFile.c_str());
    unlink(wddfFile.c_str());
    EXPECT_RUN(Wmctl({"dump", dbDir}), 1);
    EXPECT_RUN(Wmctl({"dump", root + "/nowhere"}), 1);
}

TEST_F(WmctlTest, FsckRepairsALeakedDataSlot) {
    // One pending message in data slot 0; data slot 5 is marked in use with
    // data that no message refers to.
    WriteFile(wqcfFile, ControlFileBytes(512, 0x40000001, {Slot(WQCF_Pending, 0x40000000, 0, 5)}));
    WriteFile(wddfFile, DataFileBytes({{0, "hello"}, {5, "leaked"}}));

    Outcome r = Wmctl({"fsck", dbDir});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.out.find("data slot 5 is marked in use but no message refers to it"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(r.out.find("data slot 0 is marked"), std::string::npos) << r.out;
    r = Wmctl({"fsck", dbDir, "--json"});
    EXPECT_RUN(r, 1);
    for (const char* key : {"\"kind\": \"leaked-data-slot\"", "\"found\": 1", "\"clean\": false"})
        EXPECT_NE(r.out.find(key), std::string::npos) << key << "\n" << r.out;

    // Refused while a process is attached; nothing changes.
    {
        Holder h;
        ASSERT_TRUE(h.bOk);
        const std::string dataBefore = ReadFile(wddfFile);
        r = Wmctl({"fsck", dbDir, "--repair"});
        EXPECT_RUN(r, 1);
        EXPECT_NE(r.err.find("attached"), std::string::npos) << r.err;
        EXPECT_EQ(ReadFile(wddfFile), dataBefore);
    }

    const std::string controlBefore = ReadFile(wqcfFile);
    r = Wmctl({"fsck", dbDir, "--repair"});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("-- repaired"), std::string::npos) << r.out;
    const std::string data = ReadFile(wddfFile);
    EXPECT_TRUE(SatBit(data, 0));
    EXPECT_FALSE(SatBit(data, 5));
    EXPECT_EQ(data.substr(8192, 5), "hello");
    EXPECT_EQ(data.substr(8192 * 6, 8192), std::string(8192, '\0'));
    EXPECT_EQ(ReadFile(wqcfFile), controlBefore);
    r = Wmctl({"fsck", dbDir});
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("clean"), std::string::npos) << r.out;

    // The library still delivers the message with its data.
    r = Wmctl({"recv", "PROCB"});
    EXPECT_RUN(r, 0);
    EXPECT_EQ(r.out, "hello");
}

TEST_F(WmctlTest, FsckFindsImpossibleSlotsDuplicatesAndABadHeader) {
    _WQCF_ impossible = Slot(9, 0x40000001, 3, 4);
    _WQCF_ dirtyFree = _WQCF_();
    dirtyFree.nTimeRetry = 5;
    WriteFile(wqcfFile, ControlFileBytes(2, 0x40000000,
                                         {impossible, Slot(WQCF_Pending, 0x40000004, -1, 0),
                                          Slot(WQCF_Retry, 0x40000004, -1, 0),
                                          Slot(WQCF_Pending, 0x40000007, 7, 3), dirtyFree}));
    WriteFile(wddfFile, DataFileBytes({{3, "abcd"}}) + std::string(8192 * 5, 'z'));
    Outcome r = Wmctl({"fsck", dbDir, "--json"});
    EXPECT_RUN(r, 1);
    for (const char* kind :
         {"impossible-slot", "duplicate-id", "unmarked-data-slot", "leaked-data-slot",
          "dirty-free-slot", "slot-count", "message-counter"})
        EXPECT_NE(r.out.find(std::string("\"kind\": \"") + kind + "\""), std::string::npos)
            << kind << "\n"
            << r.out;

    // Everything but the duplicate IDs is repaired, so the exit stays 1.
    r = Wmctl({"fsck", dbDir, "--repair"});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.out.find("not repairable by fsck"), std::string::npos) << r.out;
    const std::string control = ReadFile(wqcfFile), data = ReadFile(wddfFile);
    _WQCF_CTL_ header;
    memcpy(&header, control.data(), sizeof(header));
    EXPECT_EQ(header.nEntriesAllocated, 512);
    EXPECT_EQ(header.nCurrentMsgID, 0x40000008);
    EXPECT_EQ(control.substr(64, 64), std::string(64, '\0'));     // impossible slot
    EXPECT_EQ(control.substr(64 * 5, 64), std::string(64, '\0')); // dirty free slot
    EXPECT_EQ(control[64 * 2], static_cast<char>(WQCF_Pending));  // kept
    EXPECT_FALSE(SatBit(data, 3));                                // its data leaked
    EXPECT_TRUE(SatBit(data, 7));                                 // referenced: marked
    r = Wmctl({"fsck", dbDir});
    EXPECT_RUN(r, 1);
    EXPECT_NE(r.out.find("1 problem(s)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("message ID 0x40000004 is held by control slots 1, 2"), std::string::npos)
        << r.out;
}

TEST_F(WmctlTest, DemoRunsInItsOwnRoot) {
    Outcome r = Wmctl({"demo"}, "", root);
    EXPECT_RUN(r, 0);
    EXPECT_NE(r.out.find("note: GDDA_CONFIG"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("private root " + root + "/demo-root"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("demo OK"), std::string::npos) << r.out;
    EXPECT_TRUE(FileExists(root + "/demo-root/Dev/data/msgq/WQCF.bdb"));
    // The test's own files were not touched.
    EXPECT_FALSE(FileExists(wqcfFile));
    r = Wmctl({"demo", root + "/other", "--json"});
    EXPECT_RUN(r, 0);
    for (const char* key :
         {"\"ok\": true", "\"order_errors\": 0", "\"segments_removed\": true", "\"reject_files\""})
        EXPECT_NE(r.out.find(key), std::string::npos) << key << "\n" << r.out;
}

} // namespace
