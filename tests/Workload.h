// The workload driver of the load and crash tests: message data that proves
// who sent it and that it arrived whole, logs that survive a SIGKILL of their
// writer, the send and receive loops that write them, workers as processes or
// threads, the load exchange, and the check of the logs and the tables
// against what was sent.
//
// A message's data is derived from (sender UID, sequence number, length);
// from 16 bytes on it starts with a header naming the three. A receive yields
// the whole 8192-byte block (the data, then zeros), so regenerating it proves
// sender, sequence and length at once. A record is logged with one write(2)
// to an O_APPEND file right after the operation returned: a process killed
// later leaves it whole, one killed earlier none.
#ifndef WM_TEST_WORKLOAD_H
#define WM_TEST_WORKLOAD_H

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"

namespace wmtest {

const int32_t kBlock = WM_MAX_DEPDATA;
const int32_t kHeader = 12;

// What a sender sent or a receiver received.
struct LogRecord {
    int32_t nWho;    // UID of the process that logged it
    int32_t nKey;    // low 24 bits of the message ID: the same for both priorities
    int32_t nSender; // sender UID
    int32_t nSeq;    // sender's sequence number; -1 when the data holds no header
    int32_t nType;   // message type number
    int32_t nHigh;   // high priority
    uint32_t nCrc;   // checksum of the 8192-byte block
    int32_t nTarget; // target UID
};

inline uint32_t Checksum(const char* p) {
    uint32_t h = 2166136261u; // FNV-1a
    for (int32_t i = 0; i < kBlock; ++i)
        h = (h ^ static_cast<unsigned char>(p[i])) * 16777619u;
    return h;
}

// Fills the block with the data of a message, zeros behind it; returns the
// block's checksum.
inline uint32_t MakeData(int32_t nSender, int32_t nSeq, int32_t nLength, char* block) {
    memset(block, 0, kBlock);
    uint64_t x = (uint64_t(uint32_t(nSender)) << 32 | uint32_t(nSeq)) * 0x9E3779B97F4A7C15ull | 1;
    for (int32_t i = 0; i < nLength; ++i) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        block[i] = static_cast<char>(x);
    }
    const int32_t h[3] = {nSender, nSeq, nLength};
    if (nLength >= kHeader) memcpy(block, h, sizeof(h));
    return Checksum(block);
}

// The sender and sequence of a received block whose header it matches.
inline bool ReadHeader(const char* block, int32_t* nSender, int32_t* nSeq) {
    int32_t h[3];
    memcpy(h, block, sizeof(h));
    std::vector<char> made(kBlock);
    if (h[2] < kHeader || h[2] > kBlock ||
        MakeData(h[0], h[1], h[2], made.data()) != Checksum(block))
        return false;
    *nSender = h[0];
    *nSeq = h[1];
    return true;
}

inline bool AppendRecord(const std::string& path, const LogRecord& r) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    const bool ok = fd >= 0 && write(fd, &r, sizeof(r)) == sizeof(r);
    if (fd >= 0) close(fd);
    return ok;
}

inline std::vector<LogRecord> ReadLog(const std::string& path) {
    const std::string s = ReadFile(path);
    std::vector<LogRecord> out(s.size() / sizeof(LogRecord));
    if (!out.empty()) memcpy(out.data(), s.data(), out.size() * sizeof(LogRecord));
    return out;
}

inline std::string Failure(const char* what, long rc, const CWorkMessages& wm) {
    return std::string(what) + " " + std::to_string(rc) + ": " + wm.szErrorMsg;
}

// What a sender sends as message nSeq; a function of the sequence number, so
// that a test knows in advance what each receiver must get.
struct Planned {
    int32_t nTarget;
    const char* szType;
    int32_t nLength;
    bool bHigh;
};

