// The directory files (message types, processes) and the lookups between
// names and numbers.
#include <cstdlib>
#include <cstring>

#include "TestAccess.h"
#include "TestEnv.h"

using namespace wmtest;

namespace {

const char* AsText(long code) {
    return reinterpret_cast<char*>(static_cast<intptr_t>(code));
}

// A row as "name|number|desc" or "name|UID|flag|desc".
std::string Describe(const _WQCONF_& r) {
    return std::string(r.szName) + "|" + std::to_string(r.nID) + "|" + r.szDesc;
}
std::string Describe(const _PRUID_& r) {
    return std::string(r.szName) + "|" + std::to_string(r.nUID) + "|" +
           std::string(&r.cLogMsgID, r.cLogMsgID ? 1 : 0) + "|" + r.szDesc;
}

class DirectoryTest : public WmTest {
protected:
    // Runs the names (or process) loader of wm on content written to path (or
    // on file) and returns the rows it loaded; ok, error and text keep the
    // outcome. wm gets its own table back.
    std::vector<std::string> Load(CWorkMessages& wm, const std::string& content, bool uids = false,
                                  std::string file = "") {
        if (file.empty()) WriteFile(file = path(), content);
        CWorkMessagesTestAccess acc(wm);
        wm.nLastError = 0;
        strcpy(wm.szErrorMsg, "untouched");
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
    std::string path() const { return root + "/file.ini"; }
    bool ok = false;
    long error = 0;
    std::string text;
};

} // namespace

TEST_F(DirectoryTest, LinesAreAcceptedOrRejectedOneByOne) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    // 150 characters: a comment piece of 99, then a line of its own of 51.
    const std::string longLine =
        "#" + std::string(98, 'x') + "NAME=piece2,ID=22,DESC=" + std::string(28, 'd') + "\n";
    const std::string desc32(32, 'z');
    EXPECT_EQ(Load(wm, "* star comment\n\n"
                       "name=abc,id=7,desc=Seven\n"
                       "NAME,sep=ID,8=DESC,Swapped\n"
                       "Name=    lead,Id=0x10,Desc=  two  words  \n"
                       "NAME=AB CD,ID=-3 junk,DESC=inner\n"
                       "NAME=hex,ID=1F,DESC=decimal first\n"
                       "NAME=ff,ID=FF,DESC=hex\n"
                       "NAME=tab\tx,ID=6,DESC=\tt\r\n"
                       "NAME=EIGHTCHR,ID=9,DESC=" +
                           desc32 + "\nNAME=abc,ID=7,DESC=again\n" + longLine),
              (std::vector<std::string>{"abc|7|Seven", "sep|8|Swapped", "lead|16|two  words  ",
                                        "AB|-3|inner", "hex|1|decimal first", "ff|255|hex",
                                        "tab\tx|6|\tt", "EIGHTCHR|9|" + desc32, "abc|7|again",
                                        "piece2|22|" + std::string(28, 'd')}));
    EXPECT_TRUE(ok && text == "untouched") << text;
    // Process lines keep inner blanks and the flag.
    EXPECT_EQ(Load(wm,
                   "name=my proc,id=7,msgid=Yes,desc=  kept  \n"
                   "NAME= padded  ,ID= 12ab ,MSGID=,DESC=x\r\n",
                   true),
              (std::vector<std::string>{"my proc|7|Y|kept  ", "padded|12||x"}));
    EXPECT_TRUE(ok) << text;

    // Each bad line is line 3, after a comment and a good line that stays loaded.
    const struct {
        bool uids;
        std::string line;
        const char* what;
    } bad[] = {{false, "NAME=x,ID=1,DESC=a=b", "Invalid format(,=)"},
               {false, " #NAME=x,ID=1,DESC=c", "Invalid keyword[Name|ID|Desc]"},
               {false, "NAME=ABCDEFGHI,ID=0,DESC=" + std::string(40, 'd'), "length(9) of 'Name'"},
               {false, "NAME=x,ID=1,DESC=" + std::string(31, 'd') + "  ", "length(33) of 'Desc'"},
               {false, "NAME=x,ID=0,DESC=d", "Invalid value for 'ID'"},
               {true, "NAME=x,ID=1,DESC=d", "Invalid format(,=)"},
               {true, "NAME=x,ID=1,MSG=Y,DESC=d", "Invalid keyword[Name|ID|MsgID|Desc]"}};
    for (const auto& c : bad) {
        const std::string good =
            c.uids ? "NAME=GOOD,ID=1,MSGID=Y,DESC=g\n" : "NAME=GOOD,ID=1,DESC=g\n";
        EXPECT_EQ(Load(wm, "# types\n" + good + c.line + "\n", c.uids).size(), 1u) << c.line;
        EXPECT_TRUE(!ok && error == M_CTLFILE && Contains(text, c.what) &&
                    Contains(text, " on line " + path() + ":3"))
            << c.line << ": " << text;
    }

