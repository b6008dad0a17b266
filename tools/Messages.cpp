// The message commands of wmctl: send, recv, delete, reject, retry,
// register, unregister, deleteby and count.
//
// Each is a thin wrapper over one public operation of the library, so that
// an operator gets exactly what a program would get: the same result codes,
// the same texts, the same rules (a receive needs a registration, Delete
// takes the ID as the slot holds it, a registration stays until it is
// removed). What the tool adds is the translation of its arguments (process
// and type names or numbers, through GetUID and Translate), reading and
// writing the data, and a registration that lasts exactly as long as a recv.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "Wmctl.h"

namespace wmctl {

namespace {

// The library object, with read access to the directory tables (protected
// for derived classes; they never change after the first constructor).
class Library : public CWorkMessages {
public:
    std::vector<std::pair<long, std::string>> Types() const {
        std::vector<std::pair<long, std::string>> out;
        if (nLastError != 0 || pSMCtlrs == nullptr || arrNamesLocal == nullptr) return out;
        for (int32_t i = 0; i < pSMCtlrs->nQNameCount; ++i)
            out.emplace_back(
                arrNamesLocal[i].nID,
                std::string(arrNamesLocal[i].szName,
                            strnlen(arrNamesLocal[i].szName, sizeof(arrNamesLocal[i].szName))));
        return out;
    }
    std::vector<std::pair<long, std::string>> Processes() const {
        std::vector<std::pair<long, std::string>> out;
        if (nLastError != 0 || pSMCtlrs == nullptr || arrUIDs == nullptr) return out;
        for (int32_t i = 0; i < pSMCtlrs->nUIDsCount; ++i)
            out.emplace_back(arrUIDs[i].nUID,
                             std::string(arrUIDs[i].szName,
                                         strnlen(arrUIDs[i].szName, sizeof(arrUIDs[i].szName))));
        return out;
    }
    // Clears the error text before a call, so that a code without a text
    // of its own is not reported with an older one.
    void Clear() { szErrorMsg[0] = '\0'; }
};

// A process argument: a number is a UID as given (the library does not test
// UIDs either); a name is translated with GetUID.
bool ResolveProcess(Library& wm, const char* szCmd, const std::string& arg, long* pUID) {
    if (ParseNumber(arg, pUID)) return true;
    wm.Clear();
    const long rc = wm.GetUID(arg.c_str(), nullptr);
    if (rc < 0) {
        LibraryFailure(szCmd, ("looking up process '" + arg + "'").c_str(), rc, wm);
        return false;
    }
    *pUID = rc;
    return true;
}

// A type argument, by name or number; gives both and the table's spelling.
bool ResolveType(Library& wm, const char* szCmd, const std::string& arg, long* pNo,
                 std::string* pName) {
    long nNo = 0;
    if (!ParseNumber(arg, &nNo)) {
        wm.Clear();
        nNo = wm.Translate(arg.c_str());
        if (nNo < 0) {
            LibraryFailure(szCmd, ("looking up message type '" + arg + "'").c_str(), nNo, wm);
            return false;
        }
    }
    const char* pTableName = wm.Translate(nNo, nullptr);
    if (IsCodePointer(pTableName)) {
        Failure(szCmd, kExitFailed,
                "no message type has the number " + std::to_string(nNo) + " (M_MSGID)");
        return false;
    }
    *pNo = nNo;
    *pName = pTableName;
    return true;
}

std::string ProcessName(Library& wm, long nUID) {
    const char* p = wm.GetUID(nUID, nullptr);
    return IsCodePointer(p) ? "#" + std::to_string(nUID) : std::string(p);
}

std::string TypeName(Library& wm, long nMsgNo) {
    const char* p = wm.Translate(nMsgNo, nullptr);
    return IsCodePointer(p) ? "#" + std::to_string(nMsgNo) : std::string(p);
}

std::string Who(Library& wm, long nUID) {
    return ProcessName(wm, nUID) + " (" + std::to_string(nUID) + ")";
}

// Constructs the library object; reports a failed construction.
bool Opened(const Library& wm, const char* szCmd) {
    if (wm.nLastError == 0) return true;
    LibraryFailure(szCmd, "attaching to the queues", wm.nLastError, wm);
    return false;
}

// Reads the data of a message from fd: at most WM_MAX_DEPDATA bytes are kept,
// the rest is only counted, so that the error can say how much there was.
bool ReadAll(int fd, std::string* pData, std::string* pError) {
    char buf[4096];
    unsigned long long nTotal = 0;
    pData->clear();
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *pError = strerror(errno);
            return false;
        }
        if (n == 0) break;
        nTotal += static_cast<unsigned long long>(n);
        const size_t nRoom =
            WM_MAX_DEPDATA + 1 - std::min<size_t>(pData->size(), WM_MAX_DEPDATA + 1);
        pData->append(buf, std::min(static_cast<size_t>(n), nRoom));
    }
    if (nTotal > WM_MAX_DEPDATA) {
        *pError = "the data is " + std::to_string(nTotal) + " bytes; a message holds at most " +
                  std::to_string(WM_MAX_DEPDATA);
        return false;
    }
    return true;
}

