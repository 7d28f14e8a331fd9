// The files that TLS is given.
#ifndef QEL_AGENT_TLS_FILES_H
#define QEL_AGENT_TLS_FILES_H

#include "agent/agent_config.h"

#include <string>

// What is wrong with them, with the file's path; empty: certificates and key can be read, and belong
// together. Whether the broker takes them, and whether their time has come, is seen when connecting, since
// the clock may yet be set.
[[nodiscard]] std::string checkTlsFiles(const SAgentConfig& config);

#endif
