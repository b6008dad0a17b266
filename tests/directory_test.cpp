// The directory files (message types, processes) and the lookups between
// names and numbers.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
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

template <class Row> struct Loaded {
    bool ok = false;
    long lastError = 0;
    std::string text;
    std::vector<Row> rows;
};

// Runs a loader on a constructed object, copies the heap rows out, frees
// them and gives the object its attached table back.
template <class Row, class LoadFn>
Loaded<Row> RunLoader(CWorkMessages& wm, Row*& arr, int& count, LoadFn load) {
    Row* saved = arr;
    const int savedCount = count;
    wm.nLastError = 0;
    snprintf(wm.szErrorMsg, sizeof(wm.szErrorMsg), "untouched");
    Loaded<Row> r;
    r.ok = load();
    r.lastError = wm.nLastError;
    r.text = wm.szErrorMsg;
    if (arr != nullptr) r.rows.assign(arr, arr + count);
    free(arr);
    arr = saved;
    count = savedCount;
    return r;
}

} // namespace

class DirectoryTest : public WmTest {
protected:
    void SetUp() override {
        WmTest::SetUp();
        path = root + "/file.ini";
    }
    Loaded<_WQCONF_> LoadNames(CWorkMessages& wm, const std::string& content) {
        WriteFile(path, content);
        CWorkMessagesTestAccess acc(wm);
        return RunLoader(wm, acc.Names(), acc.NamesCount(), [&] { return acc.LoadNames(path); });
    }
    Loaded<_PRUID_> LoadUIDs(CWorkMessages& wm, const std::string& content) {
        WriteFile(path, content);
        CWorkMessagesTestAccess acc(wm);
        return RunLoader(wm, acc.UIDs(), acc.UIDsCount(), [&] { return acc.LoadUIDs(path); });
    }
    std::string LengthError(const char* field, int len, int line, int max) {
        return Format(
            "WorkMsg object: The length(%d) of '%s' on line %s:%d exceeds %d characters\n", len,
            field, path.c_str(), line, max);
    }
    std::string path;
};

TEST_F(DirectoryTest, NamesLinesAreAcceptedOrRejectedOneByOne) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;

    // 150 characters: a comment piece of 99, then a line of its own of 51.
    const std::string longLine =
        "#" + std::string(98, 'x') + "NAME=piece2,ID=22,DESC=" + std::string(28, 'd') + "\n";
    ASSERT_EQ(longLine.size(), 151u);
    const std::string desc32(32, 'z');
    Loaded<_WQCONF_> r = LoadNames(wm, "* star comment\n\n"
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
    ASSERT_TRUE(r.ok) << r.text;
    EXPECT_EQ(r.text, "untouched");
    const std::vector<std::tuple<std::string, long, std::string>> want = {
        {"abc", 7, "Seven"},
        {"sep", 8, "Swapped"},
        {"lead", 16, "two  words  "},
        {"AB", -3, "inner"},
        {"hex", 1, "decimal first"},
        {"ff", 255, "hex"},
        {"crlf", 5, "ends in CR"},
        {"tab\tx", 6, "\tt"},
        {"EIGHTCHR", 9, desc32},
        {"abc", 7, "again"},
        {"piece2", 22, std::string(28, 'd')}};
    ASSERT_EQ(r.rows.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(r.rows[i].szName, std::get<0>(want[i])) << i;
        EXPECT_EQ(r.rows[i].nID, std::get<1>(want[i])) << i;
        EXPECT_EQ(r.rows[i].szDesc, std::get<2>(want[i])) << i;
    }

    // Each bad line stands on line 3, after a comment and a good line that
    // stays loaded.
    const std::string fmtErr =
        Format("WorkMsg object: Invalid format(,=) on line %s:3\n", path.c_str());
    const std::string kwErr =
        Format("WorkMsg object: Invalid keyword[Name|ID|Desc] on line %s:3\n", path.c_str());
    const std::string idErr =
        Format("WorkMsg object: Invalid value for 'ID' on line %s:3\n\n", path.c_str());
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"NAME=x,ID=1,DESC=one, two", fmtErr},
        {"NAME=x,ID=1,DESC=a=b", fmtErr},
        {"   ", fmtErr},
        {"\r", fmtErr},
        {" #NAME=x,ID=1,DESC=c", kwErr},
        {"ID=1,NAME=x,DESC=c", kwErr},
        {"NAME=ABCDEFGHI,ID=0,DESC=" + std::string(40, 'd'), LengthError("Name", 9, 3, 8)},
        {"NAME=x,ID=1,DESC=" + std::string(31, 'd') + "  ", LengthError("Desc", 33, 3, 32)},
        {"NAME=x,ID=0,DESC=d", idErr},
        {"NAME=x,ID=0x0,DESC=d", idErr},
        {"NAME=x,ID=zz,DESC=d", idErr},
        {"NAME=x,ID=,DESC=d", idErr}};
    for (const auto& c : bad) {
        r = LoadNames(wm, "# types\nNAME=GOOD,ID=1,DESC=g\n" + c.first + "\n");
        EXPECT_FALSE(r.ok) << c.first;
        EXPECT_EQ(r.lastError, M_CTLFILE) << c.first;
        EXPECT_EQ(r.text, c.second) << c.first;
        EXPECT_EQ(r.rows.size(), 1u) << c.first;
    }
}