volatile sig_atomic_t g_bStop = 0;
void OnStopSignal(int) {
    g_bStop = 1;
}

// One side of a type range: empty is open.
bool RangeBound(Library& wm, const char* szCmd, const std::string& s, long nOpen, long* pNo,
                std::string* pName) {
    if (s.empty()) {
        *pNo = nOpen;
        return true;
    }
    return ResolveType(wm, szCmd, s, pNo, pName);
}

// The data length of a message just received: Receive leaves the record's
// length at the caller's capacity, so it is read from the received slot.
bool ReceivedLength(long nUID, const WorkMsg& msg, long* pLength) {
    _WQCF_ s;
    if (!FindReceivedSlot(nUID, msg, &s)) return false;
    *pLength = s.nDepDataSlot == -1 ? 0 : s.nDepDataLength;
    return true;
}

Json MessageJson(Library& wm, const WorkMsg& msg, long nUID) {
    return {{"message_id", msg.nMessageID},
            {"message_id_hex", HexId(msg.nMessageID)},
            {"type", msg.nMsgNo},
            {"type_name", TypeName(wm, msg.nMsgNo)},
            {"sender", msg.nSenderUID},
            {"sender_name", ProcessName(wm, msg.nSenderUID)},
            {"target", nUID},
            {"target_name", ProcessName(wm, nUID)},
            {"time_sent", static_cast<long long>(msg.nTimeSent)},
            {"time_posted", static_cast<long long>(msg.nTimePosted)},
            {"time_retry", static_cast<long long>(msg.nTimeRetry)},
            {"user_flags", msg.nUserFlags}};
}

} // namespace

// ---------------------------------------------------------------------------
// send
// ---------------------------------------------------------------------------

