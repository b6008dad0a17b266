// wmbridge: start, connection, the two directions, stop.
//
// The bridge reads its configuration, makes sure it is the only bridge of the
// host (an exclusive lock on `wmbridge.lock` in WM_DBPath), connects to the
// servers (reconnecting without limit), makes the stream when it is missing,
// and runs the outbound and the inbound direction in a thread each. The main
// thread writes the stats file once a second. SIGTERM or SIGINT ends every
// loop at its next step; what was in flight is repeated at the next start
// (see Outbound.cpp and Inbound.cpp for why nothing is lost or doubled).
//
// Exit codes: 0 after a stop by signal, 1 when the bridge could not start or
// one direction failed, 2 for a wrong command line.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>

#include "Bridge.h"
#include "GPLibrary.h"
#include "Internal.h"
#include "WorkMessages.h"

namespace wmbridge {

const char* const kHdrType = "WM-Type";
const char* const kHdrSender = "WM-Sender";
const char* const kHdrTarget = "WM-Target";
const char* const kHdrHigh = "WM-High";
const char* const kHdrResponse = "WM-Response";
const char* const kHdrSent = "WM-Sent";
const char* const kHdrOrigin = "WM-Origin";
const char* const kAllTypes = "ALLQ";

std::atomic<bool> g_bStop{false};

void Log(const char* szFormat, ...) {
    char szText[1024];
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szText, sizeof(szText), szFormat, args);
    va_end(args);
    Log2cerr(szText, "wmbridge", true);
}

