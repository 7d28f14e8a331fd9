// The messages of the protocol in words; docs/protocol.md describes the messages themselves.
#ifndef QEL_CTL_DESCRIBE_H
#define QEL_CTL_DESCRIBE_H

#include <cstddef>
#include <cstdint>
#include <string>

struct SMessageText {
    std::string m_sKind;   // one word, under which messages are counted
    std::string m_sDetail; // without control characters, whatever the message holds
};

// What a component sends and what it receives. Any body may come, also one that is cut short or no
// message at all.
SMessageText describeSent(const uint8_t* body, size_t length);
SMessageText describeReceived(const uint8_t* body, size_t length);

#endif
