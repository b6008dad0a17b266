#include "BenchQueues.h"

#include <fcntl.h>
#include <ftw.h>
#include <mqueue.h>
#include <pthread.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <vector>

#include "WorkMessages.h"

namespace wmbench {

double Now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

const char* KindName(Kind kind) {
    switch (kind) {
    case Kind::Wm:
        return "QV_wm";
    case Kind::WmKeep:
        return "keep";
    case Kind::WmFiles:
        return "files";
    case Kind::WmWake:
        return "wake";
    case Kind::WmLock:
        return "lock";
    case Kind::WmFast:
        return "fast";
    case Kind::Floor:
        return "floor";
    case Kind::Sqlite:
        return "SQLite";
    case Kind::Mq:
        return "mq";
    case Kind::WmRobust:
        return "robust";
    }
    return "?";
}

bool IsLibrary(Kind kind) {
    return kind != Kind::Floor && kind != Kind::Sqlite && kind != Kind::Mq;
}

namespace {

// The shapes the library's tables have with a nearly empty queue: 512
// control slots of 64 bytes, 128 registry entries of 32 bytes, 8192-byte
// data blocks behind an 8192-byte slot table.
const size_t kSlot = 64;
const size_t kQueuesBytes = 512 * kSlot;
const size_t kRegistryBytes = 128 * 32;
const int kShmCreate = IPC_CREAT | 0600;

std::string Errno(const char* szWhat) {
    return std::string(szWhat) + ": " + strerror(errno);
}

bool WriteText(const std::string& strPath, const std::string& strText) {
    std::ofstream out(strPath, std::ios::binary | std::ios::trunc);
    out << strText;
    return out.good();
}

bool WriteZeros(const std::string& strPath, size_t nBytes) {
    const std::vector<char> zeros(nBytes, 0);
    std::ofstream out(strPath, std::ios::binary | std::ios::trunc);
    out.write(zeros.data(), static_cast<std::streamsize>(zeros.size()));
    return out.good();
}

int RemoveEntry(const char* szPath, const struct stat*, int, struct FTW*) {
    return remove(szPath);
}

std::string MqName(int nPair) {
    return "/wmbench." + std::to_string(nPair);
}

// ---- this library ---------------------------------------------------------

class WmQueue : public BenchQueue {
public:
    WmQueue(long nSelfUID, long nTargetUID, bool bReceiver, int nDataSize)
        : nSelf(nSelfUID), nTarget(nTargetUID), data(static_cast<size_t>(nDataSize), 'x'),
          buffer(kMaxData) {
        if (wm.nLastError != 0) {
            strError = wm.szErrorMsg;
        } else if (bReceiver && wm.SetInput(nSelf, "ORDER", nullptr, false) != M_OK) {
            strError = wm.szErrorMsg;
        }
    }
    bool Ok() const { return strError.empty(); }

    bool Send() override {
        WorkMsg msg;
        memset(&msg, 0, sizeof(msg));
        msg.nTargetUID = nTarget;
        msg.nDepDataLength = static_cast<long>(data.size());
        msg.pDepData = data.empty() ? nullptr : data.data();
        // M_NOTACT: queued for a target that has not registered yet.
        return Check(wm.Send(nSelf, "ORDER", &msg, false), M_NOTACT);
    }
    bool Receive(bool bWait) override {
        WorkMsg msg;
        memset(&msg, 0, sizeof(msg));
        msg.nDepDataLength = kMaxData;
        msg.pDepData = buffer.data();
        const long nResult = wm.Receive(nSelf, bWait ? 10 : 1, &msg, false, nullptr);
        nLastID = msg.nMessageID;
        return Check(nResult, M_OK);
    }
    bool Delete() override { return Check(wm.Delete(nSelf, nLastID), M_OK); }

private:
    bool Check(long nResult, long nAlsoGood) {
        if (nResult == M_OK || nResult == nAlsoGood) return true;
        strError = "code " + std::to_string(nResult) + ": " + wm.szErrorMsg;
        return false;
    }

