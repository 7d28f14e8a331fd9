#include "agent/agent_config.h"

#include "source/list/list_paths.h"
#include "source/list/list_text.h"
#include "source/list/toml_parser.h"
#include "source/list/whole_file.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fmt/format.h>
#include <variant>

namespace {

constexpr uint32_t nPortPlain = 1883; // registered with IANA: mqtt
constexpr uint32_t nPortTls = 8883;   // secure-mqtt

enum class EValue { name, text, port };

using CConfigMember = std::variant<std::string SAgentConfig::*, uint32_t SAgentConfig::*>;

// A key of the file. Its table is empty at the top.
struct SConfigField {
    std::string_view m_sTable;
    std::string_view m_sKey;
    CConfigMember m_oMember;
    EValue m_eValue;
    bool m_bRequired; // where its table is there
};

constexpr SConfigField aFields[] = {
    {"", "fleet", &SAgentConfig::m_sFleet, EValue::name, true},
    {"broker", "host", &SAgentConfig::m_sHost, EValue::text, true},
    {"broker", "port", &SAgentConfig::m_nPort, EValue::port, false},
    {"broker", "user", &SAgentConfig::m_sUser, EValue::text, false},
    {"broker", "password_file", &SAgentConfig::m_sPasswordFile, EValue::text, false},
    {"tls", "authority", &SAgentConfig::m_sAuthority, EValue::text, true},
    {"tls", "certificate", &SAgentConfig::m_sCertificate, EValue::text, true},
    {"tls", "key", &SAgentConfig::m_sKey, EValue::text, true},
};

bool isThisHost(std::string_view host) {
    in_addr address{};
    const bool isIpv4 = inet_pton(AF_INET, std::string(host).c_str(), &address) == 1;
    return host == "localhost" || host == "::1" || (isIpv4 && ntohl(address.s_addr) >> 24 == 127);
}

class CConfigCheck {
public:
    SAgentConfig run(std::string_view text) {
        if (const auto bad = findBadByte(text)) {
            error(bad->m_nLine,
                  fmt::format("column {}: byte 0x{:02X} is no UTF-8", bad->m_nColumn, bad->m_nByte));
            return std::move(m_oConfig);
        }
        const toml::parse_result parsed = toml::parse(text);
        if (!parsed) {
            error(parsed.error().source().begin.line,
                  fmt::format("not TOML: {}", shown(parsed.error().description(), 160)));
            return std::move(m_oConfig);
        }
        checkTable(parsed.table(), "", 0);
        checkSection(parsed.table(), "broker", true);
        checkSection(parsed.table(), "tls", false);
        checkWhole(parsed.table());
        std::stable_sort(
            m_oConfig.m_vErrors.begin(), m_oConfig.m_vErrors.end(),
            [](const SListError& one, const SListError& other) { return one.m_nLine < other.m_nLine; });
        return std::move(m_oConfig);
    }

private:
    void error(uint32_t line, std::string text) { m_oConfig.m_vErrors.push_back({line, std::move(text)}); }
    static uint32_t lineOf(const toml::node& value) { return value.source().begin.line; }

    void checkSection(const toml::table& root, std::string_view name, bool isRequired) {
        const toml::node* node = root.get(name);
        if (node == nullptr) {
            if (isRequired) {
                error(0, fmt::format("[{}] is missing", name));
            }
        } else if (const toml::table* table = node->as_table()) {
            checkTable(*table, name, lineOf(*node));
        } else {
            error(lineOf(*node),
                  fmt::format("'{}' must be a table, [{}], not {}", name, name, typeOf(*node)));
        }
    }

