// The host's configuration store, stand-alone: CGDDA reads one INI file once,
// at construction, into a map of lower-cased section and key names, and
// answers lookups from that map. Nothing is written back and nothing is
// shared between objects, so the store needs no lock; one object belongs to
// one thread.
//
// File format, as this store reads it (the parser is inih, driven through
// its stream interface so that its compiled-in options cannot surprise):
//  - "[Section]" lines, "Key=Value" lines ("Key: Value" is accepted too),
//    whole-line comments beginning with '#' or ';', blank lines.
//  - Names and values are trimmed of surrounding white space.
//  - A ';' preceded by white space starts a comment inside a line
//    ("Key=a ;note" reads "a"); a ';' that follows another character
//    directly is part of the value ("Key=a;b" reads "a;b").
//  - Indented lines are ordinary lines: the reader removes leading blanks
//    before the parser sees them, so an indented line never continues the
//    value of the line before it.
//  - A line longer than the parser's line buffer is reported as malformed,
//    never cut silently.
//  - A key that appears twice in a section keeps the value of its last
//    line; a section that appears twice is merged.
//  - Keys before the first section header belong to a section with an empty
//    name, which no level reads.
#include "GPLibrary.h"

#include <ini.h>
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

const char szLevelNames[5][10] = {"Invalid", "Global", "Dev", "Test", "Prod"};
const char szSLevel[6] = "?GDTP";

