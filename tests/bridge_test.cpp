// The cross-host bridge, end to end: a real server on 127.0.0.1 (an unused
// port, its store in the test's directory) and two hosts, each an IPC
// namespace of its own with its own root, database directory and wmbridge.
// PROCA lives on host A, PROCB on host B.
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "BridgeStats.h"
#include "GPLibrary.h"
#include "TestEnv.h"
#include "Wmctl.h"

using namespace wmtest;

namespace {

const long kProcA = 101, kProcB = 102;

int UnusedPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    close(fd);
    return port;
}

bool PortOpen(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const bool bOpen = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    return bOpen;
}

void KillAndWait(pid_t& pid) {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

// A received message: its data (exact length) and flags, as the slot says.
struct Got {
    std::string strData;
    bool bHigh = false;
    long nSender = 0;
};

class BridgeTest : public WmTest {
protected:
    struct Host {
        std::string strName, strRoot, strConfig, strDb;
        pid_t nHolder = -1; // keeps the host's IPC namespace alive
        pid_t nBridge = -1;
    };

    void SetUp() override {
        WmTest::SetUp();
        const char* dir = getenv("QV_WM_BINARY_DIR");
        strBridge = std::string(dir ? dir : "") + "/tools/wmbridge";
        strWmctl = std::string(dir ? dir : "") + "/tools/wmctl";
        if (dir == nullptr || access(strBridge.c_str(), X_OK) != 0)
            GTEST_SKIP() << "wmbridge is not built (QV_WM_BINARY_DIR unset or no libnats)";
        if (system("command -v nats-server > /dev/null") != 0)
            GTEST_SKIP() << "nats-server is not installed (scripts/setup.sh installs it)";
        nPort = UnusedPort();
        ASSERT_GT(nPort, 0);
        StartServer();
        MakeHost(hosts[0], "hostA");
        MakeHost(hosts[1], "hostB");
        for (Host& h : hosts)
            StartBridge(h);
    }

    void TearDown() override {
        for (Host& h : hosts) {
            KillAndWait(h.nBridge);
            KillAndWait(h.nHolder);
        }
        KillAndWait(nServer);
        WmTest::TearDown();
    }

    void MakeHost(Host& h, const std::string& strName) {
        h.strName = strName;
        h.strRoot = root + "/" + strName;
        h.strDb = h.strRoot + "/Dev/data/msgq";
        const std::string strAppconf = h.strRoot + "/Dev/control/appconf";
        for (const std::string& d : {strAppconf, h.strDb, h.strRoot + "/Dev/data/rmsgq"})
            std::filesystem::create_directories(d);
        WriteFile(strAppconf + "/WorkMsg.ini", kDefaultNames);
        WriteFile(strAppconf + "/ProcessUID.ini", kDefaultUIDs);
        WriteFile(strAppconf + "/WMBHosts.ini", "NAME=PROCA,HOST=hostA\nNAME=PROCB,HOST=hostB\n");
        h.strConfig = h.strRoot + "/gdda.conf";
        WriteFile(h.strConfig,
                  "[Global]\nLevel=Dev\nRoot=" + h.strRoot +
                      "\n[Dev]\nWM_Timeout_Secs=5\nWM_DBPath=" + h.strDb + "\nWMB_Host=" + strName +
                      "\nWMB_Servers=nats://127.0.0.1:" + std::to_string(nPort) + "\n");
        h.nHolder = StartChild([]() {
            if (unshare(CLONE_NEWIPC) != 0) return 3;
            pause();
            return 0;
        });
        // The holder's namespace is its own once /proc shows a new one.
        const std::string strOwn = std::filesystem::read_symlink("/proc/self/ns/ipc");
        for (int i = 0; i < 500; ++i) {
            std::error_code ec;
            const auto ns =
                std::filesystem::read_symlink("/proc/" + std::to_string(h.nHolder) + "/ns/ipc", ec);
            if (!ec && ns != strOwn) return;
            usleep(10000);
        }
        FAIL() << "host " << strName << " has no IPC namespace";
    }

    // Starts fn in a process of host h: its namespace, its configuration.
    pid_t InHost(const Host& h, const std::function<int()>& fn) {
        const std::string strNs = "/proc/" + std::to_string(h.nHolder) + "/ns/ipc";
        const std::string strConfig = h.strConfig;
        return StartChild([strNs, strConfig, fn]() {
            const int fd = open(strNs.c_str(), O_RDONLY);
            if (fd < 0 || setns(fd, CLONE_NEWIPC) != 0) return 4;
            close(fd);
            setenv("GDDA_CONFIG", strConfig.c_str(), 1);
            return fn();
        });
    }

    void StartBridge(Host& h) {
        const std::string strLog = h.strRoot + "/wmbridge.log";
        const std::string strExe = strBridge;
        h.nBridge = InHost(h, [strLog, strExe]() {
            const int fd = open(strLog.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(fd, 2);
            execl(strExe.c_str(), "wmbridge", static_cast<char*>(nullptr));
            return 5;
        });
    }

    void StartServer() {
        const std::string strStore = root + "/server";
        const std::string strPort = std::to_string(nPort);
        const std::string strLog = root + "/server.log";
        nServer = StartChild([strStore, strPort, strLog]() {
            const int fd = open(strLog.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            execlp("nats-server", "nats-server", "-js", "-a", "127.0.0.1", "-p", strPort.c_str(),
                   "-sd", strStore.c_str(), static_cast<char*>(nullptr));
            return 5;
        });
        for (int i = 0; i < 1000 && !PortOpen(nPort); ++i)
            usleep(10000);
        ASSERT_TRUE(PortOpen(nPort)) << ReadFile(strLog);
    }

    // Sends the texts from PROCA (host A) to PROCB, pausing between them.
    pid_t SendFromA(const std::vector<std::string>& texts, bool bHigh, unsigned nPauseUsecs) {
        return InHost(hosts[0], [texts, bHigh, nPauseUsecs]() {
            CWorkMessages wm;
            for (const std::string& t : texts) {
                WorkMsg m{};
                m.nTargetUID = kProcB;
                m.pDepData = const_cast<char*>(t.data());
                m.nDepDataLength = static_cast<long>(t.size());
                const long rc = wm.Send(kProcA, "ORDER", &m, bHigh);
                if (rc != M_OK && rc != M_NOTACT) return 1;
                if (nPauseUsecs) usleep(nPauseUsecs);
            }
            return 0;
        });
    }

    // Receives as PROCB on host B until nCount messages came or the time is
    // up; the messages go through a file back to the test.
    std::vector<Got> ReceiveOnB(size_t nCount, int nSeconds) {
        const std::string strOut = root + "/received";
        const int rc = WaitChild(InHost(hosts[1], [strOut, nCount, nSeconds]() {
            CWorkMessages wm;
            if (wm.SetInput(kProcB, "ORDER", nullptr, false) != M_OK) return 1;
            FILE* out = fopen(strOut.c_str(), "w");
            static unsigned char buf[WM_MAX_DEPDATA];
            const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(nSeconds);
            for (size_t n = 0; n < nCount && std::chrono::steady_clock::now() < tEnd;) {
                WorkMsg m{};
                m.pDepData = buf;
                m.nDepDataLength = sizeof(buf);
                if (wm.Receive(kProcB, 1, &m, false, nullptr) != M_OK) continue;
                _WQCF_ slot;
                if (!wmctl::FindReceivedSlot(kProcB, m, &slot)) return 2;
                const int32_t nLength = slot.nDepDataSlot == -1 ? 0 : slot.nDepDataLength;
                fprintf(out, "%d %ld %d\n", slot.xMsgMask != 0, m.nSenderUID, nLength);
                fwrite(buf, 1, static_cast<size_t>(nLength), out);
                wm.Delete(kProcB, m.nMessageID);
                ++n;
            }
            fclose(out);
            return 0;
        }));
        EXPECT_EQ(rc, 0);
        std::vector<Got> got;
        FILE* in = fopen(strOut.c_str(), "r");
        int bHigh = 0, nLength = 0;
        Got g;
        while (in && fscanf(in, "%d %ld %d", &bHigh, &g.nSender, &nLength) == 3 &&
               fgetc(in) == '\n') {
            g.bHigh = bHigh != 0;
            g.strData.assign(static_cast<size_t>(nLength), '\0');
            if (fread(&g.strData[0], 1, g.strData.size(), in) != g.strData.size()) break;
            got.push_back(g);
        }
        if (in) fclose(in);
        return got;
    }

    std::string Log(const Host& h) { return ReadFile(h.strRoot + "/wmbridge.log"); }

    std::string strBridge, strWmctl;
    int nPort = -1;
    pid_t nServer = -1;
    Host hosts[2];
};

std::vector<std::string> Numbered(const char* szPrefix, int n) {
    std::vector<std::string> texts;
    for (int i = 0; i < n; ++i)
        texts.push_back(szPrefix + std::to_string(i));
    return texts;
}

} // namespace

TEST_F(BridgeTest, DataPriorityAndOrderCrossTheHosts) {
    std::string strBinary(300, '\0');
    for (size_t i = 0; i < strBinary.size(); ++i)
        strBinary[i] = static_cast<char>(i * 7); // zero bytes inside, and at the end
    strBinary.back() = '\0';
    ASSERT_EQ(WaitChild(SendFromA({strBinary}, true, 0)), 0);
    const std::vector<std::string> texts = Numbered("order-", 40);
    ASSERT_EQ(WaitChild(SendFromA(texts, false, 0)), 0);

    const std::vector<Got> got = ReceiveOnB(1 + texts.size(), 30);
    ASSERT_EQ(got.size(), 1 + texts.size()) << Log(hosts[0]) << Log(hosts[1]);
    EXPECT_EQ(got[0].strData, strBinary);
    EXPECT_TRUE(got[0].bHigh);
    EXPECT_EQ(got[0].nSender, kProcA);
    for (size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(got[1 + i].strData, texts[i]);
        EXPECT_FALSE(got[1 + i].bHigh);
    }

    // The stats file counts the traffic, and wmctl status names what host A
    // bridges (PROCB, on host B).
    wmbridge::BridgeStatus st;
    for (int i = 0; i < 50 && (st.nPublished < got.size()); ++i) {
        usleep(100000);
        wmbridge::ReadStats(hosts[0].strDb, &st);
    }
    EXPECT_EQ(st.nPublished, got.size());
    const std::string strOut = root + "/status.out";
    const std::string strCmd = strWmctl + " status > " + strOut + " 2>&1";
    ASSERT_EQ(WaitChild(InHost(hosts[0], [strCmd]() { return system(strCmd.c_str()); })), 0);
    EXPECT_TRUE(Contains(ReadFile(strOut), "PROCB (102) on host hostB")) << ReadFile(strOut);
}

// SIGKILL of either bridge and of the server in the middle of a stream: every
// message arrives, in order; a duplicate can only be the message bridge B had
// just queued when it was killed (the README's one window), so at most one,
// right after its first copy.
TEST_F(BridgeTest, KillsOfBridgesAndServerLoseNothing) {
    const int kCount = 150;
    const std::vector<std::string> texts = Numbered("seq-", kCount);
    const pid_t sender = SendFromA(texts, false, 15000);
    auto pause = [](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); };
    pause(400);
    KillAndWait(hosts[0].nBridge);
    pause(200);
    StartBridge(hosts[0]);
    pause(500);
    KillAndWait(hosts[1].nBridge);
    pause(200);
    StartBridge(hosts[1]);
    pause(500);
    KillAndWait(nServer);
    pause(300);
    StartServer();
    ASSERT_EQ(WaitChild(sender), 0);

    // A duplicate takes one of the kCount places: one more look finds the last.
    std::vector<Got> got = ReceiveOnB(kCount, 40);
    for (const Got& g : ReceiveOnB(1, 2))
        got.push_back(g);
    size_t nDuplicates = 0;
    std::vector<std::string> distinct;
    for (const Got& g : got) {
        if (!distinct.empty() && distinct.back() == g.strData)
            ++nDuplicates;
        else
            distinct.push_back(g.strData);
    }
    EXPECT_EQ(distinct, texts) << Log(hosts[0]) << Log(hosts[1]);
    EXPECT_LE(nDuplicates, 1u);
}