int CmdSend(const SendOpts& o) {
    const char* kCmd = "send";
    std::string strData, strError;
    if (o.bDataGiven) {
        strData = o.strData;
        if (strData.size() > WM_MAX_DEPDATA)
            return Failure(kCmd, kExitFailed,
                           "the data is " + std::to_string(strData.size()) +
                               " bytes; a message holds at most " + std::to_string(WM_MAX_DEPDATA));
    } else if (!o.strFile.empty()) {
        const bool bStdin = o.strFile == "-";
        int fd = bStdin ? 0 : open(o.strFile.c_str(), O_RDONLY);
        if (fd < 0)
            return Failure(kCmd, kExitFailed, "cannot open " + o.strFile + ": " + strerror(errno));
        const bool bOk = ReadAll(fd, &strData, &strError);
        if (!bStdin) close(fd);
        if (!bOk)
            return Failure(kCmd, kExitFailed,
                           "cannot read " + (bStdin ? std::string("stdin") : o.strFile) + ": " +
                               strError);
    }

    Library wm;
    if (!Opened(wm, kCmd)) return kExitFailed;
    long nFrom = 0, nTo = 0, nType = 0;
    std::string strType;
    if (!ResolveProcess(wm, kCmd, o.strFrom, &nFrom) || !ResolveProcess(wm, kCmd, o.strTo, &nTo) ||
        !ResolveType(wm, kCmd, o.strType, &nType, &strType))
        return kExitFailed;

    WorkMsg msg;
    memset(&msg, 0, sizeof(msg));
    msg.nTargetUID = nTo;
    msg.nResponseRequired = o.bResponse ? 1 : 0;
    msg.nDepDataLength = static_cast<long>(strData.size());
    msg.pDepData = strData.empty() ? nullptr : &strData[0];
    wm.Clear();
    const long rc = wm.Send(nFrom, strType.c_str(), &msg, o.bHigh);
    if (rc != M_OK && rc != M_NOTACT) return LibraryFailure(kCmd, "Send", rc, wm);

    // A high-priority message is found by the ID its slot holds: the low
    // 24 bits of the one Send handed out.
    const long nSlotId = o.bHigh ? (msg.nMessageID & 0x00FFFFFFL) : msg.nMessageID;
    if (rc == M_NOTACT) {
        std::string strText = wm.szErrorMsg;
        while (!strText.empty() && strText.back() == '\n')
            strText.pop_back();
        fprintf(stderr, "wmctl send: warning: %s (M_NOTACT); the message is queued for it\n",
                strText.c_str());
    }
    if (o.bJson) {
        PrintJson({{"message_id", nSlotId},
                   {"message_id_hex", HexId(nSlotId)},
                   {"sent_id", msg.nMessageID},
                   {"type", nType},
                   {"type_name", strType},
                   {"sender", nFrom},
                   {"target", nTo},
                   {"length", strData.size()},
                   {"high_priority", o.bHigh},
                   {"target_active", rc == M_OK}});
    } else {
        printf("sent message %s: %s from %s to %s, %zu bytes%s\n", HexId(nSlotId).c_str(),
               strType.c_str(), Who(wm, nFrom).c_str(), Who(wm, nTo).c_str(), strData.size(),
               o.bHigh ? ", high priority" : "");
    }
    return kExitOk;
}

// ---------------------------------------------------------------------------
// recv
// ---------------------------------------------------------------------------

