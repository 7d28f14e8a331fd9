// What a loader does that runs out of memory.
#ifndef TESTS_SOURCE_SHORT_MEMORY_H
#define TESTS_SOURCE_SHORT_MEMORY_H

#include "features/world.h"
#include "source/CFeatureLoader.h"
#include "support/scarce_memory.h"

// With each allocation failing in turn, a loader of make() takes the list either at once or with its next attempt,
// and never twice.
template <typename Make>
void expectTakenOnceThereIsMemory(Make make) {
    CQelControl& owner = control();
    bool hasFailed = true;
    for (size_t nth = 1; hasFailed; ++nth) {
        CFeatureLoader loader = make();
        SLoaded loaded;
        {
            const CScarceMemory memory(nth);
            try {
                loaded = loader.load(owner);
            } catch (const std::bad_alloc&) {
            }
            hasFailed = CScarceMemory::hasFailed();
        }
        EXPECT_EQ(loaded.m_bNew, !hasFailed) << nth;
        EXPECT_EQ(loader.load(owner).m_bNew, hasFailed) << nth;
    }
    EXPECT_EQ(platform().logged(31170), CTexts()) << "no fault of the list";
}

#endif
