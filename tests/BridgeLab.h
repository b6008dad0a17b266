// Two hosts and a server on one machine, for the bridge's test and its
// benchmark (no gtest here): nats-server on 127.0.0.1 (an unused port, its
// store in a given directory), and hosts that are each an IPC namespace kept
// by a holder process, with their own root, GDDA_CONFIG, database directory
// and wmbridge. The hosts file puts PROCA on "hostA" and PROCB on "hostB".
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

int UnusedPort(); // on 127.0.0.1; -1 if none is found
// Starts nats-server -js on 127.0.0.1:nPort, store and log in strDir; waits
// up to 10 s until it listens. -1 when it does not start.
pid_t StartServer(const std::string& strDir, int nPort);
void KillAndWait(pid_t& pid); // SIGKILL and reap; pid becomes -1
// Makes host strName under strParent: directories, names and process files,
// hosts file, a configuration naming the server, and its namespace. False
// when the namespace cannot be made.
bool MakeHost(Host* h, const std::string& strParent, const std::string& strName, int nPort,
              const char* szNames, const char* szUIDs);
pid_t InHost(const Host& h, const std::function<int()>& fn); // fn in a new process of h
// Starts wmbridge (path strExe) on h, its log in <root>/wmbridge.log.
void StartBridge(Host* h, const std::string& strExe);
void StopHost(Host* h); // kills the bridge and the holder
int Wait(pid_t pid);    // exit code of a child, or 128 + signal

} // namespace bridgelab

#endif
