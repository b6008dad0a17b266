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

sockaddr_in Loopback(int nPort) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    return addr;
}

bool PortOpen(int nPort) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = Loopback(nPort);
    const bool bOpen = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    return bOpen;
}

void Write(const std::string& strPath, const std::string& strText) {
    std::ofstream(strPath, std::ios::trunc) << strText;
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
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = Loopback(0);
    socklen_t len = sizeof(addr);
    int nPort = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        nPort = ntohs(addr.sin_port);
    close(fd);
    return nPort;
}

pid_t StartServer(const std::string& strDir, int nPort) {
    const std::string strPort = std::to_string(nPort);
    const std::string strStore = strDir + "/store";
    pid_t pid = Spawn([&]() {
        LogTo(strDir + "/server.log", true);
        execlp("nats-server", "nats-server", "-js", "-a", "127.0.0.1", "-p", strPort.c_str(), "-sd",
               strStore.c_str(), static_cast<char*>(nullptr));
        return 5;
    });
    for (int i = 0; i < 1000 && !PortOpen(nPort); ++i)
        usleep(10000);
    if (!PortOpen(nPort)) KillAndWait(pid);
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
    h->strName = strName;
    h->strRoot = strParent + "/" + strName;
    h->strDb = h->strRoot + "/Dev/data/msgq";
    const std::string strAppconf = h->strRoot + "/Dev/control/appconf";
    for (const std::string& d : {strAppconf, h->strDb, h->strRoot + "/Dev/data/rmsgq"})
        std::filesystem::create_directories(d);
    Write(strAppconf + "/WorkMsg.ini", szNames);
    Write(strAppconf + "/ProcessUID.ini", szUIDs);
    Write(strAppconf + "/WMBHosts.ini", "NAME=PROCA,HOST=hostA\nNAME=PROCB,HOST=hostB\n");
    h->strConfig = h->strRoot + "/gdda.conf";
    Write(h->strConfig, "[Global]\nLevel=Dev\nRoot=" + h->strRoot +
                            // A bridge killed inside the Controls lock must not
                            // stop its host: the README asks bridged hosts for it.
                            "\n[Dev]\nWM_Timeout_Secs=5\nWM_RecoverDeadOwner=true\nWM_DBPath=" +
                            h->strDb + "\nWMB_Host=" + strName +
                            "\nWMB_Servers=nats://127.0.0.1:" + std::to_string(nPort) + "\n");
    h->nHolder = Spawn([]() {
        if (unshare(CLONE_NEWIPC) != 0) return 3;
        pause();
        return 0;
    });
    // The namespace is there once /proc shows the holder in another one.
    const auto own = std::filesystem::read_symlink("/proc/self/ns/ipc");
    const std::string strNs = "/proc/" + std::to_string(h->nHolder) + "/ns/ipc";
    for (int i = 0; i < 500; ++i) {
        std::error_code ec;
        const auto ns = std::filesystem::read_symlink(strNs, ec);
        if (!ec && ns != own) return true;
        usleep(10000);
    }
    return false;
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
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

} // namespace bridgelab
