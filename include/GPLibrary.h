// The host's support library: configuration store, logging, the advisory
// file lock, sleeping, tokenizing and version registration.
//
// Everything here is safe to call from several threads at once and takes no
// lock of the work-message library: the library calls it while it holds its
// Controls lock.
#ifndef GPLIBRARY_H
#define GPLIBRARY_H

#include <cstdio>
#include <map>
#include <string>

// Names of the configuration levels, indexed by CGDDA::Levels.
extern const char szLevelNames[5][10];
// One letter per level, indexed by CGDDA::Levels: "?GDTP".
extern const char szSLevel[6];

// The configuration store: an INI file named by the environment variable
// GDDA_CONFIG (default /etc/gdda.conf). Sections and keys match ignoring
// case; values are trimmed of surrounding blanks. The host's level is the
// value of Level in [Global]; a per-level key is read from the section named
// after the level ([Global], [Dev], [Test] or [Prod]).
class CGDDA {
public:
    bool CreateError;      // true when the file could not be read or parsed
    char szErrorMsg[512];  // reason of the last failure

    enum Levels { Invalid = 0, Global = 1, Dev = 2, Test = 3, Prod = 4 };
    enum ErrorCodes { GDAD_OK = 0, GDDA_VARNOTFOUND = -100, GDDA_INVOPTS = -82 };
    enum TSearchResult { srError = 0, srNotFound = 1, srFound = 2 };

    // szPath null: the file named by GDDA_CONFIG, else /etc/gdda.conf.
    // The second argument is accepted for compatibility and not used.
    CGDDA(const char* szPath, bool bUnused);
    ~CGDDA();
    CGDDA(const CGDDA&) = delete;
    CGDDA& operator=(const CGDDA&) = delete;

    // Writes the level's name (at most 9 characters) into szLevel, which
    // must hold 10 bytes. Invalid, with a reason, when Level is missing or
    // names no level.
    Levels GetSystemLevel(char* szLevel);

    // Reads key from the section of level nLevel (1 to 4). False, with a
    // reason naming key and level, when the key is missing or its value does
    // not parse (numbers: decimal; flags: true/false, yes/no, on/off, 1/0).
    bool GetValue(const char* szKey, std::string& strValue, unsigned char nLevel, bool bUnused);
    bool GetValue(const char* szKey, long* pnValue, unsigned char nLevel, bool bUnused);
    bool GetValue(const char* szKey, bool* pbValue, unsigned char nLevel, bool bUnused);

private:
    const std::string* _Find(const char* szKey, unsigned char nLevel);

    std::string strPath;
    // lower-cased section -> lower-cased key -> trimmed value
    std::map<std::string, std::map<std::string, std::string>> mapValues;
};

// Writes one log entry "<timestamp> <tag>[<pid>]: <text>" to standard error
// in a single write(2), so that entries of several processes never mix. The
// text is written unchanged, embedded newlines included. Also sent to syslog
// when bSyslog is true and the environment variable GPLIB_SYSLOG is 1.
void Log2cerr(const char* szMsg, const char* szTag, bool bSyslog);

// Logs the calling thread's call stack as one entry, introduced by szPrefix.
void LogBacktrace(const char* szPrefix, const char* szTag, bool bSyslog);

// A non-blocking exclusive lock held by the open file description of fp:
// it excludes every other open of the file, in other processes and in this
// one. *nAction 1 takes the lock, 2 releases it. A failed take writes back
// the holder's process ID (0 when it cannot be told) or the negated errno.
// nFlags is accepted for compatibility (the library passes 4).
bool FileLock(FILE* fp, int* nAction, int nFlags);

// Sleeps the calling thread for usec microseconds (resumed after signals).
void Usleep(unsigned int usec);

// Splits line in place at every character of seps, storing the start of each
// field in tokens (at most maxTokens). Every separator ends a field, so two
// separators in a row give an empty field and a trailing separator gives an
// empty last field. Returns the true number of fields up to maxTokens: a
// caller that expects fewer than maxTokens fields can tell a line with too
// many. Separators after the last stored field are left in place.
// bUnused1/bUnused2 are accepted for compatibility.
long GetTokens(char* line, const char* seps, char** tokens, long maxTokens, bool bUnused1,
               bool bUnused2);

// Removes leading and trailing characters of set from source, writing the
// result to buffer (which may be source itself) and its length to *length.
void Trim(char* buffer, int* length, const char* source, const char* set);
// As Trim, leading characters only.
void TrimLeft(char* buffer, int* length, const char* source, const char* set);

// Registers a module's version record and returns the text to report for it
// ("<library version> <record>"). The pointer stays valid in the calling
// thread until its next call.
const char* BKVersion(const char* szRecord, bool bUnused);

#endif
