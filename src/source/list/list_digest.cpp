#include "source/list/list_digest.h"

#include <fmt/core.h>

// The numbers that the method is published with.
static_assert(listDigest("") == 0xcbf29ce484222325);
static_assert(listDigest("a") == 0xaf63dc4c8601ec8c);
static_assert(listDigest("foobar") == 0x85944171f73967e8);

std::string printListDigest(uint64_t digest) {
    return fmt::format("{:016x}", digest);
}
