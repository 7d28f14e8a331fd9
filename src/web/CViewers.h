// The connections of those who look, and the threads that serve them.
//
// A thread serves one request on one connection, which is closed behind it. Both are bounded, and nobody can
// hold them: a request has to be there within seconds and some KiB, an answer to be taken within some more
// seconds; and where all threads are busy and somebody waits, the connection that has been there longest is
// cut off, if what it waits for is its own other end. One that waits for the daemon is not.
#ifndef QEL_WEB_CVIEWERS_H
#define QEL_WEB_CVIEWERS_H

#include "base/CFileDescriptor.h"

#include <array>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// One connection, while it is served. Only the thread that serves it uses it.
class CViewer {
public:
    // `waits` is told when this begins and ends to wait for the other end.
    CViewer(int fd, std::function<void(bool)> waits) : m_nFd(fd), m_fnWaits(std::move(waits)) {}

    // What has come of the request, at least one byte. 0: it ended; negative: its time or its size is used up.
    ssize_t read(char* bytes, size_t size);
    // As much of the answer as was taken now; negative: its time is used up, or nobody takes it.
    ssize_t write(const char* bytes, size_t size);
    // No more answer. Reads for a moment what the other end may still send: it might not see the answer if the
    // connection were closed on that.
    void finish();

private:
    using CClock = std::chrono::steady_clock;
    bool await(short events, CClock::time_point deadline);

    int m_nFd;
    std::function<void(bool)> m_fnWaits;
    size_t m_nRead = 0;
    CClock::time_point m_tBegun = CClock::now();
    CClock::time_point m_tWriting{}; // since when
};

class CViewers {
public:
    // Called by several threads at once.
    using Serve = std::function<void(CViewer&)>;
    explicit CViewers(Serve serve); // throws where threads or memory are not to be had
    ~CViewers();                    // cuts all off, and waits for the threads
    CViewers(const CViewers&) = delete;
    CViewers& operator=(const CViewers&) = delete;

    void add(CFileDescriptor connection);
    // Makes room, if somebody waits. Returns whether somebody does still: then this is to be called again soon.
    bool makeRoom();

private:
    using CClock = std::chrono::steady_clock;
    static constexpr size_t nThreads = 16;
    static constexpr size_t nMaxWaiting = 64;

    struct SServed {
        int m_nFd = -1; // -1: the thread is idle
        bool m_bWaits = false;
        CClock::time_point m_tBegun{};
    };
    void run(SServed& served);
    void end();

    Serve m_fnServe;
    std::mutex m_oMutex;
    std::condition_variable m_oCome;
    bool m_bEnding = false;
    std::vector<CFileDescriptor> m_vWaiting; // first come first; has its room from the beginning
    std::array<SServed, nThreads> m_aServed;
    std::array<std::thread, nThreads> m_aThreads; // last: they use all the others
};

#endif
