// Registration of well-known components that run but have not announced themselves.
#include "features/CQelControl.h"

#include "base/mutex/COswLightweightMutex.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/delivery.h"
#include "platform/mfw.h"
#include "server/log/log.h"

#include <new>

namespace {

// Components that may be running before the daemon is, and the processes that host them.
struct SWellKnown {
    char m_szName[22];    // as the component announces itself
    char m_szProcess[22]; // the process that hosts it
};

constexpr SWellKnown oMFWList[] = {
    {"Anchor", "anchor"},   {"Telephony", "telephony"}, {"Voice", "voice"},
    {"Gateway", "gateway"}, {"Tracing", "tracing"},
};

// The component has been running with what is in force, so its records count as told and accepted: first
// waiting (dvAssume), then an accepting reply, which the component's init() has put into m_nReplyStatus.
// Nothing is sent. From the next change on it is told like any other.
void takeAsAnswered(const CArray<CFeatureEntry*>& features, CComponent* comp) {
    for (CFeatureEntry* entry : features.m_vItems) {
        CCompStatus* record = entry != nullptr ? entry->findCompByPtr(comp) : nullptr;
        if (record != nullptr && entry->findCompName(comp->m_szName) != 0) {
            deliver(dvAssume, *entry, *record);
            entry->addComponent(CFeatureEntry::opReply, comp);
        }
    }
}

} // namespace

// A process that does not run is not an error: the next list asks again. When the component announces itself
// later, the dispatcher finds it by its name; the process id that it announces differs from the 0 here, so it
// is taken in anew and told everything.
int CQelControl::auditComponent() {
    int result = 0;
    for (const SWellKnown& row : oMFWList) {
        if (findCompByName(row.m_szName) != nullptr) {
            continue;
        }
        uint32_t handle = OVU_MFW_NO_HANDLE;
        result = OvuMfwGetProcessHandle(row.m_szProcess, &handle);
        if (result != 0) {
            logEvent(svInfo, 31415, "failed to get Mfw Handle for %s", row.m_szProcess);
            continue;
        }
        logEvent(svInfo, 31415, "got Mfw Handle 0x%x for %s", handle, row.m_szProcess);

        const CScopedLock lock(oMutex);
        auto* comp = new (std::nothrow) CComponent(this);
        if (comp == nullptr) {
            logEvent(svError, 31124, "failed to new obj");
            continue;
        }
        // As if it had announced itself. Messages go out with the tag, 1, and to the handle.
        comp->init({0, 17, 0, 0, 1, handle}, row.m_szName, nReplyOk, nullptr);
        comp->m_tHeard = 0;
        comp->clearFeatureArray();
        comp->notifyAllFeatures();
        if (!addComponent(comp)) {
            delComponent(comp); // not in the table, but features have its records already
            delete comp;
            continue;
        }
        takeAsAnswered(m_aFeatures, comp);
        comp->m_bMonitor = 1; // it may never send StartMonitor
    }
    return result;
}
