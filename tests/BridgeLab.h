// Two hosts and a server on one machine, for the bridge's test and its
// benchmark: a real nats-server on 127.0.0.1 (an unused port, its store in a
// given directory) and hosts that are each an IPC namespace of their own,
// kept alive by a holder process, with their own root, configuration,
// database directory and wmbridge. Every process of a host joins the
// holder's namespace (setns) and reads the host's GDDA_CONFIG.
//
// The hosts file puts the process PROCA on host "hostA" and PROCB on
// "hostB". No gtest here: the benchmark uses it too.
#ifndef WM_BRIDGE_LAB_H
#define WM_BRIDGE_LAB_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace bridgelab {

struct Host {
    std::string strName, strRoot, strConfig, strDb;
    pid_t nHolder = -1; // keeps the host's IPC namespace alive
    pid_t nBridge = -1;
};

// A port on 127.0.0.1 that nothing listens on now; -1 if none is found.
int UnusedPort();
// Starts nats-server -js on 127.0.0.1:nPort with its store and log in
// strDir; waits up to 10 s until it listens. -1 when it does not start.
pid_t StartServer(const std::string& strDir, int nPort);
// SIGKILL and reap; pid becomes -1.
void KillAndWait(pid_t& pid);

// Makes host strName under strParent (directories, the names and process
// files with the given texts, the hosts file, a configuration naming the
// server) and its namespace. False when the namespace cannot be made.
bool MakeHost(Host* h, const std::string& strParent, const std::string& strName, int nPort,
              const char* szNames, const char* szUIDs);
// Runs fn in a new process of host h; returns its pid.
pid_t InHost(const Host& h, const std::function<int()>& fn);
// Starts wmbridge (path strExe) on host h, its log in <root>/wmbridge.log.
void StartBridge(Host* h, const std::string& strExe);
// Kills the bridge and the holder of h.
void StopHost(Host* h);

// Exit code of a child, or 128 + signal.
int Wait(pid_t pid);

} // namespace bridgelab

#endif
