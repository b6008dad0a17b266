// The load and crash tests' workload: send and receive loops whose logs
// survive a SIGKILL (one O_APPEND write(2) per record), workers, and the check
// of logs and tables. A message's data derives from (sender, sequence,
// length) and starts with them, so regenerating it proves all three.
#ifndef WM_TEST_WORKLOAD_H
#define WM_TEST_WORKLOAD_H

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>

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

// Fills the block with a message's data, zeros behind; returns its checksum.
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
    *nSender = h[0], *nSeq = h[1];
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
    const auto* p = reinterpret_cast<const LogRecord*>(s.data());
    return {p, p + s.size() / sizeof(LogRecord)};
}

inline std::string Failure(const char* what, long rc, const CWorkMessages& wm) {
    return std::string(what) + " " + std::to_string(rc) + ": " + wm.szErrorMsg;
}

// What a sender sends as message nSeq.
struct Planned {
    int32_t nTarget;
    const char* szType;
    int32_t nLength;
    bool bHigh;
};

// Sends and logs nSender's messages nFirst..nEnd-1 until the file strStop
// (if not "") exists. "" or the first fault.
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

// Receives, logs and deletes nUID's messages until the file strStop exists
// and a receive finds nothing.
inline std::string ReceiveMany(CWorkMessages& wm, const std::string& strLog, int32_t nUID,
                               const std::string& strStop) {
    std::vector<char> block(kBlock);
    for (;;) {
        memset(block.data(), 0, kBlock);
        WorkMsg m = {};
        m.pDepData = block.data();
        m.nDepDataLength = kBlock;
        const long rc = wm.Receive(nUID, 1, &m, false, nullptr);
        if (rc == M_TIMEOUT && FileExists(strStop)) return "";
        if (rc == M_TIMEOUT) continue;
        if (rc != M_OK) return Failure("Receive", rc, wm);
        LogRecord r = {nUID,
                       int32_t(m.nMessageID & 0xFFFFFF),
                       int32_t(m.nSenderUID),
                       -1,
                       int32_t(m.nMsgNo),
                       m.nMessageID < 0x01000000,
                       Checksum(block.data()),
                       int32_t(m.nTargetUID)};
        int32_t nSender = 0; // the data's: Delivery checks it by the checksum
        ReadHeader(block.data(), &nSender, &r.nSeq);
        if (!AppendRecord(strLog, r)) return "log";
        if (const long del = wm.Delete(nUID, m.nMessageID)) return Failure("Delete", del, wm);
    }
}

// The control table: key -> state, sender and sequence (0, -1 without data).
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

// The tables equal the files: header, every control slot, the data slot table.
inline void ExpectTablesEqualFiles(CWorkMessages& wm, const std::string& strControlFile,
                                   const std::string& strDataFile) {
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(acc.GetPointers(), M_OK);
    const std::string control = ReadFile(strControlFile), data = ReadFile(strDataFile);
    const _SM_Controls_& ctl = *acc.Controls();
    EXPECT_EQ(ImageHeader(control).nEntriesAllocated, ctl.nQSlotCount);
    EXPECT_EQ(ImageHeader(control).nCurrentMsgID, ctl.nMsgCounter);
    long nDiffer = 0;
    for (long i = 0; i < ctl.nQSlotCount; ++i) {
        _WQCF_ stored = {};
        if (control.size() >= sizeof(_WQCF_) * (i + 2)) stored = ImageSlot(control, i);
        nDiffer += memcmp(&stored, &acc.Queues()[i], sizeof(_WQCF_)) != 0;
    }
    EXPECT_EQ(nDiffer, 0) << "control slots unlike the file's";
    EXPECT_EQ(memcmp(data.data(), acc.SAT(), std::min(data.size(), size_t(kBlock))), 0);
    acc.Return(M_OK);
}

// Runs fn in a child process whose fault goes to standard error (exit 1).
inline pid_t StartWorker(const std::function<std::string()>& fn) {
    return StartChild([&fn] {
        const std::string fault = fn();
        fprintf(stderr, "%s%s", fault.c_str(), fault.empty() ? "" : "\n");
        return fault.empty() ? 0 : 1;
    });
}

// Workers (processes or threads) started at Go. A thread's object lives from
// Start to the Crew's end: the thread sanitizer takes a reused mapping
// address for the memory it named before.
class Crew {
public:
    using Work = std::function<std::string(CWorkMessages&)>;
    explicit Crew(bool threads) : bThreads(threads) {}
    ~Crew() { Wait(); }
    void Start(const Work& fn) {
        deqRuns.push_back([fn](CWorkMessages& wm) {
            return wm.nLastError != 0 ? Failure("construction", wm.nLastError, wm) : fn(wm);
        });
        deqFaults.emplace_back();
        if (bThreads) vecObjects.emplace_back(new CWorkMessages);
    }
    void Go() {
        for (; nStarted < deqRuns.size(); ++nStarted) {
            const Work& run = deqRuns[nStarted];
            std::string& fault = deqFaults[nStarted];
            if (bThreads) {
                CWorkMessages& wm = *vecObjects[nStarted];
                vecThreads.emplace_back([&run, &wm, &fault] { fault = run(wm); });
                continue;
            }
            vecPids.push_back(StartWorker([&run] {
                CWorkMessages wm;
                return run(wm);
            }));
        }
    }
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
    size_t nStarted = 0;
    std::deque<Work> deqRuns; // deques: threads hold references into them
    std::deque<std::string> deqFaults;
    std::vector<std::unique_ptr<CWorkMessages>> vecObjects;
    std::vector<std::thread> vecThreads;
    std::vector<pid_t> vecPids;
};

