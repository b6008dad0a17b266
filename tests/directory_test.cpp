// The directory files (message types, processes) and the lookups between
// names and numbers.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

std::string Format(const char* szFormat, ...) {
    char sz[512];
    va_list ap;
    va_start(ap, szFormat);
    vsnprintf(sz, sizeof(sz), szFormat, ap);
    va_end(ap);
    return sz;
}

const char* Code(long code) {
    return reinterpret_cast<char*>(static_cast<intptr_t>(code));
}

// A row as "name|number|desc" or "name|UID|flag|desc".
std::string Describe(const _WQCONF_& r) {
    return Format("%s|%d|%s", r.szName, r.nID, r.szDesc);
}
std::string Describe(const _PRUID_& r) {
    return Format("%s|%d|%.1s|%s", r.szName, r.nUID, &r.cLogMsgID, r.szDesc);
}

class DirectoryTest : public WmTest {
protected:
    void SetUp() override {
        WmTest::SetUp();
        path = root + "/file.ini";
    }
    // Runs the names (or process) loader of a constructed object on content
    // (or on file) and returns the rows it loaded; ok, error and text keep
    // the outcome. The object gets its attached table back.
    std::vector<std::string> Load(CWorkMessages& wm, const std::string& content, bool uids = false,
                                  std::string file = "") {
        if (file.empty()) WriteFile(file = path, content);
        CWorkMessagesTestAccess acc(wm);
        wm.nLastError = 0;
        snprintf(wm.szErrorMsg, sizeof(wm.szErrorMsg), "untouched");
        std::vector<std::string> rows =
            uids ? Run(acc.UIDs(), acc.UIDsCount(), [&] { return acc.LoadUIDs(file); })
                 : Run(acc.Names(), acc.NamesCount(), [&] { return acc.LoadNames(file); });
        error = wm.nLastError;
        text = wm.szErrorMsg;
        return rows;
    }
    template <class Row, class LoadFn>
    std::vector<std::string> Run(Row*& arr, int& count, LoadFn load) {
        Row* const saved = arr;
        const int savedCount = count;
        ok = load();
        std::vector<std::string> rows;
        for (int i = 0; arr != nullptr && i < count; ++i)
            rows.push_back(Describe(arr[i]));
        free(arr);
        arr = saved;
        count = savedCount;
        return rows;
    }
    std::string Error(const char* what, int line, const char* tail = "") {
        return Format("WorkMsg object: %s on line %s:%d%s\n", what, path.c_str(), line, tail);
    }
    bool ok = false;
    long error = 0;
    std::string text, path;
};

} // namespace

TEST_F(DirectoryTest, NamesFileLinesAreAcceptedOrRejectedOneByOne) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    // 150 characters: a comment piece of 99, then a line of its own of 51.
    const std::string longLine =
        "#" + std::string(98, 'x') + "NAME=piece2,ID=22,DESC=" + std::string(28, 'd') + "\n";
    const std::string desc32(32, 'z');
    const std::vector<std::string> rows =
        Load(wm, "* star comment\n\n"
                 "name=abc,id=7,desc=Seven\n"
                 "NAME,sep=ID,8=DESC,Swapped\n"
                 "Name=    lead,Id=0x10,Desc=  two  words  \n"
                 "NAME=AB CD,ID=-3 junk,DESC=inner\n"
                 "NAME=hex,ID=1F,DESC=decimal first\n"
                 "NAME=ff,ID=FF,DESC=hex\n"
                 "NAME=crlf,ID=5,DESC=ends in CR\r\n"
                 "NAME=tab\tx,ID=6,DESC=\tt\n"
                 "NAME=EIGHTCHR,ID=9,DESC=" +
                     desc32 + "\nNAME=abc,ID=7,DESC=again\n" + longLine);
    EXPECT_TRUE(ok && text == "untouched") << text;
    EXPECT_EQ(rows,
              (std::vector<std::string>{"abc|7|Seven", "sep|8|Swapped", "lead|16|two  words  ",
                                        "AB|-3|inner", "hex|1|decimal first", "ff|255|hex",
                                        "crlf|5|ends in CR", "tab\tx|6|\tt", "EIGHTCHR|9|" + desc32,
                                        "abc|7|again", "piece2|22|" + std::string(28, 'd')}));

    // Each bad line stands on line 3, after a comment and a good line that
    // stays loaded.
    const std::string fmtErr = Error("Invalid format(,=)", 3);
    const std::string kwErr = Error("Invalid keyword[Name|ID|Desc]", 3);
    const std::string idErr = Error("Invalid value for 'ID'", 3) + "\n";
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"NAME=x,ID=1,DESC=a=b", fmtErr},
        {"   ", fmtErr},
        {" #NAME=x,ID=1,DESC=c", kwErr},
        {"ID=1,NAME=x,DESC=c", kwErr},
        {"NAME=ABCDEFGHI,ID=0,DESC=" + std::string(40, 'd'),
         Error("The length(9) of 'Name'", 3, " exceeds 8 characters")},
        {"NAME=x,ID=1,DESC=" + std::string(31, 'd') + "  ",
         Error("The length(33) of 'Desc'", 3, " exceeds 32 characters")},
        {"NAME=x,ID=0,DESC=d", idErr},
        {"NAME=x,ID=zz,DESC=d", idErr}};
    for (const auto& c : bad) {
        EXPECT_EQ(Load(wm, "# types\nNAME=GOOD,ID=1,DESC=g\n" + c.first + "\n").size(), 1u);
        EXPECT_TRUE(!ok && error == M_CTLFILE && text == c.second) << c.first << ": " << text;
    }

    // Every bad line is reported and the last one stays; no row is added
    // after the first.
    EXPECT_EQ(Load(wm, "NAME=A,ID=1,DESC=a\nNAME=B,ID=0,DESC=b\n"
                       "NAME=C,ID=3,DESC=c\nNAME=D,DESC=d\nNAME=E,ID=5,DESC=e\n")
                  .size(),
              1u);
    EXPECT_TRUE(!ok && error == M_CTLFILE && text == Error("Invalid format(,=)", 4)) << text;

    // Empty and comment-only files; a file that opens but gives no line
    // because its read fails is "empty" too, with the read's code.
    EXPECT_TRUE(Load(wm, "").empty());
    EXPECT_TRUE(!ok && error == 0);
    EXPECT_EQ(text, Format("WorkMsg object: File: %s is empty!\n", path.c_str()));
    EXPECT_TRUE(Load(wm, "# only\n\n* comments\n").empty());
    EXPECT_TRUE(ok) << text;
    Load(wm, "", false, root);
    EXPECT_TRUE(!ok && error == M_SYSERR);
    EXPECT_EQ(text, Format("WorkMsg object: File: %s is empty!\n", root.c_str()));
    Load(wm, "", false, path + "x");
    EXPECT_TRUE(error == M_SYSERR && Contains(text, "Error opening file: " + path + "x")) << text;
}

