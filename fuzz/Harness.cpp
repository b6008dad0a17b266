#include "Harness.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <strings.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "TestAccess.h"
#include "WorkMessages.h"

namespace wmfuzz {

namespace {

const char kNames[] = "NAME=ORDER,ID=1,DESC=Order\nNAME=INVOICE,ID=2,DESC=Invoice\n";
const char kUIDs[] = "NAME=PROCA,ID=101,MSGID=Y,DESC=A\nNAME=PROCB,ID=102,MSGID=N,DESC=B\n";
const long kBlock = WM_MAX_DEPDATA;
// A control file announcing more slots than this loads into a table of that
// size: valid, and the same code as a small one, only slower. Such inputs
// are skipped so that the time goes to inputs that differ. Counts the loader
// refuses (above 2^21, or negative) still run.
const int32_t kSlowSlots = 65536;
const int32_t kMaxSlots = WM_MAX_SLOTS;

std::string strRoot, strAppconf, strDb, strReject;

void Check(bool bOk, const char* szWhat, const char* szDetail = "") {
    if (bOk) return;
    fprintf(stderr, "wmfuzz: %s %s\n", szWhat, szDetail);
    abort();
}

bool WriteAll(const std::string& path, const void* p, size_t n) {
    FILE* fp = fopen(path.c_str(), "wb");
    if (fp == nullptr) return false;
    const bool bWritten = n == 0 || fwrite(p, 1, n, fp) == n;
    return fclose(fp) == 0 && bWritten;
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

// Files in the reject directory; with bClear, removes them.
int RejectFiles(bool bClear) {
    int n = 0;
    if (DIR* d = opendir(strReject.c_str())) {
        while (dirent* e = readdir(d)) {
            if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
            ++n;
            if (bClear) unlink((strReject + "/" + e->d_name).c_str());
        }
        closedir(d);
    }
    return n;
}

// The lowest free descriptor: the same before and after a run, or a file was
// left open.
int LowestFreeFd() {
    const int fd = dup(0);
    if (fd >= 0) close(fd);
    return fd;
}

bool NoSegments() {
    for (int key = 1048; key <= 1053; ++key)
        if (shmget(key, 0, 0666) >= 0 || errno != ENOENT) return false;
    return true;
}

// A control file with a message in each state, and a data file holding
// their data, each the other's partner in the two file targets.
std::string BaseControlFile() {
    _WQCF_CTL_ head = {};
    head.nEntriesAllocated = 512;
    head.nCurrentMsgID = 0x40000010;
    std::string out(reinterpret_cast<const char*>(&head), sizeof(head));
    const struct {
        int nState;
        int32_t nID, nTarget, nLength, nDataSlot;
    } recs[] = {{WQCF_Pending, 0x40000001, 102, 100, 0},
                {WQCF_Retry, 0x40000002, 102, kBlock, 1},
                {WQCF_Received, 0x40000003, 101, 50, 5},
                {WQCF_Pending, 0x00000004, 101, 0, -1},
                {WQCF_Delayed_Retry, 0x40000005, 102, 10, 2}};
    for (const auto& r : recs) {
        _WQCF_ s = {};
        s.nflag = static_cast<ByteInt>(r.nState);
        s.nMessageID = r.nID;
        s.nTargetUID = r.nTarget;
        s.nSenderUID = 101;
        s.nMsgNo = 1;
        s.nDepDataLength = r.nLength;
        s.nDepDataSlot = r.nDataSlot;
        if (r.nID < 0x01000000) s.xMsgMask = 0x40;
        out.append(reinterpret_cast<const char*>(&s), sizeof(s));
    }
    return out;
}

std::string BaseDataFile() {
    std::string out(kBlock * 7, '\0');
    out[0] = static_cast<char>(0xE4); // slots 0, 1, 2 and 5
    for (int n : {0, 1, 2, 5})
        memset(&out[kBlock * (n + 1)], 'a' + n, n == 1 ? kBlock : 10);
    return out;
}

// Sends a message with data to an empty queue, receives it and checks it came
// back whole, then deletes it. A full data store is an answer too.
void RoundTrip(CWorkMessages& wm) {
    std::vector<char> out(kBlock), in(kBlock);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<char>(i * 7 + 1);
    WorkMsg m = {};
    m.nTargetUID = 103;
    m.pDepData = out.data();
    m.nDepDataLength = kBlock;
    Check(wm.SetInput(103, "ORDER", nullptr, false) == M_OK, "SetInput", wm.szErrorMsg);
    const long rc = wm.Send(101, "ORDER", &m, false);
    if (rc == M_DDFULL) return;
    Check(rc == M_OK, "Send", wm.szErrorMsg);
    WorkMsg r = {};
    r.pDepData = in.data();
    r.nDepDataLength = kBlock;
    Check(wm.Receive(103, 1, &r, false, nullptr) == M_OK, "Receive", wm.szErrorMsg);
    Check(r.nMessageID == m.nMessageID && in == out, "the data sent is not the data received");
    Check(wm.Delete(103, r.nMessageID) == M_OK, "Delete", wm.szErrorMsg);
}

// Names and processes: every name finds its first row's number; a negative
// one is refused, with a text, by the operations that would use it; and a
// reject file named after the rows lands in the reject directory.
void UseDirectory(CWorkMessages& wm, Target t) {
    CWorkMessagesTestAccess acc(wm);
    const _SM_Controls_& ctl = *acc.Controls();
    const bool bNames = t == Target::Names;
    const long nRows = bNames ? ctl.nQNameCount : ctl.nUIDsCount;
    auto row = [&](long i, long* nNumber) {
        *nNumber = bNames ? acc.Names()[i].nID : acc.UIDs()[i].nUID;
        return bNames ? acc.Names()[i].szName : acc.UIDs()[i].szName;
    };
    for (long i = 0; i < nRows && i < 4; ++i) {
        char szName[10] = "";
        long nExpected = 0;
        memcpy(szName, row(i, &nExpected), 9);
        for (long k = 0; k < i; ++k) {
            long nFirst = 0;
            if (strncasecmp(row(k, &nFirst), szName, 9) == 0) {
                nExpected = nFirst;
                break;
            }
        }
        const long nNumber = bNames ? wm.Translate(szName) : wm.GetUID(szName, nullptr);
        Check(nNumber == nExpected, "a loaded name finds another number", szName);
        WorkMsg m = {};
        m.nTargetUID = 102;
        if (nExpected < 0) {
            // A negative number reads as a code: the operations refuse it.
            wm.szErrorMsg[0] = '\0';
            long nCount = 0;
            const long rc = bNames ? wm.Send(101, szName, &m, false)
                                   : wm.DeleteBy(-1, szName, nullptr, nullptr, &nCount);
            Check(rc == M_NAME && wm.szErrorMsg[0] != '\0', "a negative number is used", szName);
            continue;
        }
        const long rc = wm.Send(101, bNames ? szName : "ORDER", &m, false);
        Check(rc == M_OK || rc == M_NOTACT, "Send", wm.szErrorMsg);
        // A normal message: its slot holds the full ID.
        Check(wm.Reject(bNames ? 101 : nNumber, m.nMessageID) == M_OK, "Reject", wm.szErrorMsg);
        Check(RejectFiles(true) == 1, "the reject file is not in the reject directory", szName);
    }
}

// A loaded control table holds only messages that the operations can tell
// apart and deliver: IDs from 1 to 0x7FFFFFFE, no ID and no data slot twice;
// the slot table is the data file's, with every message's data slot in use.
void CheckLoaded(CWorkMessages& wm, const std::string& strDataFile) {
    CWorkMessagesTestAccess acc(wm);
    Check(acc.GetPointers() == M_OK, "GetPointers", wm.szErrorMsg);
    std::string expected = strDataFile.substr(0, kBlock);
    expected.resize(kBlock, '\0');
    std::set<int32_t> ids, data;
    for (long i = 0; i < acc.Controls()->nQSlotCount; ++i) {
        const _WQCF_& s = acc.Queues()[i];
        if (s.nflag == WQCF_Available) continue;
        Check(s.nMessageID >= 1 && s.nMessageID <= 0x7FFFFFFE, "a message ID no receive selects");
        Check(ids.insert(s.nMessageID).second, "two messages with one ID");
        if (s.nDepDataSlot == -1) continue;
        Check(data.insert(s.nDepDataSlot).second, "two messages with one data slot");
        expected[s.nDepDataSlot / 8] |= static_cast<char>(0x80 >> (s.nDepDataSlot % 8));
    }
    Check(expected == std::string(reinterpret_cast<const char*>(acc.SAT()), kBlock),
          "the slot table is not the data file's with the messages' data slots");
    acc.Return(M_OK);
}

// A loaded control table: every message can be counted, received, put back
// and deleted, and a new message comes back whole.
void UseQueues(CWorkMessages& wm) {
    __GET_COUNTERS__ENTRY2 states;
    Check(wm.GetCounters(&states) == M_OK, "GetCounters", wm.szErrorMsg);
    struct Held {
        int nState;
        int32_t nTarget;
    };
    std::vector<Held> held;
    {
        CWorkMessagesTestAccess acc(wm);
        Check(acc.GetPointers() == M_OK, "GetPointers", wm.szErrorMsg);
        const long nSlots = acc.Controls()->nQSlotCount;
        long nTotal = 0;
        for (long n : states.Counter)
            nTotal += n;
        Check(nTotal == nSlots, "the counts by state do not add up to the slot count");
        for (long i = 0; i < nSlots && held.size() < 16; ++i) {
            const _WQCF_& s = acc.Queues()[i];
            if (s.nflag != WQCF_Available) held.push_back({s.nflag, s.nTargetUID});
        }
        acc.Return(M_OK);
    }
    std::vector<char> buf(kBlock);
    for (const Held& h : held) {
        if (h.nTarget == 0) continue;
        Check(wm.SetInput(h.nTarget, "ORDER", nullptr, false) == M_OK, "SetInput", wm.szErrorMsg);
        if (h.nState == WQCF_Received) continue; // nothing for a receive to select

        WorkMsg r = {};
        r.pDepData = buf.data();
        r.nDepDataLength = kBlock;
        const long rc = wm.Receive(h.nTarget, 1, &r, h.nState != WQCF_Pending, nullptr);
        Check(rc == M_OK, "Receive", wm.szErrorMsg);
        Check(wm.Retry(h.nTarget, r.nMessageID, true, 1) == M_OK, "Retry", wm.szErrorMsg);
    }
    long nDeleted = 0;
    Check(wm.DeleteBy(-1, -1L, -1L, -1L, &nDeleted) == M_OK, "DeleteBy", wm.szErrorMsg);
    Check(wm.GetCounters(&states) == M_OK &&
              states.Counter[1] + states.Counter[2] + states.Counter[3] + states.Counter[4] == 0,
          "messages left after deleting all");
    RoundTrip(wm);
}

} // namespace

std::string ReadAll(const std::string& path) {
    std::string out;
    if (FILE* fp = fopen(path.c_str(), "rb")) {
        char buf[65536];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), fp)) > 0)
            out.append(buf, n);
        fclose(fp);
    }
    return out;
}

