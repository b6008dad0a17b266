// Benchmarks of the library against its floor and its peers, printed as one
// table (scripts/bench.sh builds and runs this).
//
//   ops      Send, Receive of a waiting message, Delete and their round trip,
//            with 0, 100 and 8192 bytes of data, in one process and in two
//            (the sender in one, the receiver in the other)
//   depth    the round trip with 10, 1000 and 20000 messages queued for
//            other targets
//   pairs    1, 2 and 4 sender/receiver pairs, each process on its own:
//            total messages per second
//   latency  a waiting receiver: from Send to the receiver's return
//
// Each with the library's default settings and with each opt-in (see
// BenchQueues.h). "wm_bench --syscalls KIND SIZE N" runs N round trips of
// one setting for bench/syscalls.sh, which counts their system calls.
//
// Each benchmark runs in its own IPC namespace and temporary directory
// (Sandbox). Times are taken with the monotonic clock around each call; the
// hand-offs between processes (pipes) are not counted except in "pairs".
// Google Benchmark drives the iteration counts (--benchmark_min_time); every
// other Google Benchmark flag works as usual (--benchmark_filter=ops/ ...).
#include <benchmark/benchmark.h>
#include <sched.h>
#include <signal.h>
#include <sys/statfs.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "BenchQueues.h"

