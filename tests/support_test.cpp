// The support library as its users rely on it: the tokenizer as the loaders
// use it (its trimming shows in the directory tests), the configuration
// store and its failure reasons, the file lock.
#include <unistd.h>

#include <cerrno>
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
    } cases[] = {
        {"a,b,c,d,e,f,g,h,i", 7, "7:a|b|c|d|e|f|g,h,i"}, {"a,,b", 9, "3:a||b"}, {"a,b", 0, "0:"}};
    for (const auto& c : cases) {
        char line[128], *tokens[10] = {};
        snprintf(line, sizeof(line), "%s", c.text);
        const long n = GetTokens(line, "=,", tokens, c.max, true, false);
        std::string out = std::to_string(n) + ":";
        for (long i = 0; i < n && i < 10; ++i)
            out += (i ? "|" : "") + std::string(tokens[i] ? tokens[i] : "<null>");
        EXPECT_TRUE(out == c.fields && n >= 0 && n < 10 && tokens[n] == nullptr) << c.text << out;
    }
}

// Names and levels match in any case; values are trimmed and end at an inline
// comment; a value that is not of the asked kind names its key and leaves the
// output alone.
TEST_F(WmTest, SupportConfigParsesSectionsKeysAndValues) {
    WriteFile(configFile, "# comment\n; another\n\n[GLOBAL]\nlevel = dEV\nRoot=/srv/qv\n[dev]\n"
                          "  Name = two words  \nInline = v ; note\nDup=1\nDup=-2\n"
                          "BadNum=12abc\nHuge=99999999999999999999999\n"
                          "BadFlag=maybe\n[Prod]\nRoot=/prod\n");
    CGDDA store(nullptr, false); // GDDA_CONFIG names the file
    ASSERT_FALSE(store.CreateError) << store.szErrorMsg;
    char szLevel[10] = "xxxxxxxxx";
    EXPECT_TRUE(store.GetSystemLevel(szLevel) == CGDDA::Dev && !strcmp(szLevel, "Dev"));
    std::string s;
    for (auto kv : {std::make_pair("name", "two words"), {"Inline", "v"}}) // indented; a comment
        EXPECT_TRUE(store.GetValue(kv.first, s, CGDDA::Dev, true) && s == kv.second) << s;
    EXPECT_TRUE(store.GetValue("root", s, CGDDA::Prod, true) && s == "/prod") << s;
    long n = 0;
    EXPECT_TRUE(store.GetValue("Dup", &n, CGDDA::Dev, true) && n == -2); // the last one counts
    for (const char* bad : {"BadNum", "Huge"}) {
        n = 99;
        EXPECT_FALSE(store.GetValue(bad, &n, CGDDA::Dev, true)) << bad;
        EXPECT_TRUE(n == 99 && Contains(store.szErrorMsg, bad)) << store.szErrorMsg;
    }
    bool b = false;
    EXPECT_FALSE(store.GetValue("BadFlag", &b, CGDDA::Dev, true));
    EXPECT_TRUE(Contains(store.szErrorMsg, "maybe")) << store.szErrorMsg;
    // A key missing at the level asked (it is in another) names key and level.
    EXPECT_FALSE(store.GetValue("Name", s, CGDDA::Test, true));
    EXPECT_TRUE(Contains(store.szErrorMsg, "Name") && Contains(store.szErrorMsg, "Test"))
        << store.szErrorMsg;
    EXPECT_FALSE(store.GetValue("Root", s, 5, true));
    EXPECT_TRUE(Contains(store.szErrorMsg, "level")) << store.szErrorMsg;
}

// A bad level, and missing, unreadable and malformed files, name the cause; a
// line too long for the parser is reported, never cut silently.
TEST_F(WmTest, SupportConfigLevelAndLoadFailuresNameTheCause) {
    const std::string missing = root + "/nowhere.conf", level = root + "/level.conf",
                      bad = root + "/bad.conf", longLine = root + "/long.conf";
    WriteFile(level, "[Global]\nLevel=Staging\n");
    WriteFile(bad, "[Global]\nLevel=Dev\n\nthis is no pair\nRoot=/x\n[Dev\n");
    WriteFile(longLine, "[Global]\nRoot=/" + std::string(400, 'x') + "\nLevel=Dev\n");
    const std::vector<std::pair<std::string, std::vector<std::string>>> failures = {
        {level, {"Staging"}},
        {missing, {missing, strerror(ENOENT)}},
        {root, {root}}, // a directory opens but cannot be read
        {bad, {bad, "line 4"}},
        {longLine, {"line 2"}}};
    for (const auto& c : failures) {
        CGDDA store(c.first.c_str(), false);
        const std::string why = store.szErrorMsg; // a file's fault, or else the level's
        char szLevel[10] = "";
        EXPECT_TRUE(store.GetSystemLevel(szLevel) == CGDDA::Invalid && !strcmp(szLevel, "Invalid"))
            << c.first;
        for (const std::string& part : c.second)
            EXPECT_TRUE(Contains(why + store.szErrorMsg, part)) << part << " in " << why;
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
    fclose(first);
    fclose(second);
}
