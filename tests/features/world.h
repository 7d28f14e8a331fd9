// The heart of the daemon on the scripted platform, and the words that its tests are told in.
#ifndef QEL_TESTS_WORLD_H
#define QEL_TESTS_WORLD_H

#include "fake/fake_platform.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

using CNames = std::vector<const char*>; // the strings must outlive the entries
using CTexts = std::vector<std::string>;

inline CFakePlatform& platform() {
    return CFakePlatform::get();
}

// --- Building a table by hand; the control owns what is built, but for a fresh entry ---

CFeatureEntry* fresh(uint32_t code, uint32_t data, const CNames& names = {"Voice"});
CFeatureEntry* feature(CQelControl& control, uint32_t code, uint32_t data,
                       CFeatureEntry::EFStatus status = CFeatureEntry::fsNewAdd,
                       const CNames& names = {"Voice"});
CComponent* component(CQelControl& control, const char* name, uint32_t handle = 0x21, uint8_t monitor = 1);
// Takes the component into the feature, on both sides, with a record stamped now.
CCompStatus* record(CFeatureEntry& entry, CComponent& comp, int status);
// Deletes all that the control holds.
void empty(CQelControl& control);
// Merges a list; what is left of it is deleted. `left` counts that.
int newList(CQelControl& control, const std::vector<CFeatureEntry*>& entries, size_t* left = nullptr);

// --- What happened since the last call ---

// "severity event text" for each log line and, in the place of the endpoint's own, "-> handle: hex" for each
// message sent. Every line ends with a newline.
std::string transcript();
// The messages to components alone, each as "handle: type code data extra".
CTexts told();

// --- Messages of components ---

std::string words(std::initializer_list<uint32_t> values);
std::string header(uint32_t messageClass, uint32_t subType, uint32_t handle, uint32_t tag = 5);
void receive(std::string_view body);

// The name goes into its field as it is; `count` pairs are claimed.
void announce(std::string_view name, uint32_t processId, uint32_t handle, uint32_t count = 0,
              std::string_view pairs = "");
void initList(uint32_t handle, std::string_view name = "");
void fetch(uint32_t handle, std::string_view name = "");
void monitor(uint32_t handle, std::string_view name = "");
void reply(uint32_t handle, uint32_t status);
void shutDown(uint32_t handle);

// Every test starts with a platform that has seen nothing, and leaves an empty control.
class CHeartTest : public testing::Test {
protected:
    CHeartTest() { platform().reset(); }
    ~CHeartTest() override { empty(control()); }
    static CQelControl& control() { return *CQelControl::instance(); }
};

#endif
