#include "web/listen_address.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <netinet/in.h>

namespace {

constexpr int nBacklog = 64; // connections that wait while sixteen are served

// Copied, since a sockaddr_storage may not be read through a pointer to another type.
template <typename T>
T as(const sockaddr_storage& storage) {
    T address;
    std::memcpy(&address, &storage, sizeof address);
    return address;
}

bool isLoopbackNumber(const in_addr& address) {
    return ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET;
}

// ::ffff:127.0.0.1 is 127.0.0.1, written as IPv6.
bool isLoopbackNumber(const in6_addr& address) {
    return IN6_IS_ADDR_LOOPBACK(&address) != 0 ||
           (IN6_IS_ADDR_V4MAPPED(&address) != 0 && address.s6_addr[12] == IN_LOOPBACKNET);
}

std::optional<uint16_t> readPort(std::string_view text) {
    uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(port) : std::nullopt;
}

// What listen failed with, and what to do about it.
std::string failure(const SListenAddress& address, int error) {
    std::string what = fmt::format("cannot listen at {}: {}", address.text(), std::strerror(error));
    switch (error) {
    case EADDRINUSE:
        return what + "; another qelweb may run: look there, or choose another port with --listen";
    case EADDRNOTAVAIL:
        return what + "; name an address of this machine";
    case EACCES:
        return what + "; ports below 1024 are root's: choose another with --listen";
    default:
        return what;
    }
}

} // namespace

bool SListenAddress::isLoopback() const {
    if (m_oAddress.ss_family == AF_INET) {
        return isLoopbackNumber(as<sockaddr_in>(m_oAddress).sin_addr);
    }
    return isLoopbackNumber(as<sockaddr_in6>(m_oAddress).sin6_addr);
}

std::string SListenAddress::text() const {
    char text[INET6_ADDRSTRLEN] = "";
    if (m_oAddress.ss_family == AF_INET) {
        const auto address = as<sockaddr_in>(m_oAddress);
        inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
        return fmt::format("{}:{}", text, ntohs(address.sin_port));
    }
    const auto address = as<sockaddr_in6>(m_oAddress);
    inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text);
    return fmt::format("[{}]:{}", text, ntohs(address.sin6_port));
}

// Numbers alone: a name would leave it to the resolver who may look. IPv6 stands in brackets, as in an address of
// the web (RFC 3986, 3.2.2), since its colons would hide the port's.
std::optional<SListenAddress> parseListenAddress(const std::string& text) {
    const size_t colon = text.rfind(':');
    const auto port = readPort(colon == std::string::npos ? "" : std::string_view(text).substr(colon + 1));
    if (!port) {
        return std::nullopt;
    }
    SListenAddress address;
    const std::string host = text.substr(0, colon);
    sockaddr_in four = {};
    sockaddr_in6 six = {};
    if (inet_pton(AF_INET, host.c_str(), &four.sin_addr) == 1) {
        four.sin_family = AF_INET;
        four.sin_port = htons(*port);
        address.m_nSize = sizeof four;
        std::memcpy(&address.m_oAddress, &four, sizeof four);
        return address;
    }
    if (host.size() < 2 || host.front() != '[' || host.back() != ']' ||
        inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &six.sin6_addr) != 1) {
        return std::nullopt;
    }
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(*port);
    address.m_nSize = sizeof six;
    std::memcpy(&address.m_oAddress, &six, sizeof six);
    return address;
}

// The port of a qelweb that has just ended can be had at once, that of one that runs not at all.
CFileDescriptor listenAt(SListenAddress& address, std::string& error) {
    auto* where = reinterpret_cast<sockaddr*>(&address.m_oAddress);
    const int type = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
    CFileDescriptor listening(::socket(address.m_oAddress.ss_family, type, 0));
    const int on = 1;
    if (!listening || ::setsockopt(listening.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(listening.get(), where, address.m_nSize) != 0 || ::listen(listening.get(), nBacklog) != 0 ||
        ::getsockname(listening.get(), where, &address.m_nSize) != 0) {
        error = failure(address, errno);
        listening = CFileDescriptor();
    }
    return listening;
}

bool isLoopbackHost(std::string_view host) {
    const bool isSix = host.starts_with('[');
    const size_t end = std::min(isSix ? host.find(']') : host.find(':'), host.size());
    std::string name(host.substr(isSix ? 1 : 0, isSix ? end - 1 : end));
    std::string_view port = host.substr(isSix ? std::min(end + 1, host.size()) : end);
    if ((isSix && end == host.size()) || (!port.empty() && port.front() != ':')) {
        return false;
    }
    port.remove_prefix(port.empty() ? 0 : 1);
    if (!port.empty() && !readPort(port)) {
        return false;
    }
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    in_addr four;
    in6_addr six;
    return isSix ? inet_pton(AF_INET6, name.c_str(), &six) == 1 && isLoopbackNumber(six)
                 : name == "localhost" ||
                       (inet_pton(AF_INET, name.c_str(), &four) == 1 && isLoopbackNumber(four));
}
