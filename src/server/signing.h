// The signing tools of the command line, which come from a module that only they load.
#ifndef QEL_SERVER_SIGNING_H
#define QEL_SERVER_SIGNING_H

// Runs the tool mode that argv[1] names and returns the exit status: 1, with a line on standard error, where
// the module cannot be loaded.
int runSigningTool(int argc, char** argv);

#endif