int CmdRecv(const RecvOpts& o) {
    const char* kCmd = "recv";
    // The range's syntax is checked before anything is attached.
    std::string strLo, strHi;
    if (!o.strRange.empty()) {
        const size_t nColon = o.strRange.find(':');
        if (nColon == std::string::npos) {
            strLo = strHi = o.strRange;
        } else {
            strLo = o.strRange.substr(0, nColon);
            strHi = o.strRange.substr(nColon + 1);
            if (strHi.find(':') != std::string::npos || (strLo.empty() && strHi.empty()))
                return Failure(kCmd, kExitUsage,
                               "--type-range takes LO:HI, LO: or :HI (names or numbers), not '" +
                                   o.strRange + "'");
        }
    }

    // The output file is opened before anything is received, so a bad path
    // takes no message; it is truncated only once a message is there.
    int fdOut = -1;
    bool bCreated = false;
    if (!o.strOut.empty()) {
        struct stat st;
        bCreated = stat(o.strOut.c_str(), &st) != 0;
        fdOut = open(o.strOut.c_str(), O_WRONLY | O_CREAT, 0666);
        if (fdOut < 0)
            return Failure(kCmd, kExitFailed, "cannot open " + o.strOut + ": " + strerror(errno));
    }
    auto dropOut = [&] {
        if (fdOut >= 0) close(fdOut);
        if (bCreated) unlink(o.strOut.c_str());
        fdOut = -1;
    };

    Library wm;
    long nUID = 0, nLo = -1, nHi = -1, nTypeNo = 0;
    std::string strRegType, strLoName, strHiName;
    if (!Opened(wm, kCmd) || !ResolveProcess(wm, kCmd, o.strProcess, &nUID) ||
        (!o.strType.empty() && !ResolveType(wm, kCmd, o.strType, &nTypeNo, &strRegType))) {
        dropOut();
        return kExitFailed;
    }
    if (!o.strRange.empty()) {
        // An open upper end is the largest type number: the library's -1
        // for the upper bound would let every type through.
        if (!RangeBound(wm, kCmd, strLo, -1, &nLo, &strLoName) ||
            !RangeBound(wm, kCmd, strHi, 0x7FFFFFFF, &nHi, &strHiName)) {
            dropOut();
            return kExitFailed;
        }
        if (nLo != -1 && nLo > nHi) {
            dropOut();
            return Failure(kCmd, kExitUsage, "--type-range " + o.strRange + " is empty");
        }
    } else if (!o.strType.empty()) {
        nLo = nHi = nTypeNo;
    }
    // The registration needs a type; it does not limit what is received
    // (the range does). Default: the range's end, else the first type.
    if (strRegType.empty()) strRegType = !strLoName.empty() ? strLoName : strHiName;
    if (strRegType.empty()) {
        std::vector<std::pair<long, std::string>> types = wm.Types();
        if (types.empty()) {
            dropOut();
            return Failure(kCmd, kExitFailed, "the names file defines no message type");
        }
        strRegType = types[0].second;
    }

    wm.Clear();
    long rc = wm.SetInput(nUID, strRegType.c_str(), nullptr, o.bLifo);
    if (rc != M_OK) {
        dropOut();
        return LibraryFailure(kCmd, "SetInput", rc, wm);
    }

    // Received in steps of one second, so that an interrupt ends the wait
    // within a second and the registration is removed all the same.
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = OnStopSignal;
    sigemptyset(&sa.sa_mask);
    struct sigaction saInt, saTerm, saHup;
    sigaction(SIGINT, &sa, &saInt);
    sigaction(SIGTERM, &sa, &saTerm);
    sigaction(SIGHUP, &sa, &saHup);

    static unsigned char buf[WM_MAX_DEPDATA];
    WorkMsg msg;
    long nLeft = o.nWait;
    do {
        memset(&msg, 0, sizeof(msg));
        msg.pDepData = buf;
        msg.nDepDataLength = sizeof(buf);
        wm.Clear();
        rc = wm.ReceiveByMsg(nUID, nLeft == 0 ? 0 : 1, &msg, nLo, nHi, o.bRetry, nullptr);
        if (rc != M_TIMEOUT) break;
        if (nLeft > 0) --nLeft;
    } while (nLeft != 0 && !g_bStop);

    sigaction(SIGINT, &saInt, nullptr);
    sigaction(SIGTERM, &saTerm, nullptr);
    sigaction(SIGHUP, &saHup, nullptr);
    const std::string strSavedText = wm.szErrorMsg;
    wm.Clear();
    const long rcUnset = wm.UnsetInput(nUID, strRegType.c_str(), 0);
    if (rcUnset != M_OK) LibraryFailure(kCmd, "UnsetInput", rcUnset, wm);
    snprintf(wm.szErrorMsg, sizeof(wm.szErrorMsg), "%s", strSavedText.c_str());

    if (rc != M_OK) {
        dropOut();
        if (rc == M_TIMEOUT && g_bStop) return Failure(kCmd, kExitFailed, "interrupted");
        if (rc == M_TIMEOUT)
            return Failure(kCmd, kExitFailed,
                           "no message for " + Who(wm, nUID) + " within " +
                               std::to_string(o.nWait) + " s (M_TIMEOUT)");
        if (rc == M_NONE)
            return Failure(kCmd, kExitFailed,
                           "no message for " + Who(wm, nUID) + " to retry (M_NONE)");
        return LibraryFailure(kCmd, "Receive", rc, wm);
    }

    long nLength = 0;
    if (!ReceivedLength(nUID, msg, &nLength)) {
        // The slot went (deleted by another process meanwhile): the data
        // ends where the zero padding of its block begins.
        nLength = sizeof(buf);
        while (nLength > 0 && buf[nLength - 1] == 0)
            --nLength;
        fprintf(stderr, "wmctl recv: warning: the message's slot is gone; its data length is "
                        "taken from the data\n");
    }

    int nExit = kExitOk;
    if (fdOut >= 0) {
        const bool bOk =
            ftruncate(fdOut, 0) == 0 && write(fdOut, buf, static_cast<size_t>(nLength)) == nLength;
        if (close(fdOut) != 0 || !bOk)
            nExit = Failure(kCmd, kExitFailed,
                            "cannot write " + o.strOut + ": " + strerror(errno) + "; message " +
                                HexId(msg.nMessageID) + " is received (wmctl retry puts it back)");
        fdOut = -1;
    }
    std::string strSummary = "received message " + HexId(msg.nMessageID) + ": " +
                             TypeName(wm, msg.nMsgNo) + " from " + Who(wm, msg.nSenderUID) +
                             " to " + Who(wm, nUID) + ", sent " + FormatTime(msg.nTimeSent) + ", " +
                             std::to_string(nLength) + " bytes";
    if (o.bRetry) strSummary += ", user flags " + std::to_string(msg.nUserFlags);
    if (o.bJson) {
        Json j = MessageJson(wm, msg, nUID);
        j["length"] = nLength;
        if (o.strOut.empty())
            j["data"] =
                std::string(reinterpret_cast<const char*>(buf), static_cast<size_t>(nLength));
        else
            j["data_file"] = o.strOut;
        PrintJson(j);
    } else if (o.strOut.empty()) {
        fprintf(stderr, "%s\n", strSummary.c_str());
        if (fwrite(buf, 1, static_cast<size_t>(nLength), stdout) != static_cast<size_t>(nLength) ||
            fflush(stdout) != 0)
            nExit = Failure(kCmd, kExitFailed,
                            std::string("cannot write the data: ") + strerror(errno));
    } else {
        printf("%s, written to %s\n", strSummary.c_str(), o.strOut.c_str());
    }
    return nExit;
}