namespace wmbench {
namespace {

const int kSizes[] = {0, 100, 8192};
const long kDepths[] = {10, 1000, 20000};
const int kPairs[] = {1, 2, 4};
const int kScaleSize = 100;       // data of the depth, pairs and latency runs
const double kPairSeconds = 1.0;  // each pairs run
const int kWmLatencySamples = 40; // a quarter second each, on average
const int kMqLatencySamples = 200;
// Per-operation numbers come from the fastest of this many runs: on a machine
// that others share, the fastest run is the one least disturbed.
const int kRepetitions = 3;

// ---- pipes between the processes of one benchmark ------------------------------

bool WriteAll(int fd, const void* p, size_t n) {
    const char* c = static_cast<const char*>(p);
    while (n > 0) {
        const ssize_t k = write(fd, c, n);
        if (k <= 0) return false;
        c += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

bool ReadAll(int fd, void* p, size_t n) {
    char* c = static_cast<char*>(p);
    while (n > 0) {
        const ssize_t k = read(fd, c, n);
        if (k <= 0) return false;
        c += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

struct Pipe {
    int fd[2] = {-1, -1};
    Pipe() {
        if (pipe(fd) != 0) fd[0] = fd[1] = -1;
    }
    ~Pipe() { CloseBoth(); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int In() const { return fd[0]; }
    int Out() const { return fd[1]; }
    void CloseIn() { CloseEnd(0); }
    void CloseOut() { CloseEnd(1); }
    void CloseBoth() {
        CloseEnd(0);
        CloseEnd(1);
    }

private:
    void CloseEnd(int i) {
        if (fd[i] >= 0) close(fd[i]);
        fd[i] = -1;
    }
};

// What a child process reports back: up to three numbers, success and why not.
struct Report {
    double a = 0;
    double b = 0;
    double c = 0;
    double d = 0;
    double e = 0;
    bool bOk = false;
    char szError[240] = "";
    void SetError(const std::string& str) { snprintf(szError, sizeof(szError), "%s", str.c_str()); }
};

// The p-th quantile (0 < p <= 1) of the samples, by rank; 0 for none.
double Percentile(std::vector<double> samples, double p) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const size_t k = static_cast<size_t>(std::ceil(p * static_cast<double>(samples.size())));
    return samples[std::min(samples.size(), std::max<size_t>(k, 1)) - 1];
}

// Runs fn in a child that leaves with _exit (no destructors of the parent's
// objects, no atexit handlers of the benchmark library).
pid_t Fork(const std::function<int()>& fn) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGPIPE, SIG_IGN);
        _exit(fn());
    }
    return pid;
}

void Reap(const std::vector<pid_t>& pids) {
    for (pid_t pid : pids)
        if (pid > 0) waitpid(pid, nullptr, 0);
}

// ---- one process ---------------------------------------------------------------------

// Each iteration is one round trip; each operation is timed on its own.
void OneProcess(benchmark::State& st, Kind kind, int nSize, long nQueued) {
    Sandbox sb(kind, nSize, nQueued);
    auto q = sb.Ok() ? sb.Open(kReceiver, kReceiver, true) : nullptr;
    if (!q) {
        st.SkipWithError(sb.Error().c_str());
        return;
    }
    double tSend = 0, tReceive = 0, tDelete = 0;
    for (auto _ : st) {
        const double t0 = Now();
        bool bOk = q->Send();
        const double t1 = Now();
        bOk = bOk && q->Receive();
        const double t2 = Now();
        bOk = bOk && q->Delete();
        const double t3 = Now();
        if (!bOk) {
            st.SkipWithError(q->Error().c_str());
            break;
        }
        tSend += t1 - t0;
        tReceive += t2 - t1;
        tDelete += t3 - t2;
        st.SetIterationTime(t3 - t0);
    }
    st.counters["send"] = benchmark::Counter(tSend, benchmark::Counter::kAvgIterations);
    st.counters["receive"] = benchmark::Counter(tReceive, benchmark::Counter::kAvgIterations);
    st.counters["delete"] = benchmark::Counter(tDelete, benchmark::Counter::kAvgIterations);
}

// ---- two processes ---------------------------------------------------------------------

// The sender (this process) sends and hands the message over; the receiver
// (a child) receives and deletes it and reports its two times. One message
// at a time, so no call waits for the lock.
void TwoProcesses(benchmark::State& st, Kind kind, int nSize) {
    Sandbox sb(kind, nSize);
    if (!sb.Ok()) {
        st.SkipWithError(sb.Error().c_str());
        return;
    }
    Pipe toReceiver, toSender;
    const pid_t pid = Fork([&] {
        toReceiver.CloseOut();
        toSender.CloseIn();
        Report r;
        auto q = sb.Open(kReceiver, kSender, true);
        r.bOk = q != nullptr;
        if (!q) r.SetError(sb.Error());
        WriteAll(toSender.Out(), &r, sizeof(r)); // ready
        char c = 0;
        while (q && ReadAll(toReceiver.In(), &c, 1) && c == 'm') {
            const double t0 = Now();
            r.bOk = q->Receive();
            const double t1 = Now();
            r.bOk = r.bOk && q->Delete();
            r.a = t1 - t0;
            r.b = Now() - t1;
            if (!r.bOk) r.SetError(q->Error());
            WriteAll(toSender.Out(), &r, sizeof(r));
        }
        return 0;
    });
    toReceiver.CloseIn();
    toSender.CloseOut();

    Report r;
    auto q = sb.Open(kSender, kReceiver, false);
    if (!q || !ReadAll(toSender.In(), &r, sizeof(r)) || !r.bOk) {
        st.SkipWithError(q ? r.szError : sb.Error().c_str());
    } else {
        double tSend = 0, tReceive = 0, tDelete = 0;
        for (auto _ : st) {
            const double t0 = Now();
            const bool bSent = q->Send();
            const double t1 = Now();
            if (!bSent) {
                st.SkipWithError(q->Error().c_str());
                break;
            }
            if (!WriteAll(toReceiver.Out(), "m", 1) || !ReadAll(toSender.In(), &r, sizeof(r)) ||
                !r.bOk) {
                st.SkipWithError(r.szError[0] ? r.szError : "the receiver stopped");
                break;
            }
            tSend += t1 - t0;
            tReceive += r.a;
            tDelete += r.b;
            st.SetIterationTime(t1 - t0 + r.a + r.b);
        }
        st.counters["send"] = benchmark::Counter(tSend, benchmark::Counter::kAvgIterations);
        st.counters["receive"] = benchmark::Counter(tReceive, benchmark::Counter::kAvgIterations);
        st.counters["delete"] = benchmark::Counter(tDelete, benchmark::Counter::kAvgIterations);
    }
    WriteAll(toReceiver.Out(), "q", 1);
    toReceiver.CloseOut();
    q.reset();
    Reap({pid});
}

// ---- pairs --------------------------------------------------------------------------

// nPairs senders and nPairs receivers, each in its own process, for
// kPairSeconds. A sender sends one message, hands it to its receiver and
// waits until it is deleted before it sends the next (so the round trip
// includes two pipe hand-offs); the pairs run at the same time.
void Pairs(benchmark::State& st, Kind kind, int nPairs) {
    for (auto _ : st) {
        Sandbox sb(kind, kScaleSize);
        if (!sb.Ok()) {
            st.SkipWithError(sb.Error().c_str());
            return;
        }
        std::vector<Pipe> tokens(static_cast<size_t>(nPairs)), credits(static_cast<size_t>(nPairs));
        Pipe ready, start, results;
        std::vector<pid_t> pids;
        auto closePairs = [&](int nKeep, bool bSender) {
            for (int i = 0; i < nPairs; ++i) {
                if (i != nKeep) {
                    tokens[i].CloseBoth();
                    credits[i].CloseBoth();
                } else if (bSender) {
                    tokens[i].CloseIn();
                    credits[i].CloseOut();
                } else {
                    tokens[i].CloseOut();
                    credits[i].CloseIn();
                }
            }
            ready.CloseIn();
            start.CloseOut();
            results.CloseIn();
        };
        for (int i = 0; i < nPairs; ++i) {
            for (bool bSender : {true, false}) {
                pids.push_back(Fork([&, i, bSender] {
                    closePairs(i, bSender);
                    Report r;
                    auto q = bSender ? sb.Open(kPairSender + i, kPairReceiver + i, false, i)
                                     : sb.Open(kPairReceiver + i, kPairSender + i, true, i);
                    WriteAll(ready.Out(), "r", 1);
                    double tStart = 0;
                    if (!q || !ReadAll(start.In(), &tStart, sizeof(tStart))) {
                        r.SetError(sb.Error());
                        WriteAll(results.Out(), &r, sizeof(r));
                        return 1;
                    }
                    r.bOk = true;
                    char c = 0;
                    if (bSender) {
                        // Round trip of each message: from its Send to the
                        // credit that says it was deleted.
                        std::vector<double> trips;
                        double tSent = 0;
                        while (Now() < tStart + kPairSeconds && ReadAll(credits[i].In(), &c, 1)) {
                            if (tSent > 0) trips.push_back(Now() - tSent);
                            tSent = Now();
                            if (!q->Send()) break;
                            WriteAll(tokens[i].Out(), "m", 1);
                            r.a += 1;
                        }
                        tokens[i].CloseOut(); // the receiver ends after the last one
                        r.d = Percentile(trips, 0.99);
                        r.e = Percentile(trips, 1.0);
                    } else {
                        while (ReadAll(tokens[i].In(), &c, 1)) {
                            if (!q->Receive() || !q->Delete()) break;
                            r.a += 1;
                            WriteAll(credits[i].Out(), "c", 1);
                        }
                    }
                    r.b = Now();
                    r.c = bSender ? 1 : 0;
                    if (!q->Error().empty()) {
                        r.bOk = false;
                        r.SetError(q->Error());
                    }
                    WriteAll(results.Out(), &r, sizeof(r));
                    return 0;
                }));
            }
        }
        // The parent keeps one credit per pair in flight and the ends it
        // needs to start the children and hear from them.
        for (int i = 0; i < nPairs; ++i) {
            WriteAll(credits[i].Out(), "c", 1);
            tokens[i].CloseBoth();
            credits[i].CloseBoth();
        }
        ready.CloseOut();
        start.CloseIn();
        results.CloseOut();
        char c = 0;
        for (size_t i = 0; i < pids.size(); ++i)
            ReadAll(ready.In(), &c, 1);
        const double tStart = Now() + 0.01;
        for (size_t i = 0; i < pids.size(); ++i)
            WriteAll(start.Out(), &tStart, sizeof(tStart));
        start.CloseOut();

        double nMessages = 0, tEnd = tStart, tP99 = 0, tMax = 0;
        std::string strError;
        for (size_t i = 0; i < pids.size(); ++i) {
            Report r;
            if (!ReadAll(results.In(), &r, sizeof(r))) r.SetError("a child died");
            if (!r.bOk && strError.empty()) strError = r.szError;
            if (r.c == 0) { // receivers count what was delivered and deleted
                nMessages += r.a;
                tEnd = std::max(tEnd, r.b);
            } else { // senders time the round trips; the worst pair counts
                tP99 = std::max(tP99, r.d);
                tMax = std::max(tMax, r.e);
            }
        }
        Reap(pids);
        if (!strError.empty() || nMessages == 0) {
            st.SkipWithError(strError.empty() ? "no message went through" : strError.c_str());
            return;
        }
        // Time per message, so that the fastest run is the best throughput.
        st.SetIterationTime((tEnd - tStart) / nMessages);
        st.counters["msgs_per_s"] = nMessages / (tEnd - tStart);
        st.counters["p99"] = tP99;
        st.counters["max"] = tMax;
    }
}

// ---- latency of a waiting receiver ------------------------------------------------------

// The receiver calls Receive on an empty queue and waits; the sender sends
// after a random delay, so that the message arrives at a random point of the
// receiver's wait. Latency: from before Send to the receiver's return.
void Latency(benchmark::State& st, Kind kind, int nSamples, double tMaxDelay) {
    for (auto _ : st) {
        Sandbox sb(kind, kScaleSize);
        if (!sb.Ok()) {
            st.SkipWithError(sb.Error().c_str());
            return;
        }
        Pipe toReceiver, toSender;
        const pid_t pid = Fork([&] {
            toReceiver.CloseOut();
            toSender.CloseIn();
            Report r;
            auto q = sb.Open(kReceiver, kSender, true);
            if (!q) r.SetError(sb.Error());
            char c = 0;
            while (ReadAll(toReceiver.In(), &c, 1) && c == 'g') {
                WriteAll(toSender.Out(), "r", 1);
                r.bOk = q && q->Receive(true);
                r.a = Now();
                r.bOk = r.bOk && q->Delete();
                if (q && !r.bOk) r.SetError(q->Error());
                WriteAll(toSender.Out(), &r, sizeof(r));
                if (!r.bOk) break;
            }
            return 0;
        });
        toReceiver.CloseIn();
        toSender.CloseOut();

        auto q = sb.Open(kSender, kReceiver, false);
        // One delay in each of nSamples equal parts of 0..tMaxDelay, in a
        // shuffled order: the arrivals cover the receiver's wait evenly.
        std::mt19937 rng(12345);
        std::uniform_real_distribution<double> jitter(0.0, 1.0);
        std::vector<double> delays;
        for (int i = 0; i < nSamples; ++i)
            delays.push_back(tMaxDelay * (i + jitter(rng)) / nSamples);
        std::shuffle(delays.begin(), delays.end(), rng);
        std::vector<double> samples;
        std::string strError = q ? "" : sb.Error();
        for (int i = 0; q && i < nSamples && strError.empty(); ++i) {
            char c = 0;
            Report r;
            if (!WriteAll(toReceiver.Out(), "g", 1) || !ReadAll(toSender.In(), &c, 1)) {
                strError = "the receiver stopped";
                break;
            }
            usleep(static_cast<useconds_t>(delays[static_cast<size_t>(i)] * 1e6));
            const double t0 = Now();
            if (!q->Send()) strError = q->Error();
            if (!ReadAll(toSender.In(), &r, sizeof(r)) || !r.bOk)
                strError = r.szError[0] ? r.szError : "the receiver stopped";
            else
                samples.push_back(r.a - t0);
        }
        WriteAll(toReceiver.Out(), "q", 1);
        toReceiver.CloseOut();
        q.reset();
        Reap({pid});
        if (!strError.empty() || samples.empty()) {
            st.SkipWithError(strError.empty() ? "no sample" : strError.c_str());
            return;
        }
        double tTotal = 0;
        for (double t : samples)
            tTotal += t;
        st.SetIterationTime(tTotal);
        st.counters["median"] = Percentile(samples, 0.5);
        st.counters["p99"] = Percentile(samples, 0.99);
        st.counters["samples"] = static_cast<double>(samples.size());
    }
}

// ---- the table ----------------------------------------------------------------------

struct Result {
    bool bOk = false;
    std::string strError;
    double tIteration = 0; // seconds
    std::map<std::string, double> counters;
};

std::string FsType(const char* szPath) {
    struct statfs fs;
    if (statfs(szPath, &fs) != 0) return "?";
    switch (static_cast<unsigned long>(fs.f_type)) {
    case 0xEF53:
        return "ext4";
    case 0x01021994:
        return "tmpfs";
    case 0x58465342:
        return "xfs";
    case 0x9123683E:
        return "btrfs";
    case 0x794C7630:
        return "overlayfs";
    }
    char sz[32];
    snprintf(sz, sizeof(sz), "0x%lx", static_cast<unsigned long>(fs.f_type));
    return sz;
}

std::string CpuModel() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
    return "?";
}

std::string LoadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

class TableReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context& ctx) override {
        nCpus = ctx.cpu_info.num_cpus;
        strLoadBefore = LoadAverage();
        std::cerr << "Running the benchmarks (a few minutes; progress below)...\n";
        return true;
    }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration) continue;
            const double tIteration =
                run.iterations > 0 ? run.real_accumulated_time / static_cast<double>(run.iterations)
                                   : 0;
            auto it = results.find(run.run_name.function_name);
            const bool bBetter =
                it == results.end() ||
                (!run.error_occurred && (!it->second.bOk || tIteration < it->second.tIteration));
            Result& res = results[run.run_name.function_name];
            if (bBetter) {
                res = Result();
                res.bOk = !run.error_occurred;
                res.strError = run.error_message;
                res.tIteration = tIteration;
                for (const auto& kv : run.counters)
                    res.counters[kv.first] = kv.second.value;
            }
            if (run.error_occurred || run.repetition_index + 1 >= run.repetitions)
                std::cerr << "  " << run.run_name.function_name << ": "
                          << (res.bOk ? "done" : "FAILED: " + res.strError) << "\n";
        }
    }
    void Finalize() override { Print(std::cout); }

