// The periodic passes, against plain walks on random tables.
#include "random_world.h"
#include "world.h"

#include "server/log.h"

#include <set>

namespace {

using EFStatus = CFeatureEntry::EFStatus;
using enum CFeatureEntry::EOperator;
using enum CCompStatus::ECStatus;

// What starts a phase: the state of the feature, the states of the record, where it goes, what is sent.
struct SPushed {
    EFStatus m_eFeature;
    std::set<int> m_vFrom;
    CCompStatus::ECStatus m_eTo;
    uint32_t m_nType;
};

const SPushed aPushed[] = {
    {EFStatus::fsNewAdd, {0}, csEnabling, 1},
    {EFStatus::fsModify, {6, 7}, csModifying, 1},
    {EFStatus::fsModify, {0, 2, 3}, csModifying, 2},
    {EFStatus::fsDeleted, {0, 2, 3, 10, 11}, csDisabling, 3},
};

// The passes as one would walk them by hand, looking through everything for everything.
class CPlainPasses {
public:
    explicit CPlainPasses(CQelControl& control)
        : m_oControl(control), m_vFeatures(control.features().m_vItems),
          m_vComponents(control.components().m_vItems) {}

    void audit() {
        for (CFeatureEntry* entry : m_vFeatures) {
            if (entry == nullptr ||
                (entry->m_eStatus == EFStatus::fsDeleted && entry->isReplied(EFStatus::fsExisting))) {
                continue;
            }
            bool isSent = false;
            for (CComponent* comp : m_vComponents) {
                if (comp != nullptr && entry->findCompName(comp->m_szName)) {
                    isSent |= auditOne(*entry, *comp, false);
                }
            }
            if (isSent) {
                return;
            }
        }
    }

    void auditComp(CComponent& comp) {
        for (CFeatureEntry* entry : m_vFeatures) {
            if (entry != nullptr && entry->m_eStatus != EFStatus::fsDeleted &&
                entry->findCompName(comp.m_szName) && auditOne(*entry, comp, true)) {
                return;
            }
        }
    }

    static void auditOwn(CComponent& comp) {
        for (CFeatureEntry* entry : comp.m_aFeatures.m_vItems) {
            CCompStatus* status = entry->findCompByPtr(&comp);
            if (status == nullptr) {
                entry->addComponent(opAdd, &comp);
                entry->addComponent(opNotify, &comp);
                logEvent(svInfo, 31119, "audit feature with (%d, %d)", entry->m_nCode, entry->m_nData);
                comp.sendMessage(1, entry->m_nCode, entry->m_nData);
                return;
            }
            if (comp.m_bMonitor == 1 && push(*entry, comp, *status, false)) {
                return;
            }
        }
    }

    void timeout() {
        for (size_t i = 0; i < m_vFeatures.size(); ++i) {
            CFeatureEntry* entry = m_vFeatures[i];
            if (entry == nullptr) {
                continue;
            }
            if (entry->isReplied(EFStatus::fsExisting)) {
                settle(entry);
            }
            if (i < m_vFeatures.size() && m_vFeatures[i] != nullptr) {
                resend(*m_vFeatures[i]); // of the entry that moved up, where one went
            }
        }
    }

private:
    bool auditOne(CFeatureEntry& entry, CComponent& comp, bool alone) {
        const bool isTakenIn = entry.findCompByPtr(&comp) != nullptr;
        if (isTakenIn && comp.findFeatureEntry(&entry)) {
            return comp.m_bMonitor == 1 && push(entry, comp, *entry.findCompByPtr(&comp), alone);
        }
        if (!isTakenIn) {
            entry.addComponent(opAdd, &comp);
            entry.addComponent(opNotify, &comp);
            logEvent(svInfo, alone ? 31112 : 31107,
                     alone ? "audit comp (%s) not in feature list with (%d, %d)"
                           : "audit comp %s not in feature list with (%d, %d)",
                     comp.m_szName, entry.m_nCode, entry.m_nData);
        } else {
            entry.addComponent(opNotify, &comp);
            logEvent(svInfo, alone ? 31113 : 31108, "audit feature not in comp list with (%d, %d)",
                     entry.m_nCode, entry.m_nData);
        }
        comp.sendMessage(1, entry.m_nCode, entry.m_nData);
        if (!comp.findFeatureEntry(&entry)) {
            comp.addFeatureEntry(&entry);
        }
        return true;
    }

