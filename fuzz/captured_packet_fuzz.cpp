// captured_packet_fuzz.cpp - any bytes, handed to a real engine as packets from outside.
//
// The input is a row of packets: two bytes of length, one byte of VRF, then the packet, in a heap
// block of exactly its size, so that the address sanitizer sees every read beyond it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "zon.h"

namespace {

void start_engine() {
    zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE);
    if (zon_init(64, 0, 8, 4, 4, 16, 10) != zon_error_none ||
        !zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                           &g_zon->zon_timer_process_create))
        __builtin_trap();
    zon_client_id_e client;
    zon_client_feature_register(&client);
    zon_client_enable_engine_capability(client, ZON_CAPABILITY_ENABLE_ALL);
}

// What the engine tells of a packet must lie within the packet, and agree with itself.
void check(const zon_pkt_indications_t& seen, zon_fid_t fid, zon_error_t error,
           const uint8_t* packet, size_t size) {
    if (seen.flow != fid || (error != zon_error_none && fid != 0))
        __builtin_trap();
    if (fid != 0 && seen.is_fragment == 0 &&
        (seen.l7_start < packet || seen.l7_start > packet + size))
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    start_engine();
    while (size > 3) {
        const size_t length = std::min<size_t>((data[0] * 256U + data[1]) & 0x7FFU, size - 3);
        const uint32_t vrf = data[2] & 3;
        data += 3;
        size -= 3;
        const std::unique_ptr<uint8_t[]> packet(new uint8_t[length]);
        std::memcpy(packet.get(), data, length);
        zon_pkt_indications_t seen{};
        zon_error_t error;
        const zon_fid_t fid = zon_handle_captured_packet(
            packet.get(), static_cast<uint32_t>(length), vrf, nullptr, &seen, &error);
        check(seen, fid, error, packet.get(), length);
        zon_clock_advance_us(vrf * 700000);
        data += length;
        size -= length;
    }
    zon_destroy();
    return 0;
}