    CWorkMessages wm;
    long nSelf;
    long nTarget;
    long nLastID = 0;
    std::vector<char> data;
    std::vector<char> buffer;
};

// ---- the floor ---------------------------------------------------------------

// What each operation of the library cannot avoid: the Controls lock, the
// attach and detach of the two per-call segments (Queues, registry), one
// slot of each touched, and the write-through to the two files with the
// library's system calls. No search, no checks, no IDs.
class FloorQueue : public BenchQueue {
public:
    FloorQueue(const int (&arrIds)[3], const std::string& strDir, int nDataSize)
        : nQueuesId(arrIds[1]), nRegistryId(arrIds[2]), strControl(strDir + "/WQCF.bdb"),
          strData(strDir + "/WDDF.bdb"), nSize(nDataSize), block(kMaxData, 'x'), zeros(kMaxData, 0),
          table(kMaxData, 0), buffer(kMaxData) {
        memset(header, 0, sizeof(header));
        void* p = shmat(arrIds[0], nullptr, 0); // attached for life, like the library's
        if (p == reinterpret_cast<void*>(-1))
            strError = Errno("shmat controls");
        else
            pMutex = static_cast<pthread_mutex_t*>(p);
    }
    ~FloorQueue() override {
        if (pMutex != nullptr) shmdt(pMutex);
    }
    bool Ok() const { return strError.empty(); }

    bool Send() override {
        if (!Begin()) return false;
        volatile ByteInt nSeen = pRegistry[0]; // the target's registration
        (void)nSeen;
        pQueues[0] = 1;
        bool bOk = nSize == 0 || WriteData(block.data());
        bOk = bOk && WriteSlot();
        return End(bOk);
    }
    bool Receive(bool) override {
        if (!Begin()) return false;
        volatile ByteInt nSeen = pRegistry[0];
        (void)nSeen;
        bool bOk = nSize == 0 || ReadData();
        pQueues[0] = 2;
        bOk = bOk && WriteSlot();
        return End(bOk);
    }
    bool Delete() override {
        if (!Begin()) return false;
        bool bOk = nSize == 0 || WriteData(zeros.data());
        memset(pQueues, 0, kSlot);
        bOk = bOk && WriteSlot();
        return End(bOk);
    }

private:
    bool Begin() {
        while (pthread_mutex_trylock(pMutex) != 0)
            sched_yield();
        void* pQ = shmat(nQueuesId, nullptr, 0);
        void* pR = shmat(nRegistryId, nullptr, 0);
        if (pQ == reinterpret_cast<void*>(-1) || pR == reinterpret_cast<void*>(-1)) {
            strError = Errno("shmat");
            if (pQ != reinterpret_cast<void*>(-1)) shmdt(pQ);
            if (pR != reinterpret_cast<void*>(-1)) shmdt(pR);
            pthread_mutex_unlock(pMutex);
            return false;
        }
        pQueues = static_cast<ByteInt*>(pQ);
        pRegistry = static_cast<ByteInt*>(pR);
        return true;
    }
    bool End(bool bOk) {
        pthread_mutex_unlock(pMutex);
        shmdt(pQueues);
        shmdt(pRegistry);
        return bOk;
    }
    // open, 64-byte header write, 64-byte slot write (both positioned), close.
    bool WriteSlot() {
        const int fd = open(strControl.c_str(), O_RDWR);
        if (fd < 0) return Fail("open control file");
        const bool bOk = pwrite(fd, header, kSlot, 0) == static_cast<ssize_t>(kSlot) &&
                         pwrite(fd, pQueues, kSlot, kSlot) == static_cast<ssize_t>(kSlot);
        close(fd);
        return bOk || Fail("write control file");
    }
    // open, 8192-byte block write, 8192-byte slot table write (positioned), close.
    bool WriteData(const char* pBlock) {
        const int fd = open(strData.c_str(), O_RDWR);
        if (fd < 0) return Fail("open data file");
        const bool bOk = pwrite(fd, pBlock, kMaxData, kMaxData) == kMaxData &&
                         pwrite(fd, table.data(), kMaxData, 0) == kMaxData;
        close(fd);
        return bOk || Fail("write data file");
    }
    // open, positioned 8192-byte read, close.
    bool ReadData() {
        const int fd = open(strData.c_str(), O_RDWR);
        if (fd < 0) return Fail("open data file");
        const bool bOk = pread(fd, buffer.data(), kMaxData, kMaxData) == kMaxData;
        close(fd);
        return bOk || Fail("read data file");
    }
    bool Fail(const char* szWhat) {
        strError = Errno(szWhat);
        return false;
    }

