// zon_captured_packet.h - proves that a captured packet's headers lie within the bytes that are
// there and agree with each other, before anything acts on them.
//
// The proof covers every byte that the engine reads afterwards; it holds while the packet's bytes
// do not change.

#pragma once

#include <cstddef>
#include <cstdint>

#include "zon_engine_defs.h"
#include "zon_fe_ondemand.h"

enum class packet_check {
    sound,
    refused,             // headers are cut off or contradict each other
    unreadable_fragment  // a later fragment that is legal but too short, or too cunning, to be read
};

// Parses the packet of which available bytes are there into a zero-filled handle. A handle of a
// refused packet describes what could be read: all zero when not even the IP header could. The
// inner packet of a tunnel by IP protocol 41 is checked along with the outer one.
packet_check zon_check_captured_packet(uint8_t* ip, size_t available, zon_dp_fe_t& fe);

// The same for a packet of IP version 6, outer or inner.
packet_check zon_check_captured_ipv6(uint8_t* ip, size_t available, zon_dp_fe_t& fe,
                                     fe_lines lines = fe_lines::shown);
