#include "ctl/daemon_script.h"

#include "ctl/CDaemonView.h"
#include "ctl/terminal.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fmt/format.h>
#include <iterator>
#include <limits>

namespace {

constexpr double nLongestTime = 3600; // seconds

struct SWord {
    std::string m_sText;
    bool m_bQuoted = false; // so it is a text, and no word of the language
};

// One line: its words, which are taken from the front. The first fault found is the one that is told; what is
// taken after it means nothing.
class CScriptLine {
public:
    explicit CScriptLine(std::string_view text) { split(text); }

    bool isEmpty() const { return m_vWords.empty(); }
    bool isAtEnd() const { return m_nNext == m_vWords.size(); }
    const std::string& error() const { return m_sError; }
    void fail(std::string error) { m_sError = m_sError.empty() ? std::move(error) : m_sError; }
    std::string whole() const;

    // The next word, if there is one and it is no quoted text.
    std::string_view peek() const { return !isAtEnd() && !isText() ? next().m_sText : std::string_view(); }
    bool isText() const { return !isAtEnd() && next().m_bQuoted; }
    bool isNumber() const {
        return !peek().empty() && std::isdigit(static_cast<unsigned char>(peek()[0])) != 0;
    }
    bool skip(std::string_view word); // true, and taken, if this is the next

    std::string take(const char* what); // any word or text
    uint32_t number(const char* what, uint32_t most = std::numeric_limits<uint32_t>::max());
    SFeature feature();
    std::vector<SFeature> features(); // as many as there are
    std::chrono::milliseconds time();

private:
    const SWord& next() const { return m_vWords[m_nNext]; }
    void split(std::string_view text);
    size_t quote(std::string_view text, size_t at);

