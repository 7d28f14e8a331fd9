// The tool modes of the command line: each reads its arguments, from argv[2] on, and returns the process's
// exit status: 0 for yes and done, 1 for no and failed, with the reason on standard output.
//
// Too few arguments print what is wrong and return 0, so a script must not take 0 for a yes unless it passed
// them all. Surplus arguments are ignored. docs/signing.md describes each mode to its users.
#ifndef QEL_TOOLS_TOOL_MODES_H
#define QEL_TOOLS_TOOL_MODES_H

int makeKeyPair(int argc, char** argv); // always 0: a script looks for the files, and asks checkKeyPair()
int checkKeyPair(int argc, char** argv);
int signFile(int argc, char** argv);
int verifyFile(int argc, char** argv);
int verifyCertificate(int argc, char** argv);

#endif
