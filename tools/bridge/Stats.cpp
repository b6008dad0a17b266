// The stats file of the bridge: written by wmbridge, read by wmctl.
//
// The format is a line per value, `key=value`; a bridged process is a line
// `bridged=<name> <uid> <host>`. The writer replaces the file by rename, so
// a reader never meets a partial file; a reader skips what it does not know.
#include "BridgeStats.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace wmbridge {

const char* const kStatsFile = "wmbridge.stats";

bool WriteStats(const std::string& strDbPath, const BridgeStatus& st) {
    const std::string strPath = strDbPath + "/" + kStatsFile;
    const std::string strTemp = strPath + ".tmp";
    std::ostringstream out;
    out << "pid=" << st.nPid << "\nhost=" << st.strHost << "\nupdated=" << st.nUpdated
        << "\npublished=" << st.nPublished << "\ndelivered=" << st.nDelivered
        << "\nredelivered=" << st.nRedelivered << "\nduplicates_dropped=" << st.nDuplicates
        << "\nconsumer_lag=" << st.nLag << "\n";
    for (const BridgedProcess& p : st.bridged)
        out << "bridged=" << p.strName << " " << p.nUID << " " << p.strHost << "\n";
    const std::string strText = out.str();

    FILE* fp = fopen(strTemp.c_str(), "w");
    if (fp == nullptr) return false;
    const bool bWritten = fwrite(strText.data(), 1, strText.size(), fp) == strText.size();
    const int nWriteErr = errno;
    if (fclose(fp) != 0 || !bWritten) {
        if (!bWritten) errno = nWriteErr;
        unlink(strTemp.c_str());
        return false;
    }
    return rename(strTemp.c_str(), strPath.c_str()) == 0;
}

bool ReadStats(const std::string& strDbPath, BridgeStatus* p) {
    std::ifstream in(strDbPath + "/" + kStatsFile);
    if (!in) return false;
    *p = BridgeStatus();
    std::string strLine;
    while (std::getline(in, strLine)) {
        const size_t nEq = strLine.find('=');
        if (nEq == std::string::npos) continue;
        const std::string strKey = strLine.substr(0, nEq);
        const std::string strValue = strLine.substr(nEq + 1);
        const unsigned long long nValue = strtoull(strValue.c_str(), nullptr, 10);
        if (strKey == "pid")
            p->nPid = static_cast<long>(nValue);
        else if (strKey == "host")
            p->strHost = strValue;
        else if (strKey == "updated")
            p->nUpdated = static_cast<long long>(nValue);
        else if (strKey == "published")
            p->nPublished = nValue;
        else if (strKey == "delivered")
            p->nDelivered = nValue;
        else if (strKey == "redelivered")
            p->nRedelivered = nValue;
        else if (strKey == "duplicates_dropped")
            p->nDuplicates = nValue;
        else if (strKey == "consumer_lag")
            p->nLag = nValue;
        else if (strKey == "bridged") {
            BridgedProcess b;
            std::istringstream fields(strValue);
            if (fields >> b.strName >> b.nUID >> b.strHost) p->bridged.push_back(b);
        }
    }
    return true;
}

void Snapshot(const Counters& c, BridgeStatus* p) {
    p->nPublished = c.nPublished.load();
    p->nDelivered = c.nDelivered.load();
    p->nRedelivered = c.nRedelivered.load();
    p->nDuplicates = c.nDuplicates.load();
    p->nLag = c.nLag.load();
}

} // namespace wmbridge
