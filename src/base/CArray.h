// A growable array of pointers that owns none of what they point to.
#ifndef QEL_BASE_CARRAY_H
#define QEL_BASE_CARRAY_H

#include <algorithm>
#include <new>
#include <vector>

template <typename T>
class CArray {
public:
    // Appends the element. False where memory is exhausted: the array is as it was.
    [[nodiscard]] bool add(T item) try {
        m_vItems.push_back(item);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }

    // Erases the first element equal to `item`; the others keep their order. 1 if there was one, else 0.
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
