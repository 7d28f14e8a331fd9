// A growable array of pointers that owns none of what they point to: the control's tables, and a component's
// list of features.
#ifndef QEL_BASE_CARRAY_H
#define QEL_BASE_CARRAY_H

#include <algorithm>
#include <new>
#include <vector>

// A vector that reports exhausted memory by its result, for callers that do not throw. Duplicates and null
// are stored like any other value. Walks use the vector directly. Not for use by several threads at a time.
template <typename T>
class CArray {
public:
    // Appends the item. False where memory is exhausted; the array is
    // then unchanged, as push_back() guarantees.
    [[nodiscard]] bool add(T item) try {
        m_vItems.push_back(item);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }

    // Erases the first item equal to `item`; the others keep their order. 1 if there was one, else 0. Linear
    // in the length, so a pass that erases many uses std::erase_if() instead.
    int del(T item) {
        auto position = std::find(m_vItems.begin(), m_vItems.end(), item);
        if (position == m_vItems.end()) {
            return 0;
        }
        m_vItems.erase(position);
        return 1;
    }

    std::vector<T> m_vItems;
};

#endif
