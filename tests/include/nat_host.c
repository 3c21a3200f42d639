/* nat_host.c - a host that replaces the library's NAT hooks by defining them, and sees replies to
 * the translated address find the flow. */
#include <stdio.h>
#include <string.h>
#include <zon.h>

#include "udp_packet.h"

static const uint32_t inside = 0x0a000001;
static const uint32_t outside = 0xc0000201;
static const uint32_t server = 0xc6336401;

static unsigned asked;
static unsigned translated;

bool zon_ipnat_enabled(void* pkt_ctx) {
    ++asked;
    return pkt_ctx != NULL;
}

bool zon_ipv4nat_fixup_ip_port(void* pkt_ctx, uint32_t* src_ip, uint16_t* src_port,
                               uint32_t* dst_ip, uint16_t* dst_port, uint8_t protocol) {
    (void)pkt_ctx, (void)dst_ip, (void)dst_port;
    if (*src_ip != inside || *src_port != 4000 || protocol != 17)
        return false;
    ++translated;
    *src_ip = outside;
    *src_port = 62000;
    return true;
}

static zon_fid_t hand_in(uint32_t from, uint16_t from_port, uint32_t to, uint16_t to_port,
                         void* context, zon_pkt_indications_t* seen) {
    udp_packet packet = udp_of(from, from_port, to, to_port);
    zon_error_t error;
    memset(seen, 0, sizeof *seen);
    return zon_handle_captured_packet(packet.bytes, sizeof packet.bytes, 0, context, seen, &error);
}

static int check(bool holds, const char* what) {
    if (!holds)
        printf("not so: %s\n", what);
    return holds ? 0 : 1;
}

int main(void) {
    int context = 0, wrong = 0;
    zon_client_id_e me;
    zon_pkt_indications_t seen;
    if (zon_init(100, 0, 10, 2, 0, 16, 10) != zon_error_none ||
        zon_client_feature_register(&me) != zon_error_none)
        return 2;
    zon_client_enable_engine_capability(me, ZON_CAPABILITY_ENABLE_UDP);

    zon_fid_t flow = hand_in(inside, 4000, server, 53, &context, &seen);
    wrong += check(flow != 0 && asked == 1 && translated == 1,
                   "the hooks of the host were called for the new flow");
    wrong +=
        check(hand_in(server, 53, outside, 62000, &context, &seen) == flow && !seen.is_initiator,
              "a reply to the translated address belongs to the flow");
    wrong += check(hand_in(inside, 4000, server, 53, &context, &seen) == flow && seen.is_initiator,
                   "the initiator keeps its own address");
    wrong += check(hand_in(server, 53, inside, 4000, NULL, &seen) != flow,
                   "a reply to the untranslated address is a flow of its own");
    wrong += check(zon_destroy() == zon_error_none, "the engine is destroyed");
    return wrong == 0 ? 0 : 1;
}
