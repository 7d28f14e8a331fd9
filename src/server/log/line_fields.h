// What a line of the log tells of, apart from its text: for a diagnostics log that keeps fields.
#ifndef QEL_SERVER_LOG_LINE_FIELDS_H
#define QEL_SERVER_LOG_LINE_FIELDS_H

#include <cstdarg>
#include <cstdint>
#include <optional>
#include <string_view>

struct SLineFields {
    std::string_view m_sComponent; // its name; empty: none
    std::optional<uint32_t> m_oCode;
    std::optional<uint32_t> m_oData;
    std::string_view m_sReason; // a component's own words; empty: none
};

// Those among the arguments of an event's line. The texts of a va_list stay the caller's.
SLineFields fieldsOf(uint32_t event, std::string_view format, va_list arguments);

#endif
