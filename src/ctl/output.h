// Where a command puts a text that others read.
#ifndef QEL_CTL_OUTPUT_H
#define QEL_CTL_OUTPUT_H

#include <string>
#include <string_view>

// On standard output if `path` is empty; else as the file of that name, in one step, so that whoever reads it
// finds the old text or the new one. Nothing but a regular file is replaced. False: it cannot be written,
// which is complained of.
[[nodiscard]] bool putOutput(const std::string& path, std::string_view text);

#endif
