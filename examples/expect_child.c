/* expect_child.c - announces a connection that another one has just agreed on, and finds it again
 * as that one's child when its first packet comes.
 *
 * Build:  cc examples/expect_child.c $(pkg-config --cflags --libs zon) -o expect_child
 *         (README.md, "Embedding", has the installation and what a folder of one's own needs)
 */
#include <stdio.h>
#include <string.h>
#include <zon.h>

static unsigned children;

static bool show_child(const zon_flow_ptr_t child) {
    zon_flow_tuple_t tuple;
    zon_flow_get_tuple(child, ZON_DIR_INITIATOR, &tuple);
    printf("child: flow %u, from port %u to port %u\n", child, tuple.src_port, tuple.dst_port);
    ++children;
    return true;
}

/* A TCP SYN between 192.0.2.1 (the client) and 192.0.2.2 (the server). */
static zon_fid_t send_syn(uint16_t client_port, uint16_t server_port, zon_pkt_indications_t* seen) {
    uint8_t syn[40] = {0x45, 0, 0, 40, 0, 0, 0, 0, 64, 6, 0, 0, 192, 0, 2, 1, 192, 0, 2, 2};
    syn[20] = (uint8_t)(client_port >> 8), syn[21] = (uint8_t)client_port;
    syn[22] = (uint8_t)(server_port >> 8), syn[23] = (uint8_t)server_port;
    syn[32] = 0x50, syn[33] = 0x02;
    zon_error_t error;
    memset(seen, 0, sizeof *seen);
    return zon_handle_captured_packet(syn, sizeof syn, 0, NULL, seen, &error);
}

int main(void) {
    zon_client_id_e me;
    if (zon_init(ZON_DEFAULT_MAX_FLOWS, /* pre_flow_timer, ms */ 30000, ZON_DEFAULT_MIN_INIT_FLOWS,
                 ZON_DEFAULT_MAX_CONCURRENCY, ZON_DEFAULT_MAX_COLLISION_SIZE,
                 ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS,
                 ZON_DEFAULT_MAX_MEM_BUFFER_INIT) != zon_error_none ||
        !zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                           &g_zon->zon_timer_process_create) ||
        zon_client_feature_register(&me) != zon_error_none)
        return 1;
    zon_client_enable_engine_capability(me, ZON_CAPABILITY_ENABLE_TCP);

    zon_pkt_indications_t seen;
    zon_fid_t control = send_syn(40000, 21, &seen);
    printf("control: flow %u\n", control);

    /* The two sides agreed on port 50000 of the server; where the client will come from, nobody
     * knows yet. */
    zon_flow_tuple_t expected = {0};
    expected.src_ip.addr_type = expected.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    expected.dst_ip.u.v4_addr = 0xC0000202; /* 192.0.2.2 in host order */
    expected.dst_port = 50000;
    expected.l4_protocol = 6;
    zon_fid_t announced = 0;
    if (zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN, &expected, control, &announced,
                         NULL) != zon_error_none)
        return 1;

    zon_fid_t data = send_syn(40001, 50000, &seen);
    printf("data: flow %u, %s\n", data, seen.was_promoted ? "as announced" : "unannounced");
    zon_flow_traverse_child_flows(control, show_child);
    zon_destroy();
    return data == announced && seen.was_promoted && children == 1 ? 0 : 1;
}