private:
    // Time of one operation in seconds, or NaN when not measured.
    double Op(const std::string& strName, const std::string& strOp) const {
        auto it = results.find(strName);
        if (it == results.end() || !it->second.bOk) return NAN;
        if (strOp == "round trip") return it->second.tIteration;
        auto c = it->second.counters.find(strOp);
        return c == it->second.counters.end() ? NAN : c->second;
    }
    double Counter(const std::string& strName, const char* szCounter) const {
        auto it = results.find(strName);
        if (it == results.end() || !it->second.bOk) return NAN;
        auto c = it->second.counters.find(szCounter);
        return c == it->second.counters.end() ? NAN : c->second;
    }
    static std::string Us(double t) {
        if (std::isnan(t)) return "-";
        char sz[32];
        snprintf(sz, sizeof(sz), t < 100e-6 ? "%.1f" : "%.0f", t * 1e6);
        return sz;
    }
    static std::string Ratio(double a, double b) {
        if (std::isnan(a) || std::isnan(b) || b <= 0) return "-";
        char sz[32];
        snprintf(sz, sizeof(sz), "%.2f", a / b);
        return sz;
    }
    static std::string Cols(const std::vector<std::string>& cells, const std::vector<int>& widths) {
        std::string line;
        for (size_t i = 0; i < cells.size(); ++i) {
            char sz[64];
            snprintf(sz, sizeof(sz), i == 0 ? "%-*s" : "%*s", widths[i], cells[i].c_str());
            line += sz;
            if (i + 1 < cells.size()) line += " ";
        }
        return line + "\n";
    }

    void Print(std::ostream& out) const {
        utsname un;
        uname(&un);
        char szDate[32];
        const time_t tNow = time(nullptr);
        strftime(szDate, sizeof(szDate), "%Y-%m-%d %H:%M", localtime(&tNow));
        const char* szTmp = getenv("TMPDIR");
        const std::string strTmp = szTmp && *szTmp ? szTmp : "/tmp";

        out << "\nQV_wm benchmarks, " << szDate << "\n"
            << "machine: " << nCpus << " cores, " << CpuModel() << ", Linux " << un.release
            << "; files in " << strTmp << " (" << FsType(strTmp.c_str()) << ")\n"
            << "load average before/after: " << strLoadBefore << " / " << LoadAverage() << "\n"
            << "Microseconds per operation: the mean over the iterations of the fastest of "
            << kRepetitions << " runs.\n"
            << "QV_wm: default settings; keep: WM_KeepAttached=true; files: WM_KeepFilesOpen;\n"
               "wake: WM_WakeReceivers; lock: WM_BlockingLock; fast: WM_FastPath (all of them);\n"
               "floor: the same system calls without library logic; ratios: the library's\n"
               "time / the other time. mq has no delete step: its round trip is send +\n"
               "receive. 2 procs: each operation timed in its own process, hand-offs not\n"
               "counted.\n\n";

        const Kind arrLib[] = {Kind::Wm,     Kind::WmKeep, Kind::WmFiles,
                               Kind::WmWake, Kind::WmLock, Kind::WmFast};
        std::vector<std::string> head = {"operation", "procs", "data"};
        for (Kind k : arrLib)
            head.push_back(KindName(k));
        for (const char* c : {"floor", "wm/fl", "fs/fl", "SQLite", "fs/SQ", "mq"})
            head.push_back(c);
        const std::vector<int> w = {10, 5, 5, 7, 7, 7, 7, 7, 7, 7, 6, 6, 7, 6, 6};
        out << Cols(head, w);
        const char* arrOps[] = {"send", "receive", "delete", "round trip"};
        for (int nProcs : {1, 2}) {
            for (const char* szOp : arrOps) {
                for (int nSize : kSizes) {
                    auto name = [&](Kind k) { return OpsName(k, nProcs, nSize); };
                    std::vector<std::string> row = {szOp, std::to_string(nProcs),
                                                    std::to_string(nSize)};
                    for (Kind k : arrLib)
                        row.push_back(Us(Op(name(k), szOp)));
                    const double wm = Op(name(Kind::Wm), szOp);
                    const double fs = Op(name(Kind::WmFast), szOp);
                    const double fl = Op(name(Kind::Floor), szOp);
                    const double sq = Op(name(Kind::Sqlite), szOp);
                    double mq = NAN;
                    if (std::string(szOp) == "round trip")
                        mq = Op(name(Kind::Mq), "send") + Op(name(Kind::Mq), "receive");
                    else if (std::string(szOp) != "delete")
                        mq = Op(name(Kind::Mq), szOp);
                    for (const std::string& c :
                         {Us(fl), Ratio(wm, fl), Ratio(fs, fl), Us(sq), Ratio(fs, sq), Us(mq)})
                        row.push_back(c);
                    out << Cols(row, w);
                }
            }
        }

        out << "\nQueue depth: messages already queued for other targets (" << kScaleSize
            << " bytes, 1 process), microseconds per operation\n";
        const std::vector<int> wd = {10, 7, 8, 8, 8, 8, 6, 6};
        out << Cols({"operation", "queued", "QV_wm", "keep", "fast", "SQLite", "wm/SQ", "fs/SQ"},
                    wd);
        for (const char* szOp : arrOps) {
            for (long nQueued : kDepths) {
                const double wm = Op(DepthName(Kind::Wm, nQueued), szOp);
                const double kp = Op(DepthName(Kind::WmKeep, nQueued), szOp);
                const double fs = Op(DepthName(Kind::WmFast, nQueued), szOp);
                const double sq = Op(DepthName(Kind::Sqlite, nQueued), szOp);
                out << Cols({szOp, std::to_string(nQueued), Us(wm), Us(kp), Us(fs), Us(sq),
                             Ratio(wm, sq), Ratio(fs, sq)},
                            wd);
            }
        }

        out << "\nSender/receiver pairs, each process on its own, one message in flight per "
               "pair,\nfastest of "
            << kRepetitions << " runs (" << kScaleSize
            << " bytes):\ntotal messages per second, then the round trip of one message "
               "(Send to the\nsender's next turn, two pipe hand-offs included) in "
               "milliseconds, p99/longest,\nworst pair\n";
        const Kind arrPairKinds[] = {Kind::Wm,     Kind::WmKeep, Kind::WmLock,
                                     Kind::WmFast, Kind::Sqlite, Kind::Mq};
        const std::vector<int> wp = {6, 11, 11, 11, 11, 11, 11};
        std::vector<std::string> headP = {"pairs"};
        for (Kind k : arrPairKinds)
            headP.push_back(KindName(k));
        out << Cols(headP, wp);
        for (int nPairs : kPairs) {
            std::vector<std::string> rates = {std::to_string(nPairs)};
            std::vector<std::string> trips = {""};
            for (Kind k : arrPairKinds) {
                const double v = Counter(PairsName(k, nPairs), "msgs_per_s");
                rates.push_back(std::isnan(v) ? std::string("-") : std::to_string(std::lround(v)));
                const double p = Counter(PairsName(k, nPairs), "p99");
                const double m = Counter(PairsName(k, nPairs), "max");
                char sz[48] = "-";
                if (!std::isnan(p) && !std::isnan(m))
                    snprintf(sz, sizeof(sz), "%.2f/%.1f", p * 1e3, m * 1e3);
                trips.push_back(sz);
            }
            out << Cols(rates, wp) << Cols(trips, wp);
        }

        out << "\nWaiting receiver: from Send to the receiver's return (milliseconds). By\n"
               "default Receive looks every 250 ms while it waits, so its latency is the\n"
               "time to the next look (uniform over 0 to 250 ms); wake and fast are woken\n"
               "by the Send, as mq is.\n";
        const std::vector<int> wl = {6, 9, 9, 8};
        out << Cols({"", "median", "p99", "samples"}, wl);
        for (Kind k : {Kind::Wm, Kind::WmKeep, Kind::WmWake, Kind::WmFast, Kind::Mq}) {
            const std::string strName = LatencyName(k);
            auto ms = [&](const char* c) {
                const double v = Counter(strName, c);
                char sz[32];
                snprintf(sz, sizeof(sz), "%.3f", v * 1e3);
                return std::isnan(v) ? std::string("-") : std::string(sz);
            };
            const double n = Counter(strName, "samples");
            out << Cols({KindName(k), ms("median"), ms("p99"),
                         std::isnan(n) ? "-" : std::to_string(std::lround(n))},
                        wl);
        }

        bool bHeader = false;
        for (const auto& kv : results) {
            if (kv.second.bOk) continue;
            if (!bHeader) out << "\nFailed:\n";
            bHeader = true;
            out << "  " << kv.first << ": " << kv.second.strError << "\n";
        }
    }

