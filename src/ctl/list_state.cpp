#include "ctl/list_state.h"

#include "ctl/list_errors.h"
#include "ctl/pairs.h"
#include "ctl/terminal.h"
#include "source/list/list_digest.h"

#include <charconv>
#include <fmt/format.h>

std::string SListView::path() const {
    return printable(m_sText.substr(0, m_sText.find('\0')));
}

std::vector<SListError> SListView::errors() const {
    std::vector<SListError> errors;
    for (std::string_view text : textsBehind(m_sText)) {
        SListError error;
        const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), error.m_nLine);
        text.remove_prefix(static_cast<size_t>(end - text.data()));
        error.m_sText = printable(text.starts_with(": ") ? text.substr(2) : text);
        errors.push_back(std::move(error));
    }
    return errors;
}

EExitStatus SListView::exitStatus() const {
    if (m_nResult == lrUnreadable) {
        return exitNotYet;
    }
    return isRefused() || m_nInForce == 0 ? exitRefused : exitOk;
}

std::string SListView::text(uint32_t now) const {
    if (m_nInForce == 0) {
        return fmt::format("{}: no list is in force", path());
    }
    return fmt::format("{}: {}{}, in force since {}", path(), counted(m_nFeatures, "feature"),
                       m_nKept == 0 ? "" : " of the list kept from an earlier run", moment(m_tLoaded, now));
}

void SListView::print(uint32_t now) const {
    const bool isGood = exitStatus() == exitOk && m_nKept == 0;
    fmt::print("{}\n", paint(text(now), isGood ? EColour::none : EColour::yellow, stdout));
    if (m_nVerified != 0) {
        fmt::print("-- serial {}, signed by {} (key {}); digest {}\n", number(m_aSerial),
                   printable(fieldText(m_szSigner)), fieldText(m_szKeyId),
                   printListDigest(number(m_aDigest)));
    }
    if (m_nMuch != 0) {
        const std::string much = fmt::format("-- it withdrew {} of {} features, more than a fifth",
                                             uint32_t{m_nWithdrawn}, uint32_t{m_nBefore});
        fmt::print("{}\n", paint(much, EColour::yellow, stdout));
    }
    if (isRefused() || m_nResult == lrUnreadable) {
        const std::string what =
            fmt::format("-- the file was {} at {}{}", isRefused() ? "refused" : "not readable",
                        moment(m_tRead, now), isRefused() ? "" : "; it is going to be read again");
        fmt::print("{}\n", paint(what, EColour::red, stdout));
        printErrors(path(), errors(), m_nErrors, stdout);
    }
}

EAsked readListState(CStatusQuery& query, std::optional<SListView>& list) {
    std::vector<TStatus<CStatusList>> read;
    const EAsked asked = query.askAll(makeQuestion(sqList), read);
    list.reset();
    if (asked == EAsked::answered && read.size() == 1) {
        list.emplace(SListView{std::move(read.front())});
    }
    return asked == EAsked::unknown ? EAsked::answered : asked;
}
