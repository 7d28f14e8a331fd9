// Tables drawn at random, to run one operation on two equal worlds: the daemon's own and a plain walk.
#ifndef QEL_TESTS_RANDOM_WORLD_H
#define QEL_TESTS_RANDOM_WORLD_H

#include "features/CQelControl.h"

#include <cstdint>
#include <random>
#include <string>

// The same seed draws the same world. Codes and data come from so few that they collide; slots may be null;
// every state of a feature and of a record occurs, and numbers that are none.
class CRandomWorld {
public:
    explicit CRandomWorld(uint32_t seed);
    ~CRandomWorld();

    // All that can be told apart of the tables and of the list.
    std::string state() const;
    // There always is one.
    CComponent* anyComponent() const;

    CQelControl m_oControl;
    CArray<CFeatureEntry*> m_aList; // a list to merge; what is left in it is deleted at the end

private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(m_oRandom() % limit); }
    bool oneIn(uint32_t chances) { return below(chances) == 0; }
    void drawComponents();
    CFeatureEntry* drawEntry();
    void drawFeatures();
    void drawRecords(CFeatureEntry& entry);
    void drawList();

    std::mt19937 m_oRandom;
};

#endif
