// Reads and checks the operator's feature list file. Knows nothing of the daemon: qelctl
// checks files with it too.
#ifndef QEL_SOURCE_FEATURE_LIST_H
#define QEL_SOURCE_FEATURE_LIST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// One [[feature]] table of the file. No two of a list have the same code and data, and none is 0, 0.
struct SFeatureRecord {
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
    std::vector<std::string> m_vComponents; // 1 to 16 characters each, none twice; may be empty
    bool m_bSourced = false;                // kept from list to list: a change of its data is a modification
    uint32_t m_nLine = 0;                   // of the table's header, counted from 1
};

// What stands above the first feature.
struct SListHead {
    uint64_t m_nSerial = 0;            // from 1; 0: the list has none
    std::string m_sIssued;             // "2024-03-14T13:04:05Z"; empty: it does not say
    std::vector<std::string> m_vScope; // appliances and groups; empty: it is for all
};

struct SListError {
    uint32_t m_nLine = 0; // counted from 1; 0: the file as a whole
    std::string m_sText;  // one line, without control characters

    bool operator==(const SListError& other) const = default;
};

// What a file holds. The features are meaningful only where there is no error.
struct SFeatureList {
    bool isGood() const { return m_nErrors == 0; }
    void add(SListError error);

    SListHead m_oHead;
    std::vector<SFeatureRecord> m_vFeatures; // in the file's order
    std::vector<SListError> m_vErrors;       // by line; the first nMaxListErrors of them
    size_t m_nErrors = 0;                    // all there are
    // The one error is that the file could not be read, and another attempt may succeed, though nobody has
    // touched the file since.
    bool m_bPassing = false;
};

inline constexpr size_t nMaxListErrors = 1000; // kept: nobody reads more, and a broken file may have millions

// In bytes; 100,000 features take about 8 MB.
inline constexpr size_t nMaxListFileSize = size_t{32} * 1024 * 1024;
inline constexpr size_t nMaxComponents = 256;   // names of one feature; of a scope likewise
inline constexpr size_t nMaxApplianceName = 64; // characters; of a group's likewise

// Reads the whole file, then checks it. A file that changes while it is read is read again; for that, and for
// nothing else, it may wait: a tenth of a second at most. Any thread.
// `text`, if it is not null, gets what the file holds.
[[nodiscard]] SFeatureList readFeatureList(const std::string& path, std::string* text = nullptr);

// Checks a text as if it were a file's contents.
[[nodiscard]] SFeatureList parseFeatureList(std::string_view text);

// Checks what stands above the first feature, and that alone.
[[nodiscard]] SFeatureList parseListHead(std::string_view text);

// Whether an appliance or a group can be called so: letters, digits, and . _ - between or behind them, so
// that a name can be a file's name or a part of a topic.
bool isApplianceName(std::string_view name);

// "PATH:LINE: text", or "PATH: text" for what concerns the file as a whole.
std::string printListError(const std::string& path, const SListError& error);

#endif
