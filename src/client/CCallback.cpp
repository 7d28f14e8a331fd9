#include "client/CCallback.h"

#include <climits>
#include <cstring>
#include <cxxabi.h>

int CCallback::offer(const SDifference& difference, bool fetched, std::string* text) {
    const auto& [before, after] = difference;
    const SFeature& feature = before ? *before : *after;
    int kind = !after ? QEL_DISABLE : before ? QEL_MODIFY : QEL_ENABLE;
    uint32_t newData = kind == QEL_MODIFY ? after->m_nData : 0;
    m_rTable.forgetRefusal(after ? *after : feature);
    int result =
        call({sizeof(qel_notification), kind, feature.m_nCode, feature.m_nData, newData, fetched}, text);
    if (result == QEL_OK) {
        if (before) {
            m_rTable.remove(*before);
        }
        if (after) {
            m_rTable.add(*after);
        }
    } else if (after && (fetched || result != QEL_NO_REPLY)) {
        m_rTable.refuse(*after, before);
    }
    return result;
}

int CCallback::repeat(bool disables, const SFeature& feature, std::string& text) {
    if (disables) {
        m_rTable.forgetRefusal(feature);
    } else {
        m_rTable.add(feature); // marks it as seen if a fetch is under way
    }
    if (!m_oOptions.notify_unchanged) {
        return QEL_OK;
    }
    const int kind = disables ? QEL_DISABLE : QEL_ENABLE;
    return call({sizeof(qel_notification), kind, feature.m_nCode, feature.m_nData, 0, 0}, &text);
}

void CCallback::overdue(const SFeature& feature) {
    call({sizeof(qel_notification), QEL_OVERDUE, feature.m_nCode, feature.m_nData, 0, 0}, nullptr);
}

// A callback in C++ may throw, which must not leave by the C interface. Only the end of the thread
// (pthread_cancel(3)) passes through, as it has to.
int CCallback::call(const qel_notification& notification, std::string* text) {
    char buffer[QEL_TEXT_SIZE] = {};
    m_nCalls += m_nCalls < INT_MAX;
    if (!m_oOptions.notify) {
        return QEL_OK;
    }
    int result = QEL_REFUSED;
    try {
        result = m_oOptions.notify(m_oOptions.user, &notification, buffer);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        buffer[0] = '\0';
    }
    if (text) {
        // The component may have filled the buffer without leaving a NUL.
        text->assign(buffer, strnlen(buffer, sizeof buffer - 1));
    }
    return result;
}