// Sends nSender's messages nFirst up to nEnd as planned, logging each one
// queued (M_OK or M_NOTACT) and pausing nPauseUsecs after each, until the
// file strStop (if not "") exists. "" or the first fault.
inline std::string SendMany(CWorkMessages& wm, const std::string& strLog, int32_t nSender,
                            int32_t nFirst, int32_t nEnd, const std::string& strStop,
                            const std::function<Planned(int32_t)>& plan,
                            useconds_t nPauseUsecs = 0) {
    std::vector<char> block(kBlock);
    for (int32_t seq = nFirst; seq < nEnd && (strStop.empty() || !FileExists(strStop)); ++seq) {
        const Planned p = plan(seq);
        const uint32_t nCrc = MakeData(nSender, seq, p.nLength, block.data());
        WorkMsg m = {};
        m.nTargetUID = p.nTarget;
        m.pDepData = block.data();
        m.nDepDataLength = p.nLength;
        const long rc = wm.Send(nSender, p.szType, &m, p.bHigh);
        if (rc != M_OK && rc != M_NOTACT) return Failure("Send", rc, wm);
        if (!AppendRecord(strLog, {nSender, int32_t(m.nMessageID & 0xFFFFFF), nSender, seq,
                                   int32_t(m.nMsgNo), p.bHigh, nCrc, p.nTarget}))
            return "log";
        if (nPauseUsecs > 0) usleep(nPauseUsecs);
    }
    return "";
}

// Receives, logs and deletes nUID's messages, waiting nWait seconds each,
// until nCount have come; with strStop, until that file exists and a receive
// finds nothing. Without it ten empty receives in a row are a fault. A
// message carrying another sender's data is one too.
inline std::string ReceiveMany(CWorkMessages& wm, const std::string& strLog, int32_t nUID,
                               long nCount, long nWait, const std::string& strStop) {
    std::vector<char> block(kBlock);
    for (long got = 0, idle = 0; got < nCount;) {
        memset(block.data(), 0, kBlock);
        WorkMsg m = {};
        m.pDepData = block.data();
        m.nDepDataLength = kBlock;
        const long rc = wm.Receive(nUID, nWait, &m, false, nullptr);
        if (rc == M_TIMEOUT && !strStop.empty() && FileExists(strStop)) break;
        if (rc == M_TIMEOUT && (!strStop.empty() || ++idle < 10)) continue;
        if (rc != M_OK) return Failure("Receive", rc, wm) + " after " + std::to_string(got);
        LogRecord r = {nUID,
                       int32_t(m.nMessageID & 0xFFFFFF),
                       int32_t(m.nSenderUID),
                       -1,
                       int32_t(m.nMsgNo),
                       m.nMessageID < 0x01000000,
                       Checksum(block.data()),
                       int32_t(m.nTargetUID)};
        int32_t nSender = 0;
        if (ReadHeader(block.data(), &nSender, &r.nSeq) && nSender != r.nSender)
            return "message " + std::to_string(m.nMessageID) + " from " +
                   std::to_string(r.nSender) + " carries the data of " + std::to_string(nSender);
        if (!AppendRecord(strLog, r)) return "log";
        if (const long del = wm.Delete(nUID, m.nMessageID)) return Failure("Delete", del, wm);
        ++got, idle = 0;
    }
    return "";
}

// What the control table holds: key -> state, and sender and sequence from
// the message's data (0 and -1 when it has none).
struct Stored {
    int nState;
    int32_t nSender, nSeq;
};
inline std::map<int32_t, Stored> TableContents(CWorkMessages& wm) {
    CWorkMessagesTestAccess acc(wm);
    std::map<int32_t, Stored> out;
    if (acc.GetPointers() != M_OK) return out;
    for (long i = 0; i < acc.Controls()->nQSlotCount; ++i) {
        const _WQCF_ slot = acc.Queues()[i];
        if (slot.nflag == WQCF_Available) continue;
        Stored s = {slot.nflag, 0, -1};
        if (pByteInt data = slot.nDepDataSlot < 0 ? nullptr : acc.ReadWDDF(slot.nDepDataSlot)) {
            ReadHeader(reinterpret_cast<const char*>(data), &s.nSender, &s.nSeq);
            free(data);
        }
        out[slot.nMessageID & 0x00FFFFFF] = s;
    }
    acc.Return(M_OK);
    return out;
}

