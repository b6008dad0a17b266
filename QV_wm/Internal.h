// Small helpers shared by the library's files: kernel thread IDs, the
// file-creation mask, scope guards, attachment tests, the shared words of the
// Controls segment and address printing.
#ifndef QV_WM_INTERNAL_H
#define QV_WM_INTERNAL_H

#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace qvwm {

// The calling thread's kernel thread ID: the identity the Controls lock's
// owner word holds.
inline pid_t KernelTid() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// True when the kernel keeps this thread's list of robust locks, so that a
// holder's death hands a robust lock on with EOWNERDEAD. A user-mode
// emulator (an i386 build run through one) refuses the list: there a robust
// lock whose holder died stays held, as any other lock.
inline bool KernelReportsDeadOwners() {
    void* pHead = nullptr;
    size_t nLength = 0;
    return syscall(SYS_get_robust_list, 0, &pHead, &nLength) == 0;
}

// The calling process's ID and thread's kernel thread ID, from a per-thread
// cache that asks the kernel once per thread; a child made by fork asks again,
// so it always records its own IDs (Frame.cpp).
void CallerIds(pid_t* pPid, pid_t* pTid);

// A 32-bit word of shared memory that another process may read or write
// without the Controls lock: every access is one atomic access.
inline int32_t LoadWord(const int32_t& nWord) {
    return __atomic_load_n(&nWord, __ATOMIC_ACQUIRE);
}
inline void StoreWord(int32_t& nWord, int32_t nValue) {
    __atomic_store_n(&nWord, nValue, __ATOMIC_RELEASE);
}

// Sets the file-creation mask for the life of the guard (files the library
// creates get mode 0664) and puts the previous mask back.
class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) : nOld(umask(mask)) {}
    ~UmaskGuard() { umask(nOld); }
    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t nOld;
};

// Runs a callable when the scope ends, unless dismissed.
template <class F> class ScopeExit {
public:
    explicit ScopeExit(F f) : fn(std::move(f)) {}
    ~ScopeExit() {
        if (bActive) fn();
    }
    void Dismiss() { bActive = false; }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    F fn;
    bool bActive = true;
};
template <class F> ScopeExit<F> OnScopeExit(F f) {
    return ScopeExit<F>(std::move(f));
}

// Opens a database file without stdio buffering: each read or write goes
// straight to the file and costs no read-ahead, so the write-through of an
// operation makes exactly the system calls it needs. Only a mode that can
// create the file ("w", "a") sets the mask 002 around the open, so that a
// created file gets mode 0664; opening an existing file leaves the mask alone.
inline FILE* OpenDbFile(const char* szPath, const char* szMode) {
    FILE* fp = nullptr;
    if (szMode[0] == 'w' || szMode[0] == 'a') {
        UmaskGuard mask(002);
        fp = fopen(szPath, szMode);
    } else {
        fp = fopen(szPath, szMode);
    }
    if (fp) setvbuf(fp, nullptr, _IONBF, 0);
    return fp;
}

// Writes nBytes at nOffset of the stream's file in one positioned call (the
// stream is unbuffered, so nothing of it is bypassed); false when fewer bytes
// were written.
inline bool WriteAt(FILE* fp, const void* pData, size_t nBytes, off_t nOffset) {
    return pwrite(fileno(fp), pData, nBytes, nOffset) == static_cast<ssize_t>(nBytes);
}
// Reads up to nBytes at nOffset in one positioned call; false only on an
// error (errno set). A read that meets the end of the file leaves the rest
// of the buffer as it was.
inline bool ReadAt(FILE* fp, void* pData, size_t nBytes, off_t nOffset) {
    return pread(fileno(fp), pData, nBytes, nOffset) >= 0;
}

// shmat's failure value.
inline void* ShmFailed() {
    return reinterpret_cast<void*>(-1);
}
// True when p is a usable attachment (neither null nor shmat's failure value).
inline bool Attached(const void* p) {
    return p != nullptr && p != ShmFailed();
}

// The per-call segments (Queues, PRLs). pUse is the pointer the operations
// work through (pWQCF, pPRLL); pMap is the mapping that _GetPointers made and
// nMapHandle the segment ID it was made for.
//
// Points pUse at a mapping of segment nHandle, reusing pMap when it is that
// segment; *pbFresh is set when a new mapping was made. False (pUse null,
// errno set) when the segment cannot be attached.
template <class T>
bool MapSegment(T*& pUse, T*& pMap, int& nMapHandle, int nHandle, bool* pbFresh) {
    // A mapping made elsewhere (by the constructor, or by this object's own
    // growth of the table) is not reused: it is detached as ever.
    if (Attached(pUse) && pUse != pMap) shmdt(pUse);
    pUse = nullptr;
    if (Attached(pMap)) {
        // A segment that is still attached cannot be destroyed, so while
        // pMap is kept its ID cannot be handed to a new segment: an unchanged
        // handle names the very segment pMap maps.
        if (nMapHandle == nHandle) {
            pUse = pMap;
            return true;
        }
        shmdt(pMap); // replaced by another process: let the old one go
    }
    pMap = nullptr;
    nMapHandle = -1;
    // A handle of 0 was never made (a construction that failed early):
    // whatever segment has that ID is not ours.
    void* p = nHandle == 0 ? ShmFailed() : shmat(nHandle, nullptr, 0);
    if (p == ShmFailed()) {
        if (nHandle == 0) errno = EINVAL;
        return false;
    }
    pUse = pMap = static_cast<T*>(p);
    nMapHandle = nHandle;
    if (pbFresh != nullptr) *pbFresh = true;
    return true;
}

// Ends a call's use of a per-call segment: pUse becomes null. With bKeep the
// mapping pMap stays for the next call (anything else pUse held is
// detached); without it pMap and pUse are both detached.
template <class T> void UnmapSegment(T*& pUse, T*& pMap, int& nMapHandle, bool bKeep) {
    if (Attached(pUse) && (pUse != pMap || !bKeep)) shmdt(pUse);
    if (!bKeep) {
        if (Attached(pMap) && pMap != pUse) shmdt(pMap);
        pMap = nullptr;
        nMapHandle = -1;
    }
    pUse = nullptr;
}

// An address as printed by trace lines with "%.08lX": eight hex digits on
// i386, the full address on 64-bit builds.
inline unsigned long Addr(const void* p) {
    return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p));
}

inline const char* TF(bool b) {
    return b ? "true" : "false";
}

// Number of dependent-data slots: one bit each in the 8192-byte slot table.
const long kDataSlots = 8192L * 8L;

// A data slot number the data store holds. A control slot read from a
// damaged file may hold anything else; such a number is never passed on, so
// no read or write can land outside the data slot table.
inline bool IsDataSlot(long nDataSlot) {
    return nDataSlot >= 0 && nDataSlot < kDataSlots;
}

} // namespace qvwm

#endif
