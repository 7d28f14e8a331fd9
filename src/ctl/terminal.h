// Writing for people: colour where it can be seen, and no control characters of foreign texts.
#ifndef QEL_CTL_TERMINAL_H
#define QEL_CTL_TERMINAL_H

#include <cstdio>
#include <string>
#include <string_view>

enum class EColour { none, red, green, yellow, dim };

// The text in that colour if `stream` is a terminal, else as it is: escape sequences have no business
// in a file.
std::string paint(std::string_view text, EColour colour, FILE* stream);

// The text with every control character replaced by a question mark. Names and texts come from other
// processes and files, and could otherwise move the cursor or change the terminal's settings.
std::string printable(std::string_view text);

// "1 feature", "2 features".
std::string counted(size_t count, std::string_view noun);

// One line on stderr, after the program's name.
void complain(std::string_view text);

// The name under which this process appears on the message framework: `name` if it is not empty, else the one
// in the environment (QEL_PROCESS_NAME), else one that no other process has. To be called before the endpoint
// opens, and before other threads start, since it changes the environment.
void setProcessName(const std::string& name);

#endif