    void checkTable(const toml::table& table, std::string_view name, uint32_t line) {
        std::vector<std::string_view> known;
        for (const SConfigField& field : aFields) {
            if (field.m_sTable != name) {
                continue;
            }
            known.push_back(field.m_sKey);
            if (const toml::node* value = table.get(field.m_sKey)) {
                std::visit([&](auto member) { take(*value, field, m_oConfig.*member); }, field.m_oMember);
            } else if (field.m_bRequired) {
                error(line, fmt::format("'{}' is missing", field.m_sKey));
            }
        }
        if (name.empty()) { // the tables, and what has a line of its own
            known.insert(known.end(), {"broker", "tls", "appliance", "groups"});
            refuseElsewhere(table);
        }
        for (const auto& [key, value] : table) {
            if (std::find(known.begin(), known.end(), key.str()) == known.end()) {
                error(lineOf(value),
                      fmt::format("unknown key '{}'{}", shown(key.str()), suggestion(key.str(), known)));
            }
        }
    }

    // What the daemon goes by as well stands in one place for both.
    void refuseElsewhere(const toml::table& table) {
        for (const std::string_view key : {"appliance", "groups"}) {
            if (const toml::node* value = table.get(key)) {
                error(lineOf(*value), fmt::format("'{}' stands in {}, for the daemon too: remove it here",
                                                  key, appliancePath()));
            }
        }
    }

    void refuse(const toml::node& value, const SConfigField& field, std::string_view type) {
        error(lineOf(value), fmt::format("'{}' must be {}, not {}", field.m_sKey, type, typeOf(value)));
    }

    void take(const toml::node& value, const SConfigField& field, std::string& text) {
        const toml::value<std::string>* string = value.as_string();
        if (string == nullptr) {
            refuse(value, field, "a string");
        } else if (isGoodText(*string, field)) {
            text = string->get();
        }
    }

    void take(const toml::node& value, const SConfigField& field, uint32_t& number) {
        const toml::value<int64_t>* integer = value.as_integer();
        if (integer == nullptr) {
            refuse(value, field, "an integer");
        } else if (integer->get() < 1 || integer->get() > 65535) {
            error(lineOf(value), fmt::format("'{}' must be from 1 to 65535", field.m_sKey));
        } else {
            number = static_cast<uint32_t>(integer->get());
        }
    }

    bool isGoodText(const toml::value<std::string>& value, const SConfigField& field) {
        const std::string& text = value.get();
        if (field.m_eValue == EValue::name && !isApplianceName(text)) {
            error(lineOf(value),
                  fmt::format("'{}': '{}' is no name: 1 to {} letters, digits, '.', '-', '_', the first "
                              "a letter or digit",
                              field.m_sKey, shown(text), nMaxApplianceName));
            return false;
        }
        if (text.empty() || std::any_of(text.begin(), text.end(), isControl)) {
            error(lineOf(value), fmt::format("'{}' is empty or has a control character", field.m_sKey));
            return false;
        }
        return true;
    }

    // What no single key tells.
    void checkWhole(const toml::table& root) {
        const bool isEncrypted = root.get("tls") != nullptr;
        if (m_oConfig.m_nPort == 0) {
            m_oConfig.m_nPort = isEncrypted ? nPortTls : nPortPlain;
        }
        if (!isEncrypted && !m_oConfig.m_sHost.empty() && !isThisHost(m_oConfig.m_sHost)) {
            error(0, fmt::format("[tls] is missing: lists and passwords would travel to {} in the clear, "
                                 "which is for this "
                                 "host only",
                                 m_oConfig.m_sHost));
        }
        if (!m_oConfig.m_sPasswordFile.empty() && m_oConfig.m_sUser.empty()) {
            error(lineOf(*root.get("broker")), "'password_file' without 'user'");
        }
    }

    SAgentConfig m_oConfig;
};

} // namespace

SAgentConfig readAgentConfig(const std::string& path) {
    const SWholeFile file = readWholeFile(path, nMaxAgentConfigSize);
    if (file.m_sError.empty()) {
        return parseAgentConfig(file.m_sText);
    }
    SAgentConfig config;
    config.m_vErrors.push_back({0, file.m_sError});
    return config;
}

SAgentConfig parseAgentConfig(std::string_view text) {
    return CConfigCheck().run(text);
}
