// The interface between qelserver and the module with the signing tools.
//
// The tools are a module of their own because they alone need libcrypto, which would otherwise take 1.4 MiB
// of memory for as long as the daemon runs, and a millisecond of its start. A second program would save the
// same, but then `qelserver` would not be the one command any more, and the tools would not run under an
// emulator that starts a single program.
#ifndef QEL_TOOLS_SIGN_MODULE_H
#define QEL_TOOLS_SIGN_MODULE_H

constexpr char sSignModule[] = "libqelsign.so"; // in lib/qel, beside the directory that qelserver is in
constexpr char sSignEntry[] = "qelSignMain";

// Runs the tool mode that argv[1] names and returns the process's exit status: 0 if there is no such mode.
// Prints to the standard output of the C library, which both sides share.
extern "C" int qelSignMain(int argc, char** argv);

#endif