// The tables equal the two files: the header's slot count and message
// counter, every control slot (one past the file's end is free), the data
// slot table.
inline void ExpectTablesEqualFiles(CWorkMessages& wm, const std::string& strControlFile,
                                   const std::string& strDataFile) {
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(acc.GetPointers(), M_OK);
    const std::string control = ReadFile(strControlFile), data = ReadFile(strDataFile);
    const _SM_Controls_& ctl = *acc.Controls();
    EXPECT_EQ(ImageHeader(control).nEntriesAllocated, ctl.nQSlotCount);
    EXPECT_EQ(ImageHeader(control).nCurrentMsgID, ctl.nMsgCounter);
    EXPECT_LE(control.size(), sizeof(_WQCF_) * (ctl.nQSlotCount + 1));
    long nDiffer = 0;
    for (long i = 0; i < ctl.nQSlotCount; ++i) {
        _WQCF_ stored = {};
        if (control.size() >= sizeof(_WQCF_) * (i + 2)) stored = ImageSlot(control, i);
        nDiffer += memcmp(&stored, &acc.Queues()[i], sizeof(_WQCF_)) != 0;
    }
    EXPECT_EQ(nDiffer, 0) << "control slots unlike the file's";
    EXPECT_TRUE(data.size() >= size_t(kBlock) && data.size() % kBlock == 0) << data.size();
    EXPECT_EQ(memcmp(data.data(), acc.SAT(), std::min(data.size(), size_t(kBlock))), 0);
    acc.Return(M_OK);
}

// Workers as forked processes (a fault goes to standard error) or as
// threads of this process; each returns "" or its first fault. Threads start
// at Go, and their objects are made by Start and destroyed with the Crew,
// never while a thread runs: every object maps the segments at addresses of
// its own, and a thread sanitizer cannot tell that an address one mapping
// freed and another reused names other memory.
class Crew {
public:
    explicit Crew(bool threads) : bThreads(threads) {}
    ~Crew() { Wait(); }
    void Start(const std::function<std::string(CWorkMessages&)>& fn) {
        auto run = [fn](CWorkMessages& wm) {
            return wm.nLastError != 0 ? Failure("construction", wm.nLastError, wm) : fn(wm);
        };
        std::string& fault = deqFaults.emplace_back();
        if (!bThreads) {
            vecPids.push_back(StartChild([run] {
                CWorkMessages wm;
                const std::string text = run(wm);
                fprintf(stderr, "%s%s", text.c_str(), text.empty() ? "" : "\n");
                return text.empty() ? 0 : 1;
            }));
            return;
        }
        CWorkMessages& wm = *vecObjects.emplace_back(new CWorkMessages);
        vecPending.push_back([run, &wm, &fault] { fault = run(wm); });
    }
    void Go() {
        for (auto& fn : vecPending)
            vecThreads.emplace_back(fn);
        vecPending.clear();
    }
    // Every worker's fault, in the order started.
    std::vector<std::string> Wait() {
        Go();
        for (std::thread& t : vecThreads)
            t.join();
        vecThreads.clear();
        for (size_t n = 0; n < vecPids.size(); ++n)
            if (const int rc = WaitChild(vecPids[n]))
                deqFaults[n] = "exit " + std::to_string(rc) + ", see standard error";
        vecPids.clear();
        return {deqFaults.begin(), deqFaults.end()};
    }

private:
    bool bThreads;
    std::deque<std::string> deqFaults; // stays in place while threads write it
    std::vector<std::unique_ptr<CWorkMessages>> vecObjects;
    std::vector<std::function<void()>> vecPending;
    std::vector<std::thread> vecThreads;
    std::vector<pid_t> vecPids;
};

