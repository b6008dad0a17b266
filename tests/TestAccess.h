// Reaches the private members of CWorkMessages from tests. The class is a
// friend of CWorkMessages; add forwarders here as tests need them.
#ifndef WM_TEST_ACCESS_H
#define WM_TEST_ACCESS_H

#include "WorkMessages.h"

class CWorkMessagesTestAccess {
public:
    explicit CWorkMessagesTestAccess(CWorkMessages& obj) : o(obj) {}

    // Members.
    pSMControls& Controls() { return o.pSMCtlrs; }
    pWQControl& Queues() { return o.pWQCF; }
    pPRLlist& PRLs() { return o.pPRLL; }
    pByteInt& SAT() { return o.pDDSAT; }
    pWMNames& Names() { return o.arrNamesLocal; }
    pUIDlist& UIDs() { return o.arrUIDs; }
    int& NamesCount() { return o.nNamesCount; }
    int& UIDsCount() { return o.nUIDsCount; }
    bool& InternalCall() { return o.bInternalCall; }
    bool& HoldingConstructorLock() { return o.bHoldingConstructorLock; }
    bool& Trace() { return o.bTrace; }
    bool& KeepAttached() { return o.bKeepAttached; }
    FILE*& LockFile() { return o.pLOCKFile; }
    FILE*& ControlFile() { return o.pWQCFile; }
    FILE*& DataFile() { return o.pWDDFile; }
    time_t& AcquiredMutex() { return o.tAcquiredMutex; }
    int& WhineCount() { return o.nWhineCount; }
    long& LockTimeOut() { return o.nLockTimeOut; }
    pid_t& CallerTID() { return o.callerTID; }
    pid_t& CallerPID() { return o.callerPID; }
    long CallbackCount() { return o.nCallbackCount.load(); }
    const std::string& DBPath() { return o.strDBPath; }
    uid_t FileUID() { return o.nUID; }
    gid_t FileGID() { return o.nGID; }

    // Frame and locks.
    void RecordCaller() { o._RecordCaller(); }
    void Failed(long code, const char* seg, int err) { o._Failed(code, seg, err); }
    long Return(long code) { return o._Return(code); }
    bool GetConstructorLock(long wait) { return o._GetConstructorLock(wait); }
    bool GetControlsLock(long wait) { return o._GetControlsLock(wait); }
    void FreeControlsLock(bool complain) { o._FreeControlsLock(complain); }
    pid_t LockOwner() { return o._LockOwner(); }
    long WaitStep(long usecs, int32_t seenSeq) { return o._WaitStep(usecs, seenSeq); }
    int32_t WakeSeq() { return o._WakeSeq(); }

    // Directory.
    bool LoadNames(const std::string& path) { return o._LoadNames(path); }
    bool LoadUIDs(const std::string& path) { return o._LoadUIDs(path); }

    // Storage.
    long GetPointers() { return o._GetPointers(); }
    long GetWQCFSlot() { return o._GetWQCFSlot(); }
    long UpdateWQCF(long slot, bool clean) { return o._UpdateWQCF(slot, clean); }
    long GetWDDFSlot() { return o._GetWDDFSlot(); }
    long UpdateWDDF(int fn, int slot, int len, const void* data) {
        return o._UpdateWDDF(fn, slot, len, data);
    }
    pByteInt ReadWDDF(int slot) { return o._ReadWDDF(slot); }
    _PRL_CTL_* SearchPRL(long uid, long msgno) { return o._SearchPRL(uid, msgno); }
    long KnownRequest(long uid, long id, pid_t pid) { return o._KnownRequest(uid, id, pid); }
    long SearchMSGID(long id) { return o._SearchMSGID(id); }

    // Slot repair (protected).
    long DeleteSlot(long slot) { return o.__DeleteSlot(slot); }
    long ModifySlot(long slot, long state, long id, long uid, bool target) {
        return o.__ModifySlot(slot, state, id, uid, target);
    }

private:
    CWorkMessages& o;
};

#endif
