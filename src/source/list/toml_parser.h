// The TOML parser as this system uses it; included by the sources that parse, never by a header.
//
// The parser's complaints come back as results, so that an exception is what it seems: no memory. Nor does it
// read floats from a stream, which would swallow the exception.
#ifndef QEL_SOURCE_TOML_PARSER_H
#define QEL_SOURCE_TOML_PARSER_H

#include <string_view>

#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#define TOML_FLOAT_CHARCONV 1
// Two of its assumptions (toml++ 3.3) do not hold for hostile text: "[." breaks an assertion, which Clang
// takes for a promise, and asking whether an umlaut outside quotes is a blank reaches
// __builtin_unreachable(). The assertion becomes nothing and the question is answered with no: the parser
// then reports a syntax error. Look at both again with every new version.
#define TOML_ASSERT(expr) static_assert(true)
#undef NDEBUG
#include <toml++/impl/forward_declarations.h>
#pragma push_macro("TOML_UNREACHABLE")
#undef TOML_UNREACHABLE
#define TOML_UNREACHABLE return false
#include <toml++/impl/unicode.h>
#pragma pop_macro("TOML_UNREACHABLE")
#include <toml++/toml.h>

// What a complaint calls the value that it found.
inline std::string_view typeOf(const toml::node& value) {
    switch (value.type()) {
    case toml::node_type::table:
        return "table";
    case toml::node_type::array:
        return "array";
    case toml::node_type::string:
        return "string";
    case toml::node_type::integer:
        return "integer";
    case toml::node_type::floating_point:
        return "floating";
    case toml::node_type::boolean:
        return "boolean";
    case toml::node_type::date:
        return "local_date";
    case toml::node_type::time:
        return "local_time";
    case toml::node_type::date_time:
        return value.as_date_time()->get().offset ? "offset_datetime" : "local_datetime";
    case toml::node_type::none:
        break;
    }
    return "nothing";
}

#endif
