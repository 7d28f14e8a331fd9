// What the server's tests need beside the fake platform: a feature source of their own, memory that runs out
// on demand, and processes in which no singleton exists yet.
#ifndef QEL_TESTS_SERVER_STAND_INS_H
#define QEL_TESTS_SERVER_STAND_INS_H

#include "fake/fake_platform.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

extern bool bSupplyFails;    // the feature source's supply()
extern int nAllocationsLeft; // of those that may fail; negative: no end to them

// The fake platform's log lines since the last call, as "severity event text".
Lines takeLines();

// Runs the body in a process of its own; its failures become one of the calling test.
void inFreshProcess(const std::function<void()>& body);

// Starts with a fresh platform, a source that works and memory enough.
class CServerTestBase : public ::testing::Test {
protected:
    void SetUp() override;

    CFakePlatform& m_oPlatform = CFakePlatform::get();
};

#endif
