// The support library as its users rely on it: the tokenizer as the loaders
// use it (its trimming shows in the directory tests), the configuration
// store and its failure reasons, the file lock, the sleep across signals,
// one write per log entry.
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "GPLibrary.h"
#include "TestEnv.h"

using namespace wmtest;

// The fields GetTokens finds in a copy of text (at most maxTokens), after the
// count: "3:a||b". The cap is never passed; the last stored field keeps the
// rest of the line.
TEST(SupportText, GetTokensCountsEveryFieldUpToTheCap) {
    const struct {
        const char* text;
        long max;
        const char* fields;
    } cases[] = {{"NAME=ORDER,ID=1,DESC=Order", 7, "6:NAME|ORDER|ID|1|DESC|Order"},
                 {"a=b,c=d,e=f,g", 7, "7:a|b|c|d|e|f|g"},
                 {"a,b,c,d,e,f,g,h,i", 7, "7:a|b|c|d|e|f|g,h,i"},
                 {"a,,b", 9, "3:a||b"},
                 {"a,b,", 9, "3:a|b|"},
                 {"", 9, "1:"},
                 {"a,b", 0, "0:"}};
    for (const auto& c : cases) {
        char line[128];
        char* tokens[10] = {};
        snprintf(line, sizeof(line), "%s", c.text);
        const long n = GetTokens(line, "=,", tokens, c.max, true, false);
        std::string out = std::to_string(n) + ":";
        for (long i = 0; i < n && i < 10; ++i)
            out += (i ? "|" : "") + std::string(tokens[i] ? tokens[i] : "<null>");
        EXPECT_TRUE(out == c.fields && n >= 0 && n < 10 && tokens[n] == nullptr) << c.text << out;
    }
}

TEST(SupportSleep, UsleepResumesAfterSignals) {
    struct sigaction sa = {}, old = {};
    sa.sa_handler = [](int) {}; // no SA_RESTART: nanosleep returns EINTR
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    struct itimerval tv = {}, off = {};
    tv.it_value.tv_usec = tv.it_interval.tv_usec = 20000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &tv, nullptr), 0);
    auto t0 = std::chrono::steady_clock::now();
    errno = 1234;
    Usleep(150000);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(errno, 1234);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_GE(elapsed.count(), 0.145);
}

TEST_F(WmTest, SupportConfigParsesSectionsKeysAndValues) {
    WriteFile(configFile, "# comment\n; another\n\n[GLOBAL]\nlevel = dEV\nRoot=/srv/qv\n[dev]\n"
                          "  WM_Trace = Yes\nName = two words  \nColon: c\nInline = v ; note\n"
                          "Semi=a;b\nNeg=-42\nPos=+7\nDup=1\nDup=2\nOff=OFF\nZero=0\n"
                          "BadNum=12abc\nEmpty=\nHuge=99999999999999999999999\nBadFlag=maybe\n"
                          "[Prod]\nRoot=/prod\n");
    CGDDA store(nullptr, false); // GDDA_CONFIG names the file
    ASSERT_FALSE(store.CreateError) << store.szErrorMsg;
    char szLevel[10] = "xxxxxxxxx";
    EXPECT_EQ(store.GetSystemLevel(szLevel), CGDDA::Dev);
    EXPECT_STREQ(szLevel, "Dev");
    const struct {
        const char* key;
        unsigned char level;
        const char* value;
    } texts[] = {{"ROOT", CGDDA::Global, "/srv/qv"}, {"root", CGDDA::Prod, "/prod"},
                 {"name", CGDDA::Dev, "two words"},  {"Colon", CGDDA::Dev, "c"},
                 {"Inline", CGDDA::Dev, "v"},        {"Semi", CGDDA::Dev, "a;b"},
                 {"Empty", CGDDA::Dev, ""}};
    for (const auto& t : texts) {
        std::string s = "unset";
        EXPECT_TRUE(store.GetValue(t.key, s, t.level, true) && s == t.value) << t.key << ": " << s;
    }
    long n = 0;
    for (auto kv : {std::make_pair("Neg", -42L), {"Pos", 7L}, {"Dup", 2L}})
        EXPECT_TRUE(store.GetValue(kv.first, &n, CGDDA::Dev, true) && n == kv.second) << kv.first;
    for (const char* bad : {"BadNum", "Empty", "Huge", "Name"}) {
        n = 99;
        EXPECT_FALSE(store.GetValue(bad, &n, CGDDA::Dev, true)) << bad;
        EXPECT_TRUE(n == 99 && Contains(store.szErrorMsg, bad)) << store.szErrorMsg;
    }
    bool b = false;
    EXPECT_TRUE(store.GetValue("wm_trace", &b, CGDDA::Dev, true) && b); // indented line
    EXPECT_TRUE(store.GetValue("Off", &b, CGDDA::Dev, true) && !b);
    b = true;
    EXPECT_TRUE(store.GetValue("Zero", &b, CGDDA::Dev, true) && !b);
    EXPECT_FALSE(store.GetValue("BadFlag", &b, CGDDA::Dev, true));
    EXPECT_TRUE(Contains(store.szErrorMsg, "maybe")) << store.szErrorMsg;
    // A missing key names key and level; a key of another level is missing.
    std::string s;
    EXPECT_FALSE(store.GetValue("WM_DBPath", s, CGDDA::Test, true));
    EXPECT_TRUE(Contains(store.szErrorMsg, "WM_DBPath") && Contains(store.szErrorMsg, "Test"))
        << store.szErrorMsg;
    EXPECT_FALSE(store.GetValue("Neg", &n, CGDDA::Global, true));
    for (unsigned char level : {0, 5, 255}) {
        EXPECT_FALSE(store.GetValue("Root", s, level, true));
        EXPECT_TRUE(Contains(store.szErrorMsg, "level")) << store.szErrorMsg;
    }
}