TEST_F(DirectoryTest, NamesFileAsAWhole) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;

    // Every bad line is reported and the last one stays; no row is added
    // after the first.
    Loaded<_WQCONF_> r = LoadNames(wm, "NAME=A,ID=1,DESC=a\nNAME=B,ID=0,DESC=b\n"
                                       "NAME=C,ID=3,DESC=c\nNAME=D,DESC=d\nNAME=E,ID=5,DESC=e\n");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.lastError, M_CTLFILE);
    EXPECT_EQ(r.text, Format("WorkMsg object: Invalid format(,=) on line %s:4\n", path.c_str()));
    EXPECT_EQ(r.rows.size(), 1u);

    r = LoadNames(wm, "");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.lastError, 0);
    EXPECT_EQ(r.text, Format("WorkMsg object: File: %s is empty!\n", path.c_str()));

    r = LoadNames(wm, "# only\n\n* comments\n");
    EXPECT_TRUE(r.ok) << r.text;
    EXPECT_TRUE(r.rows.empty());

    // A file that opens but can't be read reports the read, not "empty".
    CWorkMessagesTestAccess acc(wm);
    r = RunLoader(wm, acc.Names(), acc.NamesCount(), [&] { return acc.LoadNames(root); });
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.lastError, M_SYSERR);
    EXPECT_EQ(r.text, Format("WorkMsg object: Error reading file: %s\nReason(%d): %s\n",
                             root.c_str(), EISDIR, strerror(EISDIR)));
    r = RunLoader(wm, acc.Names(), acc.NamesCount(), [&] { return acc.LoadNames(path + "x"); });
    EXPECT_EQ(r.lastError, M_SYSERR);
    EXPECT_EQ(r.text, Format("WorkMsg object: Error opening file: %sx\nReason(%d): %s\n",
                             path.c_str(), ENOENT, strerror(ENOENT)));
    EXPECT_EQ(acc.LockOwner(), 0);
}

TEST_F(DirectoryTest, ProcessLinesKeepInnerBlanksAndTheFlag) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    Loaded<_PRUID_> r = LoadUIDs(wm, "name=my proc,id=7,msgid=Yes,desc=  kept  \n"
                                     "NAME=    pb,ID=0x10,MSGID=,DESC=empty flag\n"
                                     "NAME= padded  ,ID= 12ab ,MSGID= N ,DESC=x\r\n");
    ASSERT_TRUE(r.ok) << r.text;
    ASSERT_EQ(r.rows.size(), 3u);
    EXPECT_STREQ(r.rows[0].szName, "my proc");
    EXPECT_EQ(r.rows[0].cLogMsgID, 'Y');
    EXPECT_STREQ(r.rows[0].szDesc, "kept  ");
    EXPECT_STREQ(r.rows[1].szName, "pb");
    EXPECT_EQ(r.rows[1].nUID, 16);
    EXPECT_EQ(r.rows[1].cLogMsgID, '\0');
    EXPECT_STREQ(r.rows[2].szName, "padded");
    EXPECT_EQ(r.rows[2].nUID, 12);
    EXPECT_EQ(r.rows[2].cLogMsgID, 'N');
    EXPECT_STREQ(r.rows[2].szDesc, "x");

    r = LoadUIDs(wm, "NAME=ABCDEFGHI,ID=1,MSGID=Y,DESC=x\nNAME=x,ID=1,DESC=d\n"
                     "NAME=x,ID=1,MSG=Y,DESC=d\n");
    EXPECT_EQ(r.lastError, M_CTLFILE);
    EXPECT_EQ(r.text, Format("WorkMsg object:  Invalid keyword[Name|ID|MsgID|Desc] on line %s:3\n",
                             path.c_str()));
    r = LoadUIDs(wm, "NAME=ABCDEFGHI,ID=1,MSGID=Y,DESC=x\n");
    EXPECT_EQ(r.text, LengthError("Name", 9, 1, 8));
    EXPECT_TRUE(r.rows.empty());
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
    EXPECT_EQ(std::string(wm.szErrorMsg), LengthError("Name", 11, 2, 8));
}

