// What the server's tests need beside the fake platform.
#ifndef QEL_TESTS_SERVER_STAND_INS_H
#define QEL_TESTS_SERVER_STAND_INS_H

#include "fake/fake_platform.h"

#include <gtest/gtest.h>

using Lines = std::vector<std::string>;

// The fake platform's log lines since the last call, as "severity event text".
inline Lines takeLines() {
    Lines lines;
    for (const auto& [severity, event, text] : CFakePlatform::get().takeLog()) {
        lines.push_back(std::to_string(severity) + " " + std::to_string(event) + " " + text);
    }
    return lines;
}

struct CServerTestBase : ::testing::Test {
    void SetUp() override { m_oPlatform.reset(); }

    CFakePlatform& m_oPlatform = CFakePlatform::get();
};

#endif