// Bad levels, and missing (given or through GDDA_CONFIG), unreadable and
// malformed files, name the cause; a line too long for the parser is
// reported, never cut silently.
TEST_F(WmTest, SupportConfigLevelAndLoadFailuresNameTheCause) {
    const struct {
        const char* conf;
        CGDDA::Levels level;
        const char *name, *inError;
    } levels[] = {{"[Global]\nLevel=PROD\n", CGDDA::Prod, "Prod", ""},
                  {"[Global]\nLevel=Staging\n", CGDDA::Invalid, "Invalid", "Staging"},
                  {"[Dev]\nLevel=Dev\n", CGDDA::Invalid, "Invalid", "Level"}};
    for (const auto& c : levels) {
        WriteFile(configFile, c.conf);
        CGDDA store(nullptr, false);
        char szLevel[10] = "";
        EXPECT_EQ(store.GetSystemLevel(szLevel), c.level) << c.conf;
        EXPECT_TRUE(!strcmp(szLevel, c.name) && Contains(store.szErrorMsg, c.inError))
            << c.conf << szLevel << store.szErrorMsg;
    }
    const std::string missing = root + "/nowhere.conf", bad = root + "/bad.conf",
                      longLine = root + "/long.conf";
    WriteFile(bad, "[Global]\nLevel=Dev\n\nthis is no pair\nRoot=/x\n[Dev\n");
    WriteFile(longLine, "[Global]\nRoot=/" + std::string(400, 'x') + "\nLevel=Dev\n");
    const std::vector<std::pair<std::string, std::vector<std::string>>> failures = {
        {missing, {missing, strerror(ENOENT)}},
        {"", {missing}},
        {root, {root}}, // a directory opens but cannot be read
        {bad, {bad, "line 4"}},
        {longLine, {"line 2"}}};
    setenv("GDDA_CONFIG", missing.c_str(), 1);
    for (const auto& c : failures) {
        CGDDA store(c.first.empty() ? nullptr : c.first.c_str(), false);
        EXPECT_TRUE(store.CreateError) << c.first;
        for (const std::string& part : c.second)
            EXPECT_TRUE(Contains(store.szErrorMsg, part)) << part << " in " << store.szErrorMsg;
        char szLevel[10];
        std::string s;
        EXPECT_TRUE(store.GetSystemLevel(szLevel) == CGDDA::Invalid &&
                    !store.GetValue("Root", s, CGDDA::Global, true))
            << c.first;
    }
}

// A second open in this process is excluded, named by this process's PID
// (another process's PID is the constructor lock's case in the locks test).
TEST_F(WmTest, SupportLockExcludesASecondOpenInThisProcess) {
    const std::string path = dbDir + "/WM.lock";
    WriteFile(path, "");
    // Action 1 takes, 2 releases; 0 when it succeeds, else what came back.
    auto lock = [](FILE* fp, int action) { return FileLock(fp, &action, 4) ? 0 : action; };
    FILE* first = fopen(path.c_str(), "r+");
    FILE* second = fopen(path.c_str(), "r+");
    ASSERT_TRUE(first != nullptr && second != nullptr);
    ASSERT_EQ(lock(first, 1), 0);
    EXPECT_EQ(lock(second, 1), getpid());
    fclose(fopen(path.c_str(), "r")); // closing another descriptor of the file keeps the lock
    EXPECT_EQ(lock(second, 1), getpid());
    EXPECT_EQ(lock(first, 2), 0);
    EXPECT_EQ(lock(second, 1), 0);
    EXPECT_EQ(lock(first, 1), getpid());
    EXPECT_EQ(lock(first, 7), -EINVAL);
    fclose(first);
    fclose(second);
}

// Standard error of a child is a SOCK_SEQPACKET socket, so every write(2)
// arrives as one message: the test sees how many writes an entry took.
TEST(SupportLog, EachEntryIsOneWrite) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    const std::string longText(6000, 'L');
    const pid_t pid = StartChild([&]() -> int {
        close(sv[0]);
        if (dup2(sv[1], 2) < 0) return 3;
        unsetenv("GPLIB_SYSLOG");
        Log2cerr("first line\nsecond line\n\tthird", "QV_wm", true);
        Log2cerr("ends in newline\n", "QV_wm", true);
        Log2cerr(longText.c_str(), "QV_wm", true);
        LogBacktrace("Backtrace: ", "QV_wm", true);
        return 0;
    });
    close(sv[1]);
    std::string entries[5];
    static char buf[1 << 16];
    for (std::string& e : entries) {
        const ssize_t n = recv(sv[0], buf, sizeof(buf), 0);
        ASSERT_GE(n, 0);
        e.assign(buf, static_cast<size_t>(n));
    }
    close(sv[0]);
    EXPECT_EQ(WaitChild(pid), 0);
    // "YYYY-MM-DD HH:MM:SS.mmm QV_wm[pid]: " heads each entry.
    const std::string head = "QV_wm[" + std::to_string(pid) + "]: ";
    const size_t body = 24 + head.size();
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(entries[i].find(head), 24u) << entries[i];
    EXPECT_EQ(entries[0].substr(body), "first line\nsecond line\n\tthird\n");
    EXPECT_EQ(entries[1].substr(body), "ends in newline\n");
    EXPECT_EQ(entries[2].substr(body), longText + "\n");
    EXPECT_EQ(entries[3].find("Backtrace: ", 24), body) << entries[3];
    EXPECT_TRUE(Contains(entries[3], "\n  #0 ")) << entries[3];
    EXPECT_EQ(entries[4], ""); // end of file: no further write
}
