// What the daemon tells systemd and asks it. libsystemd is not used, because it would be mapped for as long
// as the daemon runs, for the sake of a few datagrams and one question. Any thread; nothing here throws.
#ifndef QEL_PLATFORM_LINUX_SYSTEMD_H
#define QEL_PLATFORM_LINUX_SYSTEMD_H

// Sends `state`, one "NAME=value" on a line, to the service manager that started this process, in the
// protocol of sd_notify(3). Does not wait and reports no failure. Does nothing where no
// manager asked for it ($NOTIFY_SOCKET).
void tellSystemd(const char* state);

// Tells the manager that the caller's loop turns, if it watches over this process (sd_watchdog_enabled(3)).
// May be called as often as one likes, by one thread: it reads a clock, and makes system calls three times in
// the manager's interval. Whoever does not call it for a whole interval is taken for hung.
void feedWatchdog();

// Whether systemd runs the host and is shutting it down. Takes half a second at most; no answer counts as no.
bool isHostGoingDown();

// Whether `program is-system-running` prints "stopping" within half a second. The program is killed
// afterwards in any case. `program` is a path.
bool saysStopping(const char* program);

#endif