    static bool push(CFeatureEntry& entry, CComponent& comp, CCompStatus& status, bool alone) {
        const bool isModified = entry.m_eStatus == EFStatus::fsModify;
        for (const SPushed& row : aPushed) {
            if (row.m_eFeature == entry.m_eStatus && row.m_vFrom.count(status.m_eStatus) != 0) {
                status.m_eStatus = row.m_eTo;
                status.m_tStamp = static_cast<uint32_t>(platform().m_nMicroseconds / 1000000);
                send(entry, comp, row.m_nType,
                     isModified && row.m_nType == 1 ? entry.m_nNewData : entry.m_nData, alone);
                return true;
            }
        }
        const bool isToldAgain =
            isModified ? alone
                       : entry.m_eStatus == EFStatus::fsActive || entry.m_eStatus == EFStatus::fsExisting;
        if (!isToldAgain || entry.addComponent(opNotify, &comp) == 0) {
            return false;
        }
        logEvent(svInfo, 31109,
                 isModified ? "audit modify feature (%d, %d) at comp %s"
                            : "audit feature (%d, %d) at comp %s",
                 entry.m_nCode, entry.m_nData, comp.m_szName);
        comp.sendMessage(isModified ? 2 : 1, entry.m_nCode, entry.m_nData);
        return true;
    }

    static void send(const CFeatureEntry& entry, CComponent& comp, uint32_t type, uint32_t data, bool alone) {
        if (type == 2) {
            logEvent(svInfo, 31108, "%s feature (%d, %d %d) at comp %s", alone ? "modfiying" : "modifying",
                     entry.m_nCode, data, entry.m_nNewData, comp.m_szName);
            comp.sendMessage(type, entry.m_nCode, data, entry.m_nNewData);
            return;
        }
        logEvent(svInfo, 31108, "%s feature (%d, %d) at comp %s", type == 1 ? "notifying" : "disabling",
                 entry.m_nCode, data, comp.m_szName);
        comp.sendMessage(type, entry.m_nCode, data);
    }

    void settle(CFeatureEntry* entry) {
        const uint32_t code = entry->m_nCode;
        if (entry->m_eStatus == EFStatus::fsModify && entry->isReplied(EFStatus::fsModify)) {
            entry->m_nData = entry->m_nNewData != 0 ? entry->m_nNewData : entry->m_nData;
            entry->m_nNewData = 0;
            entry->m_eStatus = EFStatus::fsActive;
            logEvent(svInfo, 31115, "modify to active feature %d %d", code, entry->m_nData);
        } else if (entry->m_eStatus == EFStatus::fsModify) {
            logEvent(svInfo, 31115, "wrong modify %d %d (0)", code, entry->m_nData);
        } else if (entry->m_eStatus == EFStatus::fsDeleted) {
            logEvent(svInfo, 31115, "remove deleted feature %d %d", code, entry->m_nData);
            for (CComponent* comp : m_vComponents) {
                if (comp != nullptr) {
                    comp->delFeatureEntry(entry);
                }
            }
            m_oControl.delFeature(entry);
            delete entry;
        } else if (entry->m_eStatus != EFStatus::fsActive) {
            entry->m_eStatus = EFStatus::fsActive;
            logEvent(svInfo, 31115, "newadd or existing to active feature %d %d", code, entry->m_nData);
        }
    }

    static void resend(CFeatureEntry& entry) {
        for (CCompStatus* late = entry.findFirstTimeout(); late != nullptr && late->m_pComponent != nullptr;
             late = entry.findNextTimeout()) {
            logEvent(svInfo, 31115, "timeout feature %d for comp %s at state %d", entry.m_nCode,
                     late->m_pComponent->m_szName, late->m_eStatus);
            late->m_eStatus = late->m_eStatus == csEnabling    ? csEnableTimedOut
                              : late->m_eStatus == csDisabling ? csDisableTimedOut
                                                               : csModifyFailed;
            late->m_pComponent->sendMessage(4, entry.m_nCode, entry.m_nData);
        }
    }