    std::vector<SWord> m_vWords;
    size_t m_nNext = 0;
    std::string m_sError;
};

bool readNumber(std::string_view text, uint32_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

void CScriptLine::split(std::string_view text) {
    constexpr std::string_view sBlanks = " \t\r";
    for (size_t at = text.find_first_not_of(sBlanks); at < text.size() && text[at] != '#';
         at = text.find_first_not_of(sBlanks, at)) {
        if (text[at] == '"') {
            at = quote(text, at + 1);
        } else {
            const size_t end = std::min(text.find_first_of(sBlanks, at), text.size());
            m_vWords.push_back({std::string(text.substr(at, end - at)), false});
            at = end;
        }
    }
}

// From behind the opening quotation mark; returns where the line goes on. A backslash takes the next
// character as it is.
size_t CScriptLine::quote(std::string_view text, size_t at) {
    SWord word{"", true};
    for (; at < text.size() && text[at] != '"'; ++at) {
        at += text[at] == '\\' && at + 1 < text.size() ? 1 : 0;
        word.m_sText += text[at];
    }
    if (at >= text.size()) {
        fail("a quotation mark is missing");
    }
    m_vWords.push_back(std::move(word));
    return std::min(at + 1, text.size());
}

std::string CScriptLine::whole() const {
    std::string text;
    for (const SWord& word : m_vWords) {
        text += text.empty() ? "" : " ";
        text += word.m_bQuoted ? "\"" + word.m_sText + "\"" : word.m_sText;
    }
    return printable(text);
}

bool CScriptLine::skip(std::string_view word) {
    const bool isIt = !word.empty() && peek() == word;
    m_nNext += isIt ? 1 : 0;
    return isIt;
}

std::string CScriptLine::take(const char* what) {
    if (isAtEnd()) {
        fail(fmt::format("{} is missing", what));
        return "";
    }
    return m_vWords[m_nNext++].m_sText;
}

uint32_t CScriptLine::number(const char* what, uint32_t most) {
    const std::string text = take(what);
    uint32_t number = 0;
    if (!readNumber(text, number) || number > most) {
        fail(fmt::format("'{}' is not {} of 0 to {}", printable(text), what, most));
    }
    return number;
}

// 0:0 is no feature: on the wire it ends a list.
SFeature CScriptLine::feature() {
    const std::string text = take("CODE:DATA");
    const size_t colon = std::min(text.find(':'), text.size());
    const std::string_view view(text);
    SFeature feature;
    if (colon == text.size() || !readNumber(view.substr(0, colon), feature.m_nCode) ||
        !readNumber(view.substr(colon + 1), feature.m_nData) || feature == SFeature{}) {
        fail(fmt::format("'{}' is not CODE:DATA", printable(text)));
    }
    return feature;
}

std::vector<SFeature> CScriptLine::features() {
    std::vector<SFeature> features;
    while (isNumber() && error().empty()) {
        features.push_back(feature());
    }
    return features;
}

std::chrono::milliseconds CScriptLine::time() {
    const std::string text = take("a time");
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
    const double seconds = unit == "ms" ? number / 1000 : number;
    if (error != std::errc() || (unit != "s" && unit != "ms") || !(seconds >= 0 && seconds <= nLongestTime)) {
        fail(fmt::format("'{}' is not a time, such as 5s or 200ms", printable(text)));
        return {};
    }
    return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

// What stands behind the verb.
void readNothing(CScriptLine&, SStep&) {}

void readList(CScriptLine& line, SStep& step) {
    step.m_vFeatures = line.features();
}

void readFeature(CScriptLine& line, SStep& step) {
    step.m_vFeatures = {line.feature()};
}

void readModify(CScriptLine& line, SStep& step) {
    readFeature(line, step);
    if (!line.skip("to")) {
        line.fail("'to' and the new data are missing");
    }
    step.m_nNumber = line.number("data");
}

void readCode(CScriptLine& line, SStep& step) {
    step.m_nNumber = line.number("a code");
}

void readTime(CScriptLine& line, SStep& step) {
    step.m_oExpected.m_oTime = line.time();
}

// What may stand behind each deed.
void readAnnouncement(CScriptLine& line, SExpectation& expected) {
    if (!line.isAtEnd() && (line.isText() || (line.peek() != "holding" && line.peek() != "within"))) {
        expected.m_oName = line.take("a name");
    }
    if (line.skip("holding")) {
        expected.m_oHeld.emplace();
        if (!line.skip("nothing")) {
            *expected.m_oHeld = line.features();
            std::sort(expected.m_oHeld->begin(), expected.m_oHeld->end());
            if (expected.m_oHeld->empty()) {
                line.fail("'nothing' or CODE:DATA ... is missing behind 'holding'");
            }
        }
    }
}

void readText(CScriptLine& line, SExpectation& expected) {
    if (line.isText()) {
        expected.m_oText = line.take("a text");
    }
}

void readReply(CScriptLine& line, SExpectation& expected) {
    if (line.isNumber() && line.peek().find(':') != std::string_view::npos) {
        const SFeature feature = line.feature();
        expected.m_oCode = feature.m_nCode;
        expected.m_oData = feature.m_nData;
    } else if (line.isNumber()) {
        expected.m_oCode = line.number("a code");
    }
    readText(line, expected);
}

void readEnd(CScriptLine& line, SExpectation& expected) {
    if (line.isNumber()) {
        expected.m_oStatus = static_cast<int>(line.number("a status", 255));
    }
}

void readRequest(CScriptLine&, SExpectation&) {}

struct SExpected {
    EDeed m_eDeed;
    void (*m_fnRead)(CScriptLine& line, SExpectation& expected);
};
constexpr SExpected aExpected[] = {
    {EDeed::announce, readAnnouncement},
    {EDeed::rewind, readRequest},
    {EDeed::fetch, readRequest},
    {EDeed::monitor, readRequest},
    {EDeed::accept, readReply},
    {EDeed::refuse, readReply},
    {EDeed::stray, readText},
    {EDeed::shutdown, readText},
    {EDeed::end, readEnd},
    {EDeed::nothing, readRequest},
};

void failUnknown(CScriptLine& line, std::string_view word, const std::vector<std::string_view>& words) {
    const std::string meant = nearest(word, words);
    line.fail(fmt::format("'{}' is unknown here{}", printable(word),
                          meant.empty() ? "" : fmt::format("; is '{}' meant?", meant)));
}

void readExpect(CScriptLine& line, SStep& step) {
    const std::string what = line.take("what is expected");
    const auto* found = std::find_if(std::begin(aExpected), std::end(aExpected),
                                     [&](const SExpected& row) { return word(row.m_eDeed) == what; });
    if (found == std::end(aExpected)) {
        std::vector<std::string_view> words;
        words.reserve(std::size(aExpected));
        for (const SExpected& row : aExpected) {
            words.push_back(word(row.m_eDeed));
        }
        return failUnknown(line, what, words);
    }
    step.m_oExpected.m_eDeed = found->m_eDeed;
    found->m_fnRead(line, step.m_oExpected);
    const char* const limit = found->m_eDeed == EDeed::nothing ? "for" : "within";
    if (line.skip(limit)) {
        step.m_oExpected.m_oTime = line.time();
    } else if (found->m_eDeed == EDeed::nothing) {
        line.fail("'for' and a time are missing");
    }
}

// Whether a step needs the daemon of the play to live, to be dead, or the component to be ours.
enum ENeeds : unsigned { needsNothing = 0, needsLife = 1, needsDeath = 2, needsCommand = 4 };

struct SVerb {
    const char* m_szWord;
    EStep m_eStep;
    unsigned m_nNeeds;
    void (*m_fnRead)(CScriptLine& line, SStep& step);
};
constexpr SVerb aVerbs[] = {
    {"list", EStep::list, needsNothing, readList},       {"enable", EStep::enable, needsLife, readFeature},
    {"modify", EStep::modify, needsLife, readModify},    {"disable", EStep::disable, needsLife, readFeature},
    {"overdue", EStep::overdue, needsLife, readCode},    {"expect", EStep::expect, needsNothing, readExpect},
    {"wait", EStep::wait, needsNothing, readTime},       {"silent", EStep::silent, needsLife, readTime},
    {"die", EStep::die, needsLife, readNothing},         {"start", EStep::start, needsDeath, readNothing},
    {"restart", EStep::restart, needsLife, readNothing}, {"stop", EStep::stop, needsCommand, readNothing},
    {"kill", EStep::kill, needsCommand, readNothing},    {"run", EStep::run, needsCommand, readNothing},
};

// An expectation needs what it expects: only a process of ours is seen to end.
unsigned needsOf(const SVerb& verb, const SStep& step) {
    return step.m_eStep == EStep::expect && step.m_oExpected.m_eDeed == EDeed::end ? needsCommand
                                                                                   : verb.m_nNeeds;
}

const SVerb* findVerb(std::string_view word) {
    const auto* found = std::find_if(std::begin(aVerbs), std::end(aVerbs),
                                     [&](const SVerb& verb) { return verb.m_szWord == word; });
    return found == std::end(aVerbs) ? nullptr : found;
}

// Reads one line after the other, and knows whether the daemon of the play lives there.
class CScriptReader {
public:
    explicit CScriptReader(bool hasCommand) : m_bHasCommand(hasCommand) {}

    void take(std::string_view text);
    SScript finish();

private:
    void read(CScriptLine& line, SStep& step) const;
    void check(CScriptLine& line, unsigned needs) const;

    bool m_bHasCommand;
    bool m_bLives = true;
    uint32_t m_nLine = 0;
    SScript m_oScript;
};

void CScriptReader::take(std::string_view text) {
    ++m_nLine;
    CScriptLine line(text);
    if (line.isEmpty() && line.error().empty()) {
        return;
    }
    SStep step;
    step.m_nLine = m_nLine;
    step.m_sText = line.whole();
    read(line, step);
    if (!line.error().empty()) {
        m_oScript.m_vErrors.push_back({m_nLine, line.error()});
    }
    m_bLives = step.m_eStep == EStep::die ? false : step.m_eStep == EStep::start ? true : m_bLives;
    m_oScript.m_vSteps.push_back(std::move(step));
}

void CScriptReader::read(CScriptLine& line, SStep& step) const {
    const std::string word = line.take("a step");
    const SVerb* verb = findVerb(word);
    if (verb == nullptr) {
        std::vector<std::string_view> words;
        words.reserve(std::size(aVerbs));
        for (const SVerb& known : aVerbs) {
            words.emplace_back(known.m_szWord);
        }
        return failUnknown(line, word, words);
    }
    step.m_eStep = verb->m_eStep;
    verb->m_fnRead(line, step);
    if (!line.isAtEnd()) {
        line.fail(fmt::format("'{}' is too much", printable(line.take("more"))));
    }
    check(line, needsOf(*verb, step));
}

void CScriptReader::check(CScriptLine& line, unsigned needs) const {
    if ((needs & needsLife) != 0 && !m_bLives) {
        line.fail("the daemon is dead here, and needs a 'start' before");
    }
    if ((needs & needsDeath) != 0 && m_bLives) {
        line.fail("the daemon lives here already");
    }
    if ((needs & needsCommand) != 0 && !m_bHasCommand) {
        line.fail("the component must be started by qelctl for that: -- COMMAND");
    }
}

SScript CScriptReader::finish() {
    if (m_oScript.m_vSteps.empty()) {
        m_oScript.m_vErrors.push_back({0, "there is no step in it"});
    }
    return std::move(m_oScript);
}

} // namespace

SScript readScript(std::string_view text, bool hasCommand) {
    CScriptReader reader(hasCommand);
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        reader.take(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return reader.finish();
}

std::string timeText(std::chrono::milliseconds time) {
    const auto count = time.count();
    return count % 1000 == 0 ? fmt::format("{}s", count / 1000) : fmt::format("{}ms", count);
}
