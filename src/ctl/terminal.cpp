#include "ctl/terminal.h"

#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

std::string paint(std::string_view text, EColour colour, FILE* stream) {
    // By EColour: the parameters of "select graphic rendition" (ECMA-48), a terminal's standard palette.
    static const char* const aCodes[] = {"", "31", "32", "33", "2"};
    // Asked for each stream: stderr may be a terminal while stdout is a pipe.
    if (colour == EColour::none || !isatty(fileno(stream))) {
        return std::string(text);
    }
    return fmt::format("\033[{}m{}\033[0m", aCodes[static_cast<int>(colour)], text);
}

// Bytes above 0x7F are left alone, so UTF-8 survives.
std::string printable(std::string_view text) {
    std::string clean(text);
    for (char& c : clean) {
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) {
            c = '?';
        }
    }
    return clean;
}

std::string counted(size_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

void complain(std::string_view text) {
    fmt::print(stderr, "qelctl: {}\n", text);
}

void setProcessName(const std::string& name) {
    // The command line goes before the environment, and the environment before the name made here. The
    // process id makes that one unique.
    if (!name.empty()) {
        setenv("QEL_PROCESS_NAME", name.c_str(), 1);
    } else {
        setenv("QEL_PROCESS_NAME", fmt::format("qelctl.{}", getpid()).c_str(), 0);
    }
}
