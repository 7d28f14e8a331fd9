// The tool modes of the command line: each reads its arguments and returns the process's exit status.
//
// A failed operation is 1. Too few arguments are told, and are 0 all the same, on purpose.
#ifndef QEL_TOOLS_TOOL_MODES_H
#define QEL_TOOLS_TOOL_MODES_H

int makeKeyPair(int argc, char** argv); // 0 whatever comes of it
int checkKeyPair(int argc, char** argv);
int signFile(int argc, char** argv);
int verifyFile(int argc, char** argv);
int verifyCertificate(int argc, char** argv);

#endif
