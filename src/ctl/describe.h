// The messages of the protocol in words.
#ifndef QEL_CTL_DESCRIBE_H
#define QEL_CTL_DESCRIBE_H

#include <cstddef>
#include <cstdint>
#include <string>

struct SMessageText {
    std::string m_sKind;   // one word, under which messages are counted
    std::string m_sDetail; // printable, whatever the message holds
};

SMessageText describeSent(const uint8_t* body, size_t length);
SMessageText describeReceived(const uint8_t* body, size_t length);

#endif
