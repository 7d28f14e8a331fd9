// The variables that the programs read from their environment: for the help, the manual pages, and
// docs/development.md, which is tested against this table.
#ifndef QEL_CTL_ENVIRONMENT_H
#define QEL_CTL_ENVIRONMENT_H

#include <string_view>

struct SEnvironmentText {
    std::string_view m_sName;
    bool m_bDaemon; // the daemon reads it
    bool m_bCtl;    // qelctl does
    bool m_bWeb;    // qelweb does
    bool m_bAgent;  // qelagent does
    std::string_view m_sMeaning;
    std::string_view m_sOtherwise; // what holds where it is not set
};

inline constexpr SEnvironmentText aEnvironmentTexts[] = {
    {"QEL_RUNTIME_DIR", true, true, true, true, "where the processes meet; all but its last part must exist",
     "/run/qel for root and who may enter it and write there, else $XDG_RUNTIME_DIR/qel, else "
     "/tmp/qel-<uid>"},
    {"QEL_FEATURE_LIST", true, true, false, true, "the feature list", "compiled in"},
    {"QEL_STATE_DIR", true, true, false, true, "where the daemon keeps the list taken last; empty: nowhere",
     "compiled in; nowhere if QEL_FEATURE_LIST is set"},
    {"QEL_TRUST_DIR", true, true, false, true,
     "the certificates that lists must be signed with; it must exist then",
     "compiled in; lists need no signature if it does not exist"},
    {"QEL_APPLIANCE", true, true, false, true, "the file with the appliance's name and its groups",
     "compiled in; the host's name if it does not exist"},
    {"QEL_DESCRIPTION", true, true, false, false, "the feature description file, for daemon and qelctl",
     "compiled in"},
    {"QEL_FLEET_CONFIG", false, true, false, false, "the configuration of qelctl fleet",
     "/etc/qel/fleet.toml"},
    {"NO_COLOR", false, true, false, false, "if it is not empty, qelctl prints no colours", "-"},
    {"TERM", false, true, false, false, "if it is dumb, qelctl prints no colours", "-"},
    {"COLUMNS", false, true, false, false, "the width of qelctl's tables",
     "the terminal's; any, into a file"},
    {"QEL_LOG_FILE", true, false, false, false, "the text log; empty counts as not set",
     "/var/log/QelServer.log"},
    {"QEL_DIAG", true, false, false, false,
     "off: no journal, so lines go to the text log; a path: another journal socket",
     "the journal, where one runs"},
    {"QEL_PROCESS_NAME", true, true, true, true,
     "the name under which the framework finds the process; nobody finds a daemon by another than qelserver",
     "the program's name"},
};

#endif
