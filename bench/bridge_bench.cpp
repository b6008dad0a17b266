// The cross-host bridge against the local library: round-trip latency and
// throughput of 100-byte messages, through two bridges and one server on
// this machine, beside the same exchange between two processes of one host.
//
//   round trip  PROCA sends to a responder, which sends back at once; from
//               PROCA's Send to its Receive. Local: the responder is PROCC
//               on host A. Bridged: it is PROCB on host B.
//               "poll": the receivers look for a pending message every
//               0.2 ms (lock-free, through the read-only view wmctl uses),
//               so the figure is the path's own cost; "wait": they call
//               Receive with a wait, which looks every 250 ms, as an
//               application does.
//   throughput  PROCA sends a burst of messages; messages per second from
//               the first Send until all are queued for the target (PROCC on
//               host A, or PROCB on host B through the bridges).
//
// Run as root (namespaces): scripts/bench.sh bridge. Prints one table.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "BridgeLab.h"
#include "WorkMessages.h"
#include "Wmctl.h"

namespace {

const char* const kNames = "NAME=ORDER,ID=1,DESC=Order\n";
const char* const kUIDs = "NAME=PROCA,ID=101,MSGID=Y,DESC=A\n"
                          "NAME=PROCB,ID=102,MSGID=Y,DESC=B\n"
                          "NAME=PROCC,ID=103,MSGID=Y,DESC=C\n";
const long kProcA = 101, kProcB = 102, kProcC = 103;
const int kPollSamples = 200;
const int kWaitSamples = 12;
const int kBurst = 2000;

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Messages pending for nUID, seen through the read-only view (no lock).
int Queued(long nUID) {
    wmctl::LiveState st;
    if (!wmctl::ReadLiveState(&st, wmctl::kLiveQueues)) return 0;
    int n = 0;
    for (const _WQCF_& s : st.slots)
        n += s.nflag == WQCF_Pending && s.nTargetUID == nUID;
    return n;
}

// Takes the next message of nUID and deletes it; false after 60 s.
bool Take(CWorkMessages& wm, long nUID, bool bPoll) {
    static unsigned char buf[WM_MAX_DEPDATA];
    const double tEnd = Now() + 60;
    while (Now() < tEnd) {
        if (bPoll && Queued(nUID) == 0) {
            usleep(200);
            continue;
        }
        WorkMsg m{};
        m.pDepData = buf;
        m.nDepDataLength = sizeof(buf);
        if (wm.Receive(nUID, bPoll ? 1 : 5, &m, false, nullptr) == M_OK)
            return wm.Delete(nUID, m.nMessageID) == M_OK;
    }
    return false;
}

bool Put(CWorkMessages& wm, long nFrom, long nTo) {
    char data[100];
    memset(data, 'x', sizeof(data));
    WorkMsg m{};
    m.nTargetUID = nTo;
    m.pDepData = data;
    m.nDepDataLength = sizeof(data);
    const long rc = wm.Send(nFrom, "ORDER", &m, false);
    return rc == M_OK || rc == M_NOTACT;
}

// A process of host h that registers nUID, runs fn and reports through a pipe
// a double per sample.
pid_t Run(const bridgelab::Host& h, long nUID, int fdOut,
          const std::function<bool(CWorkMessages&, std::vector<double>*)>& fn) {
    return bridgelab::InHost(h, [=]() {
        CWorkMessages wm;
        if (wm.nLastError != 0 || wm.SetInput(nUID, "ORDER", nullptr, false) != M_OK) return 1;
        std::vector<double> samples;
        const bool bOk = fn(wm, &samples);
        if (fdOut >= 0) (void)!write(fdOut, samples.data(), samples.size() * sizeof(double));
        wm.UnsetInput(nUID, "ORDER", 0);
        return bOk ? 0 : 2;
    });
}

std::vector<double> Collect(int fd, size_t nCount) {
    std::vector<double> v(nCount);
    size_t nGot = 0;
    char* p = reinterpret_cast<char*>(v.data());
    while (nGot < nCount * sizeof(double)) {
        const ssize_t n = read(fd, p + nGot, nCount * sizeof(double) - nGot);
        if (n <= 0) break;
        nGot += static_cast<size_t>(n);
    }
    v.resize(nGot / sizeof(double));
    return v;
}

double Percentile(std::vector<double> v, double q) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())))];
}