    CQelControl& m_oControl;
    const std::vector<CFeatureEntry*>& m_vFeatures;
    const std::vector<CComponent*>& m_vComponents;
};

using CPassesTest = CHeartTest;

// Three passes on each of many tables, against the plain walk.
template <typename Plain, typename Real>
void compare(Plain plainPass, Real realPass) {
    for (uint32_t seed = 0; seed < 10000; ++seed) {
        std::string plainly;
        std::string really;
        const auto runOn = [seed](auto pass, std::string& outcome) {
            CRandomWorld world(seed);
            for (int i = 0; i < 3; ++i) {
                pass(world.m_oControl, world.anyComponent());
                outcome += transcript() + world.state();
                platform().advance(6);
            }
        };
        runOn(plainPass, plainly);
        runOn(realPass, really);
        ASSERT_EQ(really, plainly) << "seed " << seed;
    }
}

TEST_F(CPassesTest, AuditTellsWhatThePlainWalkTells) {
    compare([](CQelControl& control, CComponent*) { CPlainPasses(control).audit(); },
            [](CQelControl& control, CComponent*) { control.audit(); });
}

TEST_F(CPassesTest, TheAuditsOfOneComponentTellWhatThePlainWalksTell) {
    compare([](CQelControl& control, CComponent* comp) { CPlainPasses(control).auditComp(*comp); },
            [](CQelControl& control, CComponent* comp) { control.auditComp(comp); });
    compare([](CQelControl&, CComponent* comp) { CPlainPasses::auditOwn(*comp); },
            [](CQelControl&, CComponent* comp) { comp->auditFeature(); });
}

TEST_F(CPassesTest, TimeoutSettlesRemovesAndResendsAsThePlainWalkDoes) {
    compare([](CQelControl& control, CComponent*) { CPlainPasses(control).timeout(); },
            [](CQelControl& control, CComponent*) { control.timeout(); });
}

TEST_F(CPassesTest, TenNewFeaturesTakeTenAudits) {
    std::vector<CFeatureEntry*> entries;
    for (uint32_t code = 1; code <= 10; ++code) {
        entries.push_back(fresh(code, code, {"Voice", "Gateway"}));
    }
    newList(control(), entries);
    for (const auto& [name, handle] : {std::pair{"Voice", 1u}, {"Gateway", 2u}}) {
        announce(name, 77, handle);
        monitor(handle); // which sends the first
        reply(handle, 1);
    }
    told();
    for (int code = 3; code <= 10; ++code) { // each reply was followed by another
        control().audit();
        const std::string what = ": 1 " + std::to_string(code) + " " + std::to_string(code) + " 0";
        EXPECT_EQ(told(), (CTexts{"1" + what, "2" + what}));
    }
    control().audit();
    EXPECT_TRUE(told().empty());
}

// The resend of the timeout pass is not counted; once the feature counts as answered, three more are.
TEST_F(CPassesTest, WhatIsNeverAnsweredIsSentAgainAndGivenUp) {
    CFeatureEntry& entry = *feature(control(), 7, 70);
    announce("Voice", 77, 0x21);
    monitor(0x21);
    for (int pass = 0; pass < 8; ++pass) {
        platform().advance(11);
        control().audit();
        control().timeout();
    }
    EXPECT_EQ(told(), (CTexts{"33: 0 0 0 0", "33: 0 0 0 0", "33: 1 7 70 0", "33: 4 7 70 0", "33: 1 7 70 0",
                              "33: 1 7 70 0", "33: 1 7 70 0"}));
    EXPECT_EQ(entry.m_vCompStatus.at(0)->m_eStatus, csEnableFailed);
    EXPECT_EQ(entry.m_eStatus, EFStatus::fsActive);
}

} // namespace
