#include "source/list/list_paths.h"

#include <cstdlib>

namespace {

bool isSet(const char* value) {
    return value != nullptr && *value != '\0';
}

} // namespace

std::string featureListPath() {
    const char* path = std::getenv("QEL_FEATURE_LIST");
    return isSet(path) ? path : QEL_FEATURE_LIST;
}

std::string stateDirectory() {
    if (const char* directory = std::getenv("QEL_STATE_DIR"); directory != nullptr) {
        return directory;
    }
    return isSet(std::getenv("QEL_FEATURE_LIST")) ? "" : QEL_STATE_DIR;
}

std::string keptListPath(const std::string& directory) {
    return directory + "/features.toml";
}

STrustPath trustPath() {
    const char* directory = std::getenv("QEL_TRUST_DIR");
    return isSet(directory) ? STrustPath{directory, true} : STrustPath{QEL_TRUST_DIR, false};
}

std::string appliancePath() {
    const char* path = std::getenv("QEL_APPLIANCE");
    return isSet(path) ? path : QEL_APPLIANCE_FILE;
}
