#include "web/page_bytes.h"

#include <cstddef>

namespace {

constexpr unsigned char aPage[] = {
#include "web/page.inc"
};

} // namespace

std::string_view pageBytes() {
    return {reinterpret_cast<const char*>(aPage), sizeof aPage};
}

// embed_page has put it in, and nothing in it is quoted.
std::string_view pagePolicy() {
    static constexpr std::string_view sBefore = "\"Content-Security-Policy\" content=\"";
    const std::string_view page = pageBytes();
    const std::string_view rest = page.substr(page.find(sBefore) + sBefore.size());
    return rest.substr(0, rest.find('"'));
}
