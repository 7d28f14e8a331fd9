// How long the client waits for an answer before it starts over.
#ifndef QEL_CLIENT_CPATIENCE_H
#define QEL_CLIENT_CPATIENCE_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <random>

// The client's time; that of a test, where one has set it.
struct CClientClock {
    using duration = std::chrono::steady_clock::duration;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::steady_clock::time_point;
    static constexpr bool is_steady = true;

    static time_point now() { return m_fnNow(); }
    using Source = time_point (*)();
    static inline constinit Source m_fnNow = std::chrono::steady_clock::now;
};

// The daemon takes one message in 35 to 55 ms, so when 1,000 components start at once, each answer takes them
// 35 to 55 seconds. Whoever gives up and asks again makes the queue longer, since the daemon also spends a
// turn on the request that was given up. If all give up before their answers come, none ever comes up.
//
// Hence the rules. Waiting costs nothing: a daemon that has gone is noticed by its handle, and a living one
// leaves a request without an answer only where it does not know the component. So the patience is long to
// begin with, and twice as long after each time that it was in vain. An answer that comes too late tells how
// long they take at present: the request that is now under way gets twice that time. An answer in time makes
// the patience short again. Up to half of it is added by chance, so that those who started together do not
// give up together.
//
// The time is passed in; it must not go backwards. Used by one thread at a time.
class CPatience {
public:
    using CTime = CClientClock::time_point;
    using CDuration = CClientClock::duration;

    static constexpr std::chrono::seconds tDefault{60};

    // Never shorter than `least`. Processes that start together should differ in `seed`.
    CPatience(CDuration least, uint32_t seed);

    // A request has gone out, and this tag is what is awaited from now on. The one before is given up.
    void ask(uint32_t tag, CTime now);
    // An answer has come. True if it is the one awaited.
    [[nodiscard]] bool take(uint32_t tag, CTime now);
    // When the answer awaited should be given up; an answer to an earlier request may put it off.
    CTime due() const { return m_tDue; }
    // It was in vain.
    void giveUp();
    // Another daemon, of which nothing is known.
    void forget();

private:
    struct SAsked {
        uint32_t m_nTag;
        CTime m_tAsked;
    };

    CTime dueOf(const SAsked& asked);

    CDuration m_tLeast;
    CDuration m_tWait;
    CTime m_tDue{};
    std::deque<SAsked> m_oAsked; // without an answer yet, the latest at the end
    std::minstd_rand m_oChance;
};

#endif
