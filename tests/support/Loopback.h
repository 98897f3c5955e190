// Addresses on this machine's IPv4 loopback, for tests that make their own
// sockets (attackers, look-alikes) beside the bridge's.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>

namespace testsupport {

inline sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace testsupport
