// The directory of message types and processes: loading the names file and
// the process-UID file into heap tables, and the lookups between names and
// numbers on the shared copies of those tables.
//
// The loaders run once, in the first constructor, and build heap tables that
// the constructor copies into the Names and Unique IDs segments; nothing
// changes those segments afterwards. A malformed line never stops a load:
// every bad line is reported in turn (the last report stays in szErrorMsg),
// so an administrator sees where a file is wrong, and the load then fails as
// a whole rather than giving a partial directory.
//
// Locks: GetUID takes the Controls lock (unless it runs nested inside an
// operation that already holds it) and re-attaches the per-call segments
// like every operation on the shared tables. Translate takes no lock: the
// Names Table is written only by the first constructor, before any other
// object can attach it. The row counts nQNameCount and nUIDsCount in the
// Controls segment are written once, under the Controls lock, by the same
// constructor. The loaders run inside the first constructor while it holds
// the Controls lock; they release it only through _Failed.
#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Internal.h"
#include "WorkMessages.h"

namespace {

const int kFirstRows = 16; // room of a new table
const int kGrowRows = 8;   // added to the room when it is full
// fgets keeps one byte of its limit for the NUL, so one read takes at most
// 99 characters; a longer line arrives in pieces, each handled as a line.
const int kReadLimit = 100;
const size_t kLineBuffer = 101;
const size_t kMaxName = 8;
const size_t kMaxDesc = 32;
const char kSeparators[] = "=,";
const char kTrimSet[] = " \n";

// The two file formats: keyword of each field pair, in their fixed order.
const char* const kNamesKeywords[] = {"NAME", "ID", "DESC"};
const char* const kUIDsKeywords[] = {"NAME", "ID", "MSGID", "DESC"};

struct FileFormat {
    const char* const* szKeywords;
    long nFields;  // exact field count of a good line (keywords and values)
    bool bProcess; // process-UID file: Trim/TrimLeft and a MSGID field
};
const FileFormat kNamesFormat = {kNamesKeywords, 6, false};
const FileFormat kUIDsFormat = {kUIDsKeywords, 8, true};

// The first check a line fails, in the order the checks run.
enum class LineCheck { Ok, Format, Keyword, NameLength, DescLength, ID };

// The values of an accepted line, pointing into the line buffer.
struct LineValues {
    const char* szName = nullptr;
    const char* szDesc = nullptr;
    const char* szMsgID = nullptr; // process lines only
    int32_t nID = 0;
    size_t nLength = 0; // the length that failed a length check
};

// Drops the last carriage return of a description and all after it: a line
// written with CRLF ends its description there.
void CutAtLastCR(char* szField) {
    char* pCR = strrchr(szField, '\r');
    if (pCR != nullptr) *pCR = '\0';
}

// Names file: leading spaces go from every field; every field but the last
// ends at its first space; the description keeps its inner and trailing
// spaces.
char* NamesField(char* szField, bool bLast) {
    while (*szField == ' ')
        ++szField;
    if (bLast) {
        CutAtLastCR(szField);
    } else {
        char* pBlank = strchr(szField, ' ');
        if (pBlank != nullptr) *pBlank = '\0';
    }
    return szField;
}

// Process-UID file: every field but the last is trimmed at both ends (a
// process name may hold an inner space), the description at its start only.
char* UIDsField(char* szField, bool bLast) {
    int nLength = static_cast<int>(strlen(szField));
    if (bLast) {
        TrimLeft(szField, &nLength, szField, kTrimSet);
        CutAtLastCR(szField);
    } else {
        Trim(szField, &nLength, szField, kTrimSet);
    }
    return szField;
}

// Reads an ID as decimal first; a decimal 0 is read again as hexadecimal,
// so "0x1F" and "FF" are hexadecimal while "1F" is decimal 1. 0 means that
// no usable number is there.
int32_t ReadID(const char* szField) {
    int nValue = 0;
    if (sscanf(szField, "%d", &nValue) != 1 || nValue == 0) {
        unsigned int nHex = 0;
        if (sscanf(szField, "%x", &nHex) != 1) nHex = 0;
        nValue = static_cast<int>(nHex);
    }
    return static_cast<int32_t>(nValue);
}

// Splits a line (its newline already removed) and checks it. The checks run
// in a fixed order: field count, keywords, name length, description length,
// ID; the first that fails is the result.
LineCheck CheckLine(char* szLine, const FileFormat& fmt, LineValues& values) {
    // One pointer more than a good line needs: the tokenizer counts up to
    // its maximum, so a line with too many fields shows as one field more.
    char* szTokens[9] = {};
    const long nMaxTokens = fmt.nFields + 1;
    if (GetTokens(szLine, kSeparators, szTokens, nMaxTokens, true, false) != fmt.nFields)
        return LineCheck::Format;

    for (long i = 0; i < fmt.nFields; ++i) {
        const bool bLast = i == fmt.nFields - 1;
        szTokens[i] = fmt.bProcess ? UIDsField(szTokens[i], bLast) : NamesField(szTokens[i], bLast);
    }
    for (long i = 0; i < fmt.nFields; i += 2)
        if (strcasecmp(szTokens[i], fmt.szKeywords[i / 2]) != 0) return LineCheck::Keyword;

    values.szName = szTokens[1];
    values.szDesc = szTokens[fmt.nFields - 1];
    values.szMsgID = fmt.bProcess ? szTokens[5] : nullptr;

    values.nLength = strlen(values.szName);
    if (values.nLength > kMaxName) return LineCheck::NameLength;
    values.nLength = strlen(values.szDesc);
    if (values.nLength > kMaxDesc) return LineCheck::DescLength;
    values.nID = ReadID(szTokens[3]);
    if (values.nID == 0) return LineCheck::ID;
    return LineCheck::Ok;
}

// Fills a zeroed row; the lengths were checked by CheckLine.
void FillRow(_WQCONF_& row, const LineValues& values) {
    row.nID = values.nID;
    memcpy(row.szName, values.szName, strlen(values.szName));
    memcpy(row.szDesc, values.szDesc, strlen(values.szDesc));
}

void FillRow(_PRUID_& row, const LineValues& values) {
    row.nUID = values.nID;
    row.cLogMsgID = values.szMsgID[0]; // NUL for an empty MSGID value
    memcpy(row.szName, values.szName, strlen(values.szName));
    memcpy(row.szDesc, values.szDesc, strlen(values.szDesc));
}

// Writes the text of a malformed line into szErrorMsg (cut to fit).
void ReportLine(char (&szErrorMsg)[512], LineCheck check, const FileFormat& fmt, const char* szPath,
                int nLine, size_t nLength) {
    switch (check) {
    case LineCheck::Format:
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: Invalid format(,=) on line %s:%d\n", szPath, nLine);
        break;
    case LineCheck::Keyword:
        if (fmt.bProcess)
            snprintf(szErrorMsg, sizeof(szErrorMsg),
                     "WorkMsg object:  Invalid keyword[Name|ID|MsgID|Desc] on line %s:%d\n", szPath,
                     nLine);
        else
            snprintf(szErrorMsg, sizeof(szErrorMsg),
                     "WorkMsg object: Invalid keyword[Name|ID|Desc] on line %s:%d\n", szPath,
                     nLine);
        break;
    case LineCheck::NameLength:
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: The length(%d) of 'Name' on line %s:%d exceeds %d characters\n",
                 static_cast<int>(nLength), szPath, nLine, static_cast<int>(kMaxName));
        break;
    case LineCheck::DescLength:
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: The length(%d) of 'Desc' on line %s:%d exceeds %d characters\n",
                 static_cast<int>(nLength), szPath, nLine, static_cast<int>(kMaxDesc));
        break;
    case LineCheck::ID:
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "WorkMsg object: Invalid value for 'ID' on line %s:%d\n\n", szPath, nLine);
        break;
    case LineCheck::Ok:
        break;
    }
}

