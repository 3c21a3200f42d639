// sample_packets.h - the packets that most tests of the packet entry begin with.

#pragma once

#include "support/packet_builder.h"

namespace zon_test {

inline packet_builder ipv4() {
    return packet_builder::ipv4("10.0.0.1", "10.0.0.2");
}
inline packet_builder ipv6() {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2");
}
inline packet_builder tcp4() {
    return ipv4().tcp(40000, 80).flags(tcp_syn);
}
inline packet_builder udp4() {
    return ipv4().udp(40000, 53).payload(20);
}
inline packet_builder tcp6() {
    return ipv6().tcp(40000, 80).flags(tcp_syn);
}
inline packet_builder udp6() {
    return ipv6().udp(40000, 53).payload(20);
}

inline bytes six_in_four(const bytes& inner) {
    return in_ipv4("192.0.2.1", "192.0.2.2", inner);
}
inline bytes six_in_four(const packet_builder& inner) {
    return six_in_four(inner.build());
}
inline bytes teredo(const bytes& inner) {
    return in_teredo("192.0.2.1", "192.0.2.2", inner);
}
inline bytes teredo(const packet_builder& inner) {
    return teredo(inner.build());
}

}  // namespace zon_test
