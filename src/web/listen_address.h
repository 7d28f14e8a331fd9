// Where qelweb listens: IPV4:PORT or [IPV6]:PORT.
#ifndef QEL_WEB_LISTEN_ADDRESS_H
#define QEL_WEB_LISTEN_ADDRESS_H

#include "base/CFileDescriptor.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>

struct SListenAddress {
    sockaddr_storage m_oAddress = {};
    socklen_t m_nSize = 0;

    bool isLoopback() const;
    std::string text() const; // as it is written: "127.0.0.1:8470"
};

// Numbers only: a name could mean another address tomorrow. Nothing if it is not of one of the two forms.
std::optional<SListenAddress> parseListenAddress(const std::string& text);

// A socket that listens there; `address` gets the port where it was 0. Invalid: `error` says what is wrong and
// what to do.
CFileDescriptor listenAt(SListenAddress& address, std::string& error);

// Whether a request's Host header names this machine's loopback, with any port: what a browser sends that was
// told to look here, or through a tunnel, and not what a page elsewhere makes it send by a name of its own
// whose address it has changed to ours.
bool isLoopbackHost(std::string_view host);

#endif
