// The cross-host bridge, end to end: a real server on 127.0.0.1 (an unused
// port, its store in the test's directory) and two hosts, each an IPC
// namespace with its own root, database directory and wmbridge (BridgeLab).
// PROCA lives on host A, PROCB on host B.
#include <unistd.h>

#include <chrono>
#include <thread>

#include "BridgeLab.h"
#include "TestEnv.h"
#include "Wmctl.h"

using namespace wmtest;

namespace {

const long kProcA = 101, kProcB = 102;

int Fail(const std::string& strWhy) { // in a child: says why, exits 1
    fprintf(stderr, "%s\n", strWhy.c_str());
    return 1;
}

// A program of this build; "" when it is not built or CTest did not say where.
std::string Tool(const char* szName) {
    const char* dir = getenv("QV_WM_BINARY_DIR");
    const std::string path = std::string(dir ? dir : "") + "/tools/" + szName;
    return dir && access(path.c_str(), X_OK) == 0 ? path : "";
}

class BridgeTest : public WmTest {
protected:
    void SetUp() override {
        WmTest::SetUp();
        if (Tool("wmbridge").empty())
            GTEST_SKIP() << "wmbridge is not built (QV_WM_BINARY_DIR unset or no libnats)";
        if (system("command -v nats-server > /dev/null") != 0)
            GTEST_SKIP() << "nats-server is not installed (scripts/setup.sh installs it)";
        nPort = bridgelab::UnusedPort();
        ASSERT_GT(nPort, 0);
        StartServer();
        for (int i = 0; i < 2; ++i) {
            ASSERT_TRUE(bridgelab::MakeHost(&hosts[i], root, i ? "hostB" : "hostA", nPort,
                                            kDefaultNames, kDefaultUIDs));
            bridgelab::StartBridge(&hosts[i], Tool("wmbridge"));
        }
    }
    void TearDown() override {
        for (bridgelab::Host& h : hosts)
            bridgelab::StopHost(&h);
        bridgelab::KillAndWait(nServer);
        WmTest::TearDown();
    }
    void StartServer() {
        nServer = bridgelab::StartServer(root, nPort);
        ASSERT_GT(nServer, 0) << ReadFile(root + "/server.log");
    }

    // Sends the texts as ORDERs from PROCA (host A) to PROCB, the first nHigh
    // of high priority, pausing between them.
    pid_t SendFromA(const std::vector<std::string>& texts, size_t nHigh, unsigned nPauseUsecs) {
        return bridgelab::InHost(hosts[0], [texts, nHigh, nPauseUsecs]() {
            CWorkMessages wm;
            for (size_t i = 0; i < texts.size(); ++i) {
                WorkMsg m = MsgTo(kProcB, texts[i].data(), static_cast<long>(texts[i].size()));
                const long rc = wm.Send(kProcA, "ORDER", &m, i < nHigh);
                if (rc != M_OK && rc != M_NOTACT) return Fail(wm.szErrorMsg);
                usleep(nPauseUsecs);
            }
            return 0;
        });
    }

    // Receives as PROCB on host B until every text came or the time is up:
    // each from PROCA, its data exact (length from the slot), the first
    // nHigh of high priority. A copy right after the first is a duplicate:
    // at most nDuplicates. Returns 0 when all holds, else says why.
    int ReceiveOnB(const std::vector<std::string>& texts, size_t nHigh, int nDuplicates,
                   int nSeconds) {
        return bridgelab::Wait(bridgelab::InHost(hosts[1], [&]() {
            CWorkMessages wm;
            if (wm.SetInput(kProcB, "ORDER", nullptr, false) != M_OK) return 1;
            static char buf[WM_MAX_DEPDATA];
            std::vector<std::string> got;
            const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(nSeconds);
            while (got.size() < texts.size() && std::chrono::steady_clock::now() < tEnd) {
                WorkMsg m = MsgTo(kProcB, buf, sizeof(buf));
                _WQCF_ slot;
                if (wm.Receive(kProcB, 1, &m, false, nullptr) != M_OK) continue;
                if (!wmctl::FindReceivedSlot(kProcB, m, &slot)) return 2;
                const std::string data(buf, slot.nDepDataSlot == -1 ? 0 : slot.nDepDataLength);
                wm.Delete(kProcB, m.nMessageID);
                if (!got.empty() && data == got.back() && nDuplicates-- > 0) continue;
                const size_t i = got.size();
                if (data != texts[i] || m.nSenderUID != kProcA ||
                    (slot.xMsgMask != 0) != (i < nHigh))
                    return Fail("message " + std::to_string(i) + " differs: " + data);
                got.push_back(data);
            }
            if (got.size() == texts.size()) return 0;
            return Fail("only " + std::to_string(got.size()) + " messages came");
        }));
    }

