// The queues that the benchmarks compare, behind one small interface, and the
// sandbox each benchmark runs in.
//
// Every queue carries the same workload: a sender process UID sends a message
// of one type with a fixed amount of data to a receiver UID; the receiver
// takes its oldest waiting message and deletes it. The kinds:
//   QV_wm    this library, default settings (segments detached after each call)
//   keep     this library with WM_KeepAttached=true
//   files    this library with WM_KeepFilesOpen=true
//   wake     this library with WM_WakeReceivers=true
//   lock     this library with WM_BlockingLock=true
//   fast     this library with WM_FastPath=true (every opt-in above)
//   robust   this library with WM_RecoverDeadOwner=true (recovery_bench only)
//   floor    the system calls the library's operations cannot avoid, without
//            any library logic (a lower bound, not a queue)
//   SQLite   a queue table in SQLite: WAL, synchronous=NORMAL, prepared
//            statements, an index on (target, id); one transaction per call
//   mq       POSIX message queues: the kernel's own IPC floor, not persistent
#ifndef WM_BENCH_QUEUES_H
#define WM_BENCH_QUEUES_H

#include <sys/types.h>

#include <memory>
#include <string>

namespace wmbench {

enum class Kind { Wm, WmKeep, WmFiles, WmWake, WmLock, WmFast, Floor, Sqlite, Mq, WmRobust };
const char* KindName(Kind kind);
// True for the kinds that are this library (with one setting or another).
bool IsLibrary(Kind kind);

// Process UIDs of the workload. Pair i (0 to 3) of the scale test uses
// kPairSender + i and kPairReceiver + i; queued messages for other targets
// go to kOtherTarget and above.
const long kSender = 101;
const long kReceiver = 102;
const long kPairSender = 201;
const long kPairReceiver = 301;
const long kOtherTarget = 1000;
const int kMaxData = 8192;

// One process's view of a queue. Each call does one whole operation; false
// means it failed, with the reason in Error().
class BenchQueue {
public:
    virtual ~BenchQueue() = default;
    // Sends one message with the sandbox's data size to the receiver.
    virtual bool Send() = 0;
    // Takes the receiver's oldest waiting message (it must be there), or
    // with bWait waits for one.
    virtual bool Receive(bool bWait = false) = 0;
    // Deletes the message taken last; mq has no such step.
    virtual bool Delete() = 0;
    virtual bool HasDelete() const { return true; }
    const std::string& Error() const { return strError; }

protected:
    std::string strError;
};

// A private world for one benchmark: its own IPC namespace (entered by the
// constructor), its own temporary directory with the library's configuration
// and files, and whatever the kind needs (the floor's segments and files, the
// SQLite database, the mq name). Processes forked after construction share
// it; only the process that built it tears it down.
class Sandbox {
public:
    // nQueued messages for other targets are in the queue before the first
    // object starts (library: in the control file; SQLite: in the table).
    Sandbox(Kind kind, int nDataSize, long nQueued = 0);
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    bool Ok() const { return strError.empty(); }
    const std::string& Error() const { return strError; }

    // A queue for process UID nSelf that sends to nTarget; bReceiver
    // registers nSelf as a receiver. nPair names the mq queue of a pair.
    std::unique_ptr<BenchQueue> Open(long nSelf, long nTarget, bool bReceiver, int nPair = 0);

private:
    void MakeTree();
    void MakeFloor();
    void MakeSqlite(long nQueued);
    void PreloadControlFile(long nQueued);

    Kind kind;
    int nSize;
    pid_t nOwner;
    std::string strError;
    std::string strRoot;
    std::string strDbDir;
    int arrFloorIds[3] = {-1, -1, -1}; // controls (mutex), queues, registry
};

// Wall-clock seconds on the host-wide monotonic clock (comparable between
// processes).
double Now();

} // namespace wmbench

#endif
