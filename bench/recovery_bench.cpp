// What WM_RecoverDeadOwner costs: the round trip with a robust Controls lock
// against the default lock, and the first call after a process died holding
// the lock (the call that rebuilds the tables from the files) against the
// same call without a death, with 0, 1000 and 20,000 messages queued for
// other targets. Run by scripts/bench.sh after the main table; never part of
// the tests.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "BenchQueues.h"
#include "WorkMessages.h"

namespace wmbench {
namespace {

const int kDataSize = 100;
const long kDepths[] = {0, 1000, 20000};

// Send, Receive and Delete of one message in one process; the iteration's
// time is the round trip.
void RoundTrip(benchmark::State& st, Kind kind) {
    Sandbox sb(kind, kDataSize);
    auto q = sb.Ok() ? sb.Open(kReceiver, kReceiver, true) : nullptr;
    if (!q) {
        st.SkipWithError(sb.Error().c_str());
        return;
    }
    for (auto _ : st) {
        const double t0 = Now();
        if (!q->Send() || !q->Receive() || !q->Delete()) {
            st.SkipWithError(q->Error().c_str());
            break;
        }
        st.SetIterationTime(Now() - t0);
    }
}

int fdHeld = -1; // the child's end of the pipe that says it holds the lock

// A receive filter runs with the Controls lock held: this one stays there.
bool StayInTheLock(void*) {
    if (write(fdHeld, "x", 1) != 1) _exit(3);
    for (;;)
        pause();
}

long SendOne(CWorkMessages& wm, std::vector<char>& data) {
    WorkMsg m;
    memset(&m, 0, sizeof(m));
    m.nTargetUID = kReceiver;
    m.pDepData = data.data();
    m.nDepDataLength = static_cast<long>(data.size());
    return wm.Send(kSender, "ORDER", &m, false);
}

// Each iteration: a Send without a death (counter "send"), then a child
// takes the lock in a receive filter and is killed there, and the next Send
// (the iteration's time) finds the dead owner and rebuilds. The messages are
// received and deleted again outside the timing.
void FirstCallAfterADeath(benchmark::State& st, long nQueued) {
    Sandbox sb(Kind::WmRobust, kDataSize, nQueued);
    if (!sb.Ok()) {
        st.SkipWithError(sb.Error().c_str());
        return;
    }
    CWorkMessages wm;
    if (wm.nLastError != 0 || wm.SetInput(kReceiver, "ORDER", nullptr, false) != M_OK) {
        st.SkipWithError(wm.szErrorMsg);
        return;
    }
    std::vector<char> data(kDataSize, 'x'), buffer(kMaxData);
    double tSend = 0;
    for (auto _ : st) {
        double t0 = Now();
        if (SendOne(wm, data) != M_OK) {
            st.SkipWithError(wm.szErrorMsg);
            break;
        }
        tSend += Now() - t0;

        int fds[2];
        if (pipe(fds) != 0) {
            st.SkipWithError("pipe");
            break;
        }
        fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            fdHeld = fds[1];
            CWorkMessages child;
            WorkMsg m;
            memset(&m, 0, sizeof(m));
            m.pDepData = buffer.data();
            m.nDepDataLength = kMaxData;
            child.Receive(kReceiver, 5, &m, false, StayInTheLock);
            _exit(3);
        }
        close(fds[1]);
        char c = 0;
        const bool bHeld = read(fds[0], &c, 1) == 1;
        close(fds[0]);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        if (!bHeld) {
            st.SkipWithError("the child did not take the lock");
            break;
        }

        t0 = Now();
        const long rc = SendOne(wm, data);
        st.SetIterationTime(Now() - t0);
        if (rc != M_OK) {
            st.SkipWithError(wm.szErrorMsg);
            break;
        }
        for (int i = 0; i < 2; ++i) {
            WorkMsg m;
            memset(&m, 0, sizeof(m));
            m.pDepData = buffer.data();
            m.nDepDataLength = kMaxData;
            if (wm.Receive(kReceiver, 1, &m, false, nullptr) != M_OK ||
                wm.Delete(kReceiver, m.nMessageID) != M_OK) {
                st.SkipWithError(wm.szErrorMsg);
                break;
            }
        }
    }
    st.counters["send"] = benchmark::Counter(tSend * 1e6, benchmark::Counter::kAvgIterations);
}

void RegisterAll() {
    for (Kind k : {Kind::Wm, Kind::WmRobust})
        benchmark::RegisterBenchmark((std::string("roundtrip/") + KindName(k)).c_str(), RoundTrip,
                                     k)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond)
            ->Repetitions(3)
            ->ReportAggregatesOnly(true);
    for (long nQueued : kDepths)
        benchmark::RegisterBenchmark(("after_death/" + std::to_string(nQueued)).c_str(),
                                     FirstCallAfterADeath, nQueued)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond)
            ->Iterations(20);
}

} // namespace
} // namespace wmbench

int main(int argc, char** argv) {
    // Nothing here may touch the host's segments (see wm_bench.cpp).
    if (unshare(CLONE_NEWIPC) != 0) {
        perror("wm_recovery_bench: unshare(CLONE_NEWIPC) (run as root)");
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    wmbench::RegisterAll();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