// Round trips from PROCA on host a to nPeer on host b; milliseconds each.
std::vector<double> RoundTrips(const bridgelab::Host& a, const bridgelab::Host& b, long nPeer,
                               bool bPoll, int nSamples) {
    int fds[2];
    if (pipe(fds) != 0) return {};
    const pid_t responder = Run(b, nPeer, -1, [=](CWorkMessages& wm, std::vector<double>*) {
        for (int i = 0; i < nSamples; ++i)
            if (!Take(wm, nPeer, bPoll) || !Put(wm, nPeer, kProcA)) return false;
        return true;
    });
    usleep(300000); // both ends registered before the first message
    const pid_t initiator = Run(a, kProcA, fds[1], [=](CWorkMessages& wm, std::vector<double>* s) {
        for (int i = 0; i < nSamples; ++i) {
            const double t0 = Now();
            if (!Put(wm, kProcA, nPeer) || !Take(wm, kProcA, bPoll)) return false;
            s->push_back((Now() - t0) * 1000);
        }
        return true;
    });
    close(fds[1]);
    std::vector<double> v = Collect(fds[0], static_cast<size_t>(nSamples));
    close(fds[0]);
    bridgelab::Wait(initiator);
    bridgelab::Wait(responder);
    return v;
}

// A burst from PROCA on host a to nPeer on host b; messages per second from
// the first Send until all of them are queued for nPeer on host b.
double Throughput(const bridgelab::Host& a, const bridgelab::Host& b, long nPeer) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const pid_t watcher = bridgelab::InHost(b, [=]() {
        CWorkMessages wm; // keeps host b's queues while it counts
        const double tEnd = Now() + 120;
        while (Now() < tEnd && Queued(nPeer) < kBurst)
            usleep(2000);
        const double t = Now();
        return write(fds[1], &t, sizeof(t)) == sizeof(t) ? 0 : 1;
    });
    usleep(300000);
    const double t0 = Now();
    const pid_t sender = bridgelab::InHost(a, [=]() {
        CWorkMessages wm;
        for (int i = 0; i < kBurst; ++i)
            if (!Put(wm, kProcA, nPeer)) return 1;
        return 0;
    });
    close(fds[1]);
    const std::vector<double> v = Collect(fds[0], 1);
    close(fds[0]);
    bridgelab::Wait(sender);
    bridgelab::Wait(watcher);
    return v.empty() ? -1 : kBurst / (v[0] - t0);
}

void Row(const char* szWhat, const char* szPath, const std::vector<double>& v) {
    printf("%-18s %-8s %7zu %10.2f %10.2f %10.2f\n", szWhat, szPath, v.size(), Percentile(v, 0.5),
           Percentile(v, 0.9), Percentile(v, 0.99));
}

} // namespace

int main(int argc, char** argv) {
    const std::string strBridge = argc > 1 ? argv[1] : "";
    char szDir[] = "/tmp/wmbridge-bench.XXXXXX";
    if (strBridge.empty() || mkdtemp(szDir) == nullptr) {
        fprintf(stderr, "usage: wm_bridge_bench <path of wmbridge> (as root)\n");
        return 2;
    }
    const int nPort = bridgelab::UnusedPort();
    pid_t server = bridgelab::StartServer(szDir, nPort);
    bridgelab::Host hosts[2];
    if (server <= 0 || !bridgelab::MakeHost(&hosts[0], szDir, "hostA", nPort, kNames, kUIDs) ||
        !bridgelab::MakeHost(&hosts[1], szDir, "hostB", nPort, kNames, kUIDs)) {
        fprintf(stderr, "wm_bridge_bench: cannot start the server or the hosts (root?)\n");
        return 1;
    }
    for (bridgelab::Host& h : hosts)
        bridgelab::StartBridge(&h, strBridge);
    usleep(1000000);

    printf("Round trips of 100-byte messages, milliseconds\n");
    printf("%-18s %-8s %7s %10s %10s %10s\n", "path", "receive", "samples", "median", "p90", "p99");
    Row("local (one host)", "poll", RoundTrips(hosts[0], hosts[0], kProcC, true, kPollSamples));
    Row("bridged (2 hosts)", "poll", RoundTrips(hosts[0], hosts[1], kProcB, true, kPollSamples));
    Row("local (one host)", "wait", RoundTrips(hosts[0], hosts[0], kProcC, false, kWaitSamples));
    Row("bridged (2 hosts)", "wait", RoundTrips(hosts[0], hosts[1], kProcB, false, kWaitSamples));
    // The bridged burst first: the local one leaves its messages on host A.
    printf("\nThroughput: a burst of %d 100-byte messages from one sender, until all are\n"
           "queued for the target\n",
           kBurst);
    const double nBridged = Throughput(hosts[0], hosts[1], kProcB);
    printf("bridged (2 hosts)  %10.0f messages/s\n", nBridged);
    printf("local (one host)   %10.0f messages/s\n", Throughput(hosts[0], hosts[0], kProcC));

    for (bridgelab::Host& h : hosts)
        bridgelab::StopHost(&h);
    bridgelab::KillAndWait(server);
    const std::string strRm = std::string("rm -rf ") + szDir;
    return system(strRm.c_str()) == 0 ? 0 : 1;
}
