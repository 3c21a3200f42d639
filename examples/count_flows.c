/* count_flows.c - a whole host on one screen: starts the engine, hands it three packets, counts
 * flows as they end.
 *
 * Build:  cc examples/count_flows.c $(pkg-config --cflags --libs zon) -o count_flows
 *         (README.md, "Embedding", has the installation and what a folder of one's own needs)
 */
#include <stdio.h>
#include <zon.h>

static unsigned ended;

static void flow_ended(zon_flow_ptr_t flow, void* initiator_fo, void* responder_fo, void* flow_fo,
                       zon_flow_deletion_reason_e reason, zon_client_id_e cid) {
    (void)initiator_fo, (void)responder_fo, (void)flow_fo, (void)cid;
    printf("flow %u ended, reason %d\n", flow, (int)reason);
    ++ended;
}

/* A DNS query from 192.0.2.1:5353 to 192.0.2.53:53, and its answer. */
static uint8_t query[28] = {0x45, 0, 0,   28, 0, 1,  0,    0,    64, 17, 0, 0, 192, 0,
                            2,    1, 192, 0,  2, 53, 0x14, 0xe9, 0,  53, 0, 8, 0,   0};
static uint8_t answer[28] = {0x45, 0,  0,   28, 0, 1, 0, 0,  64,   17,   0, 0, 192, 0,
                             2,    53, 192, 0,  2, 1, 0, 53, 0x14, 0xe9, 0, 8, 0,   0};

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
    zon_client_register_delete_cb(me, flow_ended);
    zon_client_enable_engine_capability(me, ZON_CAPABILITY_ENABLE_UDP);

    uint8_t* packets[] = {query, answer, query};
    for (int i = 0; i < 3; ++i) {
        zon_pkt_indications_t seen = {0};
        zon_error_t error;
        zon_fid_t flow =
            zon_handle_captured_packet(packets[i], sizeof query, 0, NULL, &seen, &error);
        printf("packet %d: flow %u, %s, %s\n", i + 1, flow, seen.fif ? "new" : "known",
               seen.is_initiator ? "from the initiator" : "from the responder");
    }
    zon_destroy(); /* ends every flow */
    return ended == 1 ? 0 : 1;
}
