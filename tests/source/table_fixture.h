// A control with components that answer, and lists to hand over to it.
#ifndef QEL_TESTS_SOURCE_TABLE_FIXTURE_H
#define QEL_TESTS_SOURCE_TABLE_FIXTURE_H

#include "fake/fake_platform.h"
#include "features/CComponent.h"
#include "features/CQelControl.h"
#include "messaging/wire.h"
#include "source/CHandOver.h"
#include "source/CNamePool.h"

#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// A feature as the list has it, and as the table must come to have it.
struct SWanted {
    auto operator<=>(const SWanted&) const = default;
    uint32_t m_nCode;
    uint32_t m_nData;
    std::set<std::string> m_oNames = {"Voice"};
    bool m_bSourced = false;
};

inline std::ostream& operator<<(std::ostream& out, const SWanted& feature) {
    out << feature.m_nCode << "," << feature.m_nData << (feature.m_bSourced ? " sourced" : "");
    for (const std::string& name : feature.m_oNames) {
        out << " " << name;
    }
    return out;
}

using CWanted = std::vector<SWanted>;

class CTableTest : public testing::Test {
protected:
    CTableTest() {
        CFakePlatform::get().reset();
        CFakePlatform::get().m_bKeepLog = false;
    }

    void announce(const char* name) {
        auto* component = new CComponent(&m_oControl);
        CQelMessageHeader header;
        header.m_nHandle = ++m_nHandles;
        component->init(header, name, 1, nullptr);
        component->notifyAllFeatures();
        component->m_bMonitor = 1;
        m_oControl.addComponent(component);
    }

    int give(const CWanted& list) {
        CFreshList fresh;
        for (const SWanted& feature : list) {
            auto entry = std::make_unique<CFeatureEntry>(&m_oControl);
            entry->m_nCode = feature.m_nCode;
            entry->m_nData = feature.m_nData;
            for (const std::string& name : feature.m_oNames) {
                entry->addCompName(m_oNames.intern(name));
            }
            fresh.push_back({std::move(entry), feature.m_bSourced});
        }
        return m_oHandOver.apply(std::move(fresh));
    }

    // One pass of the daemon; whoever was sent something answers it, if `isAnswered` says so.
    template <typename Answered>
    void pass(Answered isAnswered) {
        CFakePlatform::get().advance(8);
        m_oControl.audit();
        for (const SSent& sent : CFakePlatform::get().takeSent()) {
            CComponent* component = m_oControl.findCompByMFW(sent.m_nHandle);
            remember(component->m_szName, sent.m_sBody);
            component->m_nReplyStatus = nReplyOk;
            if (isAnswered()) {
                component->replyFeatureArray();
            }
        }
        m_oControl.timeout();
        remember("", {}); // resent ones say nothing new
        m_oHandOver.carryOn();
    }

    void passes(int count) {
        for (int i = 0; i < count; ++i) {
            pass([] { return true; });
        }
    }

    // The table's entries, with the data that they have or are getting; withdrawn ones only if asked for.
    CWanted standing(bool withWithdrawn = true) const {
        CWanted result;
        for (const CFeatureEntry* entry : m_oControl.features().m_vItems) {
            if (entry != nullptr && (withWithdrawn || entry->m_eStatus != CFeatureEntry::fsDeleted)) {
                const bool isModified = entry->m_eStatus == CFeatureEntry::fsModify && entry->m_nNewData != 0;
                result.push_back({entry->m_nCode,
                                  isModified ? entry->m_nNewData : entry->m_nData,
                                  {entry->m_vCompNames.begin(), entry->m_vCompNames.end()},
                                  entry->m_bSourced == 1});
            }
        }
        std::sort(result.begin(), result.end());
        return result;
    }

    // "KIND code data [new data]" of what the component was sent since last asked.
    std::vector<std::string> told(const std::string& name) { return std::exchange(m_oTold[name], {}); }

    // What the component was told last of the feature: true, that it is in force.
    bool isInForceAt(const std::string& name, const SWanted& feature) {
        return m_oInForce[name].count({feature.m_nCode, feature.m_nData}) != 0;
    }

    CFeatureEntry* entry(uint32_t code) const { return m_oControl.findFeatureByCode(code); }

    CNamePool m_oNames;
    CQelControl m_oControl;
    CHandOver m_oHandOver{m_oControl};

private:
    void remember(const std::string& name, const std::string& body) {
        if (body.empty()) {
            CFakePlatform::get().takeSent();
            return;
        }
        const auto message =
            readBody<CQelServerMessage>(reinterpret_cast<const uint8_t*>(body.data()), body.size());
        std::string text = "? ";
        const std::pair<uint32_t, uint32_t> feature(message.m_nCode, message.m_nData);
        if (message.m_oHeader.m_nType == nQelServerNotifyMsgType) {
            text = "notify ";
            m_oInForce[name].insert(feature);
        } else if (message.m_oHeader.m_nType == nQelServerModifyMsgType) {
            text = "modify ";
            m_oInForce[name].erase(feature);
            m_oInForce[name].insert({message.m_nCode, message.m_nExtra});
        } else if (message.m_oHeader.m_nType == nQelServerDisableMsgType) {
            text = "disable ";
            m_oInForce[name].erase(feature);
        }
        text += std::to_string(feature.first) + " " + std::to_string(feature.second);
        if (message.m_oHeader.m_nType == nQelServerModifyMsgType) {
            text += " " + std::to_string(message.m_nExtra);
        }
        m_oTold[name].push_back(text);
    }

    uint32_t m_nHandles = 100;
    std::map<std::string, std::vector<std::string>> m_oTold;
    std::map<std::string, std::set<std::pair<uint32_t, uint32_t>>> m_oInForce;
};

#endif