// Loads one directory file into a heap table of Row. arrRows and nCount
// always describe the table (null when the first allocation failed), also
// when the load fails; the caller frees it. fail(format, argument) reports
// a failure of the system, with the errno of that failure, through _Failed
// with M_SYSERR.
template <class Row, class Fail>
bool LoadTable(CWorkMessages& obj, const std::string& strPath, const FileFormat& fmt, Row*& arrRows,
               int& nCount, Fail fail) {
    nCount = 0;
    int nRoom = kFirstRows;
    arrRows = static_cast<Row*>(calloc(static_cast<size_t>(nRoom), sizeof(Row)));
    if (arrRows == nullptr) {
        fail("Error allocating %d bytes", static_cast<int>(nRoom * sizeof(Row)));
        return false;
    }

    FILE* fp = fopen(strPath.c_str(), "r");
    if (fp == nullptr) {
        fail("Error opening file: %s", strPath.c_str());
        return false;
    }
    auto closeFile = qvwm::OnScopeExit([fp] { fclose(fp); });

    bool bResult = true;
    int nLine = 0;
    char szLine[kLineBuffer];
    while (fgets(szLine, kReadLimit, fp) != nullptr) {
        ++nLine;
        if (szLine[0] == '*' || szLine[0] == '#') continue;
        if (strcmp(szLine, "\n") == 0) continue;
        const size_t nLength = strlen(szLine);
        if (nLength > 0 && szLine[nLength - 1] == '\n') szLine[nLength - 1] = '\0';

        LineValues values;
        const LineCheck check = CheckLine(szLine, fmt, values);
        if (check != LineCheck::Ok) {
            ReportLine(obj.szErrorMsg, check, fmt, strPath.c_str(), nLine, values.nLength);
            obj.nLastError = M_CTLFILE;
            bResult = false;
            continue;
        }
        // After the first failure the rest of the file is only checked, so
        // that every bad line gets reported; the table stops growing.
        if (!bResult) continue;

        if (nCount == nRoom) {
            const int nNewRoom = nRoom + kGrowRows;
            const size_t nBytes = static_cast<size_t>(nNewRoom) * sizeof(Row);
            void* pGrown = realloc(arrRows, nBytes);
            if (pGrown == nullptr) {
                fail("Error allocating %d bytes", static_cast<int>(nBytes)); // rows kept
                bResult = false;
                continue;
            }
            arrRows = static_cast<Row*>(pGrown);
            memset(static_cast<void*>(arrRows + nRoom), 0,
                   static_cast<size_t>(kGrowRows) * sizeof(Row));
            nRoom = nNewRoom;
        }
        Row& row = arrRows[nCount];
        memset(static_cast<void*>(&row), 0, sizeof(Row));
        FillRow(row, values);
        ++nCount;
    }
    if (!feof(fp)) {
        fail("Error reading file: %s", strPath.c_str());
        bResult = false;
    }

    // A file that gave no line at all is reported as empty, also when a read
    // error ended it: the text names the file; nLastError keeps the code of
    // the read error.
    if (nLine == 0) {
        snprintf(obj.szErrorMsg, sizeof(obj.szErrorMsg), "WorkMsg object: File: %s is empty!\n",
                 strPath.c_str());
        return false;
    }
    return bResult;
}

