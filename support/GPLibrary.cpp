// The host's support functions besides the configuration store: the log,
// the advisory lock on an open file, sleeping, the tokenizer and trimming
// used by the directory-file loaders, and version registration.
//
// No function here keeps shared state or takes a lock of its own (the log
// writes with one system call; the version text lives in a per-thread
// buffer), so every one of them may be called from any thread, also while
// the caller holds a lock of its own. Each keeps the caller's errno.

#include "GPLibrary.h"

#include <execinfo.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#ifndef QV_WM_VERSION
#error "QV_WM_VERSION must be defined by the build"
#endif

namespace {

// Restores errno when the scope ends.
class ErrnoKeeper {
public:
    ErrnoKeeper() : nSaved(errno) {}
    ~ErrnoKeeper() { errno = nSaved; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int nSaved;
};

// Writes all of buf to fd. One write(2) suffices unless a signal interrupts
// it part-way; then the rest follows, which is the best that can be done.
void WriteAll(int fd, const char* buf, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, buf, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
}

// Writes "<timestamp> <tag>[<pid>]: <text>" and one newline (none is added
// when the text ends with one) to standard error in a single write. A pipe
// or an O_APPEND file keeps such a write in one piece (a pipe up to
// PIPE_BUF bytes), so entries of several processes never mix. The only
// wait is the write itself.
void WriteEntry(const char* szText, size_t nText, const char* szTag, bool bSyslog) {
    ErrnoKeeper keep;
    if (!szText) nText = 0;
    if (!szTag) szTag = "";

    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm tmNow {};
    localtime_r(&now.tv_sec, &tmNow);
    char szTime[32];
    size_t nTime = strftime(szTime, sizeof(szTime), "%Y-%m-%d %H:%M:%S", &tmNow);
    szTime[nTime] = '\0';
    long nPid = static_cast<long>(getpid());
    char szHead[160];
    int nHead = snprintf(szHead, sizeof(szHead), "%s.%03ld %.64s[%ld]: ", szTime,
                         static_cast<long>(now.tv_nsec / 1000000), szTag, nPid);
    size_t nHeadLen = nHead < 0 ? 0 : static_cast<size_t>(nHead);
    if (nHeadLen >= sizeof(szHead)) nHeadLen = sizeof(szHead) - 1;

    bool bNewline = nText == 0 || szText[nText - 1] != '\n';
    size_t nTotal = nHeadLen + nText + (bNewline ? 1 : 0);
    char stackBuf[4096];
    char* buf = stackBuf;
    if (nTotal > sizeof(stackBuf)) {
        buf = static_cast<char*>(malloc(nTotal));
        if (!buf) {
            // Out of memory: log as much of the text as the stack buffer holds.
            buf = stackBuf;
            nText = sizeof(stackBuf) - nHeadLen - 1;
            bNewline = true;
            nTotal = sizeof(stackBuf);
        }
    }
    memcpy(buf, szHead, nHeadLen);
    if (nText > 0) memcpy(buf + nHeadLen, szText, nText);
    if (bNewline) buf[nTotal - 1] = '\n';
    WriteAll(STDERR_FILENO, buf, nTotal);
    if (buf != stackBuf) free(buf);

    if (bSyslog) {
        const char* szEnv = getenv("GPLIB_SYSLOG");
        if (szEnv && strcmp(szEnv, "1") == 0) {
            int nBody = static_cast<int>(bNewline || nText == 0 ? nText : nText - 1);
            syslog(LOG_USER | LOG_INFO, "%.64s[%ld]: %.*s", szTag, nPid, nBody,
                   nText > 0 ? szText : "");
        }
    }
}

// Process ID of the holder of a FLOCK lock on the file of fd, from
// /proc/locks (matched by device and inode), or 0 when none is listed.
long FlockHolder(int fd) {
    struct stat st {};
    if (fstat(fd, &st) != 0) return 0;
    FILE* fp = fopen("/proc/locks", "re");
    if (!fp) return 0;
    long nHolder = 0;
    char szLine[256];
    while (nHolder == 0 && fgets(szLine, sizeof(szLine), fp)) {
        // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; lines with
        // "->" are waiters, not holders. A longer line (none is) would only
        // fail to parse.
        if (strstr(szLine, "->")) continue;
        char szType[16], szMode[16], szAccess[16];
        long nPid = 0;
        unsigned int nMajor = 0, nMinor = 0;
        unsigned long long nInode = 0;
        if (sscanf(szLine, "%*d: %15s %15s %15s %ld %x:%x:%llu", szType, szMode, szAccess, &nPid,
                   &nMajor, &nMinor, &nInode) != 7)
            continue;
        if (strcmp(szType, "FLOCK") == 0 && nMajor == major(st.st_dev) &&
            nMinor == minor(st.st_dev) && nInode == static_cast<unsigned long long>(st.st_ino))
            nHolder = nPid > 0 ? nPid : 0;
    }
    fclose(fp);
    return nHolder;
}

// flock, repeated after signals; 0 or the errno of the failure.
int FlockNoIntr(int fd, int op) {
    int rc;
    do {
        rc = flock(fd, op);
    } while (rc != 0 && errno == EINTR);
    return rc == 0 ? 0 : errno;
}

void TrimTo(char* buffer, int* length, const char* source, const char* set, bool bRight) {
    if (!buffer || !source) {
        if (length) *length = 0;
        return;
    }
    if (!set) set = "";
    const char* start = source + strspn(source, set);
    size_t len = strlen(start);
    if (bRight) {
        while (len > 0 && strchr(set, start[len - 1]))
            --len;
    }
    memmove(buffer, start, len);
    buffer[len] = '\0';
    if (length) *length = static_cast<int>(len);
}

} // namespace

void Log2cerr(const char* szMsg, const char* szTag, bool bSyslog) {
    WriteEntry(szMsg, szMsg ? strlen(szMsg) : 0, szTag, bSyslog);
}

// One entry: the prefix, the number of frames, then one line per frame of
// the calling thread's stack, starting with this function's own frame.
void LogBacktrace(const char* szPrefix, const char* szTag, bool bSyslog) {
    ErrnoKeeper keep;
    if (!szPrefix) szPrefix = "";
    void* frames[64];
    int nFrames = backtrace(frames, 64);
    char** symbols = nFrames > 0 ? backtrace_symbols(frames, nFrames) : nullptr;

    size_t nCap = strlen(szPrefix) + 32;
    for (int i = 0; i < nFrames; ++i)
        nCap += 32 + (symbols && symbols[i] ? strlen(symbols[i]) : 2 * sizeof(void*));
    char* text = static_cast<char*>(malloc(nCap));
    if (!text) {
        WriteEntry(szPrefix, strlen(szPrefix), szTag, bSyslog);
        free(symbols);
        return;
    }
    size_t nLen = 0;
    auto append = [&](int n) {
        if (n > 0) nLen += static_cast<size_t>(n);
        if (nLen >= nCap) nLen = nCap - 1;
    };
    append(snprintf(text, nCap, "%s%d frames", szPrefix, nFrames));
    for (int i = 0; i < nFrames; ++i) {
        if (symbols && symbols[i])
            append(snprintf(text + nLen, nCap - nLen, "\n  #%d %s", i, symbols[i]));
        else
            append(snprintf(text + nLen, nCap - nLen, "\n  #%d [%p]", i, frames[i]));
    }
    WriteEntry(text, nLen, szTag, bSyslog);
    free(text);
    free(symbols);
}

// flock locks belong to the open file description, so a second open of the
// file excludes the first even in the same process, and closing some other
// descriptor of the file never drops the lock (as it would a POSIX record
// lock). nFlags selects nothing: the lock is always exclusive and never
// waits. On file systems that emulate flock with record locks (NFS) the
// exclusion within one process is lost.
bool FileLock(FILE* fp, int* nAction, int /*nFlags*/) {
    ErrnoKeeper keep;
    int nDummy = 0;
    if (!nAction) nAction = &nDummy;
    int fd = fp ? fileno(fp) : -1;
    if (fd < 0) {
        *nAction = -EBADF;
        return false;
    }
    switch (*nAction) {
    case 1: {
        int err = FlockNoIntr(fd, LOCK_EX | LOCK_NB);
        if (err == 0) return true;
        *nAction = err == EWOULDBLOCK ? static_cast<int>(FlockHolder(fd)) : -err;
        return false;
    }
    case 2: {
        int err = FlockNoIntr(fd, LOCK_UN);
        if (err == 0) return true;
        *nAction = -err;
        return false;
    }
    default:
        *nAction = -EINVAL;
        return false;
    }
}

void Usleep(unsigned int usec) {
    ErrnoKeeper keep;
    struct timespec req {};
    req.tv_sec = static_cast<time_t>(usec / 1000000u);
    req.tv_nsec = static_cast<long>(usec % 1000000u) * 1000L;
    struct timespec rem {};
    while (nanosleep(&req, &rem) != 0 && errno == EINTR)
        req = rem;
}

// An empty line is one empty field. The last two arguments select nothing.
long GetTokens(char* line, const char* seps, char** tokens, long maxTokens, bool /*bUnused1*/,
               bool /*bUnused2*/) {
    if (!line || !tokens || maxTokens <= 0) return 0;
    if (!seps) seps = "";
    long nFields = 0;
    char* p = line;
    tokens[nFields++] = p;
    while (nFields < maxTokens) {
        p = strpbrk(p, seps);
        if (!p) break;
        *p++ = '\0';
        tokens[nFields++] = p;
    }
    return nFields;
}

// The source ends at its NUL; the value *length holds on entry is not read.
void Trim(char* buffer, int* length, const char* source, const char* set) {
    TrimTo(buffer, length, source, set, true);
}

void TrimLeft(char* buffer, int* length, const char* source, const char* set) {
    TrimTo(buffer, length, source, set, false);
}

// Nothing else of the host registers versions, so registering is returning
// the text "QV_wm <version> <record>", cut to 511 characters. The second
// argument selects nothing.
const char* BKVersion(const char* szRecord, bool /*bUnused*/) {
    thread_local char szText[512];
    snprintf(szText, sizeof(szText), "QV_wm %s %s", QV_WM_VERSION, szRecord ? szRecord : "");
    return szText;
}
