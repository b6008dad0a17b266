// The bridge's configuration, read as the library reads its own.
//
// The keys come from the GDDA file (GDDA_CONFIG) through the support
// library's CGDDA: `Root` in [Global], the WMB_ keys and WM_DBPath in the
// level's section. Which process lives on which host comes from the hosts
// file `WMBHosts.ini` beside ProcessUID.ini (Root/<level>/control/appconf/),
// a line `NAME=<process>,HOST=<host>` per process; a process it does not
// name lives on every host (it is never bridged). The bridge registers for
// every type of WorkMsg.ini, so it reads the type names from there.
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "Wmctl.h"
#include "Bridge.h"
#include "GPLibrary.h"
#include "WorkMessages.h"

namespace wmbridge {

namespace {

std::string Trimmed(std::string s) {
    int nLen = 0;
    Trim(&s[0], &nLen, s.c_str(), " \t\r");
    s.resize(static_cast<size_t>(nLen));
    return s;
}

// The fields of a directory line "KEY=VALUE,KEY=VALUE", keys upper-cased;
// empty for blank lines and comments (# or ;).
std::map<std::string, std::string> LineFields(const std::string& strLine) {
    std::map<std::string, std::string> fields;
    const size_t nStart = strLine.find_first_not_of(" \t\r");
    if (nStart == std::string::npos || strLine[nStart] == '#' || strLine[nStart] == ';')
        return fields;
    std::string strField;
    std::istringstream in(strLine.substr(nStart));
    while (std::getline(in, strField, ',')) {
        const size_t nEq = strField.find('=');
        if (nEq == std::string::npos) continue;
        std::string strKey = Trimmed(strField.substr(0, nEq));
        const std::string strValue = Trimmed(strField.substr(nEq + 1));
        for (char& ch : strKey)
            ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
        fields[strKey] = strValue;
    }
    return fields;
}

bool ReadLines(const std::string& strPath, std::vector<std::map<std::string, std::string>>* pOut,
               std::string* pError) {
    std::ifstream in(strPath);
    if (!in) {
        *pError = "cannot read " + strPath + ": " + strerror(errno);
        return false;
    }
    std::string strLine;
    while (std::getline(in, strLine)) {
        auto fields = LineFields(strLine);
        if (!fields.empty()) pOut->push_back(std::move(fields));
    }
    return true;
}

} // namespace

bool IsSubjectToken(const std::string& s) {
    if (s.empty()) return false;
    for (char ch : s)
        if (!isalnum(static_cast<unsigned char>(ch)) && ch != '-' && ch != '_') return false;
    return true;
}

std::string SubjectFor(const Config& cfg, const std::string& strHost, long nUID) {
    return cfg.strSubject + "." + strHost + "." + std::to_string(nUID);
}

bool LoadConfig(Config* p, std::string* pError) {
    wmctl::HostPaths paths;
    if (!wmctl::ConfiguredPaths(&paths, pError)) return false;
    p->strDbPath = paths.strDbDir;
    CGDDA gdda(nullptr, false);
    const unsigned char nLvl = paths.nLevel;
    if (!gdda.GetValue("WMB_Host", p->strHost, nLvl, true) || !IsSubjectToken(p->strHost)) {
        *pError = "WMB_Host must name this host (letters, digits, '-', '_')";
        return false;
    }
    std::string strServers;
    if (!gdda.GetValue("WMB_Servers", strServers, nLvl, true)) {
        *pError = "WMB_Servers must list the server URLs, separated by commas";
        return false;
    }
    std::istringstream servers(strServers);
    std::string strUrl;
    while (std::getline(servers, strUrl, ','))
        if (!Trimmed(strUrl).empty()) p->servers.push_back(Trimmed(strUrl));
    if (p->servers.empty()) {
        *pError = "WMB_Servers names no server";
        return false;
    }
    // Optional keys keep their defaults when missing.
    gdda.GetValue("WMB_Stream", p->strStream, nLvl, true);
    gdda.GetValue("WMB_Subject", p->strSubject, nLvl, true);
    gdda.GetValue("WMB_DupWindow", &p->nDupWindowSecs, nLvl, true);
    gdda.GetValue("WMB_Replicas", &p->nReplicas, nLvl, true);
    if (!IsSubjectToken(p->strStream) || !IsSubjectToken(p->strSubject) || p->nDupWindowSecs < 1 ||
        p->nReplicas < 1 || p->nReplicas > 5) {
        *pError = "WMB_Stream and WMB_Subject must be single tokens, WMB_DupWindow at least 1, "
                  "WMB_Replicas 1 to 5";
        return false;
    }
    const std::string strAppconf = paths.strRoot + "/" + paths.strLevel + "/control/appconf/";
    p->strHostsFile = strAppconf + "WMBHosts.ini";
    std::vector<std::map<std::string, std::string>> lines;
    if (!ReadLines(p->strHostsFile, &lines, pError)) return false;
    for (auto& fields : lines) {
        const std::string& strName = fields["NAME"];
        const std::string& strHost = fields["HOST"];
        if (strName.empty() || !IsSubjectToken(strHost)) {
            *pError = p->strHostsFile + ": every line needs NAME=<process>,HOST=<host>";
            return false;
        }
        if (strHost == p->strHost) {
            p->localNames.push_back(strName);
        } else {
            RemoteProcess r;
            r.strName = strName;
            r.strHost = strHost;
            p->remotes.push_back(r);
        }
    }

    lines.clear();
    if (!ReadLines(strAppconf + "WorkMsg.ini", &lines, pError)) return false;
    for (auto& fields : lines)
        if (!fields["NAME"].empty()) p->types.push_back(fields["NAME"]);
    if (p->types.empty()) {
        *pError = strAppconf + "WorkMsg.ini names no message type";
        return false;
    }
    return true;
}

bool ResolveRemotes(Config* p, CWorkMessages& wm, std::string* pError) {
    for (RemoteProcess& r : p->remotes) {
        r.nUID = wm.GetUID(r.strName.c_str(), nullptr);
        if (r.nUID <= 0) {
            *pError =
                "process " + r.strName + " of " + p->strHostsFile + " is not in ProcessUID.ini";
            return false;
        }
    }
    return true;
}

} // namespace wmbridge