// ---------------------------------------------------------------------------
// delete, reject, retry
// ---------------------------------------------------------------------------

namespace {

enum MessageAction { kDelete, kReject, kRetry };

int MessageCommand(const MessageOpts& o, MessageAction nAction) {
    const char* const szCmd = nAction == kDelete   ? "delete"
                              : nAction == kReject ? "reject"
                                                   : "retry";
    Library wm;
    long nUID = 0;
    if (!Opened(wm, szCmd) || (!o.strAs.empty() && !ResolveProcess(wm, szCmd, o.strAs, &nUID)))
        return kExitFailed;
    wm.Clear();
    long rc = M_OK;
    const char* szDone = "";
    const char* szOp = "";
    switch (nAction) {
    case kDelete:
        rc = wm.Delete(nUID, o.nMessageId);
        szOp = "Delete";
        szDone = "deleted";
        break;
    case kReject:
        rc = wm.Reject(nUID, o.nMessageId);
        szOp = "Reject";
        szDone = "rejected into the reject directory";
        break;
    case kRetry:
        rc = wm.Retry(nUID, o.nMessageId, o.bDelay, static_cast<ByteInt>(o.nFlags));
        szOp = "Retry";
        szDone = o.bDelay ? "put back for a delayed retry" : "put back for a retry";
        break;
    }
    if (rc != M_OK) return LibraryFailure(szCmd, szOp, rc, wm);
    if (o.bJson) {
        Json j = {{"message_id", o.nMessageId},
                  {"message_id_hex", HexId(o.nMessageId)},
                  {"action", szCmd}};
        if (nAction == kRetry) {
            j["state"] = o.bDelay ? "delayed_retry" : "retry";
            j["user_flags"] = o.nFlags;
        }
        PrintJson(j);
    } else {
        printf("message %s %s\n", HexId(o.nMessageId).c_str(), szDone);
    }
    return kExitOk;
}

} // namespace

