// Which appliance this is, and of which groups: what a list's scope is compared with.
#ifndef QEL_SOURCE_APPLIANCE_H
#define QEL_SOURCE_APPLIANCE_H

#include <string>
#include <vector>

// The file has a name in each line: first the appliance's own, then its groups, the one that counts most
// first. Blank lines, and what follows a #, do not count. Where there is no file the appliance is called like
// the host, without its domain, and has no group. Other programs of the appliance go by the same file.
struct SAppliance {
    std::string m_sName;
    std::vector<std::string> m_vGroups;
    std::string m_sError; // not empty: who this is cannot be told, and why; with the file's path

    // An empty scope is everybody's. False where it cannot be told.
    bool isMeantBy(const std::vector<std::string>& scope) const;
    // "berlin-07 (groups berlin, all)"
    std::string text() const;
};

// Throws std::bad_alloc.
[[nodiscard]] SAppliance readAppliance(const std::string& path);

#endif