// The delivery as the logs tell it: no ID sent twice; every message received
// at most once, whole, by its target, with its sender, type and priority; on
// an oldest-first receiver each sender's messages of one priority in the
// order sent. A message that no sender logged passes only when unlogged says
// it may (a sender killed between Send's return and its log).
class Delivery {
public:
    void Sent(const std::string& strLog) {
        for (const LogRecord& r : ReadLog(strLog))
            Check(sent.emplace(r.nKey, r).second, r, "two messages with one ID");
    }
    // Returns how many messages the receiver logged.
    size_t Received(const std::string& strLog, bool bOrdered) {
        std::map<std::pair<int32_t, int32_t>, int32_t> last; // (sender, high) -> seq
        const std::vector<LogRecord> log = ReadLog(strLog);
        for (const LogRecord& r : log) {
            Check(received.insert(r.nKey).second, r, "received twice");
            const auto it = sent.find(r.nKey);
            if (it == sent.end()) {
                Check(unlogged && unlogged(r.nSender, r.nSeq), r, "never sent");
                continue;
            }
            const LogRecord& s = it->second;
            Check(r.nWho == s.nTarget && r.nSender == s.nSender && r.nType == s.nType &&
                      r.nHigh == s.nHigh,
                  r, "wrong target, sender, type or priority");
            Check(r.nCrc == s.nCrc && (r.nSeq == -1 || r.nSeq == s.nSeq), r, "data damaged");
            int32_t& prev = last.emplace(std::make_pair(s.nSender, s.nHigh), -1).first->second;
            Check(!bOrdered || s.nSeq > prev, s, "out of order");
            prev = s.nSeq;
        }
        return log.size();
    }
    // What the table still holds: only messages taken by a receiver killed
    // before it deleted them, whole, each as sent (or allowed unlogged).
    void Left(CWorkMessages& wm) {
        for (const auto& [nKey, s] : TableContents(wm)) {
            const LogRecord r = {0, nKey, s.nSender, s.nSeq, 0, 0, 0, 0};
            const auto it = sent.find(nKey);
            Check(s.nState == WQCF_Received, r, "left unreceived");
            Check(received.count(nKey) == 1 ||
                      (it != sent.end()
                           ? it->second.nSender == s.nSender && it->second.nSeq == s.nSeq
                           : unlogged && unlogged(s.nSender, s.nSeq)),
                  r, "never sent");
            left.insert(nKey);
        }
    }
    // Every message sent was received or is among those left.
    void NoneLost() {
        for (const auto& [nKey, s] : sent)
            Check(received.count(nKey) == 1 || left.count(nKey) == 1, s, "lost");
    }
    std::function<bool(int32_t nSender, int32_t nSeq)> unlogged;
    std::map<int32_t, LogRecord> sent;
    std::set<int32_t> received, left;
    int nFaults = 0; // the first five are reported

private:
    void Check(bool ok, const LogRecord& r, const char* what) {
        if (!ok && ++nFaults <= 5)
            ADD_FAILURE() << what << ": key " << r.nKey << " sender " << r.nSender << " seq "
                          << r.nSeq << " at " << r.nWho;
    }
};