int CmdDelete(const MessageOpts& o) {
    return MessageCommand(o, kDelete);
}
int CmdReject(const MessageOpts& o) {
    return MessageCommand(o, kReject);
}
int CmdRetry(const MessageOpts& o) {
    return MessageCommand(o, kRetry);
}

// ---------------------------------------------------------------------------
// register, unregister
// ---------------------------------------------------------------------------

int CmdRegister(const RegisterOpts& o) {
    const char* kCmd = "register";
    Library wm;
    long nUID = 0, nType = 0;
    std::string strType;
    if (!Opened(wm, kCmd) || !ResolveProcess(wm, kCmd, o.strProcess, &nUID) ||
        !ResolveType(wm, kCmd, o.strType, &nType, &strType))
        return kExitFailed;
    wm.Clear();
    const long rc = wm.SetInput(nUID, strType.c_str(), nullptr, o.bLifo);
    if (rc != M_OK) return LibraryFailure(kCmd, "SetInput", rc, wm);

    // The registry lives only in shared memory: when this is the only
    // process attached, the shared state (and the entry) goes when it exits.
    const std::vector<SegmentState> segs = InspectSegments();
    const bool bAlone = !segs[2].bPresent || segs[2].nAttached <= 1;
    const std::string strNote =
        bAlone ? "no other process is attached: the entry goes with the shared state when wmctl "
                 "exits"
               : "the entry stays until 'wmctl unregister " + o.strProcess + " " + o.strType +
                     "' or until the shared state is removed";
    if (o.bJson) {
        PrintJson({{"uid", nUID},
                   {"process", ProcessName(wm, nUID)},
                   {"type", nType},
                   {"type_name", strType},
                   {"pid", static_cast<long>(getpid())},
                   {"lifo", o.bLifo},
                   {"lasting", !bAlone}});
    } else {
        printf("registered %s for %s (%ld) as process %ld, %s\n", Who(wm, nUID).c_str(),
               strType.c_str(), nType, static_cast<long>(getpid()),
               o.bLifo ? "newest first" : "oldest first");
    }
    fprintf(stderr, "wmctl register: note: %s\n", strNote.c_str());
    return kExitOk;
}

int CmdUnregister(const RegisterOpts& o) {
    const char* kCmd = "unregister";
    Library wm;
    long nUID = 0, nType = -1;
    std::string strType;
    if (!Opened(wm, kCmd) || !ResolveProcess(wm, kCmd, o.strProcess, &nUID) ||
        (!o.strType.empty() && !ResolveType(wm, kCmd, o.strType, &nType, &strType)))
        return kExitFailed;
    const bool bAll = o.strType.empty();
    const std::string strWhat =
        Who(wm, nUID) + (bAll ? "" : " for " + strType) +
        (o.nPid > 0 ? " by process " + std::to_string(o.nPid) : std::string());

    // The entries to remove, and the processes that made them: a
    // registration belongs to the process that made it, and wmctl's own
    // process made none of them.
    LiveState st;
    ReadLiveState(&st, kLiveRegistry);
    std::set<long> pids;
    long nEntries = 0;
    for (const _PRL_CTL_& e : st.registry) {
        if (e.nUID == 0 || e.nUID != nUID || (!bAll && e.nMsgNo != nType) ||
            (o.nPid > 0 && e.nPID != o.nPid))
            continue;
        pids.insert(e.nPID);
        ++nEntries;
    }
    if (pids.empty())
        return Failure(kCmd, kExitFailed, "no registration of " + strWhat + " (M_NOTACT)");
    for (long nPid : pids) {
        wm.Clear();
        const long rc = wm.UnsetInput(nUID, bAll ? "ALLQ" : strType.c_str(), nPid);
        if (rc == M_NOTACT)
            return Failure(kCmd, kExitFailed,
                           "no registration of " + strWhat + " (M_NOTACT); it went meanwhile");
        if (rc != M_OK) return LibraryFailure(kCmd, "UnsetInput", rc, wm);
    }
    if (o.bJson) {
        PrintJson({{"uid", nUID},
                   {"process", ProcessName(wm, nUID)},
                   {"type", bAll ? Json() : Json(nType)},
                   {"removed", nEntries},
                   {"pids", pids}});
    } else {
        printf("removed %ld registration(s) of %s\n", nEntries, strWhat.c_str());
    }
    return kExitOk;
}

