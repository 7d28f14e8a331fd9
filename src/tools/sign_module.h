// What qelserver and the module of the signing tools know of each other.
//
// The tools are a module of their own because they alone need libcrypto, which would stand resident for as long
// as the daemon runs: 1.4 MiB, and a millisecond of its start. A module and not a second program: `qelserver`
// stays the one command, and it runs under an emulator that starts a single program, too.
#ifndef QEL_TOOLS_SIGN_MODULE_H
#define QEL_TOOLS_SIGN_MODULE_H

constexpr char sSignModule[] = "libqelsign.so"; // in lib/qel, beside the directory that qelserver is in
constexpr char sSignEntry[] = "qelSignMain";

// Runs the tool mode that argv[1] names, and returns the process's exit status: 0 where there is no such mode.
// What it prints goes to the standard output of the C library, which both sides share; nothing is thrown.
extern "C" int qelSignMain(int argc, char** argv);

#endif