    int nQueuesId;
    int nRegistryId;
    std::string strControl;
    std::string strData;
    int nSize;
    pthread_mutex_t* pMutex = nullptr;
    ByteInt* pQueues = nullptr;
    ByteInt* pRegistry = nullptr;
    char header[kSlot];
    std::vector<char> block;
    std::vector<char> zeros;
    std::vector<char> table;
    std::vector<char> buffer;
};

// ---- SQLite ------------------------------------------------------------------

const char kSqliteSchema[] = "PRAGMA journal_mode=WAL;"
                             "CREATE TABLE IF NOT EXISTS queue(id INTEGER PRIMARY KEY,"
                             " target INTEGER NOT NULL, sender INTEGER NOT NULL,"
                             " type INTEGER NOT NULL, state INTEGER NOT NULL,"
                             " sent INTEGER NOT NULL, posted INTEGER, data BLOB);"
                             "CREATE INDEX IF NOT EXISTS queue_target ON queue(target, id);";

class SqliteQueue : public BenchQueue {
public:
    SqliteQueue(const std::string& strPath, long nSelfUID, long nTargetUID, int nDataSize)
        : nSelf(nSelfUID), nTarget(nTargetUID), data(static_cast<size_t>(nDataSize), 'x'),
          buffer(kMaxData) {
        if (sqlite3_open_v2(strPath.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
            sqlite3_exec(db, "PRAGMA synchronous=NORMAL;", nullptr, nullptr, nullptr) !=
                SQLITE_OK ||
            sqlite3_busy_timeout(db, 10000) != SQLITE_OK ||
            !Prepare("INSERT INTO queue(target, sender, type, state, sent, data)"
                     " VALUES(?1, ?2, 1, 1, ?3, ?4)",
                     &pInsert) ||
            // The oldest pending message of the target, marked received, in
            // one statement and so in one transaction.
            !Prepare("UPDATE queue SET state = 2, posted = ?1 WHERE id ="
                     " (SELECT id FROM queue WHERE target = ?2 AND state = 1"
                     " ORDER BY id LIMIT 1) RETURNING id, sender, type, sent, data",
                     &pReceive) ||
            !Prepare("DELETE FROM queue WHERE id = ?1", &pDelete))
            Fail();
    }
    ~SqliteQueue() override {
        sqlite3_finalize(pInsert);
        sqlite3_finalize(pReceive);
        sqlite3_finalize(pDelete);
        sqlite3_close(db);
    }
    bool Ok() const { return strError.empty(); }

    bool Send() override {
        sqlite3_bind_int64(pInsert, 1, nTarget);
        sqlite3_bind_int64(pInsert, 2, nSelf);
        sqlite3_bind_int64(pInsert, 3, time(nullptr));
        if (data.empty())
            sqlite3_bind_null(pInsert, 4);
        else
            sqlite3_bind_blob(pInsert, 4, data.data(), static_cast<int>(data.size()),
                              SQLITE_STATIC);
        return Step(pInsert, false);
    }
    bool Receive(bool bWait) override {
        // SQLite has no waiting receiver: a waiting caller polls.
        const double tEnd = Now() + 10;
        for (;;) {
            sqlite3_bind_int64(pReceive, 1, time(nullptr));
            sqlite3_bind_int64(pReceive, 2, nSelf);
            const int rc = sqlite3_step(pReceive);
            if (rc == SQLITE_ROW) {
                nLastID = sqlite3_column_int64(pReceive, 0);
                const int nBytes = sqlite3_column_bytes(pReceive, 4);
                if (nBytes > 0) memcpy(buffer.data(), sqlite3_column_blob(pReceive, 4), nBytes);
                return Step(pReceive, false); // finishes the statement: commit
            }
            sqlite3_reset(pReceive);
            if (rc != SQLITE_DONE) return Fail();
            if (!bWait || Now() > tEnd) {
                strError = "no message waiting";
                return false;
            }
            usleep(1000);
        }
    }
    bool Delete() override {
        sqlite3_bind_int64(pDelete, 1, nLastID);
        return Step(pDelete, false);
    }

private:
    bool Prepare(const char* szSql, sqlite3_stmt** ppStmt) {
        return sqlite3_prepare_v3(db, szSql, -1, SQLITE_PREPARE_PERSISTENT, ppStmt, nullptr) ==
               SQLITE_OK;
    }
    bool Step(sqlite3_stmt* pStmt, bool) {
        const int rc = sqlite3_step(pStmt);
        sqlite3_reset(pStmt);
        return rc == SQLITE_DONE || Fail();
    }
    bool Fail() {
        strError = std::string("SQLite: ") + (db ? sqlite3_errmsg(db) : "cannot open");
        return false;
    }

    sqlite3* db = nullptr;
    sqlite3_stmt* pInsert = nullptr;
    sqlite3_stmt* pReceive = nullptr;
    sqlite3_stmt* pDelete = nullptr;
    long nSelf;
    long nTarget;
    sqlite3_int64 nLastID = 0;
    std::vector<char> data;
    std::vector<char> buffer;
};

// ---- POSIX message queues --------------------------------------------------------

class MqQueue : public BenchQueue {
public:
    MqQueue(int nPair, int nDataSize)
        : nSize(static_cast<size_t>(nDataSize)), data(kMaxData, 'x'), buffer(kMaxData) {
        mq_attr attr;
        memset(&attr, 0, sizeof(attr));
        attr.mq_maxmsg = 10;        // the default limit of msg_max
        attr.mq_msgsize = kMaxData; // the default limit of msgsize_max
        mq = mq_open(MqName(nPair).c_str(), O_RDWR | O_CREAT, 0600, &attr);
        if (mq == static_cast<mqd_t>(-1)) strError = Errno("mq_open");
    }
    ~MqQueue() override {
        if (mq != static_cast<mqd_t>(-1)) mq_close(mq);
    }
    bool Ok() const { return strError.empty(); }