// The answer of a lookup, unless the row found stores a number below 0
// (nStored): then M_NAME, with a text that says why such a number can't be
// used. A negative answer without such a row is a code with its own text.
long UsableNumber(long nAnswer, long nStored, const std::string& strSubject, const char* szFile,
                  char (&szErrorMsg)[512]) {
    if (nAnswer >= 0 || nStored >= 0) return nAnswer;
    snprintf(szErrorMsg, sizeof(szErrorMsg),
             "WorkMsg object: %s is %ld in the %s file; a negative number cannot be told from a "
             "result code",
             strSubject.c_str(), nStored, szFile);
    return M_NAME;
}

char* CodeAsPointer(long nCode) {
    return reinterpret_cast<char*>(static_cast<intptr_t>(nCode));
}

// Copies a stored description with its NUL into a caller's buffer of at
// least 33 bytes; never reads past the row's field.
void CopyDesc(char* pDest, const char (&szDesc)[33]) {
    const size_t nLength = strnlen(szDesc, sizeof(szDesc) - 1);
    memcpy(pDest, szDesc, nLength);
    pDest[nLength] = '\0';
}

} // namespace

bool CWorkMessages::_LoadNames(LPCSTR strFilename) {
    _TraceEntry("_LoadNames");
    return LoadTable(
        *this, strFilename, kNamesFormat, arrNamesLocal, nNamesCount,
        [this](const char* szFormat, auto arg) { _Failedf(M_SYSERR, -1, szFormat, arg); });
}

bool CWorkMessages::_LoadUIDs(LPCSTR strFilename) {
    _TraceEntry("_LoadUIDs");
    return LoadTable(
        *this, strFilename, kUIDsFormat, arrUIDs, nUIDsCount,
        [this](const char* szFormat, auto arg) { _Failedf(M_SYSERR, -1, szFormat, arg); });
}

// The searches walk the shared tables up to the row counts in the Controls
// segment (not the object's own counts); the first matching row wins. An
// object without its tables (failed construction) finds nothing.
_WQCONF_* CWorkMessages::_SearchName(long nID) {
    _TraceEntry("_SearchName");
    if (!qvwm::Attached(pSMCtlrs) || !qvwm::Attached(arrNamesLocal)) return nullptr;
    const int32_t nRows = pSMCtlrs->nQNameCount;
    for (int32_t i = 0; i < nRows; ++i)
        if (arrNamesLocal[i].nID == nID) return &arrNamesLocal[i];
    return nullptr;
}

_WQCONF_* CWorkMessages::_SearchName(const char* szMname) {
    _TraceEntry("_SearchName");
    if (szMname == nullptr || !qvwm::Attached(pSMCtlrs) || !qvwm::Attached(arrNamesLocal))
        return nullptr;
    const int32_t nRows = pSMCtlrs->nQNameCount;
    for (int32_t i = 0; i < nRows; ++i) {
        _WQCONF_& row = arrNamesLocal[i];
        if (strncasecmp(row.szName, szMname, sizeof(row.szName)) == 0) return &row;
    }
    return nullptr;
}

