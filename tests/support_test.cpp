// The support library: tokenizer and trimming as the directory loaders use
// them, the configuration store's parsing and its failure reasons, the file
// lock against other processes and other opens, the sleep across signals,
// and the log's one-write entries.
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

namespace {

double SecondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Splits a copy of text with at most maxTokens fields into an array with a
// sentinel after the last slot; returns the count.
struct Split {
    char line[128];
    char* tokens[10];
    long n;
    Split(const char* text, long maxTokens) {
        snprintf(line, sizeof(line), "%s", text);
        for (char*& t : tokens)
            t = nullptr;
        n = GetTokens(line, "=,", tokens, maxTokens, true, false);
    }
};

} // namespace

TEST(SupportText, GetTokensCountsEveryField) {
    Split exact("NAME=ORDER,ID=1,DESC=Order", 7);
    ASSERT_EQ(exact.n, 6);
    EXPECT_STREQ(exact.tokens[0], "NAME");
    EXPECT_STREQ(exact.tokens[3], "1");
    EXPECT_STREQ(exact.tokens[5], "Order");
    EXPECT_EQ(exact.tokens[6], nullptr);

    // One field too many is visible below the cap; the cap itself is never
    // passed, and the last stored field keeps the rest of the line.
    EXPECT_EQ(Split("a=b,c=d,e=f,g", 7).n, 7);
    Split capped("a,b,c,d,e,f,g,h,i", 7);
    EXPECT_EQ(capped.n, 7);
    EXPECT_STREQ(capped.tokens[6], "g,h,i");
    EXPECT_EQ(capped.tokens[7], nullptr);

    Split empty("a,,b", 9);
    ASSERT_EQ(empty.n, 3);
    EXPECT_STREQ(empty.tokens[1], "");
    EXPECT_STREQ(empty.tokens[2], "b");

    Split trailing("a,b,", 9);
    ASSERT_EQ(trailing.n, 3);
    EXPECT_STREQ(trailing.tokens[2], "");

    EXPECT_EQ(Split("", 9).n, 1);
    EXPECT_EQ(Split("a,b", 0).n, 0);
}

TEST(SupportText, TrimAndTrimLeft) {
    char field[] = " \n my proc \n ";
    int len = -1;
    Trim(field, &len, field, " \n");
    EXPECT_STREQ(field, "my proc");
    EXPECT_EQ(len, 7);

    char blank[] = "  \n ";
    len = -1;
    Trim(blank, &len, blank, " \n");
    EXPECT_STREQ(blank, "");
    EXPECT_EQ(len, 0);

    char desc[] = " \n Process A \r\n";
    len = -1;
    TrimLeft(desc, &len, desc, " \n");
    EXPECT_STREQ(desc, "Process A \r\n");
    EXPECT_EQ(len, 12);

    char out[16];
    Trim(out, &len, "\tx\t", " ");
    EXPECT_STREQ(out, "\tx\t"); // tabs are not in the set
}

TEST(SupportText, BKVersionPrefixesTheRecord) {
    std::string text = BKVersion("rev 42", false);
    EXPECT_EQ(text.rfind("QV_wm ", 0), 0u) << text;
    EXPECT_EQ(text.substr(text.size() - 7), " rev 42") << text;
}

TEST(SupportSleep, UsleepResumesAfterSignals) {
    struct sigaction sa {};
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0; // no SA_RESTART: nanosleep returns EINTR
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    struct itimerval tv {};
    tv.it_value.tv_usec = 20000;
    tv.it_interval.tv_usec = 20000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &tv, nullptr), 0);
    auto t0 = std::chrono::steady_clock::now();
    errno = 1234;
    Usleep(150000);
    double elapsed = SecondsSince(t0);
    EXPECT_EQ(errno, 1234);
    struct itimerval off {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_GE(elapsed, 0.145);
}

class SupportConfig : public WmTest {};

