#include "table_fixture.h"

namespace {

using CTold = std::vector<std::string>;

class CHandOverTest : public CTableTest {
protected:
    CHandOverTest() {
        announce("Voice");
        announce("Gateway");
    }

    // Hands over and settles.
    void force(const CWanted& list) {
        give(list);
        passes(20);
        ASSERT_EQ(standing(), list);
        told("Voice");
        told("Gateway");
    }
};

TEST_F(CHandOverTest, SourcedFeatureIsKeptWhileOthersAreToldAgain) {
    force({{1, 10, {"Voice"}, true}, {2, 20}});
    const CFeatureEntry* kept = entry(1);
    EXPECT_EQ(give({{1, 10, {"Voice"}, true}, {2, 20}}), 2);
    passes(20);
    EXPECT_EQ(entry(1), kept);
    EXPECT_EQ(told("Voice"), CTold{"notify 2 20"});
}

TEST_F(CHandOverTest, ChangeRightAfterAHandOverIsAModification) {
    force({{1, 10, {"Voice"}, true}});
    give({{1, 10, {"Voice"}, true}}); // leaves the entry marked as unchanged
    give({{1, 11, {"Voice"}, true}});
    passes(20);
    EXPECT_EQ(told("Voice"), CTold{"modify 1 10 11"});
    EXPECT_EQ(standing(), (CWanted{{1, 11, {"Voice"}, true}}));
}

TEST_F(CHandOverTest, ModificationUnderWayIsTakenBack) {
    force({{1, 10, {"Voice"}, true}});
    give({{1, 11, {"Voice"}, true}});
    pass([] { return false; }); // told, not answered
    give({{1, 10, {"Voice"}, true}});
    passes(20);
    EXPECT_EQ(told("Voice"), (CTold{"modify 1 10 11", "modify 1 11 10"}));
    EXPECT_EQ(standing(), (CWanted{{1, 10, {"Voice"}, true}}));
}

// One component has answered already and would keep the new data if the entry were just set back.
TEST_F(CHandOverTest, ModificationIsTakenBackWhereTheCodeNowStandsTwice) {
    const SWanted before{1, 10, {"Gateway", "Voice"}, true};
    force({before});
    give({{1, 11, {"Gateway", "Voice"}, true}});
    bool isFirst = true;
    pass([&isFirst] { return std::exchange(isFirst, false); });
    give({before, {1, 30, {"Voice"}, true}});
    passes(20);
    EXPECT_TRUE(isInForceAt("Voice", before) && isInForceAt("Gateway", before));
    EXPECT_EQ(standing(), (CWanted{before, {1, 30, {"Voice"}, true}}));
}

TEST_F(CHandOverTest, KeptDataThatBecomesZeroIsToldAsNew) {
    force({{1, 10, {"Voice"}, true}});
    give({{1, 0, {"Voice"}, true}});
    passes(20);
    EXPECT_EQ(told("Voice"), CTold{"notify 1 0"});
    EXPECT_EQ(standing(), (CWanted{{1, 0, {"Voice"}, true}}));
}

TEST_F(CHandOverTest, BecomingSourcedKeepsAndCeasingToTellsAgain) {
    force({{1, 10}});
    give({{1, 10, {"Voice"}, true}});
    passes(5);
    EXPECT_EQ(told("Voice"), CTold{});
    EXPECT_EQ(standing(), (CWanted{{1, 10, {"Voice"}, true}}));
    give({{1, 10}});
    passes(5);
    EXPECT_EQ(told("Voice"), CTold{"notify 1 10"});
    EXPECT_EQ(standing(), CWanted({{1, 10}}));
}

TEST_F(CHandOverTest, EndedModificationLeavesNoPendingData) {
    force({{1, 10, {"Voice"}, true}});
    give({{1, 11, {"Voice"}, true}});
    give({});
    give({{1, 12, {"Voice"}, true}});
    EXPECT_EQ(entry(1)->m_nNewData, 0u);
    EXPECT_EQ(standing(), (CWanted{{1, 12, {"Voice"}, true}}));
}

TEST_F(CHandOverTest, AddedComponentIsToldAndOthersAreNot) {
    force({{1, 10, {"Voice"}, true}});
    give({{1, 10, {"Gateway", "Voice"}, true}});
    passes(5);
    EXPECT_EQ(told("Gateway"), CTold{"notify 1 10"});
    EXPECT_EQ(told("Voice"), CTold{});
    EXPECT_EQ(standing(), (CWanted{{1, 10, {"Gateway", "Voice"}, true}}));
}

// Told the old data in between, it would be left with that if its answer was late.
TEST_F(CHandOverTest, ComponentAddedWithAModificationJoinsAfterIt) {
    force({{1, 10, {"Voice"}, true}});
    give({{1, 11, {"Gateway", "Voice"}, true}});
    pass([] { return false; });
    EXPECT_EQ(told("Gateway"), CTold{});
    passes(20);
    EXPECT_EQ(told("Gateway"), CTold{"notify 1 11"});
    EXPECT_EQ(told("Voice"), CTold{"modify 1 10 11"});
    EXPECT_EQ(standing(), (CWanted{{1, 11, {"Gateway", "Voice"}, true}}));
}

TEST_F(CHandOverTest, DroppedComponentIsToldToDisable) {
    for (const bool isSourced : {false, true}) {
        force({{1, 10, {"Gateway", "Voice"}, isSourced}});
        give({{1, 10, {"Voice"}, isSourced}});
        EXPECT_EQ(m_oHandOver.waiting(), 1u);
        EXPECT_EQ(standing(false), CWanted{}) << "the withdrawal comes first";
        passes(20);
        EXPECT_EQ(told("Gateway"), CTold{"disable 1 10"});
        EXPECT_EQ(told("Voice"), (CTold{"disable 1 10", "notify 1 10"}));
        EXPECT_EQ(standing(), (CWanted{{1, 10, {"Voice"}, isSourced}}));
        EXPECT_EQ(m_oHandOver.waiting(), 0u);
    }
}

TEST_F(CHandOverTest, NewListReplacesWhatIsHeldBack) {
    force({{1, 10, {"Gateway", "Voice"}}});
    give({{1, 10, {"Voice"}}});
    give({{1, 10, {"Gateway", "Voice"}}});
    passes(20);
    EXPECT_EQ(standing(), (CWanted{{1, 10, {"Gateway", "Voice"}}}));
    give({{1, 10, {"Voice"}}});
    give({});
    passes(20);
    EXPECT_EQ(standing(), CWanted{});
}

TEST_F(CHandOverTest, SeveralDataValuesOfOneCodeStandSideBySide) {
    for (const bool isSourced : {false, true}) {
        const auto feature = [isSourced](uint32_t data) { return SWanted{1, data, {"Voice"}, isSourced}; };
        force({feature(10), feature(20), feature(30)});
        force({feature(0), feature(20), feature(25), feature(40)});
        force({feature(20)});
        force({feature(10), feature(15), feature(20)});
    }
}

// 206 is one of the codes that need a restart, whether the merge brings it in or not.
TEST_F(CHandOverTest, FeatureThatNeedsARestartIsReported) {
    EXPECT_EQ(give({{206, 1}}), 1);
    passes(5);
    EXPECT_EQ(give({}), 2);
    passes(5);
    EXPECT_EQ(give({{206, 1, {"Gateway", "Voice"}, true}}), 1);
    passes(5);
    EXPECT_EQ(give({{206, 1, {"Voice"}, true}}), 2);
    int results = 0;
    for (int i = 0; i < 5; ++i) {
        m_oControl.audit();
        for (CComponent* component : m_oControl.components().m_vItems) {
            component->m_nReplyStatus = nReplyOk;
            component->replyFeatureArray();
        }
        m_oControl.timeout();
        results += m_oHandOver.carryOn();
    }
    EXPECT_EQ(results, 1);
}

} // namespace
