// Writing for people: colour where it can be seen, and no control characters of foreign texts.
#ifndef QEL_CTL_TERMINAL_H
#define QEL_CTL_TERMINAL_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

enum class EColour { none, red, green, yellow, dim };

// The text in that colour if `stream` is a terminal that shows colours, else as it is: escape sequences have
// no business in a file. NO_COLOR in the environment, if it is not empty, and a TERM that is dumb, unknown or
// empty say that it shows none.
std::string paint(std::string_view text, EColour colour, FILE* stream);

// The text with every control character replaced by a question mark. Names and texts come from other
// processes and files, and could otherwise move the cursor or change the terminal's settings.
std::string printable(std::string_view text);

// "1 feature", "2 features".
std::string counted(uint64_t count, std::string_view noun);

// Columns that a line of the stream may have: the terminal's; COLUMNS in the environment goes before it. 0: as
// many as it takes.
size_t lineWidth(FILE* stream);

// Columns that a text takes, if it is UTF-8 and none of its characters is a wide one.
size_t columnsOf(std::string_view text);

// The text in so many columns at most; "..." stands for what was cut off. 0: the whole.
std::string cut(std::string_view text, size_t columns);

// A line at the bottom that tells how far something is, each text over the one before; on a terminal that can do
// that, else not at all. Goes with its owner.
class CProgressLine {
public:
    explicit CProgressLine(bool isWanted = true);
    ~CProgressLine() { clear(); }
    CProgressLine(const CProgressLine&) = delete;
    CProgressLine& operator=(const CProgressLine&) = delete;

    void show(std::string_view text);
    void clear() noexcept;

private:
    bool m_bWanted;
    bool m_bShown = false;
};

// Time of day, local, as in the daemon's text log; without a fraction, if it is negative.
std::string timeOfDay(int64_t seconds, int64_t microseconds = -1);

// Writes out what was printed. False: the disk is full or the pipe is closed, which is complained of.
[[nodiscard]] bool flushOutput();

// What this program is called where it complains, and in its name on the message framework: "qelctl", unless
// this is called first. The name lives as long as the program.
void setProgram(const char* name);

// One line on stderr, after the program's name.
void complain(std::string_view text);

// The name under which this process appears on the message framework: `name` if it is not empty, else the one
// in the environment (QEL_PROCESS_NAME), else one that no other process has. To be called before the endpoint
// opens, and before other threads start, since it changes the environment.
void setProcessName(const std::string& name);

#endif
