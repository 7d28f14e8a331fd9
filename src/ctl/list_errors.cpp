#include "ctl/list_errors.h"

#include "ctl/terminal.h"

#include <fmt/format.h>

void printErrors(const std::string& path, std::span<const SListError> errors, size_t all, FILE* stream) {
    for (const SListError& error : errors) {
        fmt::print(stream, "{}\n", paint(printListError(path, error), EColour::red, stream));
    }
    if (all > errors.size()) {
        const std::string more = counted(all - errors.size(), "more error");
        fmt::print(stream, "{}\n", paint(fmt::format("{}: {}", path, more), EColour::red, stream));
    }
}