TEST_F(DirectoryTest, ProcessLinesKeepInnerBlanksAndTheFlag) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    EXPECT_EQ(
        Load(wm,
             "name=my proc,id=7,msgid=Yes,desc=  kept  \n"
             "NAME=    pb,ID=0x10,MSGID=,DESC=empty flag\n"
             "NAME= padded  ,ID= 12ab ,MSGID= N ,DESC=x\r\n",
             true),
        (std::vector<std::string>{"my proc|7|Y|kept  ", "pb|16||empty flag", "padded|12|N|x"}));
    EXPECT_TRUE(ok) << text;

    const std::vector<std::pair<std::string, std::string>> bad = {
        {"NAME=ABCDEFGHI,ID=1,MSGID=Y,DESC=x",
         Error("The length(9) of 'Name'", 2, " exceeds 8 characters")},
        {"NAME=x,ID=1,DESC=d", Error("Invalid format(,=)", 2)},
        {"NAME=x,ID=1,MSG=Y,DESC=d", Error(" Invalid keyword[Name|ID|MsgID|Desc]", 2)}};
    for (const auto& c : bad) {
        EXPECT_EQ(Load(wm, "NAME=GOOD,ID=1,MSGID=Y,DESC=g\n" + c.first + "\n", true).size(), 1u);
        EXPECT_TRUE(!ok && error == M_CTLFILE && text == c.second) << c.first << ": " << text;
    }
}

TEST_F(DirectoryTest, ConstructionLoadsTheFilesIntoTheSegments) {
    // 30 types: the table grows twice on the way and keeps every row.
    std::string names;
    for (int i = 1; i <= 30; ++i)
        names += Format("NAME=T%d,ID=%d,DESC=type %d\n", i, i * 10, i);
    WriteFile(namesFile, names);
    {
        CWorkMessages wm;
        ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
        ASSERT_EQ(CWorkMessagesTestAccess(wm).Controls()->nQNameCount, 30);
        for (int i = 1; i <= 30; ++i) {
            char desc[33];
            EXPECT_EQ(wm.Translate(Format("t%d", i).c_str()), i * 10);
            EXPECT_STREQ(wm.Translate(i * 10L, desc), Format("T%d", i).c_str());
            EXPECT_STREQ(desc, Format("type %d", i).c_str());
        }
    }
    RemoveSegments();

    WriteFile(namesFile, "NAME=ORDER,ID=1,DESC=x\nNAME=TOOLONGNAME,ID=2,DESC=y\n");
    path = namesFile;
    CWorkMessages wm;
    EXPECT_EQ(wm.nLastError, M_CTLFILE);
    EXPECT_EQ(std::string(wm.szErrorMsg),
              Error("The length(11) of 'Name'", 2, " exceeds 8 characters"));
}