    bool Send() override { return mq_send(mq, data.data(), nSize, 0) == 0 || Fail("mq_send"); }
    // Blocks until a message is there; with one waiting it returns at once.
    bool Receive(bool) override {
        return mq_receive(mq, buffer.data(), buffer.size(), nullptr) >= 0 || Fail("mq_receive");
    }
    bool Delete() override { return true; }
    bool HasDelete() const override { return false; }

private:
    bool Fail(const char* szWhat) {
        strError = Errno(szWhat);
        return false;
    }
    mqd_t mq = static_cast<mqd_t>(-1);
    size_t nSize;
    std::vector<char> data;
    std::vector<char> buffer;
};

template <class Q> std::unique_ptr<BenchQueue> Checked(std::unique_ptr<Q> q, std::string& strErr) {
    if (!q->Ok()) {
        strErr = q->Error();
        return nullptr;
    }
    return q;
}

} // namespace

// ---- the sandbox -------------------------------------------------------------------

Sandbox::Sandbox(Kind k, int nDataSize, long nQueued)
    : kind(k), nSize(nDataSize), nOwner(getpid()) {
    // A namespace of its own: the fixed keys of the library, the floor's
    // segments and the mq names meet nothing of the host or of another
    // benchmark.
    if (unshare(CLONE_NEWIPC) != 0) {
        strError = Errno("unshare(CLONE_NEWIPC) (the benchmarks run as root)");
        return;
    }
    MakeTree();
    if (!Ok()) return;
    if (kind == Kind::Floor) MakeFloor();
    if (kind == Kind::Sqlite) MakeSqlite(nQueued);
    if (IsLibrary(kind) && nQueued > 0) PreloadControlFile(nQueued);
}

Sandbox::~Sandbox() {
    if (getpid() != nOwner) return;
    for (int nId : arrFloorIds)
        if (nId >= 0) shmctl(nId, IPC_RMID, nullptr);
    for (int i = 0; i < 4; ++i)
        mq_unlink(MqName(i).c_str());
    if (!strRoot.empty()) nftw(strRoot.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void Sandbox::MakeTree() {
    const char* szTmp = getenv("TMPDIR");
    std::string strTemplate = std::string(szTmp && *szTmp ? szTmp : "/tmp") + "/wmbench.XXXXXX";
    std::vector<char> name(strTemplate.begin(), strTemplate.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
        strError = Errno("mkdtemp");
        return;
    }
    strRoot = name.data();
    strDbDir = strRoot + "/Dev/data/msgq";
    for (const char* szDir : {"/Dev", "/Dev/control", "/Dev/control/appconf", "/Dev/data",
                              "/Dev/data/msgq", "/Dev/data/rmsgq"})
        mkdir((strRoot + szDir).c_str(), 0775);

    std::string strUIDs = "NAME=SENDER,ID=101,MSGID=Y,DESC=Sender\n"
                          "NAME=RECEIVER,ID=102,MSGID=Y,DESC=Receiver\n";
    for (int i = 0; i < 4; ++i) {
        strUIDs += "NAME=S" + std::to_string(i) + ",ID=" + std::to_string(kPairSender + i) +
                   ",MSGID=Y,DESC=Pair sender\n";
        strUIDs += "NAME=R" + std::to_string(i) + ",ID=" + std::to_string(kPairReceiver + i) +
                   ",MSGID=Y,DESC=Pair receiver\n";
    }
    // Each library kind turns on its one key (fast: all of them).
    const char* szSetting = kind == Kind::WmKeep     ? "WM_KeepAttached=true\n"
                            : kind == Kind::WmFiles  ? "WM_KeepFilesOpen=true\n"
                            : kind == Kind::WmWake   ? "WM_WakeReceivers=true\n"
                            : kind == Kind::WmLock   ? "WM_BlockingLock=true\n"
                            : kind == Kind::WmFast   ? "WM_FastPath=true\n"
                            : kind == Kind::WmRobust ? "WM_RecoverDeadOwner=true\n"
                                                     : "";
    const std::string strConf = "[Global]\nLevel=Dev\nRoot=" + strRoot +
                                "\n[Dev]\nWM_Timeout_Secs=10\nWM_DBPath=" + strDbDir + "\n" +
                                szSetting;
    if (!WriteText(strRoot + "/Dev/control/appconf/WorkMsg.ini",
                   "NAME=ORDER,ID=1,DESC=Order\nNAME=OTHER,ID=2,DESC=Other\n") ||
        !WriteText(strRoot + "/Dev/control/appconf/ProcessUID.ini", strUIDs) ||
        !WriteText(strRoot + "/gdda.conf", strConf)) {
        strError = "cannot write the configuration under " + strRoot;
        return;
    }
    setenv("GDDA_CONFIG", (strRoot + "/gdda.conf").c_str(), 1);
}

void Sandbox::MakeFloor() {
    const size_t arrSizes[3] = {4096, kQueuesBytes, kRegistryBytes};
    for (int i = 0; i < 3; ++i) {
        arrFloorIds[i] = shmget(IPC_PRIVATE, arrSizes[i], kShmCreate);
        if (arrFloorIds[i] < 0) {
            strError = Errno("shmget");
            return;
        }
    }
    void* p = shmat(arrFloorIds[0], nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) {
        strError = Errno("shmat");
        return;
    }
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(static_cast<pthread_mutex_t*>(p), &attr);
    pthread_mutexattr_destroy(&attr);
    shmdt(p);
    // The library's file sizes with one message: header and 512 slots; the
    // slot table and one data block.
    if (!WriteZeros(strDbDir + "/WQCF.bdb", kSlot + kQueuesBytes) ||
        !WriteZeros(strDbDir + "/WDDF.bdb", 2 * kMaxData))
        strError = "cannot write the floor's files";
}

void Sandbox::MakeSqlite(long nQueued) {
    sqlite3* db = nullptr;
    const std::string strPath = strDbDir + "/queue.db";
    bool bOk = sqlite3_open_v2(strPath.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                               nullptr) == SQLITE_OK &&
               sqlite3_exec(db, kSqliteSchema, nullptr, nullptr, nullptr) == SQLITE_OK;
    if (bOk && nQueued > 0) {
        sqlite3_stmt* pStmt = nullptr;
        bOk = sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK &&
              sqlite3_prepare_v2(db,
                                 "INSERT INTO queue(target, sender, type, state, sent)"
                                 " VALUES(?1, 101, 1, 1, ?2)",
                                 -1, &pStmt, nullptr) == SQLITE_OK;
        for (long i = 0; bOk && i < nQueued; ++i) {
            sqlite3_bind_int64(pStmt, 1, kOtherTarget + i % 100);
            sqlite3_bind_int64(pStmt, 2, time(nullptr));
            bOk = sqlite3_step(pStmt) == SQLITE_DONE;
            sqlite3_reset(pStmt);
        }
        sqlite3_finalize(pStmt);
        bOk = bOk && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    if (!bOk) strError = std::string("SQLite setup: ") + (db ? sqlite3_errmsg(db) : "no db");
    sqlite3_close(db);
}

// Messages for other targets written straight into a new control file, as a
// restart would find them: the first constructor loads them into a table
// grown to hold them (the next multiple of 128 slots above their count).
void Sandbox::PreloadControlFile(long nQueued) {
    const int32_t nFirstID = 0x40000000;
    std::vector<_WQCF_> records(static_cast<size_t>(nQueued));
    memset(static_cast<void*>(records.data()), 0, records.size() * sizeof(_WQCF_));
    for (long i = 0; i < nQueued; ++i) {
        _WQCF_& rec = records[static_cast<size_t>(i)];
        rec.nflag = WQCF_Pending;
        rec.nMessageID = nFirstID + static_cast<int32_t>(i);
        rec.nTargetUID = static_cast<int32_t>(kOtherTarget + i % 100);
        rec.nSenderUID = static_cast<int32_t>(kSender);
        rec.nMsgNo = 1;
        rec.nTimeSent = static_cast<int32_t>(time(nullptr));
        rec.nDepDataSlot = -1;
    }
    _WQCF_CTL_ header;
    memset(&header, 0, sizeof(header));
    header.nEntriesAllocated = static_cast<int32_t>(nQueued);
    header.nCurrentMsgID = nFirstID + static_cast<int32_t>(nQueued);
    std::ofstream out(strDbDir + "/WQCF.bdb", std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(&header), sizeof(header));
    out.write(reinterpret_cast<const char*>(records.data()),
              static_cast<std::streamsize>(records.size() * sizeof(_WQCF_)));
    if (!out.good()) strError = "cannot write the preloaded control file";
}

std::unique_ptr<BenchQueue> Sandbox::Open(long nSelf, long nTarget, bool bReceiver, int nPair) {
    switch (kind) {
    case Kind::Wm:
    case Kind::WmKeep:
    case Kind::WmRobust:
    case Kind::WmFiles:
    case Kind::WmWake:
    case Kind::WmLock:
    case Kind::WmFast:
        return Checked(std::make_unique<WmQueue>(nSelf, nTarget, bReceiver, nSize), strError);
    case Kind::Floor:
        return Checked(std::make_unique<FloorQueue>(arrFloorIds, strDbDir, nSize), strError);
    case Kind::Sqlite:
        return Checked(std::make_unique<SqliteQueue>(strDbDir + "/queue.db", nSelf, nTarget, nSize),
                       strError);
    case Kind::Mq:
        return Checked(std::make_unique<MqQueue>(nPair, nSize), strError);
    }
    return nullptr;
}

} // namespace wmbench
