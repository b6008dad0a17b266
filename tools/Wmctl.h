// wmctl: the declarations its command families share.
//
// The command line itself (parser, help texts, validation) lives in
// wmctl.cpp; each family of commands gets its options as a plain struct and
// returns the process's exit code, so that the families need no parser:
//   Demo.cpp      demo
//   Messages.cpp  send, recv, delete, reject, retry, register, unregister,
//                 deleteby, count (through the library's public operations)
//   Status.cpp    status (the live segments, read-only, without the lock)
//   Metrics.cpp   metrics (the same snapshot for a monitoring system)
//   Ipc.cpp       ipc-clean, and the segment and lock helpers of the others
//   Offline.cpp   dump, fsck (the two database files, no shared memory)
//   Output.cpp    JSON, times, hex dumps, progress, result-code texts
//
// Exit codes are the same for every command, so scripts can rely on them.
#ifndef WMCTL_H
#define WMCTL_H

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "WorkMessages.h"

namespace wmctl {

// Data slots of a host: bits in the SAT segment and in WDDF.bdb's table.
const long kDataSlots = 65536;

enum ExitCode {
    kExitOk = 0,     // success
    kExitFailed = 1, // an operation failed; its text went to stderr
    kExitUsage = 2   // the command line is wrong
};

// ---------------------------------------------------------------------------
// Output
// ---------------------------------------------------------------------------

// Every --json report is built as an nlohmann::ordered_json (Debian's
// nlohmann-json3-dev): members come out in the order they were added.
using Json = nlohmann::ordered_json;

// Writes the value to stdout, indented by two, followed by a newline. Strings
// are taken as raw bytes (names from the host's files, message data): every
// byte outside printable ASCII appears as \u00XX, so any data prints and
// none is lost or refused.
void PrintJson(const Json& value);

// "2024-03-03 08:05:09" in local time, or "-" for 0.
std::string FormatTime(long long t);
// "0x40000005"
std::string HexId(long nId);
// Classic hex dump: offset, 16 bytes in hex, the printable characters.
void HexDump(FILE* out, const unsigned char* p, size_t n);

// Shows on stderr how far a long step has come, once it has run for more
// than a second; silent for shorter steps.
class Progress {
public:
    explicit Progress(const char* szWhat);
    ~Progress();
    void Update(unsigned long long nDone, unsigned long long nTotal);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    std::string strWhat;
    double tStart;
    double tLast = 0;
    bool bShown = false;
};

// ---------------------------------------------------------------------------
// Result codes and failures
// ---------------------------------------------------------------------------

// "M_NAME" etc., or "unknown".
const char* CodeName(long nCode);
// What a code means, for the codes that come without a text of the library.
const char* CodeMeaning(long nCode);
// True when p, a by-number lookup's result, is a code and not a name.
bool IsCodePointer(const char* p);

// Prints "wmctl <cmd>: <what> failed: <code> (<number>)" and the library's
// text (szErrorMsg, cleared by the caller before the call) or the code's
// meaning to stderr; returns kExitFailed.
int LibraryFailure(const char* szCmd, const char* szWhat, long nCode, const CWorkMessages& wm);
// Prints "wmctl <cmd>: <text>" to stderr and returns nExit.
int Failure(const char* szCmd, int nExit, const std::string& strText);

// Parses a message ID: decimal or 0x-hex, any value that fits 32 bits
// (signed or unsigned); the result is the ID as a control slot holds it.
bool ParseMessageId(const std::string& s, long* pId);
// True when s is a decimal number (optional minus sign) that fits a long.
bool ParseNumber(const std::string& s, long* pValue);

// ---------------------------------------------------------------------------
// Live shared memory (Ipc.cpp)
// ---------------------------------------------------------------------------

// One of the six segments, as shmctl(IPC_STAT) sees it.
struct SegmentState {
    int nKey = 0;
    const char* szName = "";
    bool bPresent = false;
    int nId = -1;
    unsigned long long nSize = 0;
    long nAttached = 0;
    int nErrno = 0; // why it could not be looked up (0: it simply does not exist)
};
// The six segments, keys 1048 to 1053 in order.
std::vector<SegmentState> InspectSegments();

// A snapshot of the shared state, read through read-only attachments and
// without the Controls lock: a dead lock owner cannot make it hang. The
// tables may change while they are copied; the copy is bounded by the
// segments' real sizes, whatever the counts in the Controls segment say.
struct LiveState {
    std::vector<SegmentState> segments;
    bool bControls = false; // the Controls segment exists and was read
    unsigned long long nControlsSize = 0;
    int32_t nMsgCounter = 0;
    int32_t nNamesHandle = 0, nUIDsHandle = 0, nQueuesHandle = 0, nPRListHandle = 0,
            nDDSATHandle = 0;
    int32_t nQNameCount = 0, nUIDsCount = 0, nQSlotCount = 0, nPRLSlotCount = 0;
    int32_t nLastCleanup = 0;
    int32_t nLockOwner = 0; // kernel thread ID in the mutex's owner word; 0 = free
    // The recovery words (WorkMessages.h, ControlsRecoveryWords).
    int32_t nLockFlags = 0, nRecoveries = 0, nDeadOwner = 0, nLastRecovery = 0;
    std::vector<_WQCF_> slots;
    std::vector<_PRL_CTL_> registry;
    std::vector<_WQCONF_> names;
    std::vector<_PRUID_> processes;
    long nDataSlotsUsed = -1;          // bits set in the SAT segment; -1: not read
    std::vector<std::string> problems; // what could not be read, and why
};
enum LiveParts {
    kLiveQueues = 1,
    kLiveRegistry = 2,
    kLiveDirectory = 4,
    kLiveDataSlots = 8,
    kLiveAll = 15
};
// Fills *pState; false (with a problem) only when the Controls segment
// exists but cannot be read.
bool ReadLiveState(LiveState* pState, unsigned nParts);

// The slot of a message that Receive has just handed to UID nUID (matched by
// ID, target, type and send time): its data length, priority mask and flags,
// which the caller's record does not carry. False when it is not there or
// its length is impossible.
bool FindReceivedSlot(long nUID, const WorkMsg& msg, _WQCF_* pSlot);

// The control slots of a snapshot by state (free, pending, received, retry,
// delayed retry, named as kStateKeys), and those in no known state.
extern const char* const kStateKeys[5];
struct StateCounts {
    long arrStates[5] = {0, 0, 0, 0, 0};
    long nInvalid = 0;
};
StateCounts CountStates(const LiveState& st);
// A type's or process's name from the snapshot's directory, or "#<number>".
std::string TypeNameOf(const LiveState& st, int32_t nMsgNo);
std::string ProcessNameOf(const LiveState& st, int32_t nUID);
// Whether a kernel thread (the lock's owner word) or a process still exists.
bool ThreadExists(int32_t nTid);
bool ProcessExists(int32_t nPid);

// The constructor lock of a database directory (its WM.lock), taken by
// polling for up to nSeconds. Released by the destructor.
class ConstructorLock {
public:
    ConstructorLock() = default;
    ~ConstructorLock();
    bool Take(const std::string& strDbDir, long nSeconds, std::string* pError);
    ConstructorLock(const ConstructorLock&) = delete;
    ConstructorLock& operator=(const ConstructorLock&) = delete;

private:
    FILE* fp = nullptr;
};

// What the host's configuration names: Root, the level (name and number)
// and the database directory (what the library's constructor computes);
// false when there is no configuration.
struct HostPaths {
    std::string strRoot, strLevel, strDbDir;
    unsigned char nLevel = 0;
};
bool ConfiguredPaths(HostPaths* pPaths, std::string* pWhyNot);
bool ConfiguredDbDir(std::string* pDir, std::string* pWhyNot);

// ---------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------

struct DemoOpts {
    std::string strRoot; // empty: ./demo-root
    bool bJson = false;
};
struct SendOpts {
    std::string strFrom, strTo, strType;
    std::string strData; // the data as an argument
    bool bDataGiven = false;
    std::string strFile; // or from a file ("-": stdin)
    bool bHigh = false;
    bool bResponse = false;
    bool bJson = false;
};
struct RecvOpts {
    std::string strProcess;
    std::string strType;  // registration type, also the range when no range is given
    std::string strRange; // LO:HI
    long nWait = 1;
    bool bRetry = false;
    bool bLifo = false;
    std::string strOut; // file for the data; empty: stdout
    bool bJson = false;
};
struct MessageOpts { // delete, reject, retry
    long nMessageId = 0;
    std::string strAs; // the calling process (name or UID); empty: 0
    bool bDelay = false;
    int nFlags = 0;
    bool bJson = false;
};
struct RegisterOpts {
    std::string strProcess, strType;
    bool bLifo = false;
    long nPid = 0; // unregister: only this process's entries
    bool bJson = false;
};
struct DeleteByOpts {
    long nDays = -1;
    std::string strTarget, strSender, strType;
    bool bAll = false;
    bool bJson = false;
};
struct CountOpts {
    std::string strBy = "state";
    std::vector<std::string> names;
    bool bJson = false;
};
struct StatusOpts {
    bool bJson = false;
};
struct MetricsOpts {
    std::string strOut; // file to replace atomically; empty: stdout
};
struct IpcCleanOpts {
    std::string strDbDir; // empty: from the configuration
    bool bJson = false;
};
struct DumpOpts {
    std::string strDbDir; // empty: from the configuration
    long nSlot = -1;      // -1: every slot in use
    bool bJson = false;
};
struct FsckOpts {
    std::string strDbDir; // empty: from the configuration
    bool bRepair = false;
    bool bJson = false;
};

int CmdDemo(const DemoOpts& o);
int CmdSend(const SendOpts& o);
int CmdRecv(const RecvOpts& o);
int CmdDelete(const MessageOpts& o);
int CmdReject(const MessageOpts& o);
int CmdRetry(const MessageOpts& o);
int CmdRegister(const RegisterOpts& o);
int CmdUnregister(const RegisterOpts& o);
int CmdDeleteBy(const DeleteByOpts& o);
int CmdCount(const CountOpts& o);
int CmdStatus(const StatusOpts& o);
int CmdMetrics(const MetricsOpts& o);
int CmdIpcClean(const IpcCleanOpts& o);
int CmdDump(const DumpOpts& o);
int CmdFsck(const FsckOpts& o);

} // namespace wmctl

#endif