_PRUID_* CWorkMessages::_SearchUID(long nUID) {
    _TraceEntry("_SearchUID");
    if (!qvwm::Attached(pSMCtlrs) || !qvwm::Attached(arrUIDs)) return nullptr;
    const int32_t nRows = pSMCtlrs->nUIDsCount;
    for (int32_t i = 0; i < nRows; ++i)
        if (arrUIDs[i].nUID == nUID) return &arrUIDs[i];
    return nullptr;
}

_PRUID_* CWorkMessages::_SearchUID(const char* szMname) {
    _TraceEntry("_SearchUID");
    if (szMname == nullptr || !qvwm::Attached(pSMCtlrs) || !qvwm::Attached(arrUIDs)) return nullptr;
    const int32_t nRows = pSMCtlrs->nUIDsCount;
    for (int32_t i = 0; i < nRows; ++i) {
        _PRUID_& row = arrUIDs[i];
        if (strncasecmp(row.szName, szMname, sizeof(row.szName)) == 0) return &row;
    }
    return nullptr;
}

long CWorkMessages::Translate(const char* pMname) {
    _RecordCaller();
    _TraceEntry("Translate");
    if (pMname == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg), "WorkMsg object: No WorkMsg name given (null)");
        return M_NAME;
    }
    const _WQCONF_* pRow = _SearchName(pMname);
    if (pRow == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg), "WorkMsg object: WorkMsg '%s' is not valid",
                 pMname);
        return M_NAME;
    }
    return pRow->nID; // what the table holds, negative or not
}

char* CWorkMessages::Translate(long nMsgID, char* pMdesc) {
    _RecordCaller();
    _TraceEntry("Translate");
    _WQCONF_* pRow = _SearchName(nMsgID);
    if (pRow == nullptr) return CodeAsPointer(M_MSGID);
    if (pMdesc != nullptr) CopyDesc(pMdesc, pRow->szDesc);
    return pRow->szName;
}

long CWorkMessages::GetUID(const char* pPname, char* pLogMsg) {
    _RecordCaller();
    _TraceEntry("GetUID");
    if (pPname == nullptr) {
        snprintf(szErrorMsg, sizeof(szErrorMsg), "WorkMsg object: No process name given (null)");
        return M_NAME;
    }
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return M_LOCK;

    long nResult = _GetPointers();
    if (nResult == 0) {
        const _PRUID_* pRow = _SearchUID(pPname);
        if (pRow != nullptr) {
            if (pLogMsg != nullptr) *pLogMsg = pRow->cLogMsgID;
            nResult = pRow->nUID; // what the table holds, negative or not
        } else {
            snprintf(szErrorMsg, sizeof(szErrorMsg), "WorkMsg object: UID for %s was not found",
                     pPname);
            nResult = M_NAME;
        }
    }
    if (!bInternalCall) _FreeControlsLock(true);
    return nResult;
}

char* CWorkMessages::GetUID(long nUID, char* pPdesc) {
    _RecordCaller();
    _TraceEntry("GetUID");
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return CodeAsPointer(M_LOCK);

    char* pResult = CodeAsPointer(M_MSGID);
    const long nAttach = _GetPointers();
    if (nAttach != 0) {
        pResult = CodeAsPointer(nAttach);
    } else {
        _PRUID_* pRow = _SearchUID(nUID);
        if (pRow != nullptr) {
            if (pPdesc != nullptr) CopyDesc(pPdesc, pRow->szDesc);
            pResult = pRow->szName;
        }
    }
    if (!bInternalCall) _FreeControlsLock(true);
    return pResult;
}

// The operations that store or match a looked-up number read a negative
// answer as a failure code. A number that the directory file itself makes
// negative would be taken for a code without a text (ID=-100 reads as
// M_NAME, ID=-1 as a wildcard of DeleteBy), so they refuse it by name. The
// second search runs only after a negative answer, and tells the stored
// number from a failure of the lookup: the tables never change once loaded.
long CWorkMessages::_TypeNumber(const char* szMname) {
    const long nID = Translate(szMname);
    const _WQCONF_* pRow = nID < 0 ? _SearchName(szMname) : nullptr;
    return UsableNumber(nID, pRow != nullptr ? pRow->nID : 0,
                        "WorkMsg '" + std::string(szMname) + "'", "names", szErrorMsg);
}

long CWorkMessages::_ProcessNumber(const char* szPname) {
    const long nUID = GetUID(szPname, nullptr);
    const _PRUID_* pRow = nUID < 0 ? _SearchUID(szPname) : nullptr;
    return UsableNumber(nUID, pRow != nullptr ? pRow->nUID : 0, "UID for " + std::string(szPname),
                        "process", szErrorMsg);
}