public:
    static std::string OpsName(Kind k, int nProcs, int nSize) {
        return std::string("ops/") + KindName(k) + "/" + std::to_string(nProcs) + "p/" +
               std::to_string(nSize);
    }
    static std::string DepthName(Kind k, long nQueued) {
        return std::string("depth/") + KindName(k) + "/" + std::to_string(nQueued);
    }
    static std::string PairsName(Kind k, int nPairs) {
        return std::string("pairs/") + KindName(k) + "/" + std::to_string(nPairs);
    }
    static std::string LatencyName(Kind k) { return std::string("latency/") + KindName(k); }

private:
    int nCpus = 0;
    std::string strLoadBefore;
    std::map<std::string, Result> results;
};

void RegisterAll() {
    const Kind arrAll[] = {Kind::Wm,     Kind::WmKeep, Kind::WmFiles, Kind::WmWake, Kind::WmLock,
                           Kind::WmFast, Kind::Floor,  Kind::Sqlite,  Kind::Mq};
    for (int nProcs : {1, 2})
        for (int nSize : kSizes)
            for (Kind k : arrAll) {
                const std::string strName = TableReporter::OpsName(k, nProcs, nSize);
                auto* b =
                    nProcs == 1
                        ? benchmark::RegisterBenchmark(strName.c_str(), OneProcess, k, nSize, 0L)
                        : benchmark::RegisterBenchmark(strName.c_str(), TwoProcesses, k, nSize);
                b->UseManualTime()->Unit(benchmark::kMicrosecond)->Repetitions(kRepetitions);
            }
    for (long nQueued : kDepths)
        for (Kind k : {Kind::Wm, Kind::WmKeep, Kind::WmFast, Kind::Sqlite})
            benchmark::RegisterBenchmark(TableReporter::DepthName(k, nQueued).c_str(), OneProcess,
                                         k, kScaleSize, nQueued)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond)
                ->Repetitions(kRepetitions);
    for (int nPairs : kPairs)
        for (Kind k : {Kind::Wm, Kind::WmKeep, Kind::WmLock, Kind::WmFast, Kind::Sqlite, Kind::Mq})
            benchmark::RegisterBenchmark(TableReporter::PairsName(k, nPairs).c_str(), Pairs, k,
                                         nPairs)
                ->UseManualTime()
                ->Iterations(1)
                ->Repetitions(kRepetitions);
    // A receiver that looks every 250 ms needs few samples to show it; one
    // that is woken is measured like mq.
    const struct {
        Kind kind;
        int nSamples;
        double tMaxDelay;
    } arrLatency[] = {{Kind::Wm, kWmLatencySamples, 0.25},
                      {Kind::WmKeep, kWmLatencySamples, 0.25},
                      {Kind::WmWake, kMqLatencySamples, 0.005},
                      {Kind::WmFast, kMqLatencySamples, 0.005},
                      {Kind::Mq, kMqLatencySamples, 0.001}};
    for (const auto& l : arrLatency)
        benchmark::RegisterBenchmark(TableReporter::LatencyName(l.kind).c_str(), Latency, l.kind,
                                     l.nSamples, l.tMaxDelay)
            ->UseManualTime()
            ->Iterations(1);
}

