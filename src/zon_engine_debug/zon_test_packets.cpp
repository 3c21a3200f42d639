// zon_test_packets.cpp - packets made of plain fields, on their way through the engine.
//
// Owns   nothing: packet and key live as long as the call.
// Locks  none of its own; the engine takes and releases the flow's.

#include "zon_test_packets.h"

#include "osal/zon_debug.h"
#include "osal/zon_mem.h"
#include "zon_engine/zon_packet_entry.h"
#include "zon_engine_inline.h"

namespace {

// Where the packet comes from and where the answers go; the last two may be null.
struct test_call {
    uint32_t vrf_id;
    void* context;
    zon_pkt_indications_t* indications;
    zon_error_t* error;
};

template <class family>
constexpr zon_memory_type memory_of() {
    return family::address_words == 1 ? ZON_IPV4_HALF_FLOW_MEM_TYPE : ZON_IPV6_HALF_FLOW_MEM_TYPE;
}

zon_fid_t fail(const test_call& call, zon_error_t why) {
    if (call.error != nullptr)
        *call.error = why;
    return ZON_NULL_FID;
}

// The header size is the IP header's own; with IPv4 the transport header stands four bytes further.
void preset(const test_call& call, zon_dp_fe_t& fe) {
    arriving_packet arriving{};
    arriving.indications = call.indications;
    preset_indications(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    if (fe.l3_proto == ZON_L3_IPV4)
        call.indications->l3_header_size = (fe.network_start[0] & 15U) * 4;
}

zon_l4_port_t ports_of(zon_dp_fe_t& fe) {
    if (fe.protocol != ZON_TCP_PROT && fe.protocol != ZON_UDP_PROT)
        return {0, 0};
    return {zon_srcport(&fe), zon_dstport(&fe)};
}

template <class family>
void fill_key(zon_half_flow_t* key, zon_dp_fe_t& fe, uint32_t vrf_id) {
    const zon_l4_port_t ports = ports_of(fe);
    if constexpr (family::address_words == 1)
        zon_set_key_ipv4(zon_full_key<family>(key), family::complete, zon_ipv4_srcip(&fe),
                         zon_ipv4_dstip(&fe), ports.src_port, ports.dst_port, fe.protocol, vrf_id);
    else
        zon_set_key_ipv6(zon_full_key<family>(key), family::complete, zon_ipv6_srcip(&fe),
                         zon_ipv6_dstip(&fe), ports.src_port, ports.dst_port, fe.protocol, vrf_id);
}

zon_fid_t run_engine_on(const test_call& call, zon_half_flow_t* key, zon_dp_fe_t& fe) {
    zon_pkt_indications_t unread_indications{};
    zon_error_t unread_error = zon_error_none;
    return zon_engine(key, &fe, call.context,
                      call.indications != nullptr ? call.indications : &unread_indications,
                      call.error != nullptr ? call.error : &unread_error, ZON_TUNNEL_TYPE_NONE,
                      &g_zon->params.capability_counter, ZON_NULL_FID, ZON_L4_CLOSED, 0);
}

template <class family, class builder>
zon_fid_t build_and_run(const test_call& call, zon_half_flow_t* key, builder build) {
    alignas(16) zon_dp_fe_t fe{};
    build(&fe);
    if (fe.network_start == nullptr)
        return fail(call, zon_error_memory);
    fe.tunneled_flow_type = ZON_TUNNEL_TYPE_NONE;
    if (call.indications != nullptr)
        preset(call, fe);
    fill_key<family>(key, fe, call.vrf_id);
    const zon_fid_t fid = run_engine_on(call, key, fe);
    zon_fe_test_cleanup(&fe);
    return fid;
}

// The key is no half flow in use: it comes from the ready records, or their chunk, past the usage
// counters, and goes back the same way. The ending belongs to the text of a record that got lost.
template <class family, class builder>
zon_fid_t handle(const test_call& call, builder build, const char* ending = "") {
    if (g_zon == nullptr || g_zon->fid_table == nullptr || g_zon->flow_tbl == nullptr)
        return fail(call, zon_error_engine_not_init);
    zon_chunk_mem_t* chunks = &g_zon->zon_chunk_ptr;
    auto* key =
        static_cast<zon_half_flow_t*>(zon_private_chunk_malloc(memory_of<family>(), chunks));
    if (key == nullptr)
        return fail(call, zon_error_memory);
    const zon_fid_t fid = build_and_run<family>(call, key, build);
    if (!zon_private_chunk_free(memory_of<family>(), key, chunks))
        zon_buginf("Could not free memory %s: %d%s", "src/zon_engine_debug", __LINE__, ending);
    return fid;
}

}  // namespace

zon_fid_t zon_test_handle_tcp_packet_fields(uint32_t saddr, uint32_t daddr, uint16_t sport,
                                            uint16_t dport, uint32_t vrfid, uint32_t seq_num,
                                            uint32_t ack_num, bool syn, bool ack, bool rst,
                                            bool fin, uint32_t payload_size, void* pkt_ctx,
                                            zon_pkt_indications_t* pkt_indications,
                                            zon_error_t* zon_error) {
    return handle<ipv4_family>({vrfid, pkt_ctx, pkt_indications, zon_error}, [&](zon_fe_handle fe) {
        zon_fe_test_fill_tcp_packet_fields(saddr, daddr, sport, dport, seq_num, ack_num, syn, ack,
                                           rst, fin, payload_size, fe);
    });
}

// The one handler whose text of a lost record ends its line.
zon_fid_t zon_test_handle_packet_fields(uint32_t saddr, uint32_t daddr, uint16_t sport,
                                        uint16_t dport, uint8_t proto, uint32_t vrfid,
                                        uint32_t payload_size, void* pkt_ctx,
                                        zon_pkt_indications_t* pkt_indications,
                                        zon_error_t* zon_error) {
    return handle<ipv4_family>(
        {vrfid, pkt_ctx, pkt_indications, zon_error},
        [&](zon_fe_handle fe) {
            zon_fe_test_fill_packet_fields(saddr, daddr, sport, dport, proto, payload_size, fe);
        },
        "!\n");
}

zon_fid_t zon_test_handle_ipv6_tcp_packet_fields(uint32_t* saddr, uint32_t* daddr, uint16_t sport,
                                                 uint16_t dport, uint32_t vrfid, uint32_t seq_num,
                                                 uint32_t ack_num, bool syn, bool ack, bool rst,
                                                 bool fin, uint32_t payload_size, void* pkt_ctx,
                                                 zon_pkt_indications_t* pkt_indications,
                                                 zon_error_t* zon_error) {
    return handle<ipv6_family>({vrfid, pkt_ctx, pkt_indications, zon_error}, [&](zon_fe_handle fe) {
        zon_fe_test_fill_ipv6_tcp_packet_fields(saddr, daddr, sport, dport, seq_num, ack_num, syn,
                                                ack, rst, fin, payload_size, fe);
    });
}

zon_fid_t zon_test_handle_ipv6_packet_fields(uint32_t* saddr, uint32_t* daddr, uint16_t sport,
                                             uint16_t dport, uint8_t proto, uint32_t vrfid,
                                             uint32_t payload_size, void* pkt_ctx,
                                             zon_pkt_indications_t* pkt_indications,
                                             zon_error_t* zon_error) {
    return handle<ipv6_family>({vrfid, pkt_ctx, pkt_indications, zon_error}, [&](zon_fe_handle fe) {
        zon_fe_test_fill_ipv6_packet_fields(saddr, daddr, sport, dport, proto, payload_size, fe);
    });
}
