#include "ctl/events.h"

#include <algorithm>
#include <set>
#include <string>

namespace {

constexpr SEventText aEvents[] = {
#include "ctl/events.inc"
};

constexpr size_t nMostNear = 3;
constexpr double nLeastLikeness = 0.4; // of texts that are worth proposing

bool isIn(char c, std::string_view characters) {
    return characters.find(c) != characters.npos;
}

// A conversion of printf(3): what it may print, and how long it is.
struct SConversion {
    char m_nKind = 0; // the last character
    size_t m_nLength = 0;

    explicit SConversion(std::string_view format) {
        const size_t end = format.find_first_not_of("lz", 1);
        m_nKind = format[end];
        m_nLength = end + 1;
    }
    // How much of the text it can have printed at the most.
    size_t longest(std::string_view text) const {
        if (m_nKind == 's') {
            return text.size();
        }
        const size_t sign = m_nKind == 'd' && text.starts_with('-') ? 1 : 0;
        const std::string_view digits =
            m_nKind == 'd' || m_nKind == 'u' ? "0123456789" : "0123456789abcdefABCDEF";
        const size_t end = std::min(text.find_first_not_of(digits, sign), text.size());
        return end > sign ? end : text.npos;
    }
};

// Whether the text can come of the format; `values` then has what the conversions printed. A name or a reply
// text may hold anything, so each length is tried, the longest last.
bool isMatch(std::string_view format, std::string_view text, std::vector<std::string_view>& values) {
    const size_t literal = std::min(format.find('%'), format.size());
    if (text.substr(0, literal) != format.substr(0, literal)) {
        return false;
    }
    format.remove_prefix(literal);
    text.remove_prefix(literal);
    if (format.empty()) {
        return text.empty();
    }
    const SConversion conversion(format);
    const size_t longest = conversion.longest(text);
    format.remove_prefix(conversion.m_nLength);
    const bool isOnly = conversion.m_nKind != 's' || format.empty(); // one length comes into question
    for (size_t length = isOnly ? longest : 0; longest != text.npos && length <= longest; ++length) {
        values.push_back(text.substr(0, length));
        if (isMatch(format, text.substr(length), values)) {
            return true;
        }
        values.pop_back();
    }
    return false;
}

std::string_view trimmed(std::string_view text) {
    const size_t begin = std::min(text.find_first_not_of(" \n"), text.size());
    return text.substr(begin, text.find_last_not_of(" \n") + 1 - begin);
}

// Characters of a format that are no conversions: the more, the surer is a match.
size_t literalLength(std::string_view format) {
    size_t length = 0;
    while (!format.empty()) {
        const size_t step = format.front() == '%' ? SConversion(format).m_nLength : 1;
        length += format.front() == '%' ? 0 : 1;
        format.remove_prefix(step);
    }
    return length;
}

// A format that is nothing but a value tells faults of the list: "FILE:LINE: what" or "FILE: what".
bool isListFault(std::string_view text) {
    const std::string_view place = text.substr(0, text.find(": "));
    return place.size() < text.size() && place.find(' ') == place.npos &&
           place.find_first_of("/.") != place.npos;
}

std::vector<SEventMatch> findAt(std::string_view text) {
    std::vector<SEventMatch> found;
    size_t most = 0;
    for (const SEventText& event : aEvents) {
        const std::string_view format = trimmed(event.m_sText);
        const size_t length = literalLength(format);
        SEventMatch match{&event, {}};
        if (length < most || (length == 0 && !isListFault(text)) || !isMatch(format, text, match.m_vValues)) {
            continue;
        }
        if (length > most) {
            found.clear();
            most = length;
        }
        found.push_back(std::move(match));
    }
    return found;
}

// In lower case, without values and punctuation.
std::set<std::string> wordsOf(std::string_view text) {
    std::set<std::string> words;
    std::string word;
    for (const char c : std::string(text) + ' ') {
        if (isIn(c, " ,.:;()'=\"%")) {
            words.insert(word);
            word.clear();
        } else {
            word += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
    }
    words.erase("");
    return words;
}

// 1: the same words; 0: none in common.
double likeness(const std::set<std::string>& one, const std::set<std::string>& other) {
    const auto common =
        std::count_if(one.begin(), one.end(), [&](const auto& word) { return other.contains(word); });
    return 2.0 * static_cast<double>(common) / static_cast<double>(one.size() + other.size());
}

// The events of which `rate` gives the highest figures above zero.
template <typename Rate>
std::vector<SEventMatch> nearest(Rate rate) {
    std::vector<std::pair<double, const SEventText*>> rated;
    for (const SEventText& event : aEvents) {
        if (const double figure = rate(event); figure > 0) {
            rated.emplace_back(figure, &event);
        }
    }
    std::stable_sort(rated.begin(), rated.end(),
                     [](const auto& one, const auto& other) { return one.first > other.first; });
    std::vector<SEventMatch> near;
    for (size_t i = 0; i < std::min(rated.size(), nMostNear); ++i) {
        near.push_back({rated[i].second, {}});
    }
    return near;
}

} // namespace

std::vector<SEventMatch> findEvents(uint32_t number) {
    std::vector<SEventMatch> found;
    for (const SEventText& event : aEvents) {
        if (event.m_nNumber == number) {
            found.push_back({&event, {}});
        }
    }
    return found;
}

// Time, host and program end in a colon each; but a text may have colons, too.
std::vector<SEventMatch> findEvents(std::string_view line) {
    for (;;) {
        std::vector<SEventMatch> found = findAt(trimmed(line));
        const size_t colon = line.find(": ");
        if (!found.empty() || colon == line.npos) {
            return found;
        }
        line.remove_prefix(colon + 2);
    }
}

std::vector<SEventMatch> findNearEvents(uint32_t number) {
    return nearest([number](const SEventText& event) {
        constexpr double nNear = 10;
        return nNear - std::abs(static_cast<double>(event.m_nNumber) - static_cast<double>(number));
    });
}

// A part of a text comes nearest.
std::vector<SEventMatch> findNearEvents(std::string_view line) {
    const std::set<std::string> words = wordsOf(line);
    return nearest([&](const SEventText& event) {
        if (!trimmed(line).empty() && event.m_sText.find(trimmed(line)) != event.m_sText.npos) {
            return 1.0;
        }
        const double figure = likeness(words, wordsOf(event.m_sText));
        return figure < nLeastLikeness ? 0 : figure;
    });
}