    std::string Logs() {
        return ReadFile(hosts[0].strRoot + "/wmbridge.log") +
               ReadFile(hosts[1].strRoot + "/wmbridge.log");
    }

    int nPort = -1;
    pid_t nServer = -1;
    bridgelab::Host hosts[2];
};

std::vector<std::string> Numbered(const char* szPrefix, int n) {
    std::vector<std::string> texts;
    for (int i = 0; i < n; ++i)
        texts.push_back(szPrefix + std::to_string(i));
    return texts;
}

} // namespace

TEST_F(BridgeTest, DataPriorityAndOrderCrossTheHosts) {
    std::vector<std::string> texts = Numbered("order-", 41);
    texts[0].assign(300, '\0');
    for (size_t i = 0; i + 1 < texts[0].size(); ++i)
        texts[0][i] = static_cast<char>(i * 7); // zero bytes inside, and at the end
    ASSERT_EQ(bridgelab::Wait(SendFromA(texts, 1, 0)), 0);
    ASSERT_EQ(ReceiveOnB(texts, 1, 0, 30), 0) << Logs();

    // wmctl status names what host A bridges (PROCB, on host B).
    const std::string strOut = root + "/status.out";
    const std::string strCmd = Tool("wmctl") + " status > " + strOut + " 2>&1";
    ASSERT_EQ(
        bridgelab::Wait(bridgelab::InHost(hosts[0], [strCmd]() { return system(strCmd.c_str()); })),
        0);
    EXPECT_TRUE(Contains(ReadFile(strOut), "PROCB (102) on host hostB")) << ReadFile(strOut);
}

// SIGKILL of either bridge and of the server in the middle of a stream: every
// message arrives, in order; a duplicate can only be the message bridge B had
// just queued when it was killed (the README's one window), so at most one,
// right after its first copy.
TEST_F(BridgeTest, KillsOfBridgesAndServerLoseNothing) {
    const std::vector<std::string> texts = Numbered("seq-", 150);
    const pid_t sender = SendFromA(texts, 0, 15000);
    auto pause = [](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); };
    for (bridgelab::Host& h : hosts) {
        pause(400);
        bridgelab::KillAndWait(h.nBridge);
        pause(200);
        bridgelab::StartBridge(&h, Tool("wmbridge"));
    }
    pause(500);
    bridgelab::KillAndWait(nServer);
    pause(300);
    StartServer();
    ASSERT_EQ(bridgelab::Wait(sender), 0);
    EXPECT_EQ(ReceiveOnB(texts, 0, 1, 40), 0) << Logs();
}

// A configuration the bridge cannot work with stops it at once, with a text
// that names what to mend; no server is needed to find out.
TEST_F(WmTest, BridgeRefusesAConfigurationItCannotUse) {
    if (Tool("wmbridge").empty()) GTEST_SKIP();
    const std::string strOut = root + "/out";
    const struct {
        std::string strHost, strHostsFile, strExpected;
    } cases[] = {{"a.b", "NAME=PROCB,HOST=b\n", "WMB_Host"},
                 {"a", "", "WMBHosts.ini"},
                 {"a", "NAME=NOSUCH,HOST=b\n", "NOSUCH"}};
    for (const auto& c : cases) {
        WriteConfig("WMB_Host=" + c.strHost + "\nWMB_Servers=nats://127.0.0.1:1\n");
        unlink((appconfDir + "/WMBHosts.ini").c_str());
        if (!c.strHostsFile.empty()) WriteFile(appconfDir + "/WMBHosts.ini", c.strHostsFile);
        EXPECT_EQ(system((Tool("wmbridge") + " 2> " + strOut).c_str()), 1 << 8) << c.strExpected;
        EXPECT_TRUE(Contains(ReadFile(strOut), c.strExpected)) << ReadFile(strOut);
    }
}
