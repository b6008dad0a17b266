// Delete, Reject and Retry: the three ways a process ends a message it has
// received, each naming the message by the ID its slot holds.
//
// Delete frees the message's data slot and clears its control slot, both
// written through to the files. Reject first saves the dependent data in a
// file of its own in the reject directory and deletes the message only once
// that file is complete, so a message is never lost without its copy. Retry
// keeps the message and puts it back for a retry receive.
//
// Locks: only the Controls lock is taken here, for the whole operation unless
// the call is nested in one that holds it (Reject's deletion runs nested). It
// guards the control slots, the data slot table and both database files; the
// reject file is written under it too. Because the name lookups of the trace
// lines and the reject file name may move the Queues segment, slots are held
// by index and their fields read into locals before any such call.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "Internal.h"
#include "WorkMessages.h"

namespace {
// Names come from the directory files and may hold "/": each becomes "_" so
// that a reject file always lands in the reject directory itself.
std::string FileNamePart(std::string strName) {
    for (char& c : strName) {
        if (c == '/') c = '_';
    }
    return strName;
}
} // namespace

// Re-attaches the tables and finds the slot of message nMessageID: its index,
// or M_MSGID with the text "Message ID %.8X not found", or the code of the
// re-attachment, whose text explains it.
long CWorkMessages::_FindMessage(long nMessageID) {
    long nSlot = _GetPointers();
    if (nSlot == M_OK) nSlot = _SearchMSGID(nMessageID);
    if (nSlot == M_MSGID)
        snprintf(szErrorMsg, sizeof(szErrorMsg), "Message ID %.8X not found",
                 static_cast<unsigned int>(nMessageID));
    return nSlot;
}

// Frees the data of the message in slot nSlot and clears the slot, both
// written through. The data goes first: if it cannot be freed the message
// stays whole. A free slot reads as zeros, so its data slot field says 0
// without owning data slot 0: only a message in use owns its data slot, and a
// number outside the data store (a damaged slot) is never passed on.
// *pnDataSlot gets the data slot the message held (-1 for none).
long CWorkMessages::_ClearSlot(long nSlot, long* pnDataSlot) {
    *pnDataSlot = pWQCF[nSlot].nflag != WQCF_Available ? pWQCF[nSlot].nDepDataSlot : -1;
    long nResult = M_OK;
    if (qvwm::IsDataSlot(*pnDataSlot))
        nResult = _UpdateWDDF(wddfDELETE, static_cast<int>(*pnDataSlot), 0, nullptr);
    if (nResult != M_OK) return nResult;
    memset(static_cast<void*>(&pWQCF[nSlot]), 0, sizeof(_WQCF_));
    return _UpdateWQCF(nSlot, false);
}

long CWorkMessages::Delete(long nUID, long nMessageID) {
    _RecordCaller();
    _TraceEntry("Delete");
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return _Return(M_LOCK);
    if (bTrace) {
        const std::string strFrom = nUID == 0 ? std::string("Any") : _ProcessName(nUID);
        _Trace("Delete request from %s. MsgID: %.08X", strFrom.c_str(),
               static_cast<unsigned int>(nMessageID));
    }

    const long nSlot = _FindMessage(nMessageID);
    long nResult = nSlot < 0 ? nSlot : 0L;
    long nDataSlot = -1;
    if (nResult == M_OK) nResult = _ClearSlot(nSlot, &nDataSlot);
    if (nResult == M_OK)
        _Trace("Delete request completed. MsgID: %.08X, Ctl slot:%ld, Data slot:%ld",
               static_cast<unsigned int>(nMessageID), nSlot, nDataSlot);

    if (!bInternalCall) _FreeControlsLock(true);
    return _Return(nResult);
}