TEST_F(SupportConfig, ParsesSectionsKeysAndValues) {
    WriteFile(configFile, "# comment\n"
                          "; another\n"
                          "\n"
                          "[GLOBAL]\n"
                          "level = dEV\n"
                          "Root=/srv/qv\n"
                          "[dev]\n"
                          "  WM_Trace = Yes\n"
                          "Name = two words  \n"
                          "Colon: c\n"
                          "Inline = v ; note\n"
                          "Semi=a;b\n"
                          "Neg=-42\n"
                          "Pos=+7\n"
                          "Dup=1\n"
                          "Dup=2\n"
                          "Off=OFF\n"
                          "Zero=0\n"
                          "BadNum=12abc\n"
                          "Empty=\n"
                          "Huge=99999999999999999999999\n"
                          "BadFlag=maybe\n"
                          "[Prod]\n"
                          "Root=/prod\n");
    CGDDA store(nullptr, false); // GDDA_CONFIG names the file
    ASSERT_FALSE(store.CreateError) << store.szErrorMsg;

    char szLevel[10] = "xxxxxxxxx";
    EXPECT_EQ(store.GetSystemLevel(szLevel), CGDDA::Dev);
    EXPECT_STREQ(szLevel, "Dev");

    std::string s;
    EXPECT_TRUE(store.GetValue("ROOT", s, CGDDA::Global, true));
    EXPECT_EQ(s, "/srv/qv");
    EXPECT_TRUE(store.GetValue("root", s, CGDDA::Prod, true));
    EXPECT_EQ(s, "/prod");
    EXPECT_TRUE(store.GetValue("name", s, CGDDA::Dev, true));
    EXPECT_EQ(s, "two words");
    EXPECT_TRUE(store.GetValue("Colon", s, CGDDA::Dev, true));
    EXPECT_EQ(s, "c");
    EXPECT_TRUE(store.GetValue("Inline", s, CGDDA::Dev, true));
    EXPECT_EQ(s, "v");
    EXPECT_TRUE(store.GetValue("Semi", s, CGDDA::Dev, true));
    EXPECT_EQ(s, "a;b");
    EXPECT_TRUE(store.GetValue("Empty", s, CGDDA::Dev, true));
    EXPECT_EQ(s, "");

    long n = 0;
    EXPECT_TRUE(store.GetValue("Neg", &n, CGDDA::Dev, true));
    EXPECT_EQ(n, -42);
    EXPECT_TRUE(store.GetValue("Pos", &n, CGDDA::Dev, true));
    EXPECT_EQ(n, 7);
    EXPECT_TRUE(store.GetValue("Dup", &n, CGDDA::Dev, true));
    EXPECT_EQ(n, 2);
    for (const char* bad : {"BadNum", "Empty", "Huge", "Name"}) {
        n = 99;
        EXPECT_FALSE(store.GetValue(bad, &n, CGDDA::Dev, true)) << bad;
        EXPECT_EQ(n, 99);
        EXPECT_NE(strstr(store.szErrorMsg, bad), nullptr) << store.szErrorMsg;
    }

    bool b = false;
    EXPECT_TRUE(store.GetValue("wm_trace", &b, CGDDA::Dev, true)); // indented line, own key
    EXPECT_TRUE(b);
    EXPECT_TRUE(store.GetValue("Off", &b, CGDDA::Dev, true));
    EXPECT_FALSE(b);
    b = true;
    EXPECT_TRUE(store.GetValue("Zero", &b, CGDDA::Dev, true));
    EXPECT_FALSE(b);
    EXPECT_FALSE(store.GetValue("BadFlag", &b, CGDDA::Dev, true));
    EXPECT_NE(strstr(store.szErrorMsg, "maybe"), nullptr) << store.szErrorMsg;

    // A missing key names key and level; a key of another level is missing.
    EXPECT_FALSE(store.GetValue("WM_DBPath", s, CGDDA::Test, true));
    EXPECT_NE(strstr(store.szErrorMsg, "WM_DBPath"), nullptr) << store.szErrorMsg;
    EXPECT_NE(strstr(store.szErrorMsg, "Test"), nullptr) << store.szErrorMsg;
    EXPECT_FALSE(store.GetValue("Neg", &n, CGDDA::Global, true));

    for (unsigned char level : {0, 5, 255}) {
        EXPECT_FALSE(store.GetValue("Root", s, level, true));
        EXPECT_NE(strstr(store.szErrorMsg, "level"), nullptr) << store.szErrorMsg;
    }
}

