#include "features/world.h"
#include "source/CFeatureSource.h"
#include "source/short_memory.h"
#include "support/files.h"
#include "support/scarce_memory.h"

#include <fmt/format.h>

namespace {

using namespace std::chrono_literals;

class CSourceTest : public CHeartTest {
protected:
    void write(uint32_t data) const {
        put(m_sPath,
            fmt::format("[[feature]]\ncode = 1\ndata = {}\ncomponents = ['Voice', 'Gateway']", data));
    }

    // The thread and the main loop in turn, until the feature stands with this data.
    void expectInForce(uint32_t data) {
        for (int turn = 0; turn < 100 && control().findFeatureByCodeData(1, data) == nullptr; ++turn) {
            m_oSource.turn();
            m_oSource.takeMail();
        }
        EXPECT_NE(control().findFeatureByCodeData(1, data), nullptr);
    }

    // About the list, without its path, since the last call.
    static CTexts troubles() {
        CTexts texts;
        for (const SLogged& line : platform().takeLog()) {
            if (line.m_nEvent >= 31170 && line.m_nEvent < 31179) {
                const size_t behindPath = line.m_sText.rfind("list: ") + 6;
                texts.push_back(fmt::format("{} {}", line.m_nEvent, line.m_sText.substr(behindPath)));
            }
        }
        return texts;
    }

    CTestDirectory m_oDirectory;
    std::string m_sPath = m_oDirectory.file("list");
    CFeatureSource m_oSource{m_sPath, "", 5ms};
};

// None of them needs the file to change once more.
TEST_F(CSourceTest, AFailedReadingIsToldOnceAndTriedAgain) {
    write(1);
    {
        const CNoDescriptors none;
        EXPECT_FALSE(m_oSource.supply(control()));
        for (int turn = 0; turn < 5; ++turn) {
            m_oSource.turn();
        }
    }
    EXPECT_EQ(troubles(), CTexts{"31178 cannot be read: Too many open files; trying again"});
    expectInForce(1);
    EXPECT_EQ(troubles(), (CTexts{"31178 reading works again", "31172 1 features, handed over (result 0)"}));
    for (const uint32_t nth : {1U, 3U, 20U}) {
        const uint32_t data = nth + 1;
        write(data);
        troubles();
        {
            const CScarceMemory memory(nth);
            m_oSource.turn();
        }
        EXPECT_EQ(troubles(), CTexts{"31178 out of memory; trying again"});
        expectInForce(data);
    }
}

TEST_F(CSourceTest, AMissingOrFaultyListIsToldOnceAndWaitsForAChange) {
    EXPECT_FALSE(m_oSource.supply(control()));
    EXPECT_EQ(troubles().at(0), "31170 cannot be read: No such file or directory");
    for (const char* text : {"x", ""}) {
        for (int turn = 0; turn < 5; ++turn) {
            m_oSource.turn();
        }
        EXPECT_EQ(troubles(), CTexts());
        put(m_sPath, text);
        m_oSource.turn();
        EXPECT_EQ(troubles().size(), 2u);
    }
    write(1);
    expectInForce(1);
}

TEST_F(CSourceTest, AListThatDidNotFitIntoMemoryIsNeitherLostNorTakenTwice) {
    write(1);
    expectTakenOnceThereIsMemory([&] { return CFeatureLoader(m_sPath); });
}

TEST_F(CSourceTest, AListStaysInTheMailboxUntilThereIsMemoryToHandItOver) {
    m_oSource.supply(control());
    write(1);
    m_oSource.turn();
    troubles();
    size_t nth = 1;
    for (; control().findFeatureByCodeData(1, 1) == nullptr && nth < 100; ++nth) {
        const CScarceMemory memory(nth);
        m_oSource.takeMail();
    }
    EXPECT_GT(nth, 5u);
    EXPECT_EQ(troubles(), (CTexts{"31178 no memory to hand it over; trying again",
                                  "31172 1 features, handed over (result 0)"}));
}

// The operator's list goes first as soon as it is usable; what is kept is of the daemon's own writing.
TEST_F(CSourceTest, AStartWithoutAUsableListTakesTheOneTakenLast) {
    const std::string kept = m_oDirectory.file("state/features.toml");
    const auto start = [&](CFeatureSource& source) {
        const bool isSupplied = source.supply(control());
        source.turn();
        return isSupplied;
    };
    write(1);
    CFeatureSource first(m_sPath, m_oDirectory.file("state"), 5ms);
    EXPECT_TRUE(start(first));
    EXPECT_EQ(contents(kept), contents(m_sPath));
    put(m_sPath, "x");
    troubles();
    CFeatureSource second(m_sPath, m_oDirectory.file("state"), 5ms);
    EXPECT_TRUE(start(second));
    EXPECT_EQ(troubles().at(2), "31171 the one taken last is used instead, 1 features");
    EXPECT_EQ(contents(kept), "[[feature]]\ncode = 1\ndata = 1\ncomponents = ['Voice', 'Gateway']");
    write(2);
    for (int turn = 0; turn < 100 && contents(kept) != contents(m_sPath); ++turn) {
        second.turn();
    }
    std::filesystem::remove(m_sPath);
    CFeatureSource third(m_sPath, m_oDirectory.file("state"), 5ms);
    EXPECT_TRUE(start(third));
    EXPECT_NE(control().findFeatureByCodeData(1, 2), nullptr);
    put(kept, "x");
    troubles();
    CFeatureSource fourth(m_sPath, m_oDirectory.file("state"), 5ms);
    EXPECT_FALSE(start(fourth));
    EXPECT_TRUE(troubles().at(2).starts_with("31178 the one taken last cannot be used either: "));
}

TEST_F(CSourceTest, WithoutAStateDirectoryItRunsOnAndSaysSoOnce) {
    put(m_oDirectory.file("state"), "no directory");
    CFeatureSource source(m_sPath, m_oDirectory.file("state"), 5ms);
    write(1);
    EXPECT_TRUE(source.supply(control()));
    for (const uint32_t data : {2U, 3U, 4U}) {
        source.turn();
        write(data);
        source.turn();
    }
    const auto lines = platform().logged(31178);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with("state/.features.toml.partial: Not a directory")) << lines[0];
}