long CWorkMessages::Reject(long nUID, long nMessageID) {
    _RecordCaller();
    _TraceEntry("Reject");
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return _Return(M_LOCK);
    if (bTrace)
        _Trace("Reject request from %s. MsgID: %.08X", _ProcessName(nUID).c_str(),
               static_cast<unsigned int>(nMessageID));

    const long nSlot = _FindMessage(nMessageID);
    long nResult = nSlot < 0 ? nSlot : 0L;

    long nDataSlot = -1;
    if (nResult == M_OK) {
        // Read before the name lookups, which may move the table.
        const long nMsgNo = pWQCF[nSlot].nMsgNo;
        nDataSlot = pWQCF[nSlot].nDepDataSlot;

        char szWhen[32] = "";
        const time_t tNow = time(nullptr);
        struct tm tmNow;
        if (localtime_r(&tNow, &tmNow) != nullptr)
            strftime(szWhen, sizeof(szWhen), ".%y%m%d_%H%M%S.", &tmNow);
        const std::string strFile = strRMSGQdir + FileNamePart(_ProcessName(nUID)) + "." +
                                    FileNamePart(_TypeName(nMsgNo)) + szWhen +
                                    std::to_string(nMessageID);

        // A message without dependent data is saved as 8192 zero bytes, so
        // that every reject file has the one size and layout.
        static const ByteInt kNoData[WM_MAX_DEPDATA] = {};
        pByteInt pRead = nullptr;
        if (qvwm::IsDataSlot(nDataSlot)) {
            pRead = _ReadWDDF(static_cast<int>(nDataSlot));
            if (pRead == nullptr) nResult = nLastError;
        }
        auto freeRead = qvwm::OnScopeExit([pRead] { free(pRead); });
        // pREJECTFile is null again whatever way Reject leaves.
        auto closeFile = qvwm::OnScopeExit([this] { _CloseFile(&pREJECTFile); });

        if (nResult == M_OK) {
            pREJECTFile = qvwm::OpenDbFile(strFile.c_str(), "w");
            if (pREJECTFile == nullptr) {
                _Failedf(M_SYSERR, -1, "Failed to open new Reject file: %s", strFile.c_str());
                nResult = M_SYSERR;
            }
        }
        if (nResult == M_OK) {
            // A short copy is no copy: the partial file is removed and the
            // message kept, as when the file cannot be created.
            const void* pData = pRead != nullptr ? pRead : kNoData;
            const bool bWritten = fwrite(pData, 1, WM_MAX_DEPDATA, pREJECTFile) == WM_MAX_DEPDATA;
            int nErr = errno;
            const bool bClosed = fclose(pREJECTFile) == 0;
            if (bWritten && !bClosed) nErr = errno;
            pREJECTFile = nullptr;
            if (!bWritten || !bClosed) {
                unlink(strFile.c_str());
                _Failedf(M_SYSERR, nErr, "Failed to write Reject file: %s", strFile.c_str());
                nResult = M_SYSERR;
            }
        }
        if (nResult == M_OK) {
            // The file is complete; a failed deletion is still passed on with
            // its own code and text: the message is still queued, and the
            // caller must know that before it rejects it again.
            const bool bSaved = bInternalCall;
            bInternalCall = true;
            nResult = Delete(nUID, nMessageID);
            bInternalCall = bSaved;
        }
    }
    if (nResult == M_OK)
        _Trace("Reject request completed. Ctl slot:%ld, Data slot:%ld", nSlot, nDataSlot);

    if (!bInternalCall) _FreeControlsLock(true);
    return _Return(nResult);
}

long CWorkMessages::Retry(long nUID, long nMessageID, bool bDelay, ByteInt nUserFlags) {
    _RecordCaller();
    _TraceEntry("Retry");
    if (!bInternalCall && !_GetControlsLock(nLockTimeOut)) return _Return(M_LOCK);
    if (bTrace)
        _Trace("Retry request from %s. MsgID: %.08X", _ProcessName(nUID).c_str(),
               static_cast<unsigned int>(nMessageID));

    const long nSlot = _FindMessage(nMessageID);
    long nResult = nSlot < 0 ? nSlot : 0L;
    if (nResult == M_OK) {
        _WQCF_& slot = pWQCF[nSlot];
        slot.nflag = bDelay ? WQCF_Delayed_Retry : WQCF_Retry;
        slot.nUserFlags = nUserFlags;
        nResult = _UpdateWQCF(nSlot, false);
        if (nResult == M_OK) _Trace("Retry request completed. Ctl slot:%ld", nSlot);
    }

    if (!bInternalCall) _FreeControlsLock(true);
    return _Return(nResult);
}
