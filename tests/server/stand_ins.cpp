#include "server/stand_ins.h"

#include "source/CFeatureSource.h"

bool bSupplyFails = false;

CFeatureSource& CFeatureSource::instance() {
    alignas(CFeatureSource) static std::byte place[sizeof(CFeatureSource)];
    return reinterpret_cast<CFeatureSource&>(place); // nothing here touches a member
}

bool CFeatureSource::supply(CQelControl&) {
    return !bSupplyFails;
}

void CFeatureSource::startWatching() {}

Lines takeLines() {
    Lines lines;
    for (const auto& [severity, event, text] : CFakePlatform::get().takeLog()) {
        lines.push_back(std::to_string(severity) + " " + std::to_string(event) + " " + text);
    }
    return lines;
}

void CServerTestBase::SetUp() {
    m_oPlatform.reset();
    bSupplyFails = false;
}
