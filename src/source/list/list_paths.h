// Where the feature list is, for the daemon and for qelctl.
#ifndef QEL_SOURCE_LIST_PATHS_H
#define QEL_SOURCE_LIST_PATHS_H

#include <string>

// The operator's list: QEL_FEATURE_LIST in the environment, else the path compiled in.
std::string featureListPath();

// The directory of what the daemon keeps for its next start: QEL_STATE_DIR in the environment, where empty
// means that nothing is kept. Else the one compiled in, but only if the list is the one compiled in, too: a
// daemon that is tried with another list must not leave it to the appliance's own.
std::string stateDirectory();

// The list taken last, in such a directory.
std::string keptListPath(const std::string& directory);

// Where the certificates are that lists must be signed with: QEL_TRUST_DIR in the environment, else the one
// compiled in. No value of the variable means that lists need not be signed.
struct STrustPath {
    std::string m_sDirectory;
    bool m_bNamed; // in the environment: then it must exist
};
STrustPath trustPath();

// Of the appliance's name and its groups: QEL_APPLIANCE in the environment, else the one compiled in.
std::string appliancePath();

#endif
