#include "ctl/daemon_report.h"

#include "ctl/describe.h"
#include "ctl/json.h"
#include "ctl/terminal.h"

#include <cstdio>
#include <fmt/format.h>
#include <string_view>

namespace {

CJson beginLine(std::string_view event) {
    CJson line = jsonDocument("daemon");
    line["event"] = event;
    return line;
}

// In TAP a number sign begins a directive.
std::string escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '#' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    return escaped;
}

} // namespace

void CPlayReport::begin() const {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    if (!m_oOptions.m_bQuiet && !m_oOptions.m_bJson) {
        fmt::print("TAP version 13\n1..{}\n", m_nSteps);
    }
}

void CPlayReport::sent(const uint8_t* body, size_t length) const {
    message("sent", describeReceived(body, length, m_oNames)); // by a component
}

void CPlayReport::received(const uint8_t* body, size_t length) const {
    message("received", describeSent(body, length)); // by a component
}

void CPlayReport::message(const char* event, const SMessageText& message) const {
    if (isJson()) {
        CJson line = beginLine(event);
        line["kind"] = message.m_sKind;
        line["detail"] = message.m_sDetail;
        printJsonLine(line);
    } else if (!m_oOptions.m_bQuiet) {
        const char* const arrow = event == std::string_view("sent") ? "->" : "<-";
        fmt::print("{}\n", paint(fmt::format("# {} {:<8} {}", arrow, message.m_sKind, message.m_sDetail),
                                 EColour::dim, stdout));
    }
}

void CPlayReport::note(const std::string& text) const {
    if (isJson()) {
        CJson line = beginLine("note");
        line["text"] = text;
        printJsonLine(line);
    } else if (!m_oOptions.m_bQuiet) {
        fmt::print("# {}\n", text);
    }
}

void CPlayReport::step(const SStep& step, const SResult& result, std::chrono::milliseconds time) {
    const bool isGood = result.m_eStatus == exitOk;
    ++m_nDone;
    m_nFailed += isGood ? 0 : 1;
    if (isJson()) {
        CJson line = beginLine("step");
        line["number"] = m_nDone;
        line["line"] = step.m_nLine;
        line["step"] = step.m_sText;
        line["good"] = isGood;
        line["expected"] = isGood ? CJson() : CJson(result.m_sExpected);
        line["came"] = isGood ? CJson() : CJson(result.m_sCame);
        line["seconds"] = static_cast<double>(time.count()) / 1000;
        printJsonLine(line);
        return;
    }
    FILE* const stream = m_oOptions.m_bQuiet ? stderr : stdout;
    if (isGood && m_oOptions.m_bQuiet) {
        return;
    }
    const std::string word = paint(isGood ? "ok" : "not ok", isGood ? EColour::green : EColour::red, stream);
    fmt::print(stream, "{} {} - {} (line {})\n", word, m_nDone, escaped(step.m_sText), step.m_nLine);
    if (!isGood) {
        fmt::print(stream, "#   expected: {}\n#   came:     {}\n", result.m_sExpected, result.m_sCame);
    }
}

void CPlayReport::end() const {
    const size_t left = m_nSteps - m_nDone;
    if (isJson()) {
        CJson line = beginLine("end");
        line["good"] = m_nFailed == 0 && left == 0;
        line["steps"] = m_nSteps;
        line["not_run"] = left;
        printJsonLine(line);
    } else if (left != 0) {
        note(fmt::format("the last {} not run", left == 1 ? "step was" : fmt::format("{} steps were", left)));
    }
}
