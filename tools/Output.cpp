// wmctl's output and reporting helpers: the one way every command prints
// its --json report, times and message IDs as operators read them, hex dumps,
// progress on stderr for long checks, and the one way every command reports
// a failed operation (the code's name and the library's text on stderr), so
// that scripts see the same exit codes and texts from every command.
#include <sys/time.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Wmctl.h"

namespace wmctl {

// ---------------------------------------------------------------------------
// JSON
// ---------------------------------------------------------------------------

namespace {
// The bytes of s as the code points U+0000 to U+00FF, in UTF-8: the library
// then escapes every byte outside printable ASCII as \u00XX, and a string
// that is not valid UTF-8 cannot make the dump fail.
std::string BytesAsLatin1(const std::string& s) {
    std::string out;
    out.reserve(s.size());
    for (unsigned char c : s) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

Json BytesToText(const Json& value) {
    if (value.is_string()) return BytesAsLatin1(value.get_ref<const std::string&>());
    if (!value.is_structured()) return value;
    Json out = value.is_object() ? Json::object() : Json::array();
    for (auto it = value.begin(); it != value.end(); ++it) {
        if (value.is_object())
            out[BytesAsLatin1(it.key())] = BytesToText(*it);
        else
            out.push_back(BytesToText(*it));
    }
    return out;
}
} // namespace

void PrintJson(const Json& value) {
    const std::string s = BytesToText(value).dump(2, ' ', true) + "\n";
    fwrite(s.data(), 1, s.size(), stdout);
    fflush(stdout);
}

// ---------------------------------------------------------------------------
// Times, IDs, dumps
// ---------------------------------------------------------------------------

std::string FormatTime(long long t) {
    if (t == 0) return "-";
    time_t tt = static_cast<time_t>(t);
    struct tm tmLocal;
    char buf[64];
    if (localtime_r(&tt, &tmLocal) == nullptr ||
        strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tmLocal) == 0)
        return std::to_string(t);
    return buf;
}

std::string HexId(long nId) {
    char buf[32];
    snprintf(buf, sizeof(buf), "0x%08lX", static_cast<unsigned long>(nId) & 0xFFFFFFFFul);
    return buf;
}

void HexDump(FILE* out, const unsigned char* p, size_t n) {
    for (size_t off = 0; off < n; off += 16) {
        fprintf(out, "%08zx ", off);
        for (size_t i = 0; i < 16; ++i) {
            if (i == 8) fputc(' ', out);
            if (off + i < n)
                fprintf(out, " %02x", p[off + i]);
            else
                fputs("   ", out);
        }
        fputs("  |", out);
        for (size_t i = 0; i < 16 && off + i < n; ++i) {
            unsigned char c = p[off + i];
            fputc(c >= 0x20 && c < 0x7f ? c : '.', out);
        }
        fputs("|\n", out);
    }
}

// ---------------------------------------------------------------------------
// Progress
// ---------------------------------------------------------------------------

namespace {
double Now() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}
} // namespace

Progress::Progress(const char* szWhat) : strWhat(szWhat), tStart(Now()) {}

Progress::~Progress() {
    if (bShown) fprintf(stderr, "\r%s: done.%20s\n", strWhat.c_str(), "");
}

void Progress::Update(unsigned long long nDone, unsigned long long nTotal) {
    const double t = Now();
    if (t - tStart < 1.0 || t - tLast < 0.25) return;
    tLast = t;
    bShown = true;
    const unsigned long long nPercent = nTotal ? nDone * 100 / nTotal : 100;
    fprintf(stderr, "\r%s: %llu of %llu (%llu%%)", strWhat.c_str(), nDone, nTotal, nPercent);
    fflush(stderr);
}

// ---------------------------------------------------------------------------
// Result codes
// ---------------------------------------------------------------------------

namespace {
struct CodeText {
    long nCode;
    const char* szName;
    const char* szMeaning;
};
const CodeText kCodes[] = {
    {M_OK, "M_OK", "success"},
    {M_NAME, "M_NAME", "unknown name"},
    {M_ILSEQ, "M_ILSEQ", "the process has no registration as a receiver"},
    {M_TIMEOUT, "M_TIMEOUT", "no message arrived in time"},
    {M_TOOBIG, "M_TOOBIG", "the data does not fit"},
    {M_NOTACT, "M_NOTACT", "no such registration"},
    {M_MSGID, "M_MSGID", "no such message or number"},
    {M_SYSERR, "M_SYSERR", "system error"},
    {M_SHMERR, "M_SHMERR", "shared-memory error"},
    {M_CTLFILE, "M_CTLFILE", "a directory file is malformed"},
    {M_LOCK, "M_LOCK", "the Controls lock could not be taken"},
    {M_DDFULL, "M_DDFULL", "the data store is full"},
    {M_LOGIC, "M_LOGIC", "internal inconsistency of the data slot table"},
    {M_NONE, "M_NONE", "nothing found"},
    {M_PARTIAL, "M_PARTIAL", "some names were unknown"},
};
} // namespace

const char* CodeName(long nCode) {
    for (const CodeText& c : kCodes)
        if (c.nCode == nCode) return c.szName;
    return "unknown code";
}

const char* CodeMeaning(long nCode) {
    for (const CodeText& c : kCodes)
        if (c.nCode == nCode) return c.szMeaning;
    return "unknown result";
}

bool IsCodePointer(const char* p) {
    const intptr_t n = reinterpret_cast<intptr_t>(p);
    return n >= M_NAME && n <= M_PARTIAL;
}

int LibraryFailure(const char* szCmd, const char* szWhat, long nCode, const CWorkMessages& wm) {
    // The library's texts end in a newline or not; print each exactly once.
    std::string strText = wm.szErrorMsg;
    while (!strText.empty() && strText.back() == '\n')
        strText.pop_back();
    if (strText.empty()) strText = CodeMeaning(nCode);
    fprintf(stderr, "wmctl %s: %s failed: %s (%ld)\n%s\n", szCmd, szWhat, CodeName(nCode), nCode,
            strText.c_str());
    return kExitFailed;
}

int Failure(const char* szCmd, int nExit, const std::string& strText) {
    fprintf(stderr, "wmctl %s: %s\n", szCmd, strText.c_str());
    return nExit;
}

// ---------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------

bool ParseNumber(const std::string& s, long* pValue) {
    if (s.empty() || s.size() > 20) return false;
    size_t i = s[0] == '-' ? 1 : 0;
    if (i == s.size()) return false;
    for (size_t k = i; k < s.size(); ++k)
        if (s[k] < '0' || s[k] > '9') return false;
    errno = 0;
    char* pEnd = nullptr;
    long n = strtol(s.c_str(), &pEnd, 10);
    if (errno != 0 || *pEnd != '\0') return false;
    *pValue = n;
    return true;
}

bool ParseMessageId(const std::string& s, long* pId) {
    if (s.empty() || s.size() > 24 || s[0] == '+' || s[0] == ' ') return false;
    // Decimal, or hexadecimal after 0x; a leading 0 does not mean octal.
    const bool bHex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
    errno = 0;
    char* pEnd = nullptr;
    long long n = strtoll(s.c_str(), &pEnd, bHex ? 16 : 10);
    if (errno != 0 || pEnd == s.c_str() || *pEnd != '\0') return false;
    if (n < INT32_MIN || n > static_cast<long long>(UINT32_MAX)) return false;
    *pId = static_cast<long>(static_cast<int32_t>(static_cast<uint32_t>(n)));
    return true;
}

} // namespace wmctl
