// `wmctl demo`: a first look at the library, with no configuration needed.
//
// It sets up a private root (configuration file, names file, process-UID
// file, database and reject directories), starts a receiver process and a
// sender process, and lets them exchange a few hundred messages of several
// types with data, some of them high priority. The receiver checks the order
// and the data of every message, deletes most, rejects one and hands one back
// for a retry, then receives it again. At the end it prints what happened and
// the shared segments are gone (the last object removes them).
//
// The demo never touches a real host's queues: it always works in its own
// root (./demo-root unless one is given), whatever GDDA_CONFIG or
// /etc/gdda.conf say, and in a private IPC namespace when it may create one;
// without one it refuses to run on a host whose queues are in use.
//
// Only the public API is used.
#include <dirent.h>
#include <sched.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <cmath>
#include <map>
#include <sstream>

#include "Wmctl.h"

namespace wmctl {

namespace {

const long kSender = 101;   // PRODUCER
const long kReceiver = 102; // CONSUMER
const char* const kTypes[] = {"ORDER", "INVOICE", "REPORT"};
const int kMessages = 300;
const int kHighEvery = 50; // every 50th message is high priority

struct Payload {
    uint32_t nSeq;
    uint32_t nLength; // bytes of text after the header
    uint32_t nSum;    // checksum of the text
    char szText[WM_MAX_DEPDATA - 12];
};

uint32_t Checksum(const char* p, size_t n) {
    uint32_t s = 2166136261u;
    for (size_t i = 0; i < n; ++i)
        s = (s ^ static_cast<unsigned char>(p[i])) * 16777619u;
    return s;
}

bool WriteText(const std::string& path, const std::string& text) {
    FILE* fp = fopen(path.c_str(), "w");
    if (!fp) return false;
    bool ok = fputs(text.c_str(), fp) >= 0;
    return fclose(fp) == 0 && ok;
}

bool MakeDirs(const std::string& path) {
    std::string cur;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        cur = path.substr(0, pos);
        if (mkdir(cur.c_str(), 0775) != 0 && errno != EEXIST) return false;
    }
    return true;
}

// Sets up the private root and points GDDA_CONFIG at it.
bool SetUpRoot(const std::string& root) {
    const std::string level = root + "/Dev";
    if (!MakeDirs(level + "/control/appconf") || !MakeDirs(level + "/data/msgq") ||
        !MakeDirs(level + "/data/rmsgq"))
        return false;
    // Start from empty queues and no reject files on every run.
    unlink((level + "/data/msgq/WQCF.bdb").c_str());
    unlink((level + "/data/msgq/WDDF.bdb").c_str());
    if (DIR* d = opendir((level + "/data/rmsgq").c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') unlink((level + "/data/rmsgq/" + e->d_name).c_str());
        closedir(d);
    }
    if (!WriteText(root + "/gdda.conf", "[Global]\nLevel=Dev\nRoot=" + root +
                                            "\n[Dev]\nWM_Timeout_Secs=5\nWM_Trace=false\n") ||
        !WriteText(level + "/control/appconf/WorkMsg.ini",
                   "# Message types of the demo\n"
                   "NAME=ORDER,ID=1,DESC=A customer order\n"
                   "NAME=INVOICE,ID=2,DESC=An invoice to print\n"
                   "NAME=REPORT,ID=3,DESC=A report to file\n") ||
        !WriteText(level + "/control/appconf/ProcessUID.ini",
                   "# Processes of the demo\n"
                   "NAME=PRODUCER,ID=101,MSGID=Y,DESC=Sends the work\n"
                   "NAME=CONSUMER,ID=102,MSGID=Y,DESC=Does the work\n"))
        return false;
    return setenv("GDDA_CONFIG", (root + "/gdda.conf").c_str(), 1) == 0;
}

int Fail(const char* who, const char* what, long rc, const CWorkMessages& wm) {
    fprintf(stderr, "%s: %s failed (rc=%ld): %s\n", who, what, rc, wm.szErrorMsg);
    return 1;
}

int RunSender(int readyFd) {
    char c;
    if (read(readyFd, &c, 1) != 1) return 1; // the receiver has registered
    CWorkMessages wm;
    if (wm.nLastError != 0) return Fail("sender", "construction", wm.nLastError, wm);
    static Payload pl;
    for (int i = 0; i < kMessages; ++i) {
        pl.nSeq = static_cast<uint32_t>(i);
        pl.nLength = static_cast<uint32_t>((i * 97) % (sizeof(pl.szText) - 1));
        for (uint32_t k = 0; k < pl.nLength; ++k)
            pl.szText[k] = static_cast<char>('a' + (i + k) % 26);
        pl.nSum = Checksum(pl.szText, pl.nLength);
        WorkMsg msg;
        memset(&msg, 0, sizeof(msg));
        msg.nTargetUID = kReceiver;
        msg.pDepData = &pl;
        msg.nDepDataLength = static_cast<long>(12 + pl.nLength);
        const bool bHigh = i % kHighEvery == kHighEvery - 1;
        long rc = wm.Send(kSender, kTypes[i % 3], &msg, bHigh);
        if (rc != M_OK) return Fail("sender", "Send", rc, wm);
    }
    return 0;
}

struct Tally {
    std::map<std::string, std::map<std::string, int>> byType; // type -> outcome -> count
    int nOrderErrors = 0;
    int nDataErrors = 0;
};

int RunReceiver(int readyFd, int resultFd) {
    CWorkMessages wm;
    if (wm.nLastError != 0) return Fail("receiver", "construction", wm.nLastError, wm);
    for (const char* type : kTypes) {
        long rc = wm.SetInput(kReceiver, type, nullptr, false);
        if (rc != M_OK) return Fail("receiver", "SetInput", rc, wm);
    }
    if (write(readyFd, "r", 1) != 1) return 1;

    Tally t;
    static Payload pl;
    long nLastNormal = -1, nLastHigh = -1;
    long nRetryId = 0;
    int nReceived = 0;
    while (nReceived < kMessages) {
        WorkMsg msg;
        memset(&msg, 0, sizeof(msg));
        msg.pDepData = &pl;
        msg.nDepDataLength = sizeof(pl);
        long rc = wm.Receive(kReceiver, 5, &msg, false, nullptr);
        if (rc != M_OK) return Fail("receiver", "Receive", rc, wm);
        ++nReceived;
        const char* pName = wm.Translate(msg.nMsgNo, nullptr);
        std::string type = IsCodePointer(pName) ? "?" : pName;
        const bool bHigh = pl.nSeq % kHighEvery == kHighEvery - 1;
        long& last = bHigh ? nLastHigh : nLastNormal;
        if (static_cast<long>(pl.nSeq) <= last) ++t.nOrderErrors;
        last = pl.nSeq;
        if (pl.nLength > sizeof(pl.szText) || Checksum(pl.szText, pl.nLength) != pl.nSum)
            ++t.nDataErrors;

        if (pl.nSeq == 123) {
            rc = wm.Reject(kReceiver, msg.nMessageID);
            if (rc != M_OK) return Fail("receiver", "Reject", rc, wm);
            t.byType[type]["rejected"]++;
        } else if (pl.nSeq == 200) {
            rc = wm.Retry(kReceiver, msg.nMessageID, false, 7);
            if (rc != M_OK) return Fail("receiver", "Retry", rc, wm);
            nRetryId = msg.nMessageID;
            t.byType[type]["retried"]++;
        } else {
            rc = wm.Delete(kReceiver, msg.nMessageID);
            if (rc != M_OK) return Fail("receiver", "Delete", rc, wm);
            t.byType[type]["deleted"]++;
        }
    }

    // The message handed back comes again through a retry receive.
    WorkMsg msg;
    memset(&msg, 0, sizeof(msg));
    msg.pDepData = &pl;
    msg.nDepDataLength = sizeof(pl);
    long rc = wm.Receive(kReceiver, 1, &msg, true, nullptr);
    if (rc != M_OK || msg.nMessageID != nRetryId || msg.nUserFlags != 7)
        return Fail("receiver", "retry Receive", rc, wm);
    rc = wm.Delete(kReceiver, msg.nMessageID);
    if (rc != M_OK) return Fail("receiver", "Delete after retry", rc, wm);

    // Report to the parent: one line per type and outcome, then the checks.
    std::string report;
    for (auto& [type, outcomes] : t.byType)
        for (auto& [outcome, n] : outcomes)
            report += type + " " + outcome + " " + std::to_string(n) + "\n";
    report += "order-errors " + std::to_string(t.nOrderErrors) + "\n";
    report += "data-errors " + std::to_string(t.nDataErrors) + "\n";
    if (write(resultFd, report.data(), report.size()) != static_cast<ssize_t>(report.size()))
        return 1;
    wm.UnsetInput(kReceiver, "ALLQ", 0);
    return t.nOrderErrors == 0 && t.nDataErrors == 0 ? 0 : 2;
}

int WaitFor(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What one run did, for the text and the JSON report.
struct DemoResult {
    std::string strLibrary;
    std::string strReport; // the receiver's lines
    std::vector<std::string> rejectFiles;
    long nPending = 0, nReceived = 0, nRetry = 0;
    double dSeconds = 0;
    int rcSender = 0, rcReceiver = 0;
};

int RunDemo(const std::string& root, DemoResult* r) {
    // The parent holds one object for the whole run, so the shared state
    // lives from here to the end and goes with this object.
    CWorkMessages wm;
    if (wm.nLastError != 0) return Fail("demo", "construction", wm.nLastError, wm);
    r->strLibrary = wm.strVersion;

    int ready[2], result[2];
    if (pipe(ready) != 0) return Failure("demo", kExitFailed, strerror(errno));
    if (pipe(result) != 0) {
        close(ready[0]);
        close(ready[1]);
        return Failure("demo", kExitFailed, strerror(errno));
    }
    auto t0 = std::chrono::steady_clock::now();
    fflush(stdout);
    pid_t receiver = fork();
    if (receiver == 0) _exit(RunReceiver(ready[1], result[1]));
    pid_t sender = fork();
    if (sender == 0) _exit(RunSender(ready[0]));
    close(ready[0]);
    close(ready[1]);
    close(result[1]);
    r->rcSender = WaitFor(sender);
    r->rcReceiver = WaitFor(receiver);
    r->dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    char buf[4096];
    ssize_t n;
    while ((n = read(result[0], buf, sizeof(buf))) > 0)
        r->strReport.append(buf, static_cast<size_t>(n));
    close(result[0]);

    std::string rejectDir = root + "/Dev/data/rmsgq";
    if (DIR* d = opendir(rejectDir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') r->rejectFiles.push_back(rejectDir + "/" + e->d_name);
        closedir(d);
    }
    __GET_COUNTERS__ENTRY2 states;
    memset(&states, 0, sizeof(states));
    wm.GetCounters(&states);
    r->nPending = states.Counter[1];
    r->nReceived = states.Counter[2];
    r->nRetry = states.Counter[3] + states.Counter[4];
    return r->rcSender == 0 && r->rcReceiver == 0 ? kExitOk : kExitFailed;
}

} // namespace

int CmdDemo(const DemoOpts& o) {
    // The segment keys are fixed for the host: run in a private IPC namespace
    // when allowed, and never join the segments of a host that uses them.
    if (unshare(CLONE_NEWIPC) != 0 && shmget(CWorkMessages::cstWMctlSHMKey, 0, 0) >= 0)
        return Failure("demo", kExitFailed,
                       "this host already runs work messages; run the demo as root so that it "
                       "gets a private IPC namespace");
    std::string root = o.strRoot;
    if (root.empty()) {
        char cwd[4096];
        if (!getcwd(cwd, sizeof(cwd)))
            return Failure("demo", kExitFailed,
                           std::string("cannot tell the current directory: ") + strerror(errno));
        root = std::string(cwd) + "/demo-root";
    }
    // A host configuration is never used: say so, so nobody looks for the
    // demo's messages in the host's queues.
    std::string strNote;
    const char* szEnv = getenv("GDDA_CONFIG");
    if (szEnv != nullptr && *szEnv != '\0')
        strNote = std::string("GDDA_CONFIG (") + szEnv + ") is not used";
    else if (access("/etc/gdda.conf", F_OK) == 0)
        strNote = "the host's /etc/gdda.conf is not used";
    if (!strNote.empty()) strNote += ": the demo works in its own private root " + root;
    if (!SetUpRoot(root))
        return Failure("demo", kExitFailed, "cannot set up " + root + ": " + strerror(errno));
    if (!o.bJson) {
        if (!strNote.empty()) printf("note: %s\n", strNote.c_str());
        printf("WorkMsg demo: private root %s\n", root.c_str());
    }

    DemoResult r;
    int rc = RunDemo(root, &r);
    const bool bGone = shmget(CWorkMessages::cstWMctlSHMKey, 0, 0) < 0;
    if (rc == kExitOk && !bGone) rc = kExitFailed;

    if (o.bJson) {
        Json outcomes = Json::object(); // type -> outcome -> count, in the report's order
        std::istringstream in(r.strReport);
        std::string strType, strOutcome;
        long nOrderErrors = -1, nDataErrors = -1;
        while (in >> strType) {
            if (strType == "order-errors") {
                in >> nOrderErrors;
            } else if (strType == "data-errors") {
                in >> nDataErrors;
            } else {
                long nCount = 0;
                in >> strOutcome >> nCount;
                outcomes[strType][strOutcome] = nCount;
            }
        }
        Json out = {{"root", root}};
        if (!strNote.empty()) out["note"] = strNote;
        out["library"] = r.strLibrary;
        out["messages"] = kMessages;
        out["outcomes"] = std::move(outcomes);
        out["order_errors"] = nOrderErrors;
        out["data_errors"] = nDataErrors;
        out["reject_files"] = r.rejectFiles;
        out["left"] = {{"pending", r.nPending}, {"received", r.nReceived}, {"retry", r.nRetry}};
        out["seconds"] = std::round(r.dSeconds * 1e6) / 1e6; // to the microsecond
        out["segments_removed"] = bGone;
        out["ok"] = rc == kExitOk;
        PrintJson(out);
        return rc;
    }

    if (!r.strLibrary.empty()) {
        printf("library: %s\n", r.strLibrary.c_str());
        printf("%d messages of %zu types sent by PRODUCER, received by CONSUMER:\n", kMessages,
               sizeof(kTypes) / sizeof(kTypes[0]));
        printf("%s", r.strReport.c_str());
        for (const std::string& f : r.rejectFiles)
            printf("reject file: %s\n", f.c_str());
        printf("left in the queue: %ld pending, %ld received, %ld for retry\n", r.nPending,
               r.nReceived, r.nRetry);
        printf("time: %.3f s, %.1f us per message (send, receive and delete, two processes)\n",
               r.dSeconds, r.dSeconds * 1e6 / kMessages);
        printf("shared segments %s\n", bGone ? "removed by the last object" : "STILL PRESENT");
    }
    if (r.rcSender != 0 || r.rcReceiver != 0)
        fprintf(stderr, "demo FAILED (sender %d, receiver %d)\n", r.rcSender, r.rcReceiver);
    if (rc == kExitOk) printf("demo OK\n");
    return rc;
}

} // namespace wmctl
