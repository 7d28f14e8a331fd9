// Writing for people: colour where it can be seen, and no control characters of foreign texts.
#ifndef QEL_CTL_TERMINAL_H
#define QEL_CTL_TERMINAL_H

#include <cstdio>
#include <string>
#include <string_view>

enum class EColour { none, red, green, yellow, dim };

// The text in that colour if `stream` is a terminal, and as it is otherwise.
std::string paint(std::string_view text, EColour colour, FILE* stream);

// The text with every control character replaced by a question mark.
std::string printable(std::string_view text);

// "1 feature", "2 features".
std::string counted(size_t count, std::string_view noun);

// One line on stderr, after the program's name.
void complain(std::string_view text);

// The name under which this process appears on the message framework: `name`, or, where that is empty and the
// environment has none either, one of its own, so that two of these commands do not meet. Before the endpoint
// opens.
void setProcessName(const std::string& name);

#endif
