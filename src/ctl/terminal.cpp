#include "ctl/terminal.h"

#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

std::string paint(std::string_view text, EColour colour, FILE* stream) {
    static const char* const aCodes[] = {"", "31", "32", "33", "2"};
    if (colour == EColour::none || !isatty(fileno(stream))) {
        return std::string(text);
    }
    return fmt::format("\033[{}m{}\033[0m", aCodes[static_cast<int>(colour)], text);
}

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
    if (!name.empty()) {
        setenv("QEL_PROCESS_NAME", name.c_str(), 1);
    } else {
        setenv("QEL_PROCESS_NAME", fmt::format("qelctl.{}", getpid()).c_str(), 0);
    }
}
