// The bridge's counters and its stats file.
//
// The bridge keeps its counters in memory and writes them, once a second and
// when it stops, to `wmbridge.stats` in the database directory (WM_DBPath):
// a text file of `key=value` lines, replaced atomically (written beside it,
// then renamed), so a reader sees either the previous or the new file, never
// a half-written one. `wmctl status` reads it to name the bridged processes,
// and `wmctl metrics` can show the counters. This part needs no messaging
// client, so wmctl builds it on every architecture.
#ifndef WMBRIDGE_STATS_H
#define WMBRIDGE_STATS_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace wmbridge {

// Name of the stats file inside the database directory.
extern const char* const kStatsFile;

// Counted by the running bridge; every field is written by one thread only
// (published by the outbound thread, the rest by the inbound thread).
struct Counters {
    std::atomic<uint64_t> nPublished{0};   // stream acknowledged the publish
    std::atomic<uint64_t> nDelivered{0};   // local Send returned M_OK or M_NOTACT
    std::atomic<uint64_t> nRedelivered{0}; // the stream delivered a message again
    std::atomic<uint64_t> nDuplicates{0};  // redeliveries dropped: already delivered here
    std::atomic<uint64_t> nLag{0};         // consumer lag: messages waiting in the stream
};

// One process the bridge receives for on this host.
struct BridgedProcess {
    std::string strName;
    long nUID = 0;
    std::string strHost;
};

// What a stats file says.
struct BridgeStatus {
    long nPid = 0;
    std::string strHost;
    long long nUpdated = 0; // time of the last write
    uint64_t nPublished = 0, nDelivered = 0, nRedelivered = 0, nDuplicates = 0, nLag = 0;
    std::vector<BridgedProcess> bridged;
};

// Writes the file atomically; false (errno set) when it cannot.
bool WriteStats(const std::string& strDbPath, const BridgeStatus& st);
// Reads the file; false when it is missing or unreadable. Unknown keys and
// malformed lines are skipped, so older readers accept newer files.
bool ReadStats(const std::string& strDbPath, BridgeStatus* pStatus);
// The counters as they are now, into a status record.
void Snapshot(const Counters& c, BridgeStatus* pStatus);

} // namespace wmbridge

#endif
