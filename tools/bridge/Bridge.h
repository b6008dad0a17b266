// wmbridge: the declarations its parts share.
//
// One bridge runs per host. It carries messages addressed to processes of
// other hosts through a JetStream stream and hands the messages of this
// host's processes from that stream to the local queues:
//   Config.cpp    the host's configuration: keys, the hosts file, the types
//   Outbound.cpp  local queue -> stream (the bridge receives for remote UIDs)
//   Inbound.cpp   stream -> local queue (a durable pull consumer)
//   Stats.cpp     the counters and the stats file `wmctl` reads
//   wmbridge.cpp  start, the connection, the two threads, stop
//
// Each thread owns its own CWorkMessages (one object per thread, as the
// library wants) and shares only the connection (the client is thread-safe)
// and the counters (atomics).
#ifndef WMBRIDGE_H
#define WMBRIDGE_H

#include <nats/nats.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "BridgeStats.h"
#include "WorkMessages.h"

namespace wmbridge {

// A process that lives on another host: the bridge receives for it here.
struct RemoteProcess {
    std::string strName; // as in ProcessUID.ini
    long nUID = 0;       // its UID on this host
    std::string strHost; // where it lives
};

struct Config {
    std::string strHost;                 // WMB_Host: this host's name
    std::vector<std::string> servers;    // WMB_Servers, comma-separated URLs
    std::string strStream = "WORKMSG";   // WMB_Stream
    std::string strSubject = "wm";       // WMB_Subject: first token of every subject
    long nDupWindowSecs = 600;           // WMB_DupWindow: the stream's duplicate window
    long nReplicas = 1;                  // WMB_Replicas: copies of the stream in a cluster
    std::string strDbPath;               // WM_DBPath (as the library computes it)
    std::string strHostsFile;            // Root/<level>/control/appconf/WMBHosts.ini
    std::vector<std::string> types;      // every type name of WorkMsg.ini
    std::vector<RemoteProcess> remotes;  // processes the hosts file puts elsewhere
    std::vector<std::string> localNames; // processes the hosts file puts here
};

// Reads the configuration, the hosts file and the types file. The remote
// UIDs are resolved later (ResolveRemotes), through a library object.
bool LoadConfig(Config* pCfg, std::string* pError);
// Fills nUID of every remote process by name; false names the first unknown.
bool ResolveRemotes(Config* pCfg, CWorkMessages& wm, std::string* pError);
// A subject token: letters, digits, '-' and '_' only (no '.', '*', '>').
bool IsSubjectToken(const std::string& s);

// The subject of a message for process UID nUID of host strHost.
std::string SubjectFor(const Config& cfg, const std::string& strHost, long nUID);

// Headers of a bridged message.
extern const char* const kHdrType;     // type name
extern const char* const kHdrSender;   // sender's process name
extern const char* const kHdrTarget;   // target's process name
extern const char* const kHdrHigh;     // "1": high priority
extern const char* const kHdrResponse; // "1": a response is required
extern const char* const kHdrSent;     // original send time (seconds since 1970)
extern const char* const kHdrOrigin;   // origin host

// UnsetInput's name for every type of a UID.
extern const char* const kAllTypes;

// Logs one line through the support library under the tag "wmbridge".
void Log(const char* szFormat, ...) __attribute__((format(printf, 1, 2)));

// Set by SIGTERM/SIGINT: every loop ends at its next step.
extern std::atomic<bool> g_bStop;

// The two directions. Each returns when g_bStop is set, or at once with
// false when it cannot start (the reason is logged).
bool RunOutbound(const Config& cfg, jsCtx* js, Counters* pCounters);
bool RunInbound(const Config& cfg, jsCtx* js, Counters* pCounters);

} // namespace wmbridge

#endif
