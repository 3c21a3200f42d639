/* packets.c - packets from the wire, packets made of plain fields, and the hooks around them. */
#include "host.h"

void use_packets(void) {
    make_engine();
    zon_pkt_indications_t seen;
    zon_error_t error = zon_error_end;
    uint32_t count = 0;
    udp_packet packet = udp_of(host_a, 1000, host_b, 53);
    memset(&seen, 0, sizeof seen);
    zon_fid_t flow = zon_handle_packet(packet.bytes, 0, NULL, &seen, &error);
    check(flow != 0 && error == zon_error_none && seen.fif == 1 && seen.l4_payload_size == 10,
          "a packet makes a flow");
    check(zon_handle_captured_packet(packet.bytes, sizeof packet.bytes, 0, NULL, &seen, &error) ==
                  flow &&
              seen.flow_pkt_count == 2,
          "the next one belongs to it");
    check(zon_handle_captured_packet(packet.bytes, 27, 0, NULL, &seen, &error) == 0 &&
              error == zon_error_parameter_invalid,
          "a packet without its whole header is refused");
    check(zon_sync_packet(packet.bytes, 0, NULL, &seen, &error, flow, ZON_L4_UNI_ESTABLISHED, 40) ==
                  flow &&
              zon_flow_get_packet_count(flow, &count) == zon_error_none && count == 40,
          "the platform has counted 40");
    check(zon_sync_captured_packet(packet.bytes, sizeof packet.bytes, 0, NULL, &seen, &error, flow,
                                   ZON_L4_UNI_ESTABLISHED, 50) == flow &&
              zon_flow_get_packet_count(flow, &count) == zon_error_none && count == 50,
          "and 50 later");
    zon_burst_packet_t burst[2];
    memset(burst, 0, sizeof burst);
    burst[0].iphdr = burst[1].iphdr = packet.bytes;
    burst[0].captured_length = sizeof packet.bytes;
    burst[1].captured_length = 27;
    burst[0].pkt_indications = burst[1].pkt_indications = &seen;
    check(zon_handle_packet_burst(burst, 2) == 1 && burst[0].fid == flow && burst[1].fid == 0 &&
              burst[1].error == zon_error_parameter_invalid,
          "of a burst, the packet that is whole");

    zon_dp_fe_t fe;
    memset(&fe, 0, sizeof fe);
    zon_fe_extract_fields(packet.bytes, &fe);
    check(fe.l3_proto == ZON_L3_IPV4 && fe.protocol == ZON_UDP_PROT && zon_srcport(&fe) == 1000 &&
              zon_ipv4_dstip(&fe) == host_b,
          "its fields can be read");
    zon_ipv4_half_flow_t scratch;
    memset(&scratch, 0, sizeof scratch);
    const zon_ipv4_key_t key = {
        ZON_IPV4_KEY_COMPLETE, ZON_UDP_PROT, 0, 0, 0, host_a, 1000, host_b, 53};
    scratch.key = key;
    memset(&seen, 0, sizeof seen);
    check(zon_engine((zon_half_flow_t*)&scratch, &fe, NULL, &seen, &error, ZON_TUNNEL_TYPE_NONE,
                     &g_zon->params.capability_counter, ZON_NULL_FID, ZON_L4_CLOSED, 0) == flow &&
              seen.is_initiator == 1 && zon_token_pack_dir_i2r(&fe) != 0,
          "a parsed packet finds the flow");

    zon_pkt_ctx_t done;
    uint32_t seconds = 7;
    memset(&done, 0, sizeof done);
    done.pkt_indications = seen;
    check(!zon_cleanup_packet(&done), "it was not the last packet");
    done.pkt_indications.lif = 1;
    check(zon_cleanup_packet(&done) && zon_flow_get_aging(flow, &seconds) == zon_error_none &&
              seconds == 0,
          "after the last packet the flow leaves soon");
    end_engine();
}