const char* TargetName(Target t) {
    switch (t) {
    case Target::Names:
        return "names";
    case Target::UIDs:
        return "uids";
    case Target::ControlFile:
        return "wqcf";
    case Target::DataFile:
        return "wddf";
    }
    return "";
}

bool TargetByName(const char* szName, Target* t) {
    for (Target c : {Target::Names, Target::UIDs, Target::ControlFile, Target::DataFile}) {
        if (strcmp(szName, TargetName(c)) == 0) {
            *t = c;
            return true;
        }
    }
    return false;
}

bool Init() {
    if (unshare(CLONE_NEWIPC) != 0) {
        fprintf(stderr,
                "wmfuzz: unshare(CLONE_NEWIPC) failed: %s; the harness needs its own "
                "IPC namespace (run as root)\n",
                strerror(errno));
        return false;
    }
    const char* tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/wmfuzz.XXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr) {
        fprintf(stderr, "wmfuzz: mkdtemp: %s\n", strerror(errno));
        return false;
    }
    strRoot = tmpl;
    strAppconf = strRoot + "/Dev/control/appconf";
    strDb = strRoot + "/Dev/data/msgq";
    strReject = strRoot + "/Dev/data/rmsgq";
    for (const std::string& d : {strRoot + "/Dev", strRoot + "/Dev/control", strAppconf,
                                 strRoot + "/Dev/data", strDb, strReject})
        mkdir(d.c_str(), 0775);
    const std::string conf = "[Global]\nLevel=Dev\nRoot=" + strRoot +
                             "\n[Dev]\nWM_Timeout_Secs=1\nWM_DBPath=" + strDb + "\n";
    const std::string confPath = strRoot + "/gdda.conf";
    if (!WriteAll(confPath, conf.data(), conf.size())) {
        fprintf(stderr, "wmfuzz: cannot write %s\n", confPath.c_str());
        return false;
    }
    setenv("GDDA_CONFIG", confPath.c_str(), 1);
    atexit([] { nftw(strRoot.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); });
    return true;
}