// The delivery as the logs tell it: IDs unique; each message received at
// most once, whole, as sent, in order on an oldest-first receiver. A message
// no sender logged passes only when unlogged allows it.
class Delivery {
public:
    void Sent(const std::string& strLog) {
        for (const LogRecord& r : ReadLog(strLog))
            Check(sent.emplace(r.nKey, r).second, r, "two messages with one ID");
    }
    void Received(const std::string& strLog, bool bOrdered) {
        std::map<std::pair<int32_t, int32_t>, int32_t> last; // (sender, high) -> seq
        for (const LogRecord& r : ReadLog(strLog)) {
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
    }
    // Left in the table: only received messages (the receiver killed).
    void NoneLost(CWorkMessages& wm) {
        std::set<int32_t> left;
        for (const auto& [nKey, s] : TableContents(wm)) {
            const LogRecord r = {0, nKey, s.nSender, s.nSeq, 0, 0, 0, 0};
            const auto it = sent.find(nKey);
            Check(s.nState == WQCF_Received &&
                      (received.count(nKey) == 1 ||
                       (it != sent.end()
                            ? it->second.nSender == s.nSender && it->second.nSeq == s.nSeq
                            : unlogged && unlogged(s.nSender, s.nSeq))),
                  r, "left unreceived or never sent");
            left.insert(nKey);
        }
        for (const auto& [nKey, s] : sent)
            Check(received.count(nKey) == 1 || left.count(nKey) == 1, s, "lost");
    }
    std::function<bool(int32_t nSender, int32_t nSeq)> unlogged;
    std::map<int32_t, LogRecord> sent;
    std::set<int32_t> received;
    int nFaults = 0; // the first five are reported

private:
    void Check(bool ok, const LogRecord& r, const char* what) {
        if (!ok && ++nFaults <= 5)
            ADD_FAILURE() << what << ": key " << r.nKey << " sender " << r.nSender << " seq "
                          << r.nSeq << " at " << r.nWho;
    }
};

// The load: four senders and four receivers exchange messages of random
// types, sizes and priorities, the control table growing past 512 slots.
// Each arrives once, whole, in order; then tables and files hold nothing.
class StressTest : public WmTest {
protected:
    void Exchange(bool bThreads, int nPerSender) {
        // Eight workers poll one busy lock (the README's limits).
        WriteConfig("WM_Timeout_Secs=30\n");
        const int kPairs = 4; // senders 301.., receivers 401..; 404 newest first
        const char* const kTypes[] = {"ORDER", "INVOICE", "REPORT", "ALERT"};
        auto plan = [&](int32_t i, int32_t k) {
            std::mt19937 rng(i << 16 | k);
            return Planned{401 + int32_t(rng() % kPairs), kTypes[rng() % 4],
                           int32_t(rng() % (kBlock + 1)), rng() % 8 == 0};
        };
        CWorkMessages wm; // keeps the shared state for the final look
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        for (int j = 0; j < kPairs; ++j)
            for (const char* type : kTypes)
                ASSERT_EQ(wm.SetInput(401 + j, type, nullptr, j == kPairs - 1), M_OK);
        auto file = [&](const char* kind, int n) { return root + kind + std::to_string(n); };
        Crew senders(bThreads), receivers(bThreads);
        for (int i = 0; i < kPairs; ++i)
            senders.Start([&, i](CWorkMessages& o) {
                return SendMany(o, file("/sent.", i), 301 + i, 0, nPerSender, "",
                                [&](int32_t k) { return plan(i, k); });
            });
        for (int j = 0; j < kPairs; ++j)
            receivers.Start([&, j](CWorkMessages& o) {
                return ReceiveMany(o, file("/recv.", j), 401 + j, root + "/stop");
            });
        senders.Go();
        // Receivers start once 1,600 are queued (at most two minutes).
        for (long n = 0, queued = 0; queued < std::min(nPerSender, 400) * kPairs && n < 12000;
             ++n, usleep(10000))
            for (int i = queued = 0; i < kPairs; ++i)
                queued += std::max(0L, FileSize(file("/sent.", i))) / sizeof(LogRecord);
        receivers.Go();
        for (const std::string& fault : senders.Wait())
            EXPECT_EQ(fault, "");
        WriteFile(root + "/stop", "");
        for (const std::string& fault : receivers.Wait())
            EXPECT_EQ(fault, "");

        Delivery d;
        for (int i = 0; i < kPairs; ++i)
            d.Sent(file("/sent.", i));
        for (int j = 0; j < kPairs; ++j)
            d.Received(file("/recv.", j), j != kPairs - 1);
        d.NoneLost(wm);
        EXPECT_EQ(d.nFaults, 0);
        ExpectTablesEqualFiles(wm, wqcfFile, wddfFile);
        EXPECT_EQ(ReadFile(wddfFile).find_first_not_of('\0'), std::string::npos) << "data left";
        EXPECT_GT(CWorkMessagesTestAccess(wm).Controls()->nQSlotCount, 512) << "no growth";
    }
};

} // namespace wmtest

#endif
