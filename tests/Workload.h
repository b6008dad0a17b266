// The workload driver of the load and crash tests: message data that proves
// who sent it and that it arrived whole, logs that survive a SIGKILL of their
// writer, the send and receive loops that write them, and the check of what
// the logs say against what was sent.
//
// Every message's data is derived from (sender UID, sequence number, length):
// from 16 bytes on it starts with a header naming sender, sequence and length
// and a checksum of the rest. A receive yields the whole 8192-byte block (the
// data, then zeros), so its checksum also proves the length. A record is
// logged with one write(2) to an O_APPEND file right after the operation
// returned: a process killed later leaves it whole, one killed earlier
// leaves none.
#ifndef WM_TEST_WORKLOAD_H
#define WM_TEST_WORKLOAD_H

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "TestEnv.h"
#include "WorkMessages.h"

namespace wmtest {

const int32_t kBlock = WM_MAX_DEPDATA;
const int32_t kHeader = 16;

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

inline uint32_t Checksum(const void* p, size_t n) {
    const unsigned char* c = static_cast<const unsigned char*>(p);
    uint32_t h = 2166136261u; // FNV-1a
    for (size_t i = 0; i < n; ++i)
        h = (h ^ c[i]) * 16777619u;
    return h;
}

// Fills the block with the data of a message, zeros behind it; returns the
// block's checksum.
inline uint32_t MakeData(int32_t nSender, int32_t nSeq, int32_t nLength, char* block) {
    memset(block, 0, kBlock);
    uint64_t x = (static_cast<uint64_t>(static_cast<uint32_t>(nSender)) << 32 |
                  static_cast<uint32_t>(nSeq)) *
                     0x9E3779B97F4A7C15ull |
                 1;
    for (int32_t i = 0; i < nLength; ++i) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        block[i] = static_cast<char>(x);
    }
    if (nLength >= kHeader) {
        const int32_t h[4] = {nSender, nSeq, nLength,
                              static_cast<int32_t>(Checksum(block + kHeader, nLength - kHeader))};
        memcpy(block, h, sizeof(h));
    }
    return Checksum(block, kBlock);
}

// The header of a received block, when there is one that checks.
inline bool ReadHeader(const char* block, int32_t* nSender, int32_t* nSeq) {
    int32_t h[4];
    memcpy(h, block, sizeof(h));
    if (h[2] < kHeader || h[2] > kBlock) return false;
    if (static_cast<uint32_t>(h[3]) != Checksum(block + kHeader, h[2] - kHeader)) return false;
    for (int32_t i = h[2]; i < kBlock; ++i)
        if (block[i] != 0) return false;
    *nSender = h[0];
    *nSeq = h[1];
    return true;
}

class AppendLog {
public:
    explicit AppendLog(const std::string& path)
        : fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {}
    ~AppendLog() {
        if (fd >= 0) close(fd);
    }
    AppendLog(const AppendLog&) = delete;
    AppendLog& operator=(const AppendLog&) = delete;
    bool Write(const LogRecord& r) { return write(fd, &r, sizeof(r)) == sizeof(r); }

private:
    int fd;
};

inline std::vector<LogRecord> ReadLog(const std::string& path) {
    const std::string s = ReadFile(path);
    std::vector<LogRecord> out(s.size() / sizeof(LogRecord));
    if (!out.empty()) memcpy(out.data(), s.data(), out.size() * sizeof(LogRecord));
    return out;
}