    // Empty, comment-only and missing files.
    EXPECT_TRUE(Load(wm, "").empty() && !ok && error == 0);
    EXPECT_TRUE(Contains(text, "File: " + path() + " is empty!")) << text;
    EXPECT_TRUE(Load(wm, "# only\n\n* comments\n").empty() && ok) << text;
    Load(wm, "", false, path() + "x");
    EXPECT_TRUE(error == M_SYSERR && Contains(text, "Error opening file: " + path() + "x")) << text;
}

TEST_F(DirectoryTest, LookupsFindTheFirstRowAndNegativeNumbersAreNotUsed) {
    // 30 types more: the table grows twice on the way and keeps every row.
    std::string names = std::string(kDefaultNames) +
                        "NAME=order,ID=9,DESC=dup name\n"
                        "NAME=DUPID,ID=2,DESC=dup id\n"
                        "NAME=NEG,ID=-3,DESC=n\nNAME=WILD,ID=-1,DESC=w\n";
    for (int i = 1; i <= 30; ++i)
        names += "NAME=T" + std::to_string(i) + ",ID=" + std::to_string(i * 10) + ",DESC=t\n";
    WriteFile(namesFile, names);
    WriteFile(uidsFile, std::string(kDefaultUIDs) + "NAME=PNEG,ID=-100,MSGID=Y,DESC=p\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    ASSERT_EQ(acc.Controls()->nQNameCount, 38);
    char desc[40];
    for (int i = 1; i <= 30; ++i)
        EXPECT_EQ(wm.Translate(("t" + std::to_string(i)).c_str()), i * 10);
    EXPECT_EQ(wm.Translate("order"), 1);
    EXPECT_STREQ(wm.Translate(2, desc), "INVOICE");
    EXPECT_STREQ(desc, "Invoice");
    char flag[2] = {'#', '#'};
    EXPECT_EQ(wm.GetUID("procb", flag), 102);
    EXPECT_TRUE(flag[0] == 'N' && flag[1] == '#'); // one byte written
    EXPECT_STREQ(wm.GetUID(103, desc), "PROCC");
    EXPECT_STREQ(desc, "Process C");

    // Misses return a code; only the by-name lookups write a text.
    strcpy(wm.szErrorMsg, "older");
    memset(desc, '#', sizeof(desc));
    EXPECT_TRUE(wm.Translate(999, desc) == AsText(M_MSGID) &&
                wm.GetUID(999, desc) == AsText(M_MSGID));
    EXPECT_TRUE(desc[0] == '#' && strcmp(wm.szErrorMsg, "older") == 0);
    EXPECT_TRUE(wm.Translate("ORD") == M_NAME && Contains(wm.szErrorMsg, "'ORD' is not valid"));
    EXPECT_TRUE(wm.GetUID("PROCX", flag) == M_NAME && Contains(wm.szErrorMsg, "PROCX"));
    EXPECT_TRUE(wm.Translate(nullptr) == M_NAME && wm.GetUID(nullptr, flag) == M_NAME);
    EXPECT_TRUE(flag[0] == 'N' && acc.LockOwner() == 0);
    // The shared row count, which another process may have changed, bounds
    // the search.
    acc.Controls()->nQNameCount = 1;
    EXPECT_EQ(wm.Translate("INVOICE"), M_NAME);
    acc.Controls()->nQNameCount = 38;

    SendText(wm, 101, "ORDER", 102);
    EXPECT_TRUE(wm.Translate("neg") == -3 && wm.GetUID("pneg", nullptr) == -100);

    // Such a number reads as a code (-100 is M_NAME, -1 a wildcard): every
    // operation that would use it refuses it, with a text that says why.
    WorkMsg m = MsgTo(102);
    long count = 7;
    __GET_COUNTERS__ENTRY4 byUID[] = {{0, "PNEG"}, {0, ""}};
    const std::function<long()> calls[] = {
        [&] { return wm.Send(101, "NEG", &m, false); },
        [&] { return wm.SetInput(101, "NEG", nullptr, false); },
        [&] { return wm.UnsetInput(101, "NEG", 0); },
        [&] { return wm.DeleteBy(-1, nullptr, nullptr, "WILD", &count); },
        [&] { return wm.DeleteBy(-1, "PNEG", nullptr, nullptr, &count); },
        [&] { return wm.GetCounters(byUID, true) == M_NONE ? long(M_NAME) : 0L; },
    };
    for (const auto& call : calls) {
        EXPECT_EQ(call(), M_NAME) << &call - calls;
        EXPECT_TRUE(Contains(wm.szErrorMsg, "cannot be told from a result code")) << wm.szErrorMsg;
    }
    EXPECT_TRUE(count == 7 && byUID[0].Counter == -1);
    __GET_COUNTERS__ENTRY2 states{};
    ASSERT_EQ(wm.GetCounters(&states), M_OK);
    EXPECT_EQ(states.Counter[WQCF_Pending], 1) << "nothing was sent or deleted";
}
