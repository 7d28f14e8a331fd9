// Finds items of a sequence by key while another sequence is walked that lists the keys in about the same
// order.
#ifndef QEL_FEATURES_CWALKINDEX_H
#define QEL_FEATURES_CWALKINDEX_H

#include <cstddef>
#include <unordered_map>
#include <vector>

// Features and components are taken into each other's lists in table order, so the item looked for is nearly
// always the next one: one comparison. Otherwise a hash index answers, built when it is first needed, so that
// no order makes a walk quadratic. The sequence may grow during the walk. `KeyOf` gives an item's key, or
// null for an empty slot.
template <typename T, const void* (*KeyOf)(const T*)>
class CWalkIndex {
public:
    explicit CWalkIndex(const std::vector<T*>& items) : m_pItems(&items) {}

    // The first item with the key, or null.
    T* find(const void* key) {
        if (m_nNext < m_pItems->size() && KeyOf((*m_pItems)[m_nNext]) == key) {
            return (*m_pItems)[m_nNext++];
        }
        return lookUp(key);
    }

private:
    T* lookUp(const void* key) {
        for (; m_nIndexed < m_pItems->size(); ++m_nIndexed) {
            m_oIndex.emplace(KeyOf((*m_pItems)[m_nIndexed]), m_nIndexed);
        }
        auto found = m_oIndex.find(key);
        if (found == m_oIndex.end()) {
            return nullptr;
        }
        m_nNext = found->second + 1;
        return (*m_pItems)[found->second];
    }

    const std::vector<T*>* m_pItems;
    size_t m_nNext = 0;
    size_t m_nIndexed = 0;
    std::unordered_map<const void*, size_t> m_oIndex;
};

#endif
