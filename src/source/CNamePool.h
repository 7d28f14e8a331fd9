// Keeps the component names that feature entries point to.
#ifndef QEL_SOURCE_CNAMEPOOL_H
#define QEL_SOURCE_CNAMEPOOL_H

#include <string>
#include <unordered_set>

// Equal names share one string, which stays where it is for the pool's life. Nothing is ever dropped: names
// are few and short, and an entry in force may point to any of them. One thread at a time.
class CNamePool {
public:
    const char* intern(const std::string& name) { return m_oNames.insert(name).first->c_str(); }

private:
    std::unordered_set<std::string> m_oNames;
};

#endif
