// What the daemon tells about its list: which one is in force, and what became of the file since.
#ifndef QEL_CTL_LIST_STATE_H
#define QEL_CTL_LIST_STATE_H

#include "ctl/CDaemonView.h"
#include "ctl/commands.h"
#include "source/list/feature_list.h"

#include <optional>
#include <string>
#include <vector>

struct SListView : TStatus<CStatusList> {
    std::string path() const;
    std::vector<SListError> errors() const; // of the latest reading, the first ones
    bool isRefused() const { return m_nResult == lrRefused; }

    // exitRefused: the file was refused, or there is no list at all; exitNotYet: it is going to be read again.
    EExitStatus exitStatus() const;
    // "features.toml: 39 features, in force since 14:01:44"
    std::string text(uint32_t now) const;
    // The same on standard output, with what is wrong and for how long it has been so.
    void print(uint32_t now) const;
};

// Nothing where the daemon is too old to tell; that is `answered`, too.
EAsked readListState(CStatusQuery& query, std::optional<SListView>& list);

#endif
