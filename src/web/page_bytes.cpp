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