void RunOne(Target t, const uint8_t* data, size_t size) {
    static const std::string base[] = {BaseControlFile(), BaseDataFile()};
    const std::string names = strAppconf + "/WorkMsg.ini", uids = strAppconf + "/ProcessUID.ini";
    const std::string wqcf = strDb + "/WQCF.bdb", wddf = strDb + "/WDDF.bdb";
    const std::string input(reinterpret_cast<const char*>(data), size);
    int32_t nStored = 0;
    if (t == Target::ControlFile && size >= sizeof(nStored)) {
        memcpy(&nStored, data, sizeof(nStored));
        if (nStored > kSlowSlots && nStored <= kMaxSlots) return;
    }

    bool bFiles =
        WriteAll(names, t == Target::Names ? data : reinterpret_cast<const uint8_t*>(kNames),
                 t == Target::Names ? size : strlen(kNames)) &&
        WriteAll(uids, t == Target::UIDs ? data : reinterpret_cast<const uint8_t*>(kUIDs),
                 t == Target::UIDs ? size : strlen(kUIDs));
    unlink(wqcf.c_str());
    unlink(wddf.c_str());
    if (t == Target::ControlFile || t == Target::DataFile) {
        const std::string& c = t == Target::ControlFile ? input : base[0];
        const std::string& d = t == Target::DataFile ? input : base[1];
        bFiles = bFiles && WriteAll(wqcf, c.data(), c.size()) && WriteAll(wddf, d.data(), d.size());
    }
    Check(bFiles, "cannot write the input files");
    RejectFiles(true);
    const std::string wqcfBefore = ReadAll(wqcf), wddfBefore = ReadAll(wddf);
    const int nFd = LowestFreeFd();
    // The spare header byte of a control file chooses the load: without
    // cleaning, or with it (the default).
    const bool bNoClean = t == Target::ControlFile && size > 8 && (data[8] & 1) != 0;
    {
        CWorkMessages wm(bNoClean);
        if (wm.nLastError != 0) {
            Check(wm.nLastError < 0 && wm.szErrorMsg[0] != '\0', "a failure without code or text");
            // The file that failed stays as it was. (A damaged data file
            // fails after the control file was loaded, and rewritten.)
            const bool bData = t == Target::DataFile;
            Check(ReadAll(bData ? wddf : wqcf) == (bData ? wddfBefore : wqcfBefore),
                  "a failed load changed its file", wm.szErrorMsg);
        } else if (t == Target::Names || t == Target::UIDs) {
            UseDirectory(wm, t);
        } else {
            CheckLoaded(wm, wddfBefore);
            UseQueues(wm);
        }
    }
    Check(NoSegments(), "segments left after the last object");
    Check(LowestFreeFd() == nFd, "a file was left open");
}

} // namespace wmfuzz