// ---------------------------------------------------------------------------
// deleteby
// ---------------------------------------------------------------------------

int CmdDeleteBy(const DeleteByOpts& o) {
    const char* kCmd = "deleteby";
    const bool bCriteria =
        o.nDays >= 0 || !o.strTarget.empty() || !o.strSender.empty() || !o.strType.empty();
    if (!bCriteria && !o.bAll)
        return Failure(kCmd, kExitUsage,
                       "give --age, --target, --sender or --type, or --all to delete every "
                       "message");
    Library wm;
    long nTarget = -1, nSender = -1, nType = -1;
    std::string strType;
    if (!Opened(wm, kCmd) ||
        (!o.strTarget.empty() && !ResolveProcess(wm, kCmd, o.strTarget, &nTarget)) ||
        (!o.strSender.empty() && !ResolveProcess(wm, kCmd, o.strSender, &nSender)) ||
        (!o.strType.empty() && !ResolveType(wm, kCmd, o.strType, &nType, &strType)))
        return kExitFailed;
    long nCount = 0;
    wm.Clear();
    const long rc = wm.DeleteBy(o.nDays, nTarget, nSender, nType, &nCount);
    if (rc != M_OK) {
        fprintf(stderr, "wmctl deleteby: %ld message(s) deleted before the failure\n", nCount);
        return LibraryFailure(kCmd, "DeleteBy", rc, wm);
    }
    if (o.bJson)
        PrintJson({{"deleted", nCount}});
    else
        printf("deleted %ld message(s)\n", nCount);
    return kExitOk;
}

// ---------------------------------------------------------------------------
// count
// ---------------------------------------------------------------------------

