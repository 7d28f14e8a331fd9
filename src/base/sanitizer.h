// What memory of our own management does for AddressSanitizer, and without it does nothing.
#ifndef QEL_BASE_SANITIZER_H
#define QEL_BASE_SANITIZER_H

#if defined(__SANITIZE_ADDRESS__)
#define QEL_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QEL_ADDRESS_SANITIZER
#endif
#endif

#ifdef QEL_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
inline constexpr bool bAddressSanitizer = true;
#else
#define ASAN_POISON_MEMORY_REGION(address, size) static_cast<void>(0)
#define ASAN_UNPOISON_MEMORY_REGION(address, size) static_cast<void>(0)
inline constexpr bool bAddressSanitizer = false;
#endif

#endif