static void use_builders(void) {
    uint32_t a6[4] = {0x20010db8, 0, 0, 1}, b6[4] = {0x20010db8, 0, 0, 2};
    zon_dp_fe_t fe;
    memset(&fe, 0, sizeof fe);
    zon_fe_test_fill_tcp_packet_fields(host_a, host_b, 3, 4, 5, 6, true, true, false, false, 0,
                                       &fe);
    check(zon_token_tcp_flags_syn(&fe) && zon_token_tcp_seq(&fe) == 5 &&
              zon_token_tcp_acknum(&fe) == 6,
          "a TCP packet is built");
    zon_fe_test_cleanup(&fe);
    zon_fe_test_fill_packet_fields(host_a, host_b, 3, 4, ZON_UDP_PROT, 20, &fe);
    check(
        zon_ipv4_srcip(&fe) == host_a && zon_dstport(&fe) == 4 && zon_token_udp_datalen(&fe) == 12,
        "a UDP packet is built");
    zon_fe_test_cleanup(&fe);
    zon_fe_test_fill_ipv6_tcp_packet_fields(a6, b6, 3, 4, 5, 6, false, false, true, false, 0, &fe);
    check(zon_token_tcp_flags_rst(&fe) && zon_ipv6_dstip(&fe)[3] == 2,
          "an IPv6 TCP packet is built");
    zon_fe_test_cleanup(&fe);
    zon_fe_test_fill_ipv6_packet_fields(a6, b6, 3, 4, ZON_UDP_PROT, 20, &fe);
    check(fe.l3_proto == ZON_L3_IPV6 && zon_srcport(&fe) == 3, "an IPv6 UDP packet is built");
    zon_fe_test_cleanup(&fe);
}

void use_packet_kit(void) {
    make_engine();
    use_builders();
    uint32_t a6[4] = {0x20010db8, 0, 0, 1}, b6[4] = {0x20010db8, 0, 0, 2};
    zon_pkt_indications_t seen;
    zon_error_t error = zon_error_none;
    memset(&seen, 0, sizeof seen);
    check(zon_test_handle_tcp_packet_fields(host_a, host_b, 1, 2, 0, 1, 0, true, false, false,
                                            false, 0, NULL, &seen, &error) == 1 &&
              seen.l4_protocol == ZON_TCP_PROT,
          "flow 1 is TCP");
    check(zon_test_handle_packet_fields(host_a, host_b, 1, 2, ZON_UDP_PROT, 0, 30, NULL, &seen,
                                        &error) == 2 &&
              seen.l4_payload_size == 22,
          "flow 2 is UDP");
    check(zon_test_handle_ipv6_tcp_packet_fields(a6, b6, 1, 2, 0, 1, 0, true, false, false, false,
                                                 0, NULL, &seen, &error) == 3 &&
              seen.l3_protocol == ZON_L3_IPV6,
          "flow 3 is TCP over IPv6");
    check(zon_test_handle_ipv6_packet_fields(a6, b6, 1, 2, ZON_UDP_PROT, 0, 30, NULL, &seen,
                                             &error) == 4 &&
              seen.l4_protocol == ZON_UDP_PROT && error == zon_error_none,
          "flow 4 is UDP over IPv6");
    end_engine();
}

void use_hooks(void) {
    uint32_t from = 1, to = 2;
    uint16_t from_port = 3, to_port = 4;
    check(zon_get_vrf_table_id(NULL) == 0, "every packet is of VRF 0");
    check(!zon_ipnat_enabled(NULL) && !zon_ipnat_translation_required(NULL),
          "nothing is translated");
    check(!zon_ipv4nat_fixup_ip_port(NULL, &from, &from_port, &to, &to_port, ZON_UDP_PROT) &&
              !zon_ipv4nat_get_translated_ip_port(NULL, &from, &from_port, &to, &to_port) &&
              from == 1 && to == 2 && from_port == 3 && to_port == 4,
          "nor are addresses and ports changed");
}
