#ifndef QEL_TESTS_CLIENT_VOICE_H
#define QEL_TESTS_CLIENT_VOICE_H

#include "client/qelclient.h"

#include <fmt/format.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>

constexpr int nLong = 10000; // milliseconds: for what ends by itself

// A client called Voice, whose callbacks are written down.
class CVoice {
protected:
    ~CVoice() { qel_close(m_pClient); }

    void open(uint32_t answerTimeout = 0) {
        qel_options options = {sizeof options, answerTimeout, cbNotify, nullptr, this, 0, 0};
        ASSERT_EQ(qel_open("Voice", &options, &m_pClient), 0);
    }

    static int cbNotify(void* user, const qel_notification* n, char* text) {
        static const char* const aKinds[] = {"", "enable", "modify", "disable", "overdue"};
        auto& self = *static_cast<CVoice*>(user);
        self.m_sTold += fmt::format("{} {}:{}", aKinds[n->kind], n->code, n->data);
        self.m_sTold += n->kind == QEL_MODIFY ? fmt::format(">{}, ", n->new_data) : ", ";
        return self.m_fnAnswer ? self.m_fnAnswer(*n, text) : QEL_OK;
    }

    qel_client* m_pClient = nullptr;
    std::string m_sTold; // "enable 1:2, modify 1:2>3, disable 1:3, overdue 1:3, "
    std::function<int(const qel_notification&, char*)> m_fnAnswer;
};

#endif