int CmdCount(const CountOpts& o) {
    const char* kCmd = "count";
    const bool bState = o.strBy == "state";
    const bool bTypes = o.strBy == "type" || o.strBy == "type-state";
    if (bState && !o.names.empty())
        return Failure(kCmd, kExitUsage, "--by state counts the whole table and takes no names");
    Library wm;
    if (!Opened(wm, kCmd)) return kExitFailed;

    if (bState) {
        __GET_COUNTERS__ENTRY2 row;
        memset(&row, 0, sizeof(row));
        wm.Clear();
        const long rc = wm.GetCounters(&row);
        if (rc != M_OK) return LibraryFailure(kCmd, "GetCounters", rc, wm);
        const char* const kKeys[] = {"free", "pending", "received", "retry", "delayed_retry"};
        if (o.bJson) {
            Json counts = Json::object();
            for (int i = 0; i < 5; ++i)
                counts[kKeys[i]] = row.Counter[i];
            PrintJson({{"by", "state"}, {"counts", std::move(counts)}});
        } else {
            for (int i = 0; i < 5; ++i)
                printf("%-14s %ld\n", kKeys[i], row.Counter[i]);
        }
        return kExitOk;
    }

    // The rows: the names given (checked here, so that an unknown name gets
    // the library's text), or every entry of the names or process table.
    std::vector<std::pair<long, std::string>> rows;
    for (const std::string& n : o.names) {
        long nNo = 0;
        std::string strName;
        if (bTypes) {
            if (!ResolveType(wm, kCmd, n, &nNo, &strName)) return kExitFailed;
        } else {
            if (!ResolveProcess(wm, kCmd, n, &nNo)) return kExitFailed;
            const char* p = wm.GetUID(nNo, nullptr);
            if (IsCodePointer(p))
                return Failure(kCmd, kExitFailed,
                               "process " + n + " is not in the process table (M_MSGID)");
            strName = p;
        }
        rows.emplace_back(nNo, strName);
    }
    if (o.names.empty()) rows = bTypes ? wm.Types() : wm.Processes();

    long rc = M_OK;
    std::vector<std::vector<long>> counts; // per row: total, then states 1 to 4
    if (o.strBy == "type") {
        std::vector<__GET_COUNTERS__ENTRY1> arr(rows.size() + 1);
        memset(static_cast<void*>(arr.data()), 0, arr.size() * sizeof(arr[0]));
        for (size_t i = 0; i < rows.size(); ++i)
            snprintf(arr[i].MsgID, sizeof(arr[i].MsgID), "%s", rows[i].second.c_str());
        wm.Clear();
        rc = wm.GetCounters(arr.data());
        for (size_t i = 0; i < rows.size(); ++i)
            counts.push_back({arr[i].Counter});
    } else if (o.strBy == "type-state") {
        std::vector<__GET_COUNTERS__ENTRY3> arr(rows.size() + 1);
        memset(static_cast<void*>(arr.data()), 0, arr.size() * sizeof(arr[0]));
        for (size_t i = 0; i < rows.size(); ++i)
            snprintf(arr[i].MsgID, sizeof(arr[i].MsgID), "%s", rows[i].second.c_str());
        wm.Clear();
        rc = wm.GetCounters(arr.data());
        for (size_t i = 0; i < rows.size(); ++i)
            counts.push_back({arr[i].TotalCount, arr[i].Counter[0], arr[i].Counter[1],
                              arr[i].Counter[2], arr[i].Counter[3]});
    } else {
        std::vector<__GET_COUNTERS__ENTRY4> arr(rows.size() + 1);
        memset(static_cast<void*>(arr.data()), 0, arr.size() * sizeof(arr[0]));
        for (size_t i = 0; i < rows.size(); ++i)
            snprintf(arr[i].UID, sizeof(arr[i].UID), "%s", rows[i].second.c_str());
        wm.Clear();
        rc = wm.GetCounters(arr.data(), o.strBy == "target");
        for (size_t i = 0; i < rows.size(); ++i)
            counts.push_back({arr[i].Counter});
    }
    // M_NONE: nothing of these rows is queued, which is a count of zero.
    if (rc != M_OK && rc != M_NONE && rc != M_PARTIAL)
        return LibraryFailure(kCmd, "GetCounters", rc, wm);

    const char* const kStates[] = {"pending", "received", "retry", "delayed_retry"};
    if (o.bJson) {
        Json arr = Json::array();
        for (size_t i = 0; i < rows.size(); ++i) {
            Json j = {{"name", rows[i].second}, {"number", rows[i].first}, {"count", counts[i][0]}};
            if (counts[i].size() == 5) {
                Json& s = j["states"];
                for (int k = 0; k < 4; ++k)
                    s[kStates[k]] = counts[i][static_cast<size_t>(k) + 1];
            }
            arr.push_back(std::move(j));
        }
        PrintJson({{"by", o.strBy}, {"counts", std::move(arr)}});
    } else {
        for (size_t i = 0; i < rows.size(); ++i) {
            printf("%-8s %6ld", rows[i].second.c_str(), counts[i][0]);
            if (counts[i].size() == 5)
                printf("  (pending %ld, received %ld, retry %ld, delayed retry %ld)", counts[i][1],
                       counts[i][2], counts[i][3], counts[i][4]);
            printf("\n");
        }
    }
    if (rc == M_PARTIAL) return LibraryFailure(kCmd, "GetCounters", rc, wm);
    return kExitOk;
}

} // namespace wmctl