// The load: four senders and four receivers, as processes or as threads with
// an object each, exchange messages of random types, sizes and priorities.
// The receivers start once 1,600 are queued, so the control table grows past
// its 512 slots, and a churn worker constructs objects and registers 160
// entries (the registry grows past its 128) while they work. Every message
// arrives exactly once, whole, at its target, in order for an oldest-first
// receiver; afterwards the tables and both files hold nothing.
class StressTest : public WmTest {
protected:
    void Exchange(bool bThreads, int nPerSender) {
        // Nine workers poll one lock busy nearly all the time: a wait of the
        // fixture's second can pass without a free moment (the README's limits).
        WriteConfig("WM_Timeout_Secs=30\n");
        const int kPairs = 4; // senders 301.., receivers 401..
        const int32_t kNewestFirst = 401 + kPairs - 1;
        const char* const kTypes[] = {"ORDER", "INVOICE", "REPORT", "ALERT"};
        std::mt19937 rng(20261123);
        std::vector<std::vector<Planned>> plan(kPairs);
        std::vector<long> expected(kPairs, 0);
        for (auto& messages : plan)
            for (int k = 0; k < nPerSender; ++k) {
                messages.push_back({401 + int32_t(rng() % kPairs), kTypes[rng() % 4],
                                    int32_t(rng() % (kBlock + 1)), rng() % 8 == 0});
                ++expected[messages.back().nTarget - 401];
            }
        CWorkMessages wm; // keeps the shared state for the final look
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        const std::string stop = root + "/stop";
        auto file = [&](const char* kind, int n) { return root + kind + std::to_string(n); };
        Crew churn(bThreads), work(bThreads);
#if defined(__SANITIZE_THREAD__)
        const bool bFresh = !bThreads; // no object made in a thread (see Crew)
#else
        const bool bFresh = true;
#endif
        churn.Start([&](CWorkMessages& own) -> std::string {
            for (int n = 0; n < 160 || !FileExists(stop); ++n) {
                std::unique_ptr<CWorkMessages> fresh(bFresh ? new CWorkMessages : nullptr);
                CWorkMessages& o = fresh ? *fresh : own;
                const long rc = o.nLastError != 0 ? o.nLastError
                                : n < 160 ? o.SetInput(501 + n / 4, kTypes[n % 4], nullptr, false)
                                          : o.TargetActive(501, -1);
                if (rc != M_OK) return Failure("churn", rc, o);
            }
            return "";
        });
        for (int i = 0; i < kPairs; ++i)
            work.Start([&, i](CWorkMessages& o) {
                return SendMany(o, file("/sent.", i), 301 + i, 0, nPerSender, "",
                                [&](int32_t k) { return plan[i][k]; });
            });
        for (int j = 0; j < kPairs; ++j)
            work.Start([&, j](CWorkMessages& o) -> std::string {
                for (const char* type : kTypes)
                    if (o.SetInput(401 + j, type, nullptr, 401 + j == kNewestFirst) != M_OK)
                        return Failure("SetInput", 0, o);
                // Until 1,600 are queued, for at most two minutes.
                for (long n = 0, queued = 0;
                     queued < std::min(nPerSender, 400) * kPairs && n < 12000; ++n) {
                    queued = 0;
                    for (int i = 0; i < kPairs; ++i)
                        queued += std::max(0L, FileSize(file("/sent.", i))) / sizeof(LogRecord);
                    if (n > 0) usleep(10000);
                }
                return ReceiveMany(o, file("/recv.", j), 401 + j, expected[j], 2, "");
            });
        churn.Go();
        work.Go();
        std::vector<std::string> faults = work.Wait();
        WriteFile(stop, "");
        faults.push_back(churn.Wait().at(0));
        for (size_t n = 0; n < faults.size(); ++n)
            EXPECT_EQ(faults[n], "") << "worker " << n;

        Delivery d;
        for (int i = 0; i < kPairs; ++i)
            d.Sent(file("/sent.", i));
        for (int j = 0; j < kPairs; ++j)
            EXPECT_EQ(d.Received(file("/recv.", j), 401 + j != kNewestFirst),
                      static_cast<size_t>(expected[j]))
                << "receiver " << j;
        d.NoneLost();
        EXPECT_EQ(d.nFaults, 0);
        // The tables and both files hold nothing and agree; the control table
        // and the registry grew on the way.
        EXPECT_TRUE(TableContents(wm).empty()) << "slots still in use";
        ExpectTablesEqualFiles(wm, wqcfFile, wddfFile);
        EXPECT_EQ(ReadFile(wddfFile).find_first_not_of('\0'), std::string::npos) << "data left";
        const _SM_Controls_& ctl = *CWorkMessagesTestAccess(wm).Controls();
        EXPECT_GT(ctl.nQSlotCount, 512);
        EXPECT_GT(ctl.nPRLSlotCount, 128);
    }
};

} // namespace wmtest

#endif
