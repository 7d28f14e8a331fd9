#include "tools/certificate_time.h"

#include <ctime>
#include <openssl/asn1.h>
#include <string>

namespace {

// RFC 5280 (section 4.1.2.5) allows a certificate two forms, UTCTime and GeneralizedTime, both to the second
// and in UTC. ASN1_TIME_compare() alone would also accept others, such as fractions or an offset. With a null
// target ASN1_TIME_set_string_X509() only checks. A NUL inside would hide from it what follows.
bool isWellFormed(const ASN1_TIME* time) {
    const auto* bytes = reinterpret_cast<const char*>(ASN1_STRING_get0_data(time));
    const std::string text(bytes, static_cast<size_t>(ASN1_STRING_length(time)));
    return text.find('\0') == std::string::npos && ASN1_TIME_set_string_X509(nullptr, text.c_str()) == 1;
}

} // namespace

// A year that does not have four digits changes the length, so the buffer's size is the check of the range.
// The library picks the form by itself: UTCTime for 1950
// to 2049, GeneralizedTime otherwise (ASN1_TIME_set(3)).
CTimeHandle certificateTime(int64_t seconds) {
    const auto moment = static_cast<time_t>(seconds);
    std::tm parts{};
    char text[sizeof "YYYYMMDDHHMMSSZ"];
    if (gmtime_r(&moment, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &parts) != sizeof text - 1) {
        return nullptr;
    }
    CTimeHandle time(ASN1_TIME_new());
    if (time == nullptr || ASN1_TIME_set_string_X509(time.get(), text) != 1) {
        return nullptr;
    }
    return time;
}

bool isAtOrBefore(const ASN1_TIME* time, const ASN1_TIME* now) {
    if (now == nullptr || !isWellFormed(time)) {
        return false;
    }
    const int order = ASN1_TIME_compare(time, now); // -2: not comparable
    return order == -1 || order == 0;
}

bool isAfter(const ASN1_TIME* time, const ASN1_TIME* now) {
    return now != nullptr && isWellFormed(time) && ASN1_TIME_compare(time, now) == 1;
}
