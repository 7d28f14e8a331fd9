#include "random_world.h"

#include "world.h"

#include <algorithm>
#include <sstream>

namespace {

const char* const aNames[] = {"Voice", "Gateway", "Tracing", "ALL", "Anchor", "", nullptr};
constexpr uint32_t aCodes[] = {0, 1, 2, 206};

template <typename T>
ptrdiff_t positionOf(const std::vector<T*>& items, const T* item) {
    return std::find(items.begin(), items.end(), item) - items.begin();
}

void tellEntry(std::ostream& out, const CFeatureEntry* entry) {
    if (entry == nullptr) {
        out << "null";
        return;
    }
    out << entry->m_nCode << ":" << entry->m_nData << " status " << entry->m_eStatus << " new "
        << entry->m_nNewData << " sourced " << int{entry->m_bSourced};
}

void tellRecord(std::ostream& out, const CCompStatus* status, const std::vector<CComponent*>& components) {
    if (status == nullptr) {
        out << " [null]";
        return;
    }
    out << " [" << positionOf<CComponent>(components, status->m_pComponent) << " " << status->m_eStatus << " "
        << status->m_tStamp << " " << status->m_nEnableTries << " " << status->m_nDisableTries << " "
        << status->m_nModifyTries << "]";
}

} // namespace

CRandomWorld::CRandomWorld(uint32_t seed) : m_oRandom(seed) {
    platform().reset();
    drawComponents();
    drawFeatures();
    drawList();
}

CRandomWorld::~CRandomWorld() {
    for (CFeatureEntry* entry : m_aList.m_vItems) {
        delete entry;
    }
}

void CRandomWorld::drawComponents() {
    for (uint32_t i = 1 + below(5); i > 0; --i) {
        if (oneIn(10)) {
            m_oControl.addComponent(nullptr);
        }
        CComponent* comp = component(m_oControl, aNames[below(6)], i);
        comp->m_bMonitor = !oneIn(4);
        std::vector<CQelPair> known(below(4));
        std::generate(known.begin(), known.end(), [this] { return CQelPair{aCodes[below(4)], below(4)}; });
        comp->setKnownPairs(known);
        if (oneIn(6)) {
            platform().m_oDead.insert(i);
        }
    }
}

CFeatureEntry* CRandomWorld::drawEntry() {
    CFeatureEntry* entry = fresh(aCodes[below(4)], below(4), {});
    for (uint32_t i = below(4); i > 0; --i) {
        entry->addCompName(aNames[below(7)]);
    }
    return entry;
}

void CRandomWorld::drawFeatures() {
    for (uint32_t i = below(11); i > 0; --i) {
        CFeatureEntry* entry = oneIn(10) ? nullptr : drawEntry();
        m_oControl.addFeature(entry);
        if (entry != nullptr) {
            entry->m_eStatus = static_cast<CFeatureEntry::EFStatus>(below(5));
            entry->m_nNewData = below(4);
            entry->m_bSourced = static_cast<uint8_t>(oneIn(8) ? 2 : below(2));
            drawRecords(*entry);
        }
    }
    for (CComponent* comp : m_oControl.components().m_vItems) {
        if (comp != nullptr && oneIn(3)) {
            std::shuffle(comp->m_aFeatures.m_vItems.begin(), comp->m_aFeatures.m_vItems.end(), m_oRandom);
        }
    }
}

void CRandomWorld::drawRecords(CFeatureEntry& entry) {
    const int calm = static_cast<int>(below(3)); // most of the records settled, or none, or as they come
    for (CComponent* comp : m_oControl.components().m_vItems) {
        if (comp == nullptr || oneIn(3)) {
            continue;
        }
        CCompStatus* made = record(entry, *comp, calm == 0 ? 2 : static_cast<int>(below(15)) - 1);
        made->m_tStamp -= 9 + below(4);
        made->m_nEnableTries = below(5);
        made->m_nDisableTries = below(5);
        made->m_nModifyTries = below(5);
        if (oneIn(8)) {
            entry.m_vCompStatus.push_back(made); // taken in twice
        }
        if (oneIn(8)) {
            comp->delFeatureEntry(&entry);
        }
        if (oneIn(20)) {
            entry.m_vCompStatus.push_back(nullptr);
        }
        if (oneIn(40)) {
            entry.m_vCompStatus.push_back(new CCompStatus(*made));
            entry.m_vCompStatus.back()->m_pComponent = nullptr;
        }
    }
    if (oneIn(4)) {
        std::shuffle(entry.m_vCompStatus.begin(), entry.m_vCompStatus.end(), m_oRandom);
    }
}

void CRandomWorld::drawList() {
    for (uint32_t i = below(9); i > 0; --i) {
        m_aList.m_vItems.push_back(oneIn(10) ? nullptr : drawEntry());
        if (m_aList.m_vItems.back() != nullptr && oneIn(6)) {
            m_aList.m_vItems.back()->m_eStatus = CFeatureEntry::fsModify;
        }
    }
}

CComponent* CRandomWorld::anyComponent() const {
    const auto& components = m_oControl.components().m_vItems;
    return *std::find_if(components.begin(), components.end(),
                         [](CComponent* comp) { return comp != nullptr; });
}

std::string CRandomWorld::state() const {
    const auto& components = m_oControl.components().m_vItems;
    const auto& features = m_oControl.features().m_vItems;
    std::ostringstream out;
    for (const CFeatureEntry* entry : features) {
        tellEntry(out << "feature ", entry);
        if (entry != nullptr) {
            for (const CCompStatus* status : entry->m_vCompStatus) {
                tellRecord(out, status, components);
            }
        }
        out << "\n";
    }
    for (const CComponent* comp : components) {
        out << "component";
        if (comp != nullptr) {
            out << " known " << comp->m_nKnownCount << " reply " << comp->m_nReplyStatus << " has";
            for (const CFeatureEntry* entry : comp->m_aFeatures.m_vItems) {
                out << " " << positionOf<CFeatureEntry>(features, entry);
            }
        }
        out << "\n";
    }
    for (const CFeatureEntry* entry : m_aList.m_vItems) {
        tellEntry(out << "list ", entry);
        out << "\n";
    }
    return out.str();
}
