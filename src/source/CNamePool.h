// Keeps the component names that feature entries point to.
#ifndef QEL_SOURCE_CNAMEPOOL_H
#define QEL_SOURCE_CNAMEPOOL_H

#include <string>
#include <unordered_set>

// Equal names share one string, which stays where it is for as long as the pool lives (a set of nodes does
// not move its elements when it grows). Nothing is ever dropped: names are few and short, and any entry in
// force may point to them. Used by one thread at a time; the strings may be read by any.
class CNamePool {
public:
    // The pool's copy of `name`, NUL-terminated. Throws std::bad_alloc.
    const char* intern(const std::string& name) { return m_oNames.insert(name).first->c_str(); }

private:
    std::unordered_set<std::string> m_oNames;
};

#endif
