// What qelctl can be told, for programs: the manual page and the completion are made of it.
#ifndef QEL_CTL_HELP_H
#define QEL_CTL_HELP_H

#include <string>

namespace CLI {
class App;
}

// All commands with their options, the exit statuses, and the environment, on standard output.
void printHelpAsJson(const CLI::App& app);

// What stands below the help of the program.
std::string helpFooter();

#endif
