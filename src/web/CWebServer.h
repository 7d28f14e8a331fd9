// What qelweb answers: the page, its data, and the metrics, by HTTP. Read-only.
#ifndef QEL_WEB_CWEBSERVER_H
#define QEL_WEB_CWEBSERVER_H

#include "base/CFileDescriptor.h"
#include "web/CCollector.h"

#include <memory>

class CWebServer {
public:
    // `isLoopback`: it listens where only this machine reaches it, so it answers only to who asks for that.
    // Throws where threads or memory are not to be had.
    CWebServer(CCollector& collector, CFileDescriptor listening, bool isLoopback);
    ~CWebServer(); // waits for the threads, so the collector has to be ended before
    CWebServer(const CWebServer&) = delete;
    CWebServer& operator=(const CWebServer&) = delete;

    // Serves until there is something to read from `end`.
    void run(int end);

private:
    struct SInner; // the library's
    CFileDescriptor m_oListening;
    std::unique_ptr<SInner> m_pInner;
};

#endif
