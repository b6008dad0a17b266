// The two-host lab of BridgeLab.h: processes are forked, hosts are IPC
// namespaces joined through /proc/<holder>/ns/ipc, the server is a child.
#include "BridgeLab.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace bridgelab {

namespace {

// Connects to (bBind false) or binds (true) 127.0.0.1:nPort; the port it got,
// or -1.
int Probe(int nPort, bool bBind) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    socklen_t len = sizeof(addr);
    auto* sa = reinterpret_cast<sockaddr*>(&addr);
    const bool ok = bBind ? bind(fd, sa, len) == 0 && getsockname(fd, sa, &len) == 0
                          : connect(fd, sa, len) == 0;
    close(fd);
    return ok ? ntohs(addr.sin_port) : -1;
}

pid_t Spawn(const std::function<int()>& fn) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int rc = fn();
        fflush(nullptr);
        _exit(rc);
    }
    return pid;
}

// Sends the child's standard error (and output) to the file.
void LogTo(const std::string& strLog, bool bStdout) {
    const int fd = open(strLog.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (bStdout) dup2(fd, 1);
    dup2(fd, 2);
    close(fd);
}

} // namespace

int UnusedPort() {
    return Probe(0, true);
}

pid_t StartServer(const std::string& strDir, int nPort) {
    const std::string strPort = std::to_string(nPort), strStore = strDir + "/store";
    pid_t pid = Spawn([&]() {
        LogTo(strDir + "/server.log", true);
        execlp("nats-server", "nats-server", "-js", "-a", "127.0.0.1", "-p", strPort.c_str(), "-sd",
               strStore.c_str(), static_cast<char*>(nullptr));
        return 5;
    });
    for (int i = 0; i < 1000 && Probe(nPort, false) < 0; ++i)
        usleep(10000);
    if (Probe(nPort, false) < 0) KillAndWait(pid);
    return pid;
}

void KillAndWait(pid_t& pid) {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

bool MakeHost(Host* h, const std::string& strParent, const std::string& strName, int nPort,
              const char* szNames, const char* szUIDs) {
    const std::string strRoot = strParent + "/" + strName;
    *h = Host{strName, strRoot, strRoot + "/gdda.conf", strRoot + "/Dev/data/msgq"};
    const std::string strAppconf = h->strRoot + "/Dev/control/appconf";
    for (const std::string& d : {strAppconf, h->strDb, h->strRoot + "/Dev/data/rmsgq"})
        std::filesystem::create_directories(d);
    std::ofstream(strAppconf + "/WorkMsg.ini") << szNames;
    std::ofstream(strAppconf + "/ProcessUID.ini") << szUIDs;
    std::ofstream(strAppconf + "/WMBHosts.ini") << "NAME=PROCA,HOST=hostA\nNAME=PROCB,HOST=hostB\n";
    // A bridge killed inside the Controls lock must not stop its host: the
    // README asks bridged hosts for WM_RecoverDeadOwner.
    std::ofstream(h->strConfig) << "[Global]\nLevel=Dev\nRoot=" << h->strRoot
                                << "\n[Dev]\nWM_Timeout_Secs=5\nWM_RecoverDeadOwner=true\n"
                                << "WM_DBPath=" << h->strDb << "\nWMB_Host=" << strName
                                << "\nWMB_Servers=nats://127.0.0.1:" << nPort << "\n";
    // The holder says over a pipe once its namespace is made.
    int fds[2];
    if (pipe(fds) != 0) return false;
    h->nHolder = Spawn([&]() {
        const char ok = unshare(CLONE_NEWIPC) == 0;
        if (write(fds[1], &ok, 1) != 1 || !ok) return 3;
        pause();
        return 0;
    });
    close(fds[1]);
    char ok = 0;
    const bool bMade = read(fds[0], &ok, 1) == 1 && ok;
    close(fds[0]);
    return bMade;
}

pid_t InHost(const Host& h, const std::function<int()>& fn) {
    const std::string strNs = "/proc/" + std::to_string(h.nHolder) + "/ns/ipc";
    return Spawn([&]() {
        const int fd = open(strNs.c_str(), O_RDONLY);
        if (fd < 0 || setns(fd, CLONE_NEWIPC) != 0) return 4;
        close(fd);
        setenv("GDDA_CONFIG", h.strConfig.c_str(), 1);
        return fn();
    });
}

void StartBridge(Host* h, const std::string& strExe) {
    const std::string strLog = h->strRoot + "/wmbridge.log";
    h->nBridge = InHost(*h, [&]() {
        LogTo(strLog, false);
        execl(strExe.c_str(), "wmbridge", static_cast<char*>(nullptr));
        return 5;
    });
}

void StopHost(Host* h) {
    KillAndWait(h->nBridge);
    KillAndWait(h->nHolder);
}

int Wait(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status)     ? WEXITSTATUS(status)
           : WIFSIGNALED(status) ? 128 + WTERMSIG(status)
                                 : -1;
}

} // namespace bridgelab
