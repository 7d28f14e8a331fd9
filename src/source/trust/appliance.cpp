#include "source/trust/appliance.h"

#include "source/list/feature_list.h"
#include "source/list/list_text.h"
#include "source/list/whole_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t nMaxFile = 16384; // bytes

std::string hostName() {
    char name[HOST_NAME_MAX + 1] = {};
    ::gethostname(name, HOST_NAME_MAX);
    const std::string whole(name);
    return whole.substr(0, whole.find('.'));
}

std::string_view stripped(std::string_view line) {
    constexpr char blanks[] = " \t\r";
    line = line.substr(0, line.find('#'));
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    return line.substr(0, line.find_last_not_of(blanks) + 1);
}

void readLines(std::string_view text, const std::string& path, SAppliance& appliance) {
    for (uint32_t number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view name = stripped(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (!name.empty() && !isApplianceName(name)) {
            appliance.m_sError =
                fmt::format("{}:{}: '{}' is no name of an appliance or a group", path, number, shown(name));
            return;
        }
        if (appliance.m_sName.empty()) {
            appliance.m_sName = name;
        } else if (!name.empty()) {
            appliance.m_vGroups.emplace_back(name);
        }
    }
    if (appliance.m_sName.empty()) {
        appliance.m_sError = path + ": names no appliance";
    }
}

} // namespace

bool SAppliance::isMeantBy(const std::vector<std::string>& scope) const {
    const auto isOurs = [this](const std::string& name) {
        return name == m_sName || std::ranges::find(m_vGroups, name) != m_vGroups.end();
    };
    return scope.empty() || (m_sError.empty() && std::ranges::any_of(scope, isOurs));
}

std::string SAppliance::text() const {
    return m_vGroups.empty() ? fmt::format("{} (no groups)", m_sName)
                             : fmt::format("{} (groups {})", m_sName, fmt::join(m_vGroups, ", "));
}

// Only where there is certainly no file does the host's name stand for it.
SAppliance readAppliance(const std::string& path) {
    SAppliance appliance;
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 && errno == ENOENT) {
        appliance.m_sName = hostName();
        return appliance;
    }
    const SWholeFile file = readWholeFile(path, nMaxFile);
    if (file.m_sError.empty()) {
        readLines(file.m_sText, path, appliance);
    } else {
        appliance.m_sError = fmt::format("{}: {}", path, file.m_sError);
    }
    return appliance;
}
