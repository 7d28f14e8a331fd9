#include "client/CPatience.h"

#include <gtest/gtest.h>
#include <queue>
#include <tuple>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Components that all start at 0 and ask four questions each, one after the other; who gives up begins again.
// The daemon answers one question a turn, in order of arrival, also those that were given up.
class CStart {
public:
    CStart(uint32_t components, CPatience::CDuration least) {
        for (uint32_t i = 0; i < components; ++i) {
            m_vComponents.push_back({CPatience(least, i)});
            ask(i);
        }
    }

    // Until all are up, in turns of the daemon.
    int run() {
        for (m_nTurns = 0; m_nUp < m_vComponents.size() && m_nTurns < 1000000; ++m_nTurns) {
            m_tNow += tTurn;
            while (!m_oDue.empty() && std::get<0>(m_oDue.top()) <= m_tNow) {
                wake();
            }
            answer();
        }
        return m_nTurns;
    }

private:
    static constexpr auto tTurn = 35ms;

    struct SComponent {
        CPatience m_oPatience;
        uint32_t m_nTag = 0;
        int m_nAnswers = 0;
    };
    using CEntry = std::tuple<CPatience::CTime, uint32_t, uint32_t>; // time, component, tag

    void ask(uint32_t i) {
        SComponent& component = m_vComponents[i];
        component.m_oPatience.ask(++component.m_nTag, m_tNow);
        m_oQueue.push({m_tNow, i, component.m_nTag});
        m_oDue.push({component.m_oPatience.due(), i, component.m_nTag});
    }

    void wake() {
        const auto [time, i, tag] = m_oDue.top();
        m_oDue.pop();
        SComponent& component = m_vComponents[i];
        if (component.m_nTag != tag || component.m_nAnswers == 4) {
            return; // has been answered
        }
        if (component.m_oPatience.due() > time) {
            m_oDue.push({component.m_oPatience.due(), i, tag});
            return;
        }
        component.m_oPatience.giveUp();
        component.m_nAnswers = 0;
        ask(i);
    }

    void answer() {
        if (m_oQueue.empty()) {
            return;
        }
        const auto [time, i, tag] = m_oQueue.front();
        m_oQueue.pop();
        SComponent& component = m_vComponents[i];
        if (!component.m_oPatience.take(tag, m_tNow)) {
            return;
        }
        if (++component.m_nAnswers < 4) {
            ask(i);
        } else {
            ++m_nUp;
        }
    }

    std::vector<SComponent> m_vComponents;
    std::queue<CEntry> m_oQueue;
    std::priority_queue<CEntry, std::vector<CEntry>, std::greater<>> m_oDue;
    CPatience::CTime m_tNow{};
    size_t m_nUp = 0;
    int m_nTurns = 0;
};

} // namespace

TEST(Patience, ManyThatStartAtOnceComeUpInLittleMoreThanTheirTurns) {
    EXPECT_EQ(CStart(1000, CPatience::tDefault).run(), 4000);
    EXPECT_LT(CStart(3000, CPatience::tDefault).run(), 4 * 3000 * 14 / 10);
    EXPECT_LT(CStart(1000, 10s).run(), 4 * 1000 * 15 / 10);
    EXPECT_LT(CStart(1000, 1s).run(), 4 * 1000 * 3);
}

TEST(Patience, ThoseWhoStartTogetherDoNotGiveUpTogether) {
    CPatience::CTime due[2];
    for (uint32_t seed : {1u, 2u}) {
        CPatience patience(10s, seed);
        patience.ask(1, {});
        due[seed - 1] = patience.due();
        EXPECT_GE(patience.due(), CPatience::CTime(10s));
        EXPECT_LE(patience.due(), CPatience::CTime(15s));
    }
    EXPECT_NE(due[0], due[1]);
}
