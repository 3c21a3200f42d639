// loopback.h - datagrams over the loopback interface, for tests that read it.
#ifndef ZONFLOW_TESTS_LOOPBACK_H
#define ZONFLOW_TESTS_LOOPBACK_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zonflow_tests {

// Asked without zonflow's own code.
inline bool may_read_interfaces() {
    const int descriptor = socket(AF_PACKET, SOCK_RAW, 0);
    if (descriptor >= 0) {
        close(descriptor);
    }
    return descriptor >= 0;
}

// A UDP socket that sends to itself at 127.0.0.1. Its port is nobody else's.
class loopback_sender {
public:
    loopback_sender() : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address_);
        if (bind(descriptor_, reinterpret_cast<sockaddr*>(&address_), size) != 0 ||
            getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address_), &size) != 0) {
            close(descriptor_);
            throw std::runtime_error("no socket on the loopback interface");
        }
    }
    ~loopback_sender() { close(descriptor_); }
    loopback_sender(const loopback_sender&) = delete;
    loopback_sender& operator=(const loopback_sender&) = delete;

    uint16_t port() const { return ntohs(address_.sin_port); }
    std::string filter() const { return "(udp dst port " + std::to_string(port()) + ")"; }

    void send(std::string_view payload) const {
        if (sendto(descriptor_, payload.data(), payload.size(), 0,
                   reinterpret_cast<const sockaddr*>(&address_),
                   sizeof(address_)) != static_cast<ssize_t>(payload.size())) {
            throw std::runtime_error("the loopback interface takes no packet");
        }
    }

private:
    int descriptor_;
    sockaddr_in address_{};
};

}  // namespace zonflow_tests

#endif
