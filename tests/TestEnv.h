// Test harness: each test gets its own temporary root (configuration, directory
// files, database) inside the test main's own IPC namespace.
#ifndef WM_TEST_ENV_H
#define WM_TEST_ENV_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "WorkMessages.h"

namespace wmtest {

extern const char* const kDefaultNames; // ORDER=1, INVOICE=2, REPORT=3, ALERT=4
extern const char* const kDefaultUIDs;  // PROCA=101, PROCB=102, PROCC=103

void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);
long FileSize(const std::string& path); // -1 when missing
bool Contains(const std::string& text, const std::string& part);
double Elapsed(std::chrono::steady_clock::time_point t0); // seconds since t0

// Crafted database files. A record from PROCA (101) to PROCB (102) of type ORDER (1).
_WQCF_ SlotRecord(ByteInt state, int32_t id, int32_t dataSlot = -1, int32_t len = 0,
                  int32_t timeSent = 0);
// A control file: the header (count slots, next message ID counter), then
// nRecords records (as many as slots when negative), slots[i] in slot first + i.
std::string ControlFileImage(int32_t count, int32_t counter, const std::vector<_WQCF_>& slots = {},
                             long nRecords = -1, long first = 0);
_WQCF_CTL_ ImageHeader(const std::string& controlImage);
// Record of control slot n of a control file image; 0xEE bytes past its end.
_WQCF_ ImageSlot(const std::string& controlImage, long slot);
// A data file with the given data slots marked and their blocks holding the text.
std::string DataFileImage(const std::vector<std::pair<int, std::string>>& blocks);
bool DataSlotMarked(const std::string& dataImage, int slot);
bool DataBlockZero(const std::string& dataImage, long slot); // also when past the end

// A record for target with len bytes of data (Receive: buffer and capacity).
WorkMsg MsgTo(long target, const void* data = nullptr, long len = 0);
// Sends data between two UIDs, expecting M_OK or M_NOTACT; returns the message ID.
long SendText(CWorkMessages& wm, long from, const char* type, long to, const char* data = "data");

int SegmentId(int key);                                // shm ID under key, or -1
bool SegmentInfo(int key, size_t* size, long* nattch); // false if no segment

// QV_WM_EMULATOR (the i386 build run emulated) or "": put first when exec'ing.
std::string Emulator();

// Runs fn in a forked child; returns its exit code (or 128 + signal).
int RunChild(const std::function<int()>& fn);
pid_t StartChild(const std::function<int()>& fn);
int WaitChild(pid_t pid);

// Captures standard error (the library's log) until Stop().
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture() { Stop(); }
    std::string Stop();

private:
    int nSaved = -1;
    std::string strPath;
};

class WmTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Rewrites the configuration: WM_Timeout_Secs=1, WM_DBPath=dbDir, under
    // QV_WM_TEST_FASTPATH WM_FastPath=true, then the devExtra lines.
    void WriteConfig(const std::string& devExtra = "", bool withDbPath = true);

    // root (Root=) holds gdda.conf (configFile) and Dev, which holds
    // control/appconf (appconfDir: namesFile WorkMsg.ini, uidsFile
    // ProcessUID.ini), data/msgq (dbDir: wqcfFile WQCF.bdb, wddfFile WDDF.bdb)
    // and data/rmsgq (rejectDir).
    std::string root, appconfDir, namesFile, uidsFile;
    std::string dbDir, rejectDir, configFile, wqcfFile, wddfFile;
};

} // namespace wmtest

#endif
