// Reads and checks the operator's feature list file. Knows nothing of the daemon, so that qelctl can check a
// file with the same code. docs/feature-list.md describes format and errors to operators.
#ifndef QEL_SOURCE_FEATURE_LIST_H
#define QEL_SOURCE_FEATURE_LIST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// One [[feature]] table of the file. In a list without errors no two records have the same code and data, and
// none is 0, 0.
struct SFeatureRecord {
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
    std::vector<std::string> m_vComponents; // 1 to 16 characters each, none twice; may be empty
    bool m_bSourced = false;                // kept from list to list: a change of its data is a modification
    uint32_t m_nLine = 0;                   // of the table's header, counted from 1
};

struct SListError {
    uint32_t m_nLine = 0; // counted from 1; 0: the file as a whole
    std::string m_sText;  // one line, without control characters, whatever the file holds
};

// What a file holds. The features mean something only if there is no error.
struct SFeatureList {
    bool isGood() const { return m_vErrors.empty(); }

    std::vector<SFeatureRecord> m_vFeatures; // in the file's order
    std::vector<SListError> m_vErrors;       // all of them, by line
};

inline constexpr size_t nMaxListFileSize =
    size_t{32} * 1024 * 1024;                 // bytes; 100,000 features take about 8 MB
inline constexpr size_t nMaxComponents = 256; // names of one feature

// Reads the whole file, then checks it. A file that changes while it is read is read again; only for that it
// may wait, a tenth of a second at most. A long list takes some seconds of processor time. Any thread. May
// throw std::bad_alloc; every other failure is an error in the list.
[[nodiscard]] SFeatureList readFeatureList(const std::string& path);

// Checks a text as if it were a file's contents.
[[nodiscard]] SFeatureList parseFeatureList(std::string_view text);

// "PATH:LINE: text", or "PATH: text" for what concerns the file as a whole.
std::string printListError(const std::string& path, const SListError& error);

#endif
