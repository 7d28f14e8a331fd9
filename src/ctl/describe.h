// The messages of the protocol in words; docs/protocol.md describes the messages themselves.
#ifndef QEL_CTL_DESCRIBE_H
#define QEL_CTL_DESCRIBE_H

#include "ctl/CFeatureNames.h"

#include <cstddef>
#include <cstdint>
#include <string>

struct SMessageText {
    std::string m_sKind;   // one word, under which messages are counted
    std::string m_sDetail; // without control characters, whatever the message holds
};

// What a component sends and what it receives, there with the feature's name, if it has one. Any body may
// come, also one that is cut short or no message at all.
SMessageText describeSent(const uint8_t* body, size_t length);
SMessageText describeReceived(const uint8_t* body, size_t length, const CFeatureNames& names = {});

#endif
