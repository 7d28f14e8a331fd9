// The signing tools of the command line. They are in a module that is loaded for them alone; sign_module.h
// says why.
#ifndef QEL_SERVER_SIGNING_H
#define QEL_SERVER_SIGNING_H

// Loads the module, runs the tool mode that argv[1] names, and returns its exit status. If the module cannot
// be loaded: 1, with a line on standard error. Call it once, from main().
int runSigningTool(int argc, char** argv);

#endif
