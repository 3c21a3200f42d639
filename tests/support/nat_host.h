// nat_host.h - a host's NAT, for as long as a test wants one.
//
// The program under test is linked so that the engine's calls of the two hooks come here first
// (tests/CMakeLists.txt); without a nat_host they go on to the library's own.

#pragma once

#include <cstdint>

namespace zon_test {

// Translates the source of every packet to one address and port, as a gateway does.
class nat_host {
public:
    nat_host(uint32_t address, uint16_t port);
    ~nat_host();
    nat_host(const nat_host&) = delete;
    nat_host& operator=(const nat_host&) = delete;

    uint32_t address;
    uint16_t port;
    // What the engine asked last.
    int calls = 0;
    void* context = nullptr;
    uint8_t protocol = 0;
};

}  // namespace zon_test
