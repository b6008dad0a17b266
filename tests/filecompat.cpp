// wm_filecompat: proves that the control file and the data file written by one
// build (32-bit or 64-bit) load unchanged in the other.
//
//   wm_filecompat write <root>   queue a known set of messages, then go
//   wm_filecompat read <root>    reload without cleaning and check every one
//
// Each run moves into its own IPC namespace, so the reader always rebuilds
// the tables from the files.
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "WorkMessages.h"

namespace {

const int kCount = 40;
const long kFrom = 101, kTo = 102;

std::string Pattern(int i) {
    std::string s(static_cast<size_t>((i * 211) % (WM_MAX_DEPDATA + 1)), '\0');
    for (size_t k = 0; k < s.size(); ++k)
        s[k] = static_cast<char>((i * 31 + k * 7) & 0xFF);
    return s;
}

bool Write(const std::string& path, const std::string& text) {
    FILE* fp = fopen(path.c_str(), "w");
    if (!fp) return false;
    fputs(text.c_str(), fp);
    return fclose(fp) == 0;
}

void SetUp(const std::string& root) {
    for (const char* d : {"/Dev", "/Dev/control", "/Dev/control/appconf", "/Dev/data",
                          "/Dev/data/msgq", "/Dev/data/rmsgq"})
        mkdir((root + d).c_str(), 0775);
    Write(root + "/gdda.conf",
          "[Global]\nLevel=Dev\nRoot=" + root + "\n[Dev]\nWM_Timeout_Secs=2\n");
    Write(root + "/Dev/control/appconf/WorkMsg.ini",
          "NAME=ORDER,ID=1,DESC=Order\nNAME=INVOICE,ID=2,DESC=Invoice\n");
    Write(root + "/Dev/control/appconf/ProcessUID.ini",
          "NAME=PROCA,ID=101,MSGID=Y,DESC=A\nNAME=PROCB,ID=102,MSGID=N,DESC=B\n");
    setenv("GDDA_CONFIG", (root + "/gdda.conf").c_str(), 1);
}

int Fail(const char* what, long rc, const CWorkMessages& wm) {
    fprintf(stderr, "wm_filecompat: %s failed (rc=%ld): %s\n", what, rc, wm.szErrorMsg);
    return 1;
}

// Messages 0..kCount-1 are sent (every 10th high priority); the first three
// delivered are left Received, the next one is handed back for retry.
int DoWrite() {
    CWorkMessages wm;
    if (wm.nLastError != 0) return Fail("construction", wm.nLastError, wm);
    for (const char* type : {"ORDER", "INVOICE"})
        if (long rc = wm.SetInput(kTo, type, nullptr, false)) return Fail("SetInput", rc, wm);
    for (int i = 0; i < kCount; ++i) {
        std::string data = Pattern(i);
        WorkMsg m{};
        m.nTargetUID = kTo;
        m.nDepDataLength = static_cast<long>(data.size());
        m.pDepData = data.empty() ? nullptr : &data[0];
        long rc = wm.Send(kFrom, i % 2 ? "INVOICE" : "ORDER", &m, i % 10 == 9);
        if (rc != M_OK) return Fail("Send", rc, wm);
    }
    static char buf[WM_MAX_DEPDATA];
    for (int i = 0; i < 4; ++i) {
        WorkMsg m{};
        m.pDepData = buf;
        m.nDepDataLength = sizeof(buf);
        if (long rc = wm.Receive(kTo, 1, &m, false, nullptr)) return Fail("Receive", rc, wm);
        if (i == 3)
            if (long rc = wm.Retry(kTo, m.nMessageID, false, 5)) return Fail("Retry", rc, wm);
    }
    return 0;
}

int DoRead() {
    CWorkMessages wm(true); // load every slot as stored
    if (wm.nLastError != 0) return Fail("construction", wm.nLastError, wm);
    __GET_COUNTERS__ENTRY2 st;
    wm.GetCounters(&st);
    if (st.Counter[1] != kCount - 4 || st.Counter[2] != 3 || st.Counter[3] != 1) {
        fprintf(stderr, "wm_filecompat: states %ld pending %ld received %ld retry\n", st.Counter[1],
                st.Counter[2], st.Counter[3]);
        return 1;
    }
    if (long rc = wm.SetInput(kTo, "ORDER", nullptr, false)) return Fail("SetInput", rc, wm);
    // Oldest first: the high-priority messages (9, 19, 29, 39; 9 was among
    // the first delivered) first, then the rest in send order.
    static char buf[WM_MAX_DEPDATA];
    int nSeen = 0;
    for (;;) {
        WorkMsg m{};
        m.pDepData = buf;
        m.nDepDataLength = sizeof(buf);
        long rc = wm.Receive(kTo, 1, &m, false, nullptr);
        if (rc == M_TIMEOUT) break;
        if (rc != M_OK) return Fail("Receive", rc, wm);
        // Which message is it? Its data says.
        int found = -1;
        for (int i = 0; i < kCount && found < 0; ++i) {
            std::string p = Pattern(i);
            if (static_cast<long>(m.nMsgNo) == (i % 2 ? 2 : 1) &&
                memcmp(buf, p.data(), p.size()) == 0 &&
                (p.size() == sizeof(buf) || buf[p.size()] == 0))
                found = i;
        }
        if (found < 0 || m.nSenderUID != kFrom) {
            fprintf(stderr, "wm_filecompat: message %lX has unexpected data\n", m.nMessageID);
            return 1;
        }
        ++nSeen;
        wm.Delete(kTo, m.nMessageID);
    }
    if (nSeen != kCount - 4) {
        fprintf(stderr, "wm_filecompat: %d pending messages came back, expected %d\n", nSeen,
                kCount - 4);
        return 1;
    }
    WorkMsg m{};
    m.pDepData = buf;
    m.nDepDataLength = sizeof(buf);
    if (long rc = wm.Receive(kTo, 1, &m, true, nullptr)) return Fail("retry Receive", rc, wm);
    if (m.nUserFlags != 5) return Fail("retry flags", m.nUserFlags, wm);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3 || (strcmp(argv[1], "write") != 0 && strcmp(argv[1], "read") != 0)) {
        fprintf(stderr, "usage: wm_filecompat write|read <root>\n");
        return 2;
    }
    if (unshare(CLONE_NEWIPC) != 0) {
        fprintf(stderr, "wm_filecompat: unshare(CLONE_NEWIPC): %s\n", strerror(errno));
        return 1;
    }
    SetUp(argv[2]);
    int rc = strcmp(argv[1], "write") == 0 ? DoWrite() : DoRead();
    printf("wm_filecompat %s (%u-bit): %s\n", argv[1], static_cast<unsigned>(sizeof(void*) * 8),
           rc == 0 ? "ok" : "FAILED");
    return rc;
}
