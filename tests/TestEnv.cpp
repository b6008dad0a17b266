#include "TestEnv.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

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
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool FileExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

long FileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

int SegmentId(int key) { return shmget(key, 0, 0666); }

bool SegmentInfo(int key, size_t* size, long* nattch) {
    int id = SegmentId(key);
    if (id < 0) return false;
    struct shmid_ds ds {};
    if (shmctl(id, IPC_STAT, &ds) != 0) return false;
    if (size) *size = ds.shm_segsz;
    if (nattch) *nattch = static_cast<long>(ds.shm_nattch);
    return true;
}

void RemoveSegments() {
    for (int key = 1048; key <= 1053; ++key) {
        int id = SegmentId(key);
        if (id >= 0) shmctl(id, IPC_RMID, nullptr);
    }
}

pid_t StartChild(const std::function<int()>& fn) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int rc = 99;
        rc = fn();
        fflush(nullptr);
        _exit(rc);
    }
    return pid;
}

int WaitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

int RunChild(const std::function<int()>& fn) { return WaitChild(StartChild(fn)); }

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

StderrCapture::~StderrCapture() { Stop(); }

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

static void MakeDirs(const std::string& path) {
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty()) continue;
        cur += "/" + part;
        mkdir(cur.c_str(), 0775);
    }
}

static void RemoveTree(const std::string& path) {
    if (path.size() < 8 || path.find("/qvwm.") == std::string::npos) return;
    std::string cmd = "rm -rf '" + path + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", path.c_str());
}

void WmTest::SetUp() {
    RemoveSegments();
    const char* tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/qvwm.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    ASSERT_NE(mkdtemp(buf.data()), nullptr);
    root = buf.data();
    levelDir = root + "/Dev";
    appconfDir = levelDir + "/control/appconf";
    namesFile = appconfDir + "/WorkMsg.ini";
    uidsFile = appconfDir + "/ProcessUID.ini";
    dbDir = levelDir + "/data/msgq";
    rejectDir = levelDir + "/data/rmsgq";
    configFile = root + "/gdda.conf";
    wqcfFile = dbDir + "/WQCF.bdb";
    wddfFile = dbDir + "/WDDF.bdb";
    MakeDirs(appconfDir);
    MakeDirs(dbDir);
    MakeDirs(rejectDir);
    WriteFile(namesFile, kDefaultNames);
    WriteFile(uidsFile, kDefaultUIDs);
    WriteConfig();
    setenv("GDDA_CONFIG", configFile.c_str(), 1);
}

void WmTest::WriteConfig(const std::string& devExtra, bool withDbPath) {
    std::string conf = "[Global]\nLevel=Dev\nRoot=" + root + "\n[Dev]\nWM_Timeout_Secs=1\n";
    if (withDbPath) conf += "WM_DBPath=" + dbDir + "\n";
    conf += devExtra;
    WriteFile(configFile, conf);
}

void WmTest::TearDown() {
    RemoveSegments();
    if (!HasFailure() || getenv("QV_WM_KEEP_TEST_DIRS") == nullptr) RemoveTree(root);
}

} // namespace wmtest
