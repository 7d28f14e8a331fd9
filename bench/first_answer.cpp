// From the start of the daemon to its first answer, and of an empty program to its end, in turns:
//
//     first_answer EMPTY DAEMON TIMES
//
// The client has its endpoint open and looks for the daemon without a pause. It keeps to one processor and
// leaves the others to the program, which would else now and then wait for a time slice of the client's. On a
// busy machine the program waits for others' all the same: its processor time up to there is told, too.
#include "ctl/COamQuery.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using CClock = std::chrono::steady_clock;
using CMicroseconds = std::chrono::microseconds;

constexpr std::chrono::seconds oPatience{10};

cpu_set_t allowedProcessors() {
    cpu_set_t all;
    CPU_ZERO(&all);
    sched_getaffinity(0, sizeof all, &all);
    return all;
}

// The first processor that we may use is the client's. With a single one, both share it.
void moveTo(bool isClient, const cpu_set_t& all) {
    cpu_set_t chosen = all;
    int first = 0;
    while (!CPU_ISSET(first, &all)) {
        ++first;
    }
    if (isClient) {
        CPU_ZERO(&chosen);
        CPU_SET(first, &chosen);
    } else if (CPU_COUNT(&all) > 1) {
        CPU_CLR(first, &chosen);
    }
    sched_setaffinity(0, sizeof chosen, &chosen);
}

pid_t start(const char* program, const char* argument) {
    char* const arguments[] = {const_cast<char*>(program), const_cast<char*>(argument), nullptr};
    pid_t process = -1;
    static const cpu_set_t all = allowedProcessors();
    moveTo(false, all);
    if (posix_spawn(&process, program, nullptr, nullptr, arguments, environ) != 0) {
        std::perror(program);
        std::exit(1);
    }
    moveTo(true, all);
    return process;
}

CMicroseconds since(CClock::time_point begin) {
    return std::chrono::duration_cast<CMicroseconds>(CClock::now() - begin);
}

struct SCost {
    CMicroseconds m_nTime;
    CMicroseconds m_nProcessorTime; // of all threads
};

// Of a process that runs, or has ended and is not reaped.
SCost costSince(CClock::time_point begin, pid_t process) {
    const CMicroseconds time = since(begin);
    clockid_t clock = 0;
    timespec used{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        std::perror("first_answer: processor time");
        std::exit(1);
    }
    return {time, CMicroseconds(used.tv_sec * 1000000 + used.tv_nsec / 1000)};
}

SCost costToEnd(const char* program) {
    const auto begin = CClock::now();
    const pid_t process = start(program, nullptr);
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOWAIT);
    const SCost cost = costSince(begin, process);
    waitpid(process, nullptr, 0);
    return cost;
}

SCost costToAnswer(const char* daemon) {
    OvuMfwInitialize();
    COamQuery query;
    const auto begin = CClock::now();
    const pid_t process = start(daemon, "-run");
    auto outcome = COamQuery::EOutcome::noDaemon;
    while (outcome == COamQuery::EOutcome::noDaemon && since(begin) < oPatience) {
        outcome = query.ask(oPatience);
    }
    const SCost cost = costSince(begin, process);
    kill(process, SIGTERM);
    waitpid(process, nullptr, 0);
    if (outcome != COamQuery::EOutcome::answered || query.features().empty()) {
        std::fputs("first_answer: the daemon gave no list\n", stderr);
        std::exit(1);
    }
    return cost;
}

double milliseconds(CMicroseconds time) {
    return static_cast<double>(time.count()) / 1000;
}

struct STimes {
    double m_fLeast;
    double m_fMedian;
};

STimes sumUp(const std::vector<SCost>& costs, CMicroseconds SCost::*which) {
    std::vector<CMicroseconds> times;
    for (const SCost& cost : costs) {
        times.push_back(cost.*which);
    }
    std::sort(times.begin(), times.end());
    return {milliseconds(times.front()), milliseconds(times[times.size() / 2])};
}

void print(const char* what, const STimes& times) {
    std::printf("%-34s %8.2f %8.2f\n", what, times.m_fLeast, times.m_fMedian);
}

void compare(const std::vector<SCost>& empty, const std::vector<SCost>& daemon, CMicroseconds SCost::*which) {
    const STimes other = sumUp(empty, which);
    const STimes own = sumUp(daemon, which);
    print("an empty program, start to end", other);
    print("qelserver, start to first answer", own);
    print("beyond the empty program", {own.m_fLeast - other.m_fLeast, own.m_fMedian - other.m_fMedian});
}

} // namespace

int main(int argc, char** argv) {
    const int count = argc > 3 ? std::atoi(argv[3]) : 0;
    if (count <= 0) {
        std::fputs("usage: first_answer EMPTY DAEMON TIMES\n", stderr);
        return 1;
    }
    std::vector<SCost> empty;
    std::vector<SCost> daemon;
    for (int i = 0; i < count; ++i) {
        empty.push_back(costToEnd(argv[1]));
        daemon.push_back(costToAnswer(argv[2]));
    }
    std::printf("%-34s %8s %8s\n", "milliseconds", "least", "median");
    compare(empty, daemon, &SCost::m_nTime);
    std::puts("milliseconds of processor time");
    compare(empty, daemon, &SCost::m_nProcessorTime);
    return 0;
}
