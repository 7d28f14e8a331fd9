// The page that shows what the daemon tells: page.html as it was when this was built, with its content
// security policy filled in. Where @DATA@ stands, the data goes.
#ifndef QEL_WEB_PAGE_BYTES_H
#define QEL_WEB_PAGE_BYTES_H

#include <string_view>

inline constexpr std::string_view sPagePlace = "@DATA@"; // once in the page

// Lives as long as the program.
std::string_view pageBytes();
// That policy, as it stands in the page.
std::string_view pagePolicy();

#endif