TEST_F(SupportConfig, SystemLevelValidInvalidMissing) {
    char szLevel[10];
    WriteFile(configFile, "[Global]\nLevel=PROD\n");
    {
        CGDDA store(nullptr, false);
        EXPECT_EQ(store.GetSystemLevel(szLevel), CGDDA::Prod);
        EXPECT_STREQ(szLevel, "Prod");
    }
    WriteFile(configFile, "[Global]\nLevel=Staging\n");
    {
        CGDDA store(nullptr, false);
        EXPECT_EQ(store.GetSystemLevel(szLevel), CGDDA::Invalid);
        EXPECT_STREQ(szLevel, "Invalid");
        EXPECT_NE(strstr(store.szErrorMsg, "Staging"), nullptr) << store.szErrorMsg;
    }
    WriteFile(configFile, "[Dev]\nLevel=Dev\n");
    {
        CGDDA store(nullptr, false);
        EXPECT_EQ(store.GetSystemLevel(szLevel), CGDDA::Invalid);
        EXPECT_NE(strstr(store.szErrorMsg, "Level"), nullptr) << store.szErrorMsg;
    }
}

TEST_F(SupportConfig, LoadFailuresNameThePathAndLine) {
    std::string missing = root + "/nowhere.conf";
    {
        CGDDA store(missing.c_str(), false);
        EXPECT_TRUE(store.CreateError);
        EXPECT_NE(strstr(store.szErrorMsg, missing.c_str()), nullptr) << store.szErrorMsg;
        EXPECT_NE(strstr(store.szErrorMsg, strerror(ENOENT)), nullptr) << store.szErrorMsg;
        std::string s;
        EXPECT_FALSE(store.GetValue("Root", s, CGDDA::Global, true));
    }
    setenv("GDDA_CONFIG", missing.c_str(), 1);
    {
        CGDDA store(nullptr, false);
        EXPECT_TRUE(store.CreateError);
        EXPECT_NE(strstr(store.szErrorMsg, missing.c_str()), nullptr) << store.szErrorMsg;
    }
    {
        CGDDA store(root.c_str(), false); // a directory opens but cannot be read
        EXPECT_TRUE(store.CreateError);
        EXPECT_NE(strstr(store.szErrorMsg, root.c_str()), nullptr) << store.szErrorMsg;
    }

    std::string bad = root + "/bad.conf";
    WriteFile(bad, "[Global]\nLevel=Dev\n\nthis is no pair\nRoot=/x\n[Dev\n");
    {
        CGDDA store(bad.c_str(), false);
        EXPECT_TRUE(store.CreateError);
        EXPECT_NE(strstr(store.szErrorMsg, bad.c_str()), nullptr) << store.szErrorMsg;
        EXPECT_NE(strstr(store.szErrorMsg, "line 4"), nullptr) << store.szErrorMsg;
        char szLevel[10];
        EXPECT_EQ(store.GetSystemLevel(szLevel), CGDDA::Invalid);
    }
    // A line longer than the parser holds is reported, never cut silently.
    WriteFile(bad, "[Global]\nRoot=/" + std::string(400, 'x') + "\nLevel=Dev\n");
    {
        CGDDA store(bad.c_str(), false);
        EXPECT_TRUE(store.CreateError);
        EXPECT_NE(strstr(store.szErrorMsg, "line 2"), nullptr) << store.szErrorMsg;
    }
}

class SupportLock : public WmTest {
protected:
    std::string lockPath() { return dbDir + "/WM.lock"; }
};