// True once the write end of the pipe fd reads from is closed everywhere.
inline bool Closed(int fd) {
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

inline std::string Failure(const char* what, long rc, const CWorkMessages& wm) {
    return std::string(what) + " " + std::to_string(rc) + ": " + wm.szErrorMsg;
}

// Sends message nSeq of nSender and logs it once it is queued (M_OK or
// M_NOTACT). Returns Send's code.
inline long SendLogged(CWorkMessages& wm, AppendLog& log, int32_t nSender, int32_t nSeq,
                       int32_t nTarget, const char* szType, int32_t nLength, bool bHigh,
                       char* block) {
    const uint32_t nCrc = MakeData(nSender, nSeq, nLength, block);
    WorkMsg m;
    memset(&m, 0, sizeof(m));
    m.nTargetUID = nTarget;
    m.pDepData = block;
    m.nDepDataLength = nLength;
    const long rc = wm.Send(nSender, szType, &m, bHigh);
    if (rc == M_OK || rc == M_NOTACT) {
        const LogRecord r = {nSender,
                             static_cast<int32_t>(m.nMessageID & 0x00FFFFFF),
                             nSender,
                             nSeq,
                             static_cast<int32_t>(m.nMsgNo),
                             bHigh,
                             nCrc,
                             nTarget};
        if (!log.Write(r)) return M_SYSERR;
    }
    return rc;
}

// Receives the next message of nUID (one put back for retry with bRetry),
// logs it and deletes it. Returns the first failed step's code, or M_LOGIC
// with *fault set when the data is damaged.
inline long ReceiveLogged(CWorkMessages& wm, AppendLog& log, int32_t nUID, long nWait, char* block,
                          std::string* fault, bool bRetry = false) {
    memset(block, 0, kBlock);
    WorkMsg m;
    memset(&m, 0, sizeof(m));
    m.pDepData = block;
    m.nDepDataLength = kBlock;
    long rc = wm.Receive(nUID, nWait, &m, bRetry, nullptr);
    if (rc != M_OK) return rc;
    LogRecord r = {nUID,
                   static_cast<int32_t>(m.nMessageID & 0x00FFFFFF),
                   static_cast<int32_t>(m.nSenderUID),
                   -1,
                   static_cast<int32_t>(m.nMsgNo),
                   m.nMessageID < 0x01000000,
                   Checksum(block, kBlock),
                   static_cast<int32_t>(m.nTargetUID)};
    int32_t nSender = 0;
    if (ReadHeader(block, &nSender, &r.nSeq) && nSender != r.nSender) {
        *fault = "message " + std::to_string(m.nMessageID) + " from " + std::to_string(r.nSender) +
                 " carries the data of " + std::to_string(nSender);
        return M_LOGIC;
    }
    if (!log.Write(r)) return M_SYSERR;
    return wm.Delete(nUID, m.nMessageID);
}

// What a sender sends as message nSeq; a function of the sequence number, so
// that a test knows in advance what each receiver must get.
struct Planned {
    int32_t nTarget;
    const char* szType;
    int32_t nLength;
    bool bHigh;
};

// Sends nSender's messages nFirst, nFirst + 1, ... up to nEnd as planned,
// logging each, pausing nPauseUsecs after each; stops early once fdStop (if
// not -1) is closed. "" or the first fault.
inline std::string SendMany(CWorkMessages& wm, const std::string& strLog, int32_t nSender,
                            int32_t nFirst, int32_t nEnd, int fdStop,
                            const std::function<Planned(int32_t)>& plan,
                            useconds_t nPauseUsecs = 0) {
    AppendLog log(strLog);
    std::vector<char> block(kBlock);
    for (int32_t seq = nFirst; seq < nEnd && (fdStop < 0 || !Closed(fdStop)); ++seq) {
        const Planned p = plan(seq);
        const long rc = SendLogged(wm, log, nSender, seq, p.nTarget, p.szType, p.nLength, p.bHigh,
                                   block.data());
        if (rc != M_OK && rc != M_NOTACT) return Failure("Send", rc, wm);
        if (nPauseUsecs > 0) usleep(nPauseUsecs);
    }
    return "";
}

// Receives, logs and deletes nUID's messages, waiting nWait seconds each,
// until nCount have come; with fdStop (not -1), until it is closed and a
// receive finds nothing. Without fdStop ten empty receives in a row are a
// fault. "" or the first fault.
inline std::string ReceiveMany(CWorkMessages& wm, const std::string& strLog, int32_t nUID,
                               long nCount, long nWait, int fdStop) {
    AppendLog log(strLog);
    std::vector<char> block(kBlock);
    std::string fault;
    for (long got = 0, idle = 0; got < nCount;) {
        const long rc = ReceiveLogged(wm, log, nUID, nWait, block.data(), &fault);
        if (rc == M_TIMEOUT && fdStop >= 0 && Closed(fdStop)) break;
        if (rc == M_TIMEOUT && (fdStop >= 0 || ++idle < 10)) continue;
        if (rc != M_OK)
            return fault.empty() ? Failure("receive", rc, wm) + " after " + std::to_string(got)
                                 : fault;
        ++got, idle = 0;
    }
    return "";
}

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
                Check(unlogged && unlogged(r.nKey, r.nSender, r.nSeq), r, "never sent");
                continue;
            }
            const LogRecord& s = it->second;
            Check(r.nWho == s.nTarget && r.nSender == s.nSender && r.nType == s.nType &&
                      r.nHigh == s.nHigh,
                  r, "wrong target, sender, type or priority");
            Check(r.nCrc == s.nCrc && (r.nSeq == -1 || r.nSeq == s.nSeq), r, "data damaged");
            if (!bOrdered) continue;
            int32_t& prev = last.emplace(std::make_pair(s.nSender, s.nHigh), -1).first->second;
            Check(s.nSeq > prev, s, "out of order");
            prev = s.nSeq;
        }
        return log.size();
    }
    // Every message sent was received or is among those left.
    void NoneLost(const std::set<int32_t>& left = {}) {
        for (const auto& [nKey, s] : sent)
            Check(received.count(nKey) == 1 || left.count(nKey) == 1, s, "lost");
    }
    std::function<bool(int32_t nKey, int32_t nSender, int32_t nSeq)> unlogged;
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

} // namespace wmtest

#endif
