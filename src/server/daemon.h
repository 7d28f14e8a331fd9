// The daemon's life: its start and its end, and the signal that ends another one.
#ifndef QEL_SERVER_DAEMON_H
#define QEL_SERVER_DAEMON_H

class CFeatureSupply;

// Runs the daemon until its stop event comes, and returns the exit status of the process: 0, or 1 if another
// instance runs or the start failed. A notice of the service manager ends the process without coming back.
// Nothing is thrown.
//
// `supply` is asked for the supplier of the feature list, once it is certain that no other instance runs. It
// may throw std::bad_alloc, with which the start fails. What it returns is not owned, and lives until the
// process ends.
int runDaemon(bool isDebugging, CFeatureSupply& (*supply)());

// Sends the stop event to the daemon that runs, and returns the exit status of the process.
int stopDaemon();

// To be called between runDaemon() and the end of the process. Does not return while the service manager's
// thread is ending the process.
void claimProcessEnd();

#endif
