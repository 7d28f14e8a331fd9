#include "server/stand_ins.h"

#include "source/CFeatureSource.h"

#include <cstddef>
#include <gtest/gtest-spi.h>
#include <iostream>
#include <new>

bool bSupplyFails = false;
int nAllocationsLeft = -1;

namespace {

bool isExhausted() {
    return nAllocationsLeft == 0 || nAllocationsLeft-- == 0;
}

[[noreturn]] void runAndExit(const std::function<void()>& body) {
    testing::TestPartResultArray failures;
    {
        testing::ScopedFakeTestPartResultReporter keeper(&failures);
        body();
    }
    for (int i = 0; i < failures.size(); ++i) {
        std::cerr << failures.GetTestPartResult(i) << '\n';
    }
    std::exit(failures.size() == 0 ? 0 : 1);
}

} // namespace

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return isExhausted() ? nullptr : ::operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return isExhausted() ? nullptr : ::operator new[](size);
}

CFeatureSource& CFeatureSource::instance() {
    alignas(CFeatureSource) static std::byte place[sizeof(CFeatureSource)];
    return reinterpret_cast<CFeatureSource&>(place); // nothing here touches a member
}

bool CFeatureSource::supply(CQelControl&) {
    return !bSupplyFails;
}

void CFeatureSource::startWatching() {}

Lines takeLines() {
    Lines lines;
    for (const SLogged& line : CFakePlatform::get().takeLog()) {
        lines.push_back(std::to_string(line.m_nSeverity) + " " + std::to_string(line.m_nEvent) + " " +
                        line.m_sText);
    }
    return lines;
}

void inFreshProcess(const std::function<void()>& body) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runAndExit(body), testing::ExitedWithCode(0), "");
}

void CServerTestBase::SetUp() {
    CFakePlatform::get().reset();
    bSupplyFails = false;
    nAllocationsLeft = -1;
}
