// What is said to systemd and asked of it, without its library: that would be mapped for as long as the daemon
// runs, for two datagrams and one question.
#ifndef QEL_PLATFORM_LINUX_SYSTEMD_H
#define QEL_PLATFORM_LINUX_SYSTEMD_H

#include <string>

// Tells the manager that started this process about it, in the protocol of sd_notify(3). Does not wait, and
// whether it was heard is not known; nothing happens where no manager wants to know.
void tellSystemd(const std::string& state);

// Whether the host goes down, where systemd runs it. Takes half a second at most; no answer counts as no.
bool isHostGoingDown();

// Whether `program is-system-running` prints "stopping" within half a second. The program is ended, then.
bool saysStopping(const char* program);

#endif