TEST_F(DirectoryTest, LookupsFindTheFirstRowIgnoringCase) {
    WriteFile(namesFile, std::string(kDefaultNames) + "NAME=order,ID=9,DESC=dup name\n"
                                                      "NAME=DUPID,ID=2,DESC=dup id\n");
    CWorkMessages wm, holder;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);

    EXPECT_EQ(wm.Translate("order"), 1);
    char desc[40];
    EXPECT_STREQ(wm.Translate(2, desc), "INVOICE");
    EXPECT_STREQ(desc, "Invoice");
    char flag[2] = {'#', '#'};
    EXPECT_EQ(wm.GetUID("procb", flag), 102);
    EXPECT_TRUE(flag[0] == 'N' && flag[1] == '#'); // one byte written
    EXPECT_STREQ(wm.GetUID(103, desc), "PROCC");
    EXPECT_STREQ(desc, "Process C");

    // Misses return a code; only the by-name lookups write a text.
    snprintf(wm.szErrorMsg, sizeof(wm.szErrorMsg), "older");
    memset(desc, '#', sizeof(desc));
    EXPECT_EQ(wm.Translate(999, desc), Code(M_MSGID));
    EXPECT_EQ(wm.GetUID(999, desc), Code(M_MSGID));
    EXPECT_EQ(desc[0], '#');
    EXPECT_STREQ(wm.szErrorMsg, "older");
    EXPECT_EQ(wm.Translate("ORD"), M_NAME);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: WorkMsg 'ORD' is not valid");
    EXPECT_EQ(wm.GetUID("PROCX", flag), M_NAME);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: UID for PROCX was not found");
    EXPECT_TRUE(wm.Translate(nullptr) == M_NAME && wm.GetUID(nullptr, flag) == M_NAME);
    EXPECT_EQ(flag[0], 'N');
    EXPECT_EQ(acc.LockOwner(), 0);

    // The shared row count, which another process may have changed, bounds
    // the search.
    const int32_t names = acc.Controls()->nQNameCount;
    acc.Controls()->nQNameCount = 1;
    EXPECT_EQ(wm.Translate("INVOICE"), M_NAME);
    acc.Controls()->nQNameCount = names;

    // GetUID waits for the Controls lock.
    CWorkMessagesTestAccess hacc(holder);
    hacc.RecordCaller();
    ASSERT_TRUE(hacc.GetControlsLock(1));
    EXPECT_EQ(wm.GetUID("PROCA", nullptr), M_LOCK);
    EXPECT_EQ(wm.GetUID(101, nullptr), Code(M_LOCK));
    EXPECT_EQ(acc.LockOwner(), hacc.CallerTID()); // nobody released the holder's lock
    hacc.FreeControlsLock(true);
}

TEST_F(DirectoryTest, NegativeNumbersAreReturnedButNotUsed) {
    WriteFile(namesFile, std::string(kDefaultNames) + "NAME=NEG,ID=-3,DESC=n\n"
                                                      "NAME=WILD,ID=-1,DESC=w\n");
    WriteFile(uidsFile, std::string(kDefaultUIDs) + "NAME=PNEG,ID=-100,MSGID=Y,DESC=p\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    SendText(wm, 101, "ORDER", 102);
    EXPECT_EQ(wm.Translate("neg"), -3);
    EXPECT_EQ(wm.GetUID("pneg", nullptr), -100);

    // Such a number reads as a code (-100 is M_NAME, -1 a wildcard): every
    // operation that would use it refuses it, with a text that says why.
    WorkMsg m{};
    m.nTargetUID = 102;
    long count = 7;
    __GET_COUNTERS__ENTRY1 byType[] = {{0, "NEG"}, {0, ""}};
    __GET_COUNTERS__ENTRY4 byUID[] = {{0, "PNEG"}, {0, ""}};
    const std::vector<std::pair<std::string, std::function<long()>>> calls = {
        {"Send", [&] { return wm.Send(101, "NEG", &m, false); }},
        {"SetInput", [&] { return wm.SetInput(101, "NEG", nullptr, false); }},
        {"UnsetInput", [&] { return wm.UnsetInput(101, "NEG", 0); }},
        {"DeleteBy type", [&] { return wm.DeleteBy(-1, nullptr, nullptr, "WILD", &count); }},
        {"DeleteBy target", [&] { return wm.DeleteBy(-1, "PNEG", nullptr, nullptr, &count); }},
        {"GetCounters type", [&] { return wm.GetCounters(byType) == M_NONE ? long(M_NAME) : 0L; }},
        {"GetCounters UID",
         [&] { return wm.GetCounters(byUID, true) == M_NONE ? long(M_NAME) : 0L; }},
    };
    for (const auto& c : calls) {
        EXPECT_EQ(c.second(), M_NAME) << c.first;
        EXPECT_TRUE(Contains(wm.szErrorMsg, "cannot be told from a result code"))
            << c.first << ": " << wm.szErrorMsg;
    }
    EXPECT_TRUE(count == 7 && byType[0].Counter == -1 && byUID[0].Counter == -1);
    __GET_COUNTERS__ENTRY2 states{};
    ASSERT_EQ(wm.GetCounters(&states), M_OK);
    EXPECT_EQ(states.Counter[WQCF_Pending], 1) << "nothing was sent or deleted";
}
