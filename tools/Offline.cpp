// `wmctl dump` and `wmctl fsck`: the two database files of a directory,
// read without any shared memory.
//
// The control file WQCF.bdb is a 64-byte header (_WQCF_CTL_) and one 64-byte
// record (_WQCF_) per control slot; the data file WDDF.bdb is the 8192-byte
// data slot table (one bit per data slot, the most significant bit of byte 0
// for slot 0) followed by one 8192-byte block per data slot. Both records
// are the same bytes on every build, so they are read straight into the
// library's own record types.
//
// The files may be truncated or hold garbage: every read is bounded by what
// the file holds (pread within its size), a short header or record is
// reported instead of being read past, and every field is range-checked
// before it is used as an index or a length.
//
// fsck finds what the library cannot repair by itself: data slots marked
// in use that no message refers to (a cleaning load of the control file
// drops received messages without freeing their data, so the data store
// slowly fills up), references to data slots marked free, impossible
// fields, duplicate message IDs, a message counter that would hand out IDs
// again, and slots the next load would drop. --repair changes the files only
// while no process is attached to the shared state, under the constructor
// lock that every constructor takes before it loads the files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "Wmctl.h"

namespace wmctl {

namespace {

const size_t kRec = 64;               // control file record
const size_t kBlock = WM_MAX_DEPDATA; // data slot, and the data slot table
const uint32_t kFirstMessageId = 0x40000000u;
const uint32_t kLastMessageId = 0x7FFFFFFEu;
const int32_t kMinSlots = 512;
static_assert(sizeof(_WQCF_) == kRec && sizeof(_WQCF_CTL_) == kRec, "file records are 64 bytes");

// pread of up to n bytes at nOff, retried on EINTR; -1 on error.
ssize_t ReadAt(int fd, void* p, size_t n, unsigned long long nOff) {
    size_t nDone = 0;
    while (nDone < n) {
        ssize_t r =
            pread(fd, static_cast<char*>(p) + nDone, n - nDone, static_cast<off_t>(nOff + nDone));
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        nDone += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(nDone);
}

bool WriteAt(int fd, const void* p, size_t n, unsigned long long nOff) {
    size_t nDone = 0;
    while (nDone < n) {
        ssize_t r = pwrite(fd, static_cast<const char*>(p) + nDone, n - nDone,
                           static_cast<off_t>(nOff + nDone));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        nDone += static_cast<size_t>(r);
    }
    return true;
}

bool AllZero(const void* p, size_t n) {
    const unsigned char* b = static_cast<const unsigned char*>(p);
    return std::all_of(b, b + n, [](unsigned char c) { return c == 0; });
}

// Opens a file of the database for reading; notes why not.
int OpenFile(const std::string& strPath, int nFlags, bool* pExists, int* pErrno,
             unsigned long long* pSize, std::string* pError) {
    int fd = open(strPath.c_str(), nFlags);
    if (fd < 0) {
        *pErrno = errno;
        if (errno != ENOENT) *pError = "cannot open " + strPath + ": " + strerror(errno);
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *pErrno = errno ? errno : EINVAL;
        *pError = strPath + " is not a regular file";
        close(fd);
        return -1;
    }
    *pExists = true;
    *pSize = static_cast<unsigned long long>(st.st_size);
    return fd;
}

// ---------------------------------------------------------------------------
// The control file
// ---------------------------------------------------------------------------

struct ControlFile {
    std::string strPath;
    bool bExists = false;
    int nErrno = 0;
    unsigned long long nSize = 0;
    size_t nHeaderBytes = 0;                        // header bytes present (64 when complete)
    _WQCF_CTL_ header;                              // zero-padded when short
    long long nRecords = 0;                         // complete records after the header
    size_t nTailBytes = 0;                          // bytes of a last, incomplete record
    std::vector<std::pair<long long, _WQCF_>> used; // records whose state is not 0
    std::vector<long long> dirtyFree;               // free records that are not all zero
    std::vector<std::string> notes;                 // what is wrong with the file's shape
};

bool LoadControlFile(const std::string& strDbDir, ControlFile* p, std::string* pError) {
    p->strPath = strDbDir + "/WQCF.bdb";
    memset(&p->header, 0, sizeof(p->header));
    int fd = OpenFile(p->strPath, O_RDONLY, &p->bExists, &p->nErrno, &p->nSize, pError);
    if (fd < 0) return p->nErrno == ENOENT;

    bool bOk = true;
    ssize_t r = ReadAt(fd, &p->header, kRec, 0);
    if (r < 0) {
        *pError = "cannot read " + p->strPath + ": " + strerror(errno);
        bOk = false;
    } else {
        p->nHeaderBytes = static_cast<size_t>(r);
        if (p->nHeaderBytes < kRec)
            p->notes.push_back("the control file ends inside its header (" +
                               std::to_string(p->nHeaderBytes) + " of 64 bytes)");
    }
    if (bOk && p->nSize > kRec) {
        p->nRecords = static_cast<long long>((p->nSize - kRec) / kRec);
        p->nTailBytes = static_cast<size_t>((p->nSize - kRec) % kRec);
        if (p->nTailBytes)
            p->notes.push_back("the control file ends inside the record of slot " +
                               std::to_string(p->nRecords) + " (" + std::to_string(p->nTailBytes) +
                               " of 64 bytes)");
        // Read in chunks; keep only the records that matter.
        const size_t kChunk = 1024;
        std::vector<_WQCF_> buf(kChunk);
        Progress progress("reading the control file");
        for (long long i = 0; i < p->nRecords && bOk;) {
            const size_t n = static_cast<size_t>(std::min<long long>(kChunk, p->nRecords - i));
            r = ReadAt(fd, buf.data(), n * kRec, kRec * static_cast<unsigned long long>(i + 1));
            if (r < 0 || static_cast<size_t>(r) != n * kRec) {
                *pError = "cannot read " + p->strPath + ": " +
                          (r < 0 ? strerror(errno) : "the file shrank while it was read");
                bOk = false;
                break;
            }
            for (size_t k = 0; k < n; ++k) {
                if (buf[k].nflag != WQCF_Available)
                    p->used.emplace_back(i + static_cast<long long>(k), buf[k]);
                else if (!AllZero(&buf[k], kRec))
                    p->dirtyFree.push_back(i + static_cast<long long>(k));
            }
            i += static_cast<long long>(n);
            progress.Update(static_cast<unsigned long long>(i),
                            static_cast<unsigned long long>(p->nRecords));
        }
    }
    close(fd);
    return bOk;
}

// ---------------------------------------------------------------------------
// The data file
// ---------------------------------------------------------------------------

struct DataFile {
    std::string strPath;
    bool bExists = false;
    int nErrno = 0;
    unsigned long long nSize = 0;
    size_t nSatBytes = 0;      // table bytes present (8192 when complete)
    unsigned char sat[kBlock]; // zero-padded when short
    std::vector<std::string> notes;

    bool Used(long n) const { return (sat[n / 8] & (0x80 >> (n % 8))) != 0; }
    void Mark(long n, bool bUsed) {
        const unsigned char nBit = static_cast<unsigned char>(0x80 >> (n % 8));
        sat[n / 8] = static_cast<unsigned char>(bUsed ? sat[n / 8] | nBit : sat[n / 8] & ~nBit);
    }
    unsigned long long BlockOffset(long n) const {
        return kBlock * static_cast<unsigned long long>(n + 1);
    }
    // Bytes of data slot n that the file holds (0 to 8192).
    size_t BlockBytes(long n) const {
        const unsigned long long nOff = BlockOffset(n);
        return nSize <= nOff
                   ? 0
                   : static_cast<size_t>(std::min<unsigned long long>(kBlock, nSize - nOff));
    }
};

bool LoadDataFile(const std::string& strDbDir, DataFile* p, std::string* pError) {
    p->strPath = strDbDir + "/WDDF.bdb";
    memset(p->sat, 0, sizeof(p->sat));
    int fd = OpenFile(p->strPath, O_RDONLY, &p->bExists, &p->nErrno, &p->nSize, pError);
    if (fd < 0) return p->nErrno == ENOENT;
    ssize_t r = ReadAt(fd, p->sat, kBlock, 0);
    close(fd);
    if (r < 0) {
        *pError = "cannot read " + p->strPath + ": " + strerror(errno);
        return false;
    }
    p->nSatBytes = static_cast<size_t>(r);
    if (p->nSatBytes < kBlock)
        p->notes.push_back("the data file is " + std::to_string(p->nSatBytes) +
                           " bytes, shorter than its 8192-byte data slot table");
    else if ((p->nSize - kBlock) % kBlock)
        p->notes.push_back("the data file ends inside data slot " +
                           std::to_string((p->nSize - kBlock) / kBlock) +
                           " (its missing bytes read as zeros)");
    return true;
}

// Ranges of used data slots: [first, last] pairs.
std::vector<std::pair<long, long>> UsedRanges(const DataFile& df) {
    std::vector<std::pair<long, long>> out;
    for (long n = 0; n < kDataSlots; ++n) {
        if (!df.Used(n)) continue;
        if (!out.empty() && out.back().second == n - 1)
            out.back().second = n;
        else
            out.emplace_back(n, n);
    }
    return out;
}

std::string RangesText(const std::vector<std::pair<long, long>>& ranges) {
    std::string s;
    for (const auto& r : ranges) {
        if (!s.empty()) s += ", ";
        s += std::to_string(r.first);
        if (r.second != r.first) s += "-" + std::to_string(r.second);
    }
    return s.empty() ? "none" : s;
}

// ---------------------------------------------------------------------------
// Slots as text and JSON
// ---------------------------------------------------------------------------

const char* StateName(unsigned n) {
    static const char* const kNames[] = {"free", "pending", "received", "retry", "delayed-retry"};
    return n < 5 ? kNames[n] : "invalid";
}

// The ID the message was given: a high-priority slot keeps its top byte apart.
uint32_t FullId(const _WQCF_& s) {
    return s.xMsgMask ? (static_cast<uint32_t>(s.xMsgMask) << 24) |
                            (static_cast<uint32_t>(s.nMessageID) & 0x00FFFFFFu)
                      : static_cast<uint32_t>(s.nMessageID);
}

std::string SlotText(long long nSlot, const _WQCF_& s) {
    char buf[512];
    snprintf(
        buf, sizeof(buf),
        "slot %lld: %s%s, ID %s%s, type %d, sender %d, target %d, sent %s, posted %s, "
        "retried %s, user flags %u, response %u/%u, data ",
        nSlot, StateName(s.nflag),
        s.nflag >= 5 ? ("(" + std::to_string(s.nflag) + ")").c_str() : "",
        HexId(s.nMessageID).c_str(),
        s.xMsgMask
            ? (" (high priority, given as " + HexId(static_cast<long>(FullId(s))) + ")").c_str()
            : "",
        s.nMsgNo, s.nSenderUID, s.nTargetUID, FormatTime(s.nTimeSent).c_str(),
        FormatTime(s.nTimePosted).c_str(), FormatTime(s.nTimeRetry).c_str(), s.nUserFlags,
        s.nResponse, s.nResponseRequired);
    std::string out = buf;
    if (s.nDepDataSlot == -1 && s.nDepDataLength == 0)
        out += "none";
    else
        out += std::to_string(s.nDepDataLength) + " bytes in data slot " +
               std::to_string(s.nDepDataSlot);
    return out;
}

Json SlotJson(long long nSlot, const _WQCF_& s) {
    return {{"slot", nSlot},
            {"state", StateName(s.nflag)},
            {"state_value", s.nflag},
            {"message_id", s.nMessageID},
            {"message_id_hex", HexId(s.nMessageID)},
            {"high_priority", s.xMsgMask != 0},
            {"given_id_hex", HexId(static_cast<long>(FullId(s)))},
            {"type", s.nMsgNo},
            {"sender", s.nSenderUID},
            {"target", s.nTargetUID},
            {"time_sent", s.nTimeSent},
            {"time_posted", s.nTimePosted},
            {"time_retry", s.nTimeRetry},
            {"user_flags", s.nUserFlags},
            {"response", s.nResponse},
            {"response_required", s.nResponseRequired},
            {"data_length", s.nDepDataLength},
            {"data_slot", s.nDepDataSlot}};
}

bool IsDirectory(const std::string& strDir) {
    struct stat st;
    return stat(strDir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The directory to work on: the one given, or else the configured WM_DBPath,
// as for every other command. False, reported, when neither can be had.
bool DbDir(const char* szCmd, std::string* pDir) {
    std::string strWhyNot;
    if (!pDir->empty() || ConfiguredDbDir(pDir, &strWhyNot)) return true;
    Failure(szCmd, kExitFailed, "no directory given, and none configured: " + strWhyNot);
    return false;
}

} // namespace

// ---------------------------------------------------------------------------
// dump
// ---------------------------------------------------------------------------

int CmdDump(const DumpOpts& given) {
    const char* kCmd = "dump";
    DumpOpts o = given;
    if (!DbDir(kCmd, &o.strDbDir)) return kExitFailed;
    if (!IsDirectory(o.strDbDir))
        return Failure(kCmd, kExitFailed, o.strDbDir + " is not a directory");
    ControlFile cf;
    DataFile df;
    std::string strCfError, strDfError;
    const bool bCf = LoadControlFile(o.strDbDir, &cf, &strCfError);
    const bool bDf = LoadDataFile(o.strDbDir, &df, &strDfError);
    if (!cf.bExists && !df.bExists) {
        if (!strCfError.empty()) Failure(kCmd, kExitFailed, strCfError);
        if (!strDfError.empty()) Failure(kCmd, kExitFailed, strDfError);
        return Failure(kCmd, kExitFailed, "no readable database files in " + o.strDbDir);
    }
    std::vector<std::string> problems = cf.notes;
    problems.insert(problems.end(), df.notes.begin(), df.notes.end());
    if (!bCf) problems.push_back(strCfError);
    if (!bDf) problems.push_back(strDfError);
    if (!cf.bExists) problems.push_back("there is no control file " + cf.strPath);
    if (!df.bExists) problems.push_back("there is no data file " + df.strPath);

    if (o.nSlot >= 0) {
        // One slot, with its data.
        const long long nSlot = o.nSlot;
        if (!cf.bExists)
            return Failure(kCmd, kExitFailed, "there is no control file " + cf.strPath);
        _WQCF_ rec;
        memset(&rec, 0, sizeof(rec));
        const bool bStored = nSlot < cf.nRecords;
        if (bStored) {
            // The record as stored, also when it is free but not zero.
            int fd = open(cf.strPath.c_str(), O_RDONLY);
            ssize_t r =
                fd < 0 ? -1
                       : ReadAt(fd, &rec, kRec, kRec * static_cast<unsigned long long>(nSlot + 1));
            if (fd >= 0) close(fd);
            if (r != static_cast<ssize_t>(kRec))
                return Failure(kCmd, kExitFailed,
                               "cannot read slot " + std::to_string(nSlot) + " of " + cf.strPath +
                                   ": " + (r < 0 ? strerror(errno) : "the file shrank"));
        }
        if (!bStored && (nSlot >= cf.header.nEntriesAllocated || cf.nHeaderBytes < kRec))
            return Failure(
                kCmd, kExitFailed,
                "slot " + std::to_string(nSlot) + " is beyond the table (the header says " +
                    std::to_string(cf.header.nEntriesAllocated) + " slots, the file holds " +
                    std::to_string(cf.nRecords) + " records)");
        std::vector<unsigned char> data;
        std::string strDataNote;
        const bool bHasData = rec.nflag != WQCF_Available && rec.nDepDataSlot != -1;
        if (bHasData) {
            if (rec.nDepDataSlot < 0 || rec.nDepDataSlot >= kDataSlots || rec.nDepDataLength < 0 ||
                rec.nDepDataLength > static_cast<int32_t>(kBlock)) {
                strDataNote = "the data slot or length is out of range; no data is read";
            } else if (!df.bExists) {
                strDataNote = "there is no data file";
            } else {
                const size_t nHave = df.BlockBytes(rec.nDepDataSlot);
                const size_t nWant = static_cast<size_t>(rec.nDepDataLength);
                data.resize(std::min(nHave, nWant));
                int fd = open(df.strPath.c_str(), O_RDONLY);
                ssize_t r =
                    fd < 0 ? -1
                           : ReadAt(fd, data.data(), data.size(), df.BlockOffset(rec.nDepDataSlot));
                if (fd >= 0) close(fd);
                if (r < 0) {
                    strDataNote = "cannot read " + df.strPath + ": " + strerror(errno);
                    data.clear();
                } else {
                    data.resize(static_cast<size_t>(r));
                    if (data.size() < nWant)
                        strDataNote = "the data file holds only " + std::to_string(data.size()) +
                                      " of the " + std::to_string(nWant) + " bytes";
                }
                if (!df.Used(rec.nDepDataSlot))
                    strDataNote += std::string(strDataNote.empty() ? "" : "; ") +
                                   "the data slot table marks this data slot free";
            }
        }
        if (o.bJson) {
            Json j = SlotJson(nSlot, rec);
            j["stored"] = bStored;
            std::string hex;
            char b[3];
            for (unsigned char c : data) {
                snprintf(b, sizeof(b), "%02x", c);
                hex += b;
            }
            j["data_hex"] = hex;
            if (!strDataNote.empty()) j["data_problem"] = strDataNote;
            PrintJson(j);
        } else {
            printf("%s%s\n", SlotText(nSlot, rec).c_str(),
                   bStored ? "" : " (not stored in the file: a free slot)");
            if (!strDataNote.empty()) printf("data: %s\n", strDataNote.c_str());
            if (!data.empty()) HexDump(stdout, data.data(), data.size());
        }
        return kExitOk;
    }

    const std::vector<std::pair<long, long>> ranges = UsedRanges(df);
    long nUsedData = 0;
    for (const auto& r : ranges)
        nUsedData += r.second - r.first + 1;
    if (o.bJson) {
        Json jcf = {{"path", cf.strPath}, {"present", cf.bExists}};
        if (cf.bExists) {
            jcf["size"] = cf.nSize;
            jcf["header"] = {{"complete", cf.nHeaderBytes == kRec},
                             {"entries_allocated", cf.header.nEntriesAllocated},
                             {"current_msg_id", cf.header.nCurrentMsgID},
                             {"current_msg_id_hex", HexId(cf.header.nCurrentMsgID)}};
            jcf["records"] = cf.nRecords;
            jcf["in_use"] = cf.used.size();
            Json& slots = jcf["slots"] = Json::array();
            for (const auto& u : cf.used)
                slots.push_back(SlotJson(u.first, u.second));
        }
        Json jdf = {{"path", df.strPath}, {"present", df.bExists}};
        if (df.bExists) {
            jdf["size"] = df.nSize;
            jdf["used_slots"] = nUsedData;
            jdf["ranges"] = ranges; // [first, last] pairs
        }
        PrintJson({{"dbdir", o.strDbDir},
                   {"control_file", std::move(jcf)},
                   {"data_file", std::move(jdf)},
                   {"problems", problems}});
        return kExitOk;
    }
    if (cf.bExists) {
        printf("Control file %s: %llu bytes\n", cf.strPath.c_str(), cf.nSize);
        printf("  header: %d slots, next message ID %s%s\n", cf.header.nEntriesAllocated,
               HexId(cf.header.nCurrentMsgID).c_str(),
               cf.nHeaderBytes == kRec ? "" : " (incomplete)");
        printf("  %lld records stored, %zu in use\n", cf.nRecords, cf.used.size());
        for (const auto& u : cf.used)
            printf("  %s\n", SlotText(u.first, u.second).c_str());
    }
    if (df.bExists) {
        printf("Data file %s: %llu bytes\n", df.strPath.c_str(), df.nSize);
        printf("  %ld data slots in use: %s\n", nUsedData, RangesText(ranges).c_str());
    }
    for (const std::string& s : problems)
        printf("problem: %s\n", s.c_str());
    return kExitOk;
}

// ---------------------------------------------------------------------------
// fsck
// ---------------------------------------------------------------------------

namespace {

enum RepairAction {
    kNoRepair,    // found, not repairable by fsck
    kZeroRecord,  // write 64 zero bytes over control slot nArg
    kFreeData,    // clear data slot nArg's bit and zero its block
    kMarkData,    // set data slot nArg's bit
    kWriteTable,  // write the whole data slot table
    kWriteHeader, // write the control file header (count and counter fixed)
    kTruncateTail // cut the control file's incomplete last record
};

struct Problem {
    std::string strKind;
    std::string strText;
    RepairAction nAction = kNoRepair;
    long long nArg = 0;
    bool bRepaired = false;
};

// Runs every check on the loaded files. *pHeader gets the header a repair
// would write.
std::vector<Problem> Check(const ControlFile& cf, const DataFile& df, _WQCF_CTL_* pHeader) {
    std::vector<Problem> out;
    auto add = [&](const char* szKind, const std::string& strText, RepairAction nAction,
                   long long nArg) {
        Problem p;
        p.strKind = szKind;
        p.strText = strText;
        p.nAction = nAction;
        p.nArg = nArg;
        out.push_back(p);
    };

    // Control slots: impossible ones are cleared; the rest are checked
    // against each other and against the data slot table.
    std::map<long, std::vector<long long>> refs; // data slot -> control slots
    std::map<int32_t, std::vector<long long>> ids;
    uint32_t nMaxId = 0;
    long long nLastUsed = -1;
    for (const auto& u : cf.used) {
        const _WQCF_& s = u.second;
        std::string strWhy;
        if (s.nflag > WQCF_Delayed_Retry) strWhy += ", state " + std::to_string(s.nflag);
        // The library gives IDs from 1 to 0x7FFFFFFE only: no receive selects
        // another, and none can be deleted by it; the loader refuses them.
        if (s.nMessageID < 1 || s.nMessageID > static_cast<int32_t>(kLastMessageId))
            strWhy += ", message ID " + HexId(s.nMessageID);
        if (s.nDepDataSlot < -1 || s.nDepDataSlot >= kDataSlots)
            strWhy += ", data slot " + std::to_string(s.nDepDataSlot);
        if (s.nDepDataLength < 0 || s.nDepDataLength > static_cast<int32_t>(kBlock))
            strWhy += ", data length " + std::to_string(s.nDepDataLength);
        else if (s.nDepDataLength != 0 && s.nDepDataSlot == -1)
            strWhy += ", " + std::to_string(s.nDepDataLength) + " bytes of data but no data slot";
        if (!strWhy.empty()) {
            add("impossible-slot",
                "control slot " + std::to_string(u.first) + " is impossible (" + strWhy.substr(2) +
                    ")",
                kZeroRecord, u.first);
            continue;
        }
        if (s.nDepDataSlot >= 0) refs[s.nDepDataSlot].push_back(u.first);
        ids[s.nMessageID].push_back(u.first);
        nMaxId = std::max(nMaxId, FullId(s));
        nLastUsed = u.first;
    }
    for (long long n : cf.dirtyFree)
        add("dirty-free-slot",
            "control slot " + std::to_string(n) +
                " is free but not zero (a message sent into it "
                "would inherit the leftover fields)",
            kZeroRecord, n);
    if (cf.nTailBytes)
        add("partial-record", cf.notes.back() + "; the incomplete record is cut off", kTruncateTail,
            0);

    for (const auto& [nId, slots] : ids) {
        if (slots.size() < 2) continue;
        std::string strSlots;
        for (long long n : slots)
            strSlots += (strSlots.empty() ? "" : ", ") + std::to_string(n);
        add("duplicate-id",
            "message ID " + HexId(nId) + " is held by control slots " + strSlots +
                ": only the first can be deleted, rejected or retried",
            kNoRepair, 0);
    }
    for (const auto& [nData, slots] : refs) {
        const std::string strFirst = "control slot " + std::to_string(slots[0]);
        if (slots.size() > 1) {
            std::string strSlots;
            for (long long n : slots)
                strSlots += (strSlots.empty() ? "" : ", ") + std::to_string(n);
            add("shared-data-slot",
                "data slot " + std::to_string(nData) + " is referred to by control slots " +
                    strSlots + ": deleting one frees the data of the others",
                kNoRepair, 0);
        }
        if (df.BlockBytes(nData) == 0)
            add("missing-data",
                strFirst + " refers to data slot " + std::to_string(nData) +
                    ", which the data file does not hold (" +
                    (df.bExists ? "it ends at byte " + std::to_string(df.nSize)
                                : std::string("there is no data file")) +
                    "): its data reads as zeros",
                kNoRepair, 0);
        else if (!df.Used(nData))
            add("unmarked-data-slot",
                strFirst + " refers to data slot " + std::to_string(nData) +
                    ", which the data slot table marks free (the next send may overwrite it)",
                kMarkData, nData);
    }

    // Data slots in use that no message refers to.
    Progress progress("checking the data slot table");
    for (long n = 0; n < kDataSlots; ++n) {
        if (df.Used(n) && refs.find(n) == refs.end())
            add("leaked-data-slot",
                "data slot " + std::to_string(n) +
                    " is marked in use but no message refers to it (leaked)",
                kFreeData, n);
        if ((n & 0xFFF) == 0xFFF)
            progress.Update(static_cast<unsigned long long>(n) + 1, kDataSlots);
    }
    if (df.bExists && df.nSatBytes < kBlock)
        add("short-table", df.notes.front() + "; the whole table is written", kWriteTable, 0);

    // The header: the loader reads only nEntriesAllocated records, and Send
    // hands out IDs from nCurrentMsgID on.
    memcpy(pHeader, &cf.header, sizeof(*pHeader));
    if (!cf.bExists) return out;
    const long long nNeeded = std::max<long long>({kMinSlots, nLastUsed + 1, cf.nRecords});
    const uint32_t nNext = std::max(kFirstMessageId, nMaxId + 1);
    if (cf.nHeaderBytes < kRec) {
        // Too short to hold a header, so it holds no record either.
        pHeader->nEntriesAllocated = static_cast<int32_t>(nNeeded);
        pHeader->nCurrentMsgID = static_cast<int32_t>(nNext);
        add("short-header",
            cf.notes.front() + "; a complete header is written (" + std::to_string(nNeeded) +
                " slots, next message ID " + HexId(static_cast<long>(nNext)) + ")",
            kWriteHeader, 0);
        return out;
    }
    const long long nCount = cf.header.nEntriesAllocated;
    if (nCount < 0 || nCount > WM_MAX_SLOTS || nLastUsed >= nCount) {
        add("slot-count",
            "the header's slot count " + std::to_string(nCount) +
                (nCount < 0 ? std::string(" is negative")
                 : nCount > WM_MAX_SLOTS
                     ? " is above " + std::to_string(WM_MAX_SLOTS) + ", the most the library loads"
                     : " leaves out control slot " + std::to_string(nLastUsed) +
                           ", which the next load drops") +
                "; it becomes " + std::to_string(nNeeded),
            kWriteHeader, 0);
        pHeader->nEntriesAllocated = static_cast<int32_t>(nNeeded);
    }
    const uint32_t nCounter = static_cast<uint32_t>(cf.header.nCurrentMsgID);
    if (nCounter < kFirstMessageId || (!ids.empty() && nCounter <= nMaxId)) {
        add("message-counter",
            "the next message ID " + HexId(cf.header.nCurrentMsgID) +
                (nCounter < kFirstMessageId
                     ? " is below 0x40000000, where message IDs start"
                     : " is not above the highest ID in use " + HexId(static_cast<long>(nMaxId)) +
                           ": IDs would be given twice") +
                "; it becomes " + HexId(static_cast<long>(nNext)),
            kWriteHeader, 0);
        pHeader->nCurrentMsgID = static_cast<int32_t>(nNext);
    }
    return out;
}

// Applies the repairs; each problem says whether its repair was written.
// False (with *pError) when a file could not be written.
bool Repair(const ControlFile& cf, DataFile& df, const _WQCF_CTL_& header,
            std::vector<Problem>* pProblems, std::string* pError) {
    int fdCf = -1, fdDf = -1;
    auto closeAll = [&] {
        if (fdCf >= 0) close(fdCf);
        if (fdDf >= 0) close(fdDf);
        fdCf = fdDf = -1;
    };
    bool bCfNeeded = false, bDfNeeded = false;
    for (const Problem& p : *pProblems) {
        if (p.nAction == kZeroRecord || p.nAction == kWriteHeader || p.nAction == kTruncateTail)
            bCfNeeded = true;
        if (p.nAction == kFreeData || p.nAction == kMarkData || p.nAction == kWriteTable)
            bDfNeeded = true;
    }
    if (bCfNeeded && (fdCf = open(cf.strPath.c_str(), O_RDWR)) < 0) {
        *pError = "cannot open " + cf.strPath + " for writing: " + strerror(errno);
        return false;
    }
    if (bDfNeeded && (fdDf = open(df.strPath.c_str(), O_RDWR)) < 0) {
        *pError = "cannot open " + df.strPath + " for writing: " + strerror(errno);
        closeAll();
        return false;
    }

    static const unsigned char kZeros[kBlock] = {};
    bool bOk = true;
    bool bTable = false, bHeader = false;
    Progress progress("repairing");
    size_t nDone = 0;
    for (Problem& p : *pProblems) {
        progress.Update(++nDone, pProblems->size());
        switch (p.nAction) {
        case kNoRepair:
            break;
        case kZeroRecord:
            p.bRepaired =
                WriteAt(fdCf, kZeros, kRec, kRec * static_cast<unsigned long long>(p.nArg + 1));
            break;
        case kFreeData: {
            df.Mark(static_cast<long>(p.nArg), false);
            const size_t nHave = df.BlockBytes(static_cast<long>(p.nArg));
            p.bRepaired = nHave == 0 ||
                          WriteAt(fdDf, kZeros, nHave, df.BlockOffset(static_cast<long>(p.nArg)));
            bTable = true;
            break;
        }
        case kMarkData:
            df.Mark(static_cast<long>(p.nArg), true);
            p.bRepaired = true;
            bTable = true;
            break;
        case kWriteTable:
            p.bRepaired = true;
            bTable = true;
            break;
        case kWriteHeader:
            p.bRepaired = true;
            bHeader = true;
            break;
        case kTruncateTail:
            p.bRepaired = cf.nHeaderBytes == kRec &&
                          ftruncate(fdCf, static_cast<off_t>(kRec * static_cast<unsigned long long>(
                                                                        cf.nRecords + 1))) == 0;
            break;
        }
        if (p.nAction != kNoRepair && !p.bRepaired && bOk) {
            *pError =
                std::string("cannot write the repair of: ") + p.strText + ": " + strerror(errno);
            bOk = false;
        }
    }
    // The table and the header are written once, after every change to them.
    if (bTable && !WriteAt(fdDf, df.sat, kBlock, 0)) {
        *pError = "cannot write the data slot table of " + df.strPath + ": " + strerror(errno);
        bOk = false;
    }
    if (bHeader && !WriteAt(fdCf, &header, kRec, 0)) {
        *pError = "cannot write the header of " + cf.strPath + ": " + strerror(errno);
        bOk = false;
    }
    if (!bOk)
        for (Problem& p : *pProblems)
            if ((bTable &&
                 (p.nAction == kFreeData || p.nAction == kMarkData || p.nAction == kWriteTable)) ||
                (bHeader && p.nAction == kWriteHeader))
                p.bRepaired = false;
    if ((fdCf >= 0 && fsync(fdCf) != 0) || (fdDf >= 0 && fsync(fdDf) != 0)) {
        *pError = std::string("cannot flush the repaired files: ") + strerror(errno);
        bOk = false;
    }
    closeAll();
    return bOk;
}

} // namespace

int CmdFsck(const FsckOpts& given) {
    const char* kCmd = "fsck";
    FsckOpts o = given;
    if (!DbDir(kCmd, &o.strDbDir)) return kExitFailed;
    if (!IsDirectory(o.strDbDir))
        return Failure(kCmd, kExitFailed, o.strDbDir + " is not a directory");

    // A repair needs the files to itself: the constructor lock keeps every
    // constructor out, and with no process attached none is using them.
    ConstructorLock lock;
    std::string strError;
    const std::vector<SegmentState> segs = InspectSegments();
    const SegmentState& ctl = segs[2];
    if (o.bRepair) {
        if (!lock.Take(o.strDbDir, 5, &strError))
            return Failure(kCmd, kExitFailed, strError + "; nothing repaired");
        const std::vector<SegmentState> now = InspectSegments();
        if (now[2].bPresent && now[2].nAttached > 0)
            return Failure(kCmd, kExitFailed,
                           std::to_string(now[2].nAttached) +
                               " process(es) attached to the shared state (Controls segment, key "
                               "1050): the files are in use; stop them before --repair. Nothing "
                               "repaired");
    }

    ControlFile cf;
    DataFile df;
    std::string strCfError, strDfError;
    if (!LoadControlFile(o.strDbDir, &cf, &strCfError))
        return Failure(kCmd, kExitFailed, strCfError);
    if (!LoadDataFile(o.strDbDir, &df, &strDfError)) return Failure(kCmd, kExitFailed, strDfError);

    _WQCF_CTL_ header;
    std::vector<Problem> problems = Check(cf, df, &header);
    bool bWritten = true;
    if (o.bRepair && !problems.empty()) bWritten = Repair(cf, df, header, &problems, &strError);
    size_t nRepaired = 0;
    for (const Problem& p : problems)
        if (p.bRepaired) ++nRepaired;
    const bool bClean = nRepaired == problems.size() && bWritten;

    std::vector<std::string> notes;
    if (!cf.bExists) notes.push_back("there is no control file (the next start creates one)");
    if (!df.bExists) notes.push_back("there is no data file (the next start creates one)");
    if (!o.bRepair && ctl.bPresent && ctl.nAttached > 0)
        notes.push_back(std::to_string(ctl.nAttached) +
                        " process(es) attached to the shared state: the files are live and may "
                        "change while they are checked");
    long nUsedData = 0;
    for (long n = 0; n < kDataSlots; ++n)
        nUsedData += df.Used(n) ? 1 : 0;

    if (o.bJson) {
        Json jp = Json::array();
        for (const Problem& p : problems)
            jp.push_back({{"kind", p.strKind},
                          {"text", p.strText},
                          {"repairable", p.nAction != kNoRepair},
                          {"repaired", p.bRepaired}});
        Json out = {{"dbdir", o.strDbDir},
                    {"control_slots_in_use", cf.used.size()},
                    {"data_slots_in_use", nUsedData},
                    {"problems", std::move(jp)},
                    {"found", problems.size()},
                    {"repaired", nRepaired},
                    {"clean", bClean},
                    {"notes", notes}};
        if (!bWritten) out["error"] = strError;
        PrintJson(out);
    } else {
        printf("fsck %s: %zu control slots in use, %ld data slots in use\n", o.strDbDir.c_str(),
               cf.used.size(), nUsedData);
        for (const std::string& s : notes)
            printf("note: %s\n", s.c_str());
        for (const Problem& p : problems)
            printf("problem: %s%s\n", p.strText.c_str(),
                   p.bRepaired              ? " -- repaired"
                   : p.nAction == kNoRepair ? " -- not repairable by fsck"
                   : o.bRepair              ? " -- NOT repaired"
                                            : " -- repairable with --repair");
        if (problems.empty())
            printf("clean\n");
        else
            printf("%zu problem(s), %zu repaired\n", problems.size(), nRepaired);
    }
    if (!bWritten) Failure(kCmd, kExitFailed, strError);
    return bClean ? kExitOk : kExitFailed;
}

} // namespace wmctl
