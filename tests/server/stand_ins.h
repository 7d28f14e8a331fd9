// What the server's tests need beside the fake platform, a feature source of their own for one.
#ifndef QEL_TESTS_SERVER_STAND_INS_H
#define QEL_TESTS_SERVER_STAND_INS_H

#include "fake/fake_platform.h"

#include <gtest/gtest.h>

using Lines = std::vector<std::string>;

extern bool bSupplyFails; // the feature source's supply()

// The fake platform's log lines since the last call, as "severity event text".
Lines takeLines();

struct CServerTestBase : ::testing::Test {
    void SetUp() override;

    CFakePlatform& m_oPlatform = CFakePlatform::get();
};

#endif
