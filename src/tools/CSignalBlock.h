// Blocks, in the calling thread and for as long as it lives, all signals that can be blocked.
#ifndef QEL_TOOLS_CSIGNALBLOCK_H
#define QEL_TOOLS_CSIGNALBLOCK_H

#include <csignal>
#include <cstdio>

// For work that must not be left half done: what comes meanwhile is taken at the end. So nothing in it may
// wait for others, or the process could not be interrupted.
class CSignalBlock {
public:
    CSignalBlock() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &m_oBefore);
    }
    // A signal that has waited may end the process right here. What it has printed so far gets out before.
    ~CSignalBlock() {
        std::fflush(stdout);
        pthread_sigmask(SIG_SETMASK, &m_oBefore, nullptr);
    }
    CSignalBlock(const CSignalBlock&) = delete;
    CSignalBlock& operator=(const CSignalBlock&) = delete;

private:
    sigset_t m_oBefore{};
};

#endif