namespace {

void OnStopSignal(int) {
    g_bStop = true;
}

// Connects to the servers; the client retries the first connection and
// every lost one without limit, so a server that is down only delays work.
bool Connect(const Config& cfg, natsConnection** pnc) {
    natsOptions* opts = nullptr;
    if (natsOptions_Create(&opts) != NATS_OK) return false;
    auto destroy = qvwm::OnScopeExit([opts]() { natsOptions_Destroy(opts); });
    std::vector<const char*> urls;
    for (const std::string& s : cfg.servers)
        urls.push_back(s.c_str());
    const std::string strName = "wmbridge-" + cfg.strHost;
    natsStatus s = natsOptions_SetServers(opts, urls.data(), static_cast<int>(urls.size()));
    if (s == NATS_OK) s = natsOptions_SetName(opts, strName.c_str());
    if (s == NATS_OK) s = natsOptions_SetMaxReconnect(opts, -1);
    if (s == NATS_OK) s = natsOptions_SetReconnectWait(opts, 250);
    if (s == NATS_OK) s = natsOptions_SetRetryOnFailedConnect(opts, true, nullptr, nullptr);
    if (s == NATS_OK) s = natsConnection_Connect(pnc, opts);
    // With retries on, a first connection still under way is not a failure.
    if (s == NATS_NOT_YET_CONNECTED) s = NATS_OK;
    if (s != NATS_OK)
        Log("cannot connect to %s: %s", cfg.servers[0].c_str(), natsStatus_GetText(s));
    return s == NATS_OK;
}

// Makes the stream of every host's subjects when it is missing; waits for a
// server as long as none answers.
bool EnsureStream(const Config& cfg, jsCtx* js) {
    bool bLogged = false;
    while (!g_bStop) {
        jsStreamInfo* si = nullptr;
        jsErrCode nErr = static_cast<jsErrCode>(0);
        natsStatus s = js_GetStreamInfo(&si, js, cfg.strStream.c_str(), nullptr, &nErr);
        if (s == NATS_NOT_FOUND || nErr == JSStreamNotFoundErr) {
            const std::string strSubjects = cfg.strSubject + ".>";
            const char* subjects[] = {strSubjects.c_str()};
            jsStreamConfig sc;
            jsStreamConfig_Init(&sc);
            sc.Name = cfg.strStream.c_str();
            sc.Subjects = subjects;
            sc.SubjectsLen = 1;
            sc.Retention = js_WorkQueuePolicy; // a message leaves once its host acked it
            sc.Storage = js_FileStorage;
            sc.Replicas = cfg.nReplicas;
            sc.Duplicates = cfg.nDupWindowSecs * 1000000000LL;
            s = js_AddStream(&si, js, &sc, nullptr, &nErr);
            if (s == NATS_OK) Log("made the stream %s", cfg.strStream.c_str());
        }
        jsStreamInfo_Destroy(si);
        if (s == NATS_OK) return true;
        if (!bLogged)
            Log("waiting for the stream %s: %s (%d)", cfg.strStream.c_str(), natsStatus_GetText(s),
                static_cast<int>(nErr));
        bLogged = true;
        Usleep(500000);
    }
    return false;
}

// Registrations of a bridge that was killed stay in the registry under its
// process ID; the new bridge removes them before it registers itself.
void DropStaleRegistrations(const Config& cfg, CWorkMessages& wm) {
    BridgeStatus old;
    if (!ReadStats(cfg.strDbPath, &old) || old.nPid <= 0 || old.nPid == getpid()) return;
    for (const RemoteProcess& r : cfg.remotes)
        wm.UnsetInput(r.nUID, kAllTypes, old.nPid);
}

int Usage(FILE* out) {
    fprintf(out, "Usage: wmbridge\n"
                 "Carries work messages between hosts through a JetStream stream. Reads the\n"
                 "configuration named by GDDA_CONFIG (default /etc/gdda.conf): WMB_Host,\n"
                 "WMB_Servers and the hosts file WMBHosts.ini; runs until SIGTERM or SIGINT.\n");
    return out == stdout ? 0 : 2;
}

int Main() {
    Config cfg;
    std::string strError;
    if (!LoadConfig(&cfg, &strError)) {
        Log("configuration: %s", strError.c_str());
        return 1;
    }

    // One bridge per host: the lock lives as long as the process.
    const std::string strLock = cfg.strDbPath + "/wmbridge.lock";
    FILE* fpLock = fopen(strLock.c_str(), "a");
    int nAction = 1;
    if (fpLock == nullptr || !FileLock(fpLock, &nAction, 4)) {
        Log("another bridge runs on this host (%s held by process %d)", strLock.c_str(), nAction);
        if (fpLock) fclose(fpLock);
        return 1;
    }
    auto unlock = qvwm::OnScopeExit([fpLock]() {
        int nRelease = 2;
        FileLock(fpLock, &nRelease, 4);
        fclose(fpLock);
    });

    // This object keeps the shared state for the bridge's whole life; built
    // first after a reboot, it keeps the messages received but not deleted.
    CWorkMessages wm(true);
    if (wm.nLastError != 0) {
        Log("cannot attach to the queues: %s", wm.szErrorMsg);
        return 1;
    }
    if (!ResolveRemotes(&cfg, wm, &strError)) {
        Log("configuration: %s", strError.c_str());
        return 1;
    }
    DropStaleRegistrations(cfg, wm);

    BridgeStatus status;
    status.nPid = getpid();
    status.strHost = cfg.strHost;
    for (const RemoteProcess& r : cfg.remotes)
        status.bridged.push_back(BridgedProcess{r.strName, r.nUID, r.strHost});
    Counters counters;
    auto writeStats = [&]() {
        Snapshot(counters, &status);
        status.nUpdated = time(nullptr);
        if (!WriteStats(cfg.strDbPath, status))
            Log("cannot write %s/%s: %s", cfg.strDbPath.c_str(), kStatsFile, strerror(errno));
    };
    writeStats();

    natsConnection* nc = nullptr;
    jsCtx* js = nullptr;
    auto closeNats = qvwm::OnScopeExit([&]() {
        jsCtx_Destroy(js);
        natsConnection_Destroy(nc);
        nats_Close();
    });
    if (!Connect(cfg, &nc) || natsConnection_JetStream(&js, nc, nullptr) != NATS_OK) return 1;
    if (!EnsureStream(cfg, js)) return g_bStop ? 0 : 1;
    Log("bridging host %s: %zu remote process(es), servers %s", cfg.strHost.c_str(),
        cfg.remotes.size(), cfg.servers[0].c_str());

    std::atomic<bool> bFailed{false};
    auto run = [&](bool (*fn)(const Config&, jsCtx*, Counters*)) {
        if (!fn(cfg, js, &counters)) {
            bFailed = true;
            g_bStop = true;
        }
    };
    std::thread outbound(run, RunOutbound);
    std::thread inbound(run, RunInbound);
    while (!g_bStop) {
        Usleep(1000000);
        writeStats();
    }
    outbound.join();
    inbound.join();
    writeStats();
    Log("stopped");
    return bFailed ? 1 : 0;
}

} // namespace

} // namespace wmbridge

int main(int argc, char** argv) {
    if (argc > 1) return wmbridge::Usage(strcmp(argv[1], "--help") == 0 ? stdout : stderr);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = wmbridge::OnStopSignal;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return wmbridge::Main();
}
