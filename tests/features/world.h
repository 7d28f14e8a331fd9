// The heart of the daemon on the scripted platform, and the words that its tests are told in.
#ifndef QEL_TESTS_WORLD_H
#define QEL_TESTS_WORLD_H

#include "fake/fake_platform.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "messaging/wire/wire.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

using CNames = std::vector<const char*>; // the strings must outlive the entries
using CTexts = std::vector<std::string>;
using CEntries = std::vector<CFeatureEntry*>;
using CList = CArray<CFeatureEntry*>;
using EFStatus = CFeatureEntry::EFStatus;

inline CFakePlatform& platform() {
    return CFakePlatform::get();
}

inline CQelControl& control() {
    return *CQelControl::instance();
}

// The control owns what is built, but for a fresh entry.
CFeatureEntry* fresh(uint32_t code, uint32_t data, const CNames& names = {"Voice"});
CFeatureEntry& feature(uint32_t code, uint32_t data, EFStatus status = EFStatus::fsNewAdd,
                       const CNames& names = {"Voice"});
CComponent& component(const char* name, uint32_t handle = 0x21, uint8_t monitor = 1);
// Takes the component into the feature, on both sides, with a record stamped now.
CCompStatus& record(CFeatureEntry& entry, CComponent& comp, int status);
// Deletes all that the control holds.
void empty();
// Merges a list; what is left of it is deleted.
int newList(const CEntries& entries);

// All that the control holds, a line for each feature and component.
std::string tables();

// A line of the log as "severity event text"; those since the last call.
std::string textOf(const SLogged& line);
CTexts takeLines();
// Lines that a test compares whole, for tests/docs/check_logged; takeLines() notes its own.
void noteSeen(const CTexts& lines);
// The messages to components since the last call, each as "handle: type code data extra". Forgets the log.
CTexts told();

std::string words(std::initializer_list<uint32_t> values);
std::string header(uint32_t messageClass, uint32_t subType, uint32_t handle);
void receive(std::string_view body);
// Class 0: the name goes into its field as it is, `tail` behind it.
std::string requestBody(uint32_t subType, uint32_t handle, std::string_view name = "", uint32_t processId = 0,
                        std::string_view tail = "");
void request(uint32_t subType, uint32_t handle, std::string_view name = "", uint32_t processId = 0,
             std::string_view tail = "");

// Every test starts with a platform that has seen nothing, and leaves an empty control.
class CHeartTest : public testing::Test {
protected:
    CHeartTest() { platform().reset(); }
    ~CHeartTest() override { empty(); }

    // `count` pairs are claimed.
    static void announce(std::string_view name, uint32_t processId, uint32_t handle, uint32_t count = 0,
                         const std::string& pairs = "") {
        request(CompNameMsgType, handle, name, processId, words({count}) + pairs);
    }
    static void monitor(uint32_t handle) { request(nQelClientStartMonitorMsgType, handle); }
    static void reply(uint32_t handle, uint32_t status) {
        receive(header(1, 5, handle) + words({0, status, 0}));
    }
    static void shutDown(uint32_t handle) { receive(header(1, 6, handle) + words({0, 1, 0})); }
};

#endif