TEST_F(DirectoryTest, LookupsFindTheFirstRowIgnoringCase) {
    WriteFile(namesFile, std::string(kDefaultNames) + "NAME=order,ID=9,DESC=dup name\n"
                                                      "NAME=DUPID,ID=2,DESC=dup id\n");
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);

    EXPECT_EQ(wm.Translate("order"), 1);
    char desc[40];
    EXPECT_STREQ(wm.Translate(2, desc), "INVOICE");
    EXPECT_STREQ(desc, "Invoice");

    // Misses return a code; only the by-name lookups write a text.
    snprintf(wm.szErrorMsg, sizeof(wm.szErrorMsg), "older");
    memset(desc, '#', sizeof(desc));
    EXPECT_EQ(wm.Translate(999, desc), Code(M_MSGID));
    EXPECT_EQ(wm.GetUID(999, desc), Code(M_MSGID));
    EXPECT_EQ(desc[0], '#');
    EXPECT_STREQ(wm.szErrorMsg, "older");
    EXPECT_EQ(wm.Translate("ORD"), M_NAME);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: WorkMsg 'ORD' is not valid");
    EXPECT_EQ(wm.Translate(nullptr), M_NAME);
    char flag[2] = {'#', '#'};
    EXPECT_EQ(wm.GetUID("PROCX", flag), M_NAME);
    EXPECT_STREQ(wm.szErrorMsg, "WorkMsg object: UID for PROCX was not found");
    EXPECT_EQ(wm.GetUID(nullptr, flag), M_NAME);
    EXPECT_EQ(flag[0], '#');
    EXPECT_EQ(wm.nLastError, 0);

    // GetUID writes one byte, frees the lock and keeps the per-call
    // segments attached.
    EXPECT_EQ(wm.GetUID("procb", flag), 102);
    EXPECT_EQ(flag[0], 'N');
    EXPECT_EQ(flag[1], '#');
    EXPECT_STREQ(wm.GetUID(103, desc), "PROCC");
    EXPECT_STREQ(desc, "Process C");
    EXPECT_EQ(acc.LockOwner(), 0);
    EXPECT_NE(acc.Queues(), nullptr);

    // The shared row counts bound the searches, also when they are off.
    const int32_t names = acc.Controls()->nQNameCount, uids = acc.Controls()->nUIDsCount;
    acc.Controls()->nQNameCount = 1;
    EXPECT_EQ(wm.Translate("INVOICE"), M_NAME);
    acc.Controls()->nQNameCount = -1;
    acc.Controls()->nUIDsCount = -1;
    EXPECT_EQ(wm.Translate("ORDER"), M_NAME);
    EXPECT_EQ(wm.GetUID(101, nullptr), Code(M_MSGID));
    acc.Controls()->nQNameCount = names;
    acc.Controls()->nUIDsCount = uids;
}

TEST_F(DirectoryTest, GetUIDWaitsForTheLockUnlessNested) {
    CWorkMessages wm, holder;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm), hacc(holder);
    hacc.RecordCaller();
    ASSERT_TRUE(hacc.GetControlsLock(1));

    EXPECT_EQ(wm.GetUID("PROCA", nullptr), M_LOCK);
    EXPECT_EQ(wm.GetUID(101, nullptr), Code(M_LOCK));
    acc.InternalCall() = true;
    EXPECT_EQ(wm.GetUID("PROCA", nullptr), 101);
    EXPECT_STREQ(wm.GetUID(101, nullptr), "PROCA");
    acc.InternalCall() = false;
    EXPECT_EQ(acc.LockOwner(), hacc.CallerTID()); // nobody released the holder's lock
    hacc.FreeControlsLock(true);
}

TEST_F(DirectoryTest, TranslateTracesItselfAndItsSearch) {
    CWorkMessages wm;
    ASSERT_EQ(wm.nLastError, 0) << wm.szErrorMsg;
    CWorkMessagesTestAccess acc(wm);
    StderrCapture quiet;
    EXPECT_EQ(wm.Translate("REPORT"), 3);
    EXPECT_EQ(quiet.Stop(), "");

    acc.Trace() = true;
    StderrCapture traced;
    EXPECT_EQ(wm.Translate("REPORT"), 3);
    const std::string log = traced.Stop();
    acc.Trace() = false;
    const size_t first = log.find("Translate entered by pid/tid");
    const size_t second = log.find("_SearchName entered by pid/tid");
    EXPECT_TRUE(first != std::string::npos && second != std::string::npos && first < second) << log;
    EXPECT_EQ(log.find("entered", second + 1 + strlen("_SearchName entered")), std::string::npos)
        << log;
}
