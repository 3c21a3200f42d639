// zon_packet_entry.cpp - takes packets in. Whole TCP and UDP packets right behind a plain IP header
// go straight to the engine; everything else takes the detour, which tells the same of such
// packets, only slower.
//
// Owns   nothing; a packet's state is on the stack.
// Locks  none.

#include "zon_engine/zon_packet_entry.h"

#include "zon_engine/zon_plain_packet.h"
#include "zon_layout_check.h"
#include "zon_pkt_inline.h"

namespace {

// The packet's flow is one that the index does not name, or not known yet. Takes no more than fits
// into registers and reads the packet again: one that is kept in memory for this would cost those
// of known flows, and a copy of it is slower to make than to read anew. With all checks again,
// since another thread may have changed meanwhile what clients want.
template <bool trusted, class family>
[[gnu::noinline]] zon_fid_t search_flow(zon_t* engine, uint8_t* ip, size_t captured,
                                        uint32_t vrf_id, void* context,
                                        zon_pkt_indications_t* indications, zon_error_t* error) {
    const arriving_packet arriving{engine,      ip,    captured, vrf_id,        context,
                                   indications, error, 0,        ZON_L4_CLOSED, 0};
    plain_packet<family> plain;
    if (!read_plain_packet<trusted>(arriving, plain)) [[unlikely]]
        return zon_take_detour(arriving);
    return search_flow_of(arriving, plain, {-1, -1});
}

// The platform says which flow it is, or the host which hash.
template <class family>
[[gnu::noinline]] zon_fid_t take_reported(arriving_packet arriving, zon_dp_fe_t fe) {
    preset_indications(arriving, fe, ZON_TUNNEL_TYPE_NONE);
    scratch_half_flow scratch;
    scratch.set<family>(arriving, fe, ports_at(fe.l4_start));
    return run_engine(arriving, scratch.head(), fe, ZON_TUNNEL_TYPE_NONE);
}

template <bool trusted, class family>
[[gnu::always_inline]] inline zon_fid_t search_flow(const arriving_packet& arriving) {
    return search_flow<trusted, family>(arriving.engine, arriving.ip, arriving.captured,
                                        arriving.vrf_id, arriving.context, arriving.indications,
                                        arriving.error);
}

template <bool trusted, class family>
[[gnu::always_inline]] inline zon_fid_t take_plain_packet(const arriving_packet& arriving) {
    plain_packet<family> plain;
    if (!read_plain_packet<trusted>(arriving, plain)) [[unlikely]]
        return zon_take_detour(arriving);
    if (arriving.reported_fid != 0 || arriving.indications->hash_valid == 1) [[unlikely]]
        return take_reported<family>(arriving, handle_of<family>(plain.ip));
    const connection_index& index = index_of(arriving.engine->flow_tbl);
    const connection_index::guess guess = index.find(index.hash_of(plain.between));
    if (guess.flow == nullptr) [[unlikely]]
        return search_flow<trusted, family>(arriving);
    prefetch_flow(guess.flow);
    locked_flow flow = locked_flow::adopt(zon_lock_guess(guess, plain.between));
    if (!flow) [[unlikely]]
        return search_flow<trusted, family>(arriving);
    return account_plain_packet(std::move(flow), arriving, plain);
}

template <bool trusted>
[[gnu::always_inline]] inline zon_fid_t take_in(const arriving_packet& arriving) {
    if (!trusted && arriving.captured == 0) [[unlikely]]
        return zon_take_detour(arriving);
    switch (arriving.ip[0] >> 4) {
    case 4:
        return take_plain_packet<trusted, ipv4_family>(arriving);
    case 6:
        return take_plain_packet<trusted, ipv6_family>(arriving);
    default:
        return zon_take_detour(arriving);
    }
}

// Nothing can be said of the packet but why.
[[gnu::cold, gnu::noinline]] zon_fid_t give_up(zon_pkt_indications_t* indications,
                                               zon_error_t* error, zon_error_t why) {
    if (error != nullptr)
        *error = why;
    if (indications != nullptr) {
        arriving_packet nothing{};
        nothing.indications = indications;
        preset_indications(nothing, zon_dp_fe_t{}, ZON_TUNNEL_TYPE_NONE);
    }
    return 0;
}

// Runs before anything is read of the packet.
template <bool trusted>
[[gnu::always_inline]] inline zon_fid_t enter(uint8_t* iphdr, size_t captured, uint32_t vrf_id,
                                              void* pkt_ctx, zon_pkt_indications_t* indications,
                                              zon_error_t* error, zon_fid_t reported_fid,
                                              zon_l4_flow_state_e reported_state,
                                              uint32_t reported_number) {
    if constexpr (!trusted)
        if (error == nullptr || iphdr == nullptr) [[unlikely]]
            return give_up(indications, error, zon_error_parameter_invalid);
    if (indications == nullptr) [[unlikely]]
        return give_up(nullptr, error, zon_error_parameter_is_null);
    zon_t* engine = g_zon;
    if (engine == nullptr || !zon_engine_is_whole(engine)) [[unlikely]]
        return give_up(indications, error, zon_error_engine_not_init);
    *error = zon_error_none;
    return take_in<trusted>({engine, iphdr, captured, vrf_id, pkt_ctx, indications, error,
                             reported_fid, reported_state, reported_number});
}

}  // namespace

zon_fid_t zon_handle_packet(uint8_t* iphdr, uint32_t vrf_id, void* pkt_ctx,
                            zon_pkt_indications_t* pkt_indications, zon_error_t* zon_error) {
    return enter<true>(iphdr, zon_no_end, vrf_id, pkt_ctx, pkt_indications, zon_error, 0,
                       ZON_L4_CLOSED, 0);
}

zon_fid_t zon_sync_packet(uint8_t* iphdr, uint32_t vrf_id, void* pkt_ctx,
                          zon_pkt_indications_t* pkt_indications, zon_error_t* zon_error,
                          zon_fid_t platform_reported_dft_fid,
                          zon_l4_flow_state_e platform_reported_dft_flow_state,
                          uint32_t platform_reported_flow_packet_number) {
    return enter<true>(iphdr, zon_no_end, vrf_id, pkt_ctx, pkt_indications, zon_error,
                       platform_reported_dft_fid, platform_reported_dft_flow_state,
                       platform_reported_flow_packet_number);
}

zon_fid_t zon_handle_captured_packet(uint8_t* iphdr, uint32_t captured_length, uint32_t vrf_id,
                                     void* pkt_ctx, zon_pkt_indications_t* pkt_indications,
                                     zon_error_t* zon_error) {
    return enter<false>(iphdr, captured_length, vrf_id, pkt_ctx, pkt_indications, zon_error, 0,
                        ZON_L4_CLOSED, 0);
}

zon_fid_t zon_sync_captured_packet(uint8_t* iphdr, uint32_t captured_length, uint32_t vrf_id,
                                   void* pkt_ctx, zon_pkt_indications_t* pkt_indications,
                                   zon_error_t* zon_error, zon_fid_t platform_reported_dft_fid,
                                   zon_l4_flow_state_e platform_reported_dft_flow_state,
                                   uint32_t platform_reported_flow_packet_number) {
    return enter<false>(iphdr, captured_length, vrf_id, pkt_ctx, pkt_indications, zon_error,
                        platform_reported_dft_fid, platform_reported_dft_flow_state,
                        platform_reported_flow_packet_number);
}