// The round trip of one process, n times, for counting system calls (see
// bench/syscalls.sh): before each operation a marker that strace shows as
// write(-1, "<op>", ...), so that every call in between belongs to it.
int CountSyscalls(const char* szKind, int nSize, int nRounds) {
    const Kind arrAll[] = {Kind::Wm,     Kind::WmKeep, Kind::WmFiles,
                           Kind::WmWake, Kind::WmLock, Kind::WmFast};
    for (Kind k : arrAll) {
        if (strcmp(szKind, KindName(k)) != 0) continue;
        Sandbox sb(k, nSize);
        auto q = sb.Ok() ? sb.Open(kReceiver, kReceiver, true) : nullptr;
        if (!q) {
            fprintf(stderr, "wm_bench: %s\n", sb.Error().c_str());
            return 1;
        }
        bool bOk = true;
        for (int i = 0; bOk && i < nRounds; ++i) {
            bOk = write(-1, "send", 4) < 0 && q->Send();
            bOk = bOk && write(-1, "receive", 7) < 0 && q->Receive();
            bOk = bOk && write(-1, "delete", 6) < 0 && q->Delete();
        }
        if (write(-1, "end", 3) < 0 && !bOk) fprintf(stderr, "wm_bench: %s\n", q->Error().c_str());
        return bOk ? 0 : 1;
    }
    fprintf(stderr, "wm_bench: no library setting named %s\n", szKind);
    return 2;
}

} // namespace
} // namespace wmbench

int main(int argc, char** argv) {
    // Nothing here may touch the host's segments: the whole run lives in a
    // namespace of its own (and each benchmark in a fresh one inside it).
    if (unshare(CLONE_NEWIPC) != 0) {
        perror("wm_bench: unshare(CLONE_NEWIPC) (run as root)");
        return 2;
    }
    if (argc == 5 && strcmp(argv[1], "--syscalls") == 0)
        return wmbench::CountSyscalls(argv[2], atoi(argv[3]), atoi(argv[4]));
    // A short minimum time per benchmark keeps the whole run to a few
    // minutes; a --benchmark_min_time given on the command line wins.
    std::vector<char*> args(argv, argv + argc);
    static char szMinTime[] = "--benchmark_min_time=0.2";
    bool bHasMinTime = false;
    for (char* a : args)
        bHasMinTime |= strncmp(a, "--benchmark_min_time", 20) == 0;
    if (!bHasMinTime) args.insert(args.begin() + 1, szMinTime);
    int nArgs = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&nArgs, args.data());
    if (benchmark::ReportUnrecognizedArguments(nArgs, args.data())) return 1;

    wmbench::RegisterAll();
    wmbench::TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