TEST_F(CSourceTest, AListThatWithdrawsMuchIsTakenAndTold) {
    std::string list;
    for (const uint32_t code : {1U, 2U, 3U, 4U, 5U}) {
        list += fmt::format("[[feature]]\ncode = {}\ndata = 1\ncomponents = []\n", code);
    }
    put(m_sPath, list);
    m_oSource.supply(control());
    troubles();
    for (const char* told :
         {"31172 4 features, handed over (result 2)", "31175 withdraws 1 of 4 features, more than a fifth"}) {
        list.erase(list.rfind("[[feature]]"));
        put(m_sPath, list);
        for (CTexts texts; texts.empty();) {
            m_oSource.turn();
            m_oSource.takeMail();
            texts = troubles();
            EXPECT_TRUE(texts.empty() || texts.at(0) == told) << texts.at(0);
        }
    }
}

// The source stays, as its thread does, and watches what is never there.
TEST_F(CSourceTest, AStartThatFailsIsToldAndCanBeRepeated) {
    static auto* const source = new CFeatureSource(m_oDirectory.file("none/list"));
    source->startWatching(); // nothing to watch for yet
    source->supply(control());
    troubles();
    platform().fail("OvuMfwRegisterCallback", 5);
    source->startWatching();
    {
        const CScarceMemory memory(1);
        source->startWatching();
    }
    EXPECT_EQ(troubles(), (CTexts{"31178 changes cannot be handed over, no callback: error 5",
                                  "31178 changes are not watched, no thread: out of memory"}));
    source->startWatching();
    EXPECT_EQ(platform().logged(31179).size(), 1u);
    CFakePlatform::handOver(platform().m_oCallbacks.at(nQelSourceMfwMsgId), nQelSourceMfwMsgId, "");
}

} // namespace
