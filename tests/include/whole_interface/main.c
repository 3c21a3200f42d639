/* main.c - a host that calls every operation of the library and reads every variable, and looks at
 * what comes back. */
#define _POSIX_C_SOURCE 200809L /* fileno, dup */
#include <unistd.h>

#include "host.h"

static int wrong;

void check(bool holds, const char* what) {
    if (!holds)
        printf("not so: %s\n", what);
    wrong += !holds;
}

zon_client_id_e make_engine(void) {
    zon_client_id_e me = 0;
    check(zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE) == zon_error_none,
          "the clock is turned by hand");
    check(zon_init(100, 10000, 10, 2, 0, 16, 10) == zon_error_none, "an engine is made");
    check(zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                            &g_zon->zon_timer_process_create),
          "flows age");
    check(zon_client_feature_register(&me) == zon_error_none && me == 31,
          "the first client is number 31");
    check(zon_client_enable_engine_capability(
              me, (zon_capability_e)(ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP |
                                     ZON_CAPABILITY_ENABLE_CLIENT_BYPASS)) == zon_error_none,
          "it enables what it needs");
    return me;
}

void end_engine(void) {
    check(zon_destroy() == zon_error_none && g_zon == NULL, "the engine goes");
    check(zon_is_init() == zon_error_engine_not_init, "and is known to be gone");
    check(zon_clock_set_mode(ZON_CLOCK_SYSTEM) == zon_error_none,
          "the clock is the system's again");
}

zon_fid_t udp_flow(uint16_t from_port, uint16_t to_port, zon_pkt_indications_t* seen) {
    udp_packet packet = udp_of(host_a, from_port, host_b, to_port);
    zon_pkt_indications_t own;
    zon_error_t error = zon_error_end;
    if (seen == NULL)
        seen = &own;
    memset(seen, 0, sizeof *seen);
    return zon_handle_captured_packet(packet.bytes, sizeof packet.bytes, 0, NULL, seen, &error);
}

zon_fid_t tcp_flow(uint16_t from_port, uint16_t to_port, zon_pkt_indications_t* seen,
                   zon_error_t* error) {
    memset(seen, 0, sizeof *seen);
    *error = zon_error_none;
    return zon_test_handle_tcp_packet_fields(host_a, host_b, from_port, to_port, 0, 1, 0, true,
                                             false, false, false, 0, NULL, seen, error);
}

zon_flow_tuple_t tuple_of(uint16_t from_port, uint16_t to_port) {
    zon_flow_tuple_t tuple;
    memset(&tuple, 0, sizeof tuple);
    tuple.src_ip.addr_type = tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    tuple.src_ip.u.v4_addr = host_a;
    tuple.dst_ip.u.v4_addr = host_b;
    tuple.src_port = from_port;
    tuple.dst_port = to_port;
    tuple.l4_protocol = ZON_UDP_PROT;
    return tuple;
}

static FILE* kept;
static int original;

void watch(FILE* stream) {
    fflush(stream);
    kept = tmpfile();
    original = dup(fileno(stream));
    dup2(fileno(kept), fileno(stream));
}

const char* watched(FILE* stream) {
    static char text[65536];
    fflush(stream);
    dup2(original, fileno(stream));
    close(original);
    rewind(kept);
    text[fread(text, 1, sizeof text - 1, kept)] = 0;
    fclose(kept);
    return text;
}

int main(void) {
    use_engine();
    use_clock_and_aging();
    use_texts_and_defaults();
    use_clients();
    use_groups();
    use_packets();
    use_packet_kit();
    use_hooks();
    use_lookups();
    use_feature_objects();
    use_announcements();
    use_queries();
    use_new_keys();
    use_figures();
    use_reports();
    return wrong == 0 ? 0 : 1;
}
