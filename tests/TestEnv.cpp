// The harness of TestEnv.h: the per-test root and configuration, crafted
// file images, children, and the capture of the library's log.
#include "TestEnv.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace wmtest {

const char* const kDefaultNames = "# message types\n"
                                  "NAME=ORDER,ID=1,DESC=Customer order\n"
                                  "NAME=INVOICE,ID=2,DESC=Invoice\n"
                                  "NAME=REPORT,ID=3,DESC=Report\n"
                                  "NAME=ALERT,ID=4,DESC=Alert\n";
const char* const kDefaultUIDs = "# processes\n"
                                 "NAME=PROCA,ID=101,MSGID=Y,DESC=Process A\n"
                                 "NAME=PROCB,ID=102,MSGID=N,DESC=Process B\n"
                                 "NAME=PROCC,ID=103,MSGID=Y,DESC=Process C\n";

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool FileExists(const std::string& path) {
    return std::filesystem::exists(path);
}

long FileSize(const std::string& path) {
    std::error_code ec;
    const auto n = std::filesystem::file_size(path, ec);
    return ec ? -1 : static_cast<long>(n);
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

double Elapsed(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

_WQCF_ SlotRecord(ByteInt state, int32_t id, int32_t dataSlot, int32_t len, int32_t timeSent) {
    return _WQCF_{state, 0, 0, 0, id, 102, 101, 1, timeSent, 0, 0, len, dataSlot, 0, 0, {}, {}};
}

std::string ControlFileImage(int32_t count, int32_t counter, const std::vector<_WQCF_>& slots,
                             long nRecords, long first) {
    if (nRecords < 0) nRecords = first + static_cast<long>(slots.size());
    std::string img(static_cast<size_t>(64 * (nRecords + 1)), '\0');
    const _WQCF_CTL_ head{count, counter, {}};
    memcpy(&img[0], &head, sizeof(head));
    for (size_t i = 0; i < slots.size(); ++i)
        memcpy(&img[64 * (first + i + 1)], &slots[i], sizeof(_WQCF_));
    return img;
}

_WQCF_CTL_ ImageHeader(const std::string& img) {
    _WQCF_CTL_ head;
    memset(&head, 0xEE, sizeof(head));
    if (img.size() >= sizeof(head)) memcpy(&head, img.data(), sizeof(head));
    return head;
}

_WQCF_ ImageSlot(const std::string& img, long slot) {
    _WQCF_ rec;
    memset(static_cast<void*>(&rec), 0xEE, sizeof(rec));
    const size_t offset = 64 * static_cast<size_t>(slot + 1);
    if (img.size() >= offset + sizeof(rec)) memcpy(&rec, img.data() + offset, sizeof(rec));
    return rec;
}

std::string DataFileImage(const std::vector<std::pair<int, std::string>>& blocks) {
    int last = -1;
    for (const auto& b : blocks)
        last = std::max(last, b.first);
    std::string img(static_cast<size_t>(8192 * (last + 2)), '\0');
    for (const auto& b : blocks) {
        img[static_cast<size_t>(b.first / 8)] |= static_cast<char>(0x80 >> (b.first % 8));
        img.replace(static_cast<size_t>(8192 * (b.first + 1)), b.second.size(), b.second);
    }
    return img;
}

bool DataSlotMarked(const std::string& img, int slot) {
    const unsigned char byte = static_cast<unsigned char>(img.at(static_cast<size_t>(slot / 8)));
    return (byte & (0x80 >> (slot % 8))) != 0;
}

bool DataBlockZero(const std::string& img, long slot) {
    const size_t offset = 8192 * static_cast<size_t>(slot + 1);
    return img.size() <= offset ||
           img.find_first_not_of('\0', offset) >= std::min(img.size(), offset + 8192);
}

WorkMsg MsgTo(long target, const void* data, long len) {
    return WorkMsg{0, 0, 0, {0}, 0, target, 0, 0, 0, 0, 0, len, const_cast<void*>(data)};
}

long SendText(CWorkMessages& wm, long from, const char* type, long to, const char* data) {
    WorkMsg m = MsgTo(to, data, data ? static_cast<long>(strlen(data)) : 0);
    const long rc = wm.Send(from, type, &m, false);
    EXPECT_TRUE(rc == M_OK || rc == M_NOTACT) << rc << " " << wm.szErrorMsg;
    return m.nMessageID;
}

int SegmentId(int key) {
    return shmget(key, 0, 0666);
}

bool SegmentInfo(int key, size_t* size, long* nattch) {
    int id = SegmentId(key);
    if (id < 0) return false;
    struct shmid_ds ds {};
    if (shmctl(id, IPC_STAT, &ds) != 0) return false;
    if (size) *size = ds.shm_segsz;
    if (nattch) *nattch = static_cast<long>(ds.shm_nattch);
    return true;
}

static void RemoveSegments() { // the library's six keys
    for (int key = 1048; key <= 1053; ++key)
        shmctl(SegmentId(key), IPC_RMID, nullptr); // -1 when none: EINVAL, nothing done
}

pid_t StartChild(const std::function<int()>& fn) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        const int rc = fn();
        fflush(nullptr);
        _exit(rc);
    }
    return pid;
}

int WaitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status)     ? WEXITSTATUS(status)
           : WIFSIGNALED(status) ? 128 + WTERMSIG(status)
                                 : -1;
}

std::string Emulator() {
    const char* emu = getenv("QV_WM_EMULATOR");
    return emu ? emu : "";
}

int RunChild(const std::function<int()>& fn) {
    return WaitChild(StartChild(fn));
}

StderrCapture::StderrCapture() {
    char path[] = "/tmp/qvwm-stderr.XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return;
    strPath = path;
    fflush(stderr);
    nSaved = dup(2);
    dup2(fd, 2);
    close(fd);
}

std::string StderrCapture::Stop() {
    if (nSaved < 0) return std::string();
    fflush(stderr);
    dup2(nSaved, 2);
    close(nSaved);
    nSaved = -1;
    std::string out = ReadFile(strPath);
    unlink(strPath.c_str());
    return out;
}

void WmTest::SetUp() {
    RemoveSegments();
    const char* tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/qvwm.XXXXXX";
    ASSERT_NE(mkdtemp(&tmpl[0]), nullptr);
    root = tmpl;
    const std::string levelDir = root + "/Dev";
    appconfDir = levelDir + "/control/appconf";
    namesFile = appconfDir + "/WorkMsg.ini";
    uidsFile = appconfDir + "/ProcessUID.ini";
    dbDir = levelDir + "/data/msgq";
    rejectDir = levelDir + "/data/rmsgq";
    configFile = root + "/gdda.conf";
    wqcfFile = dbDir + "/WQCF.bdb";
    wddfFile = dbDir + "/WDDF.bdb";
    for (const std::string& dir : {appconfDir, dbDir, rejectDir})
        std::filesystem::create_directories(dir);
    WriteFile(namesFile, kDefaultNames);
    WriteFile(uidsFile, kDefaultUIDs);
    WriteConfig();
    setenv("GDDA_CONFIG", configFile.c_str(), 1);
}

void WmTest::WriteConfig(const std::string& devExtra, bool withDbPath) {
    std::string conf = "[Global]\nLevel=Dev\nRoot=" + root + "\n[Dev]\nWM_Timeout_Secs=1\n";
    if (withDbPath) conf += "WM_DBPath=" + dbDir + "\n";
    // The second run of the suite: every opt-in a test does not set itself.
    if (getenv("QV_WM_TEST_FASTPATH") != nullptr) conf += "WM_FastPath=true\n";
    conf += devExtra;
    WriteFile(configFile, conf);
}

void WmTest::TearDown() {
    RemoveSegments();
    std::error_code ec; // a failed test's files stay on request
    if (!HasFailure() || getenv("QV_WM_KEEP_TEST_DIRS") == nullptr)
        std::filesystem::remove_all(root, ec);
}

} // namespace wmtest