namespace {

const char* const kDefaultConfig = "/etc/gdda.conf";

std::string Lower(const char* sz) {
    std::string s(sz ? sz : "");
    for (char& c : s)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

// The level's name for messages; numbers outside 1..4 print as "Invalid".
const char* LevelName(unsigned int nLevel) {
    return nLevel >= CGDDA::Global && nLevel <= CGDDA::Prod ? szLevelNames[nLevel]
                                                            : szLevelNames[CGDDA::Invalid];
}

// Reader state: feeds the parser one physical line per call, so that the
// parser's line numbers are the file's.
struct LineReader {
    FILE* fp = nullptr;
    char* pLine = nullptr; // getline's buffer
    size_t nCap = 0;
    int nLine = 0;      // lines handed out so far
    int nTooLong = 0;   // first line that did not fit the parser's buffer
    int nReadErrno = 0; // errno of a failed read, 0 when none
};

char* ReadLine(char* str, int num, void* stream) {
    LineReader* r = static_cast<LineReader*>(stream);
    errno = 0;
    ssize_t n = getline(&r->pLine, &r->nCap, r->fp);
    if (n < 0) {
        if (ferror(r->fp)) r->nReadErrno = errno ? errno : EIO;
        return nullptr;
    }
    ++r->nLine;
    char* p = r->pLine;
    size_t len = strlen(p); // an embedded NUL ends the line
    if (len > 0 && p[len - 1] == '\n') p[--len] = '\0';
    while (*p == ' ' || *p == '\t') {
        ++p;
        --len;
    }
    if (num <= 0) return nullptr;
    if (len >= static_cast<size_t>(num)) {
        // Too long for the parser: hand it a blank line and report the line
        // as malformed afterwards.
        if (r->nTooLong == 0) r->nTooLong = r->nLine;
        len = 0;
    }
    memcpy(str, p, len);
    str[len] = '\0';
    return str;
}

int StoreValue(void* user, const char* section, const char* name, const char* value) {
    auto* values = static_cast<std::map<std::string, std::map<std::string, std::string>>*>(user);
    (*values)[Lower(section)][Lower(name)] = value ? value : ""; // the last line wins
    return 1;
}

} // namespace

CGDDA::CGDDA(const char* szPath, bool /*bUnused*/) : CreateError(false) {
    szErrorMsg[0] = '\0';
    if (szPath && *szPath) {
        strPath = szPath;
    } else {
        const char* szEnv = getenv("GDDA_CONFIG");
        strPath = szEnv && *szEnv ? szEnv : kDefaultConfig;
    }

    LineReader reader;
    reader.fp = fopen(strPath.c_str(), "re");
    if (!reader.fp) {
        int err = errno;
        CreateError = true;
        snprintf(szErrorMsg, sizeof(szErrorMsg), "GDDA: cannot open configuration file %s: %s",
                 strPath.c_str(), strerror(err));
        return;
    }
    int nErrLine = ini_parse_stream(ReadLine, &reader, StoreValue, &mapValues);
    free(reader.pLine);
    fclose(reader.fp);

    if (reader.nReadErrno != 0) {
        CreateError = true;
        snprintf(szErrorMsg, sizeof(szErrorMsg), "GDDA: cannot read configuration file %s: %s",
                 strPath.c_str(), strerror(reader.nReadErrno));
    } else if (nErrLine < 0) {
        CreateError = true; // the parser could not get its line buffer
        snprintf(szErrorMsg, sizeof(szErrorMsg), "GDDA: cannot parse configuration file %s: %s",
                 strPath.c_str(), strerror(ENOMEM));
    } else if (nErrLine != 0 || reader.nTooLong != 0) {
        // Report the first bad line, whichever check found it.
        int nLine = nErrLine;
        const char* szWhy = "malformed line";
        if (reader.nTooLong != 0 && (nLine == 0 || reader.nTooLong < nLine)) {
            nLine = reader.nTooLong;
            szWhy = "line too long";
        }
        CreateError = true;
        snprintf(szErrorMsg, sizeof(szErrorMsg), "GDDA: configuration file %s, line %d: %s",
                 strPath.c_str(), nLine, szWhy);
    }
    // After a failed load nothing half-read is served: see _Find.
    if (CreateError) mapValues.clear();
}

CGDDA::~CGDDA() = default;

CGDDA::Levels CGDDA::GetSystemLevel(char* szLevel) {
    // On failure the buffer holds "Invalid", so it is never left undefined.
    Levels nLevel = Invalid;
    const std::string* pValue = _Find("Level", Global);
    if (pValue) {
        for (int i = Global; i <= Prod; ++i) {
            if (strcasecmp(pValue->c_str(), szLevelNames[i]) == 0) nLevel = static_cast<Levels>(i);
        }
        if (nLevel == Invalid) {
            snprintf(szErrorMsg, sizeof(szErrorMsg),
                     "GDDA: Level '%s' in [Global] of %s names no level (Global, Dev, Test or "
                     "Prod)",
                     pValue->c_str(), strPath.c_str());
        }
    }
    if (szLevel) snprintf(szLevel, sizeof(szLevelNames[0]), "%s", szLevelNames[nLevel]);
    return nLevel;
}

bool CGDDA::GetValue(const char* szKey, std::string& strValue, unsigned char nLevel,
                     bool /*bUnused*/) {
    const std::string* pValue = _Find(szKey, nLevel);
    if (!pValue) return false;
    strValue = *pValue;
    return true;
}

bool CGDDA::GetValue(const char* szKey, long* pnValue, unsigned char nLevel, bool /*bUnused*/) {
    if (!szKey) szKey = "";
    const std::string* pValue = _Find(szKey, nLevel);
    if (!pValue) return false;
    const char* sz = pValue->c_str();
    char* pEnd = nullptr;
    errno = 0;
    long n = strtol(sz, &pEnd, 10);
    // strtol would skip leading blanks; the value is already trimmed, so a
    // blank there means something else came first.
    bool bDigits = pEnd != sz && *pEnd == '\0' && !isspace(static_cast<unsigned char>(*sz));
    if (!bDigits || errno == ERANGE) {
        snprintf(szErrorMsg, sizeof(szErrorMsg), "GDDA: value '%s' of key %s at level %s is %s", sz,
                 szKey, LevelName(nLevel), bDigits ? "out of range" : "not a decimal number");
        return false;
    }
    if (pnValue) *pnValue = n;
    return true;
}

bool CGDDA::GetValue(const char* szKey, bool* pbValue, unsigned char nLevel, bool /*bUnused*/) {
    static const char* const kTrue[] = {"true", "yes", "on", "1"};
    static const char* const kFalse[] = {"false", "no", "off", "0"};
    if (!szKey) szKey = "";
    const std::string* pValue = _Find(szKey, nLevel);
    if (!pValue) return false;
    for (size_t i = 0; i < sizeof(kTrue) / sizeof(kTrue[0]); ++i) {
        if (strcasecmp(pValue->c_str(), kTrue[i]) == 0 ||
            strcasecmp(pValue->c_str(), kFalse[i]) == 0) {
            if (pbValue) *pbValue = strcasecmp(pValue->c_str(), kTrue[i]) == 0;
            return true;
        }
    }
    snprintf(szErrorMsg, sizeof(szErrorMsg),
             "GDDA: value '%s' of key %s at level %s is not a flag (true/false, yes/no, on/off, "
             "1/0)",
             pValue->c_str(), szKey, LevelName(nLevel));
    return false;
}

// The value of szKey in the section of nLevel, or null with the reason in
// szErrorMsg.
const std::string* CGDDA::_Find(const char* szKey, unsigned char nLevel) {
    if (!szKey) szKey = "";
    if (nLevel < Global || nLevel > Prod) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "GDDA: cannot read key %s: level %u is not a level (1 Global to 4 Prod)", szKey,
                 static_cast<unsigned int>(nLevel));
        return nullptr;
    }
    if (CreateError) {
        snprintf(szErrorMsg, sizeof(szErrorMsg),
                 "GDDA: cannot read key %s at level %s: configuration file %s was not loaded",
                 szKey, szLevelNames[nLevel], strPath.c_str());
        return nullptr;
    }
    auto section = mapValues.find(Lower(szLevelNames[nLevel]));
    if (section != mapValues.end()) {
        auto value = section->second.find(Lower(szKey));
        if (value != section->second.end()) return &value->second;
    }
    snprintf(szErrorMsg, sizeof(szErrorMsg), "GDDA: key %s not found at level %s ([%s] of %s)",
             szKey, szLevelNames[nLevel], szLevelNames[nLevel], strPath.c_str());
    return nullptr;
}