TEST_F(SupportLock, AnotherProcessHoldsTheLock) {
    WriteFile(lockPath(), "");
    int toChild[2], fromChild[2];
    ASSERT_EQ(pipe(toChild), 0);
    ASSERT_EQ(pipe(fromChild), 0);
    std::string path = lockPath();
    pid_t pid = StartChild([&]() -> int {
        FILE* fp = fopen(path.c_str(), "r+");
        int action = 1;
        char ok = fp && FileLock(fp, &action, 4) ? 'y' : 'n';
        if (write(fromChild[1], &ok, 1) != 1) return 3;
        char c;
        return read(toChild[0], &c, 1) == 1 ? 0 : 4; // exit (and drop the lock) when told
    });
    char ok = 0;
    ASSERT_EQ(read(fromChild[0], &ok, 1), 1);
    ASSERT_EQ(ok, 'y');

    FILE* fp = fopen(path.c_str(), "r+");
    ASSERT_NE(fp, nullptr);
    int action = 1;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(FileLock(fp, &action, 4));
    EXPECT_LT(SecondsSince(t0), 0.5);
    EXPECT_EQ(action, pid);

    char c = 'x';
    ASSERT_EQ(write(toChild[1], &c, 1), 1);
    EXPECT_EQ(WaitChild(pid), 0);
    for (int fd : {toChild[0], toChild[1], fromChild[0], fromChild[1]})
        close(fd);
    action = 1;
    EXPECT_TRUE(FileLock(fp, &action, 4)) << action;
    action = 2;
    EXPECT_TRUE(FileLock(fp, &action, 4));
    fclose(fp);
}

TEST_F(SupportLock, SecondOpenInThisProcessIsExcluded) {
    WriteFile(lockPath(), "");
    FILE* first = fopen(lockPath().c_str(), "r+");
    FILE* second = fopen(lockPath().c_str(), "r+");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);

    int action = 1;
    ASSERT_TRUE(FileLock(first, &action, 4));
    action = 1;
    EXPECT_FALSE(FileLock(second, &action, 4));
    EXPECT_EQ(action, getpid());

    // Closing some other descriptor of the file keeps the lock.
    FILE* other = fopen(lockPath().c_str(), "r");
    ASSERT_NE(other, nullptr);
    fclose(other);
    action = 1;
    EXPECT_FALSE(FileLock(second, &action, 4));

    action = 2;
    EXPECT_TRUE(FileLock(first, &action, 4));
    action = 1;
    EXPECT_TRUE(FileLock(second, &action, 4)) << action;
    action = 1;
    EXPECT_FALSE(FileLock(first, &action, 4));
    action = 2;
    EXPECT_TRUE(FileLock(second, &action, 4));

    action = 7;
    EXPECT_FALSE(FileLock(first, &action, 4));
    EXPECT_EQ(action, -EINVAL);
    fclose(first);
    fclose(second);
}

// Standard error of a child is a SOCK_SEQPACKET socket, so every write(2)
// arrives as one message: the test sees how many writes an entry took.
TEST(SupportLog, EachEntryIsOneWrite) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    const std::string longText(6000, 'L');
    pid_t pid = StartChild([&]() -> int {
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
        ssize_t n = recv(sv[0], buf, sizeof(buf), 0);
        ASSERT_GE(n, 0);
        e.assign(buf, static_cast<size_t>(n));
    }
    close(sv[0]);
    EXPECT_EQ(WaitChild(pid), 0);

    std::string head = "QV_wm[" + std::to_string(pid) + "]: ";
    auto body = [&](const std::string& e) {
        size_t at = e.find(head);
        return at == std::string::npos ? std::string("<no header>") : e.substr(at + head.size());
    };
    EXPECT_EQ(body(entries[0]), "first line\nsecond line\n\tthird\n") << entries[0];
    EXPECT_EQ(entries[0].find(head), 24u) << entries[0]; // "YYYY-MM-DD HH:MM:SS.mmm "
    EXPECT_EQ(body(entries[1]), "ends in newline\n");
    EXPECT_EQ(body(entries[2]), longText + "\n");
    EXPECT_EQ(body(entries[3]).rfind("Backtrace: ", 0), 0u) << entries[3];
    EXPECT_NE(entries[3].find("\n  #0 "), std::string::npos) << entries[3];
    EXPECT_EQ(entries[4], ""); // end of file: no further write
}
