// zon_layout_check.h - the record layouts that hosts and accounting rely on, remembered by the
// compiler.

#pragma once

#include <cstddef>
#include <type_traits>

#include "zon_clock.h"
#include "zon_debug_api.h"
#include "zon_engine_defs.h"
#include "zon_error.h"
#include "zon_flow_tuple.h"

template <class record>
constexpr bool plain_record =
    std::is_standard_layout_v<record>&& std::is_trivially_copyable_v<record>;

static_assert(sizeof(bool) == 1);

// Every enumeration of the interface is four bytes wide.
static_assert(sizeof(zon_capability_e) == 4 && sizeof(zon_flow_deletion_reason_e) == 4);
static_assert(sizeof(zon_flow_direction_e) == 4 && sizeof(zon_flow_tuple_type_t) == 4);
static_assert(sizeof(zon_l4_flow_state_e) == 4 && sizeof(zon_tcp_state_t) == 4);
static_assert(sizeof(zon_l4_retcode) == 4 && sizeof(zon_tunnel_type_e) == 4);
static_assert(sizeof(zon_error_t) == 4 && sizeof(zon_key_type_t) == 4 &&
              sizeof(zon_ip_addr_e) == 4);
static_assert(sizeof(zon_super_context_types_e) == 4 && sizeof(zon_tcp_next_seq_valid_e) == 4);
static_assert(sizeof(zon_clock_mode_e) == 4 && sizeof(zon_ip_frag_e) == 4);
static_assert(sizeof(zon_errmsg_index_e) == 4);
static_assert(sizeof(zon_l4_protocol_e) == 4 && sizeof(zon_l3_protocol_enum) == 4 &&
              sizeof(zon_timer_type) == 4);

// Keys: one head for both families, addresses and ports contiguous behind it because they are
// hashed as one run.
static_assert(sizeof(zon_key_t) == 20 && plain_record<zon_key_t>);
static_assert(sizeof(zon_ipv4_key_t) == 36 && plain_record<zon_ipv4_key_t>);
static_assert(sizeof(zon_ipv6_key_t) == 60 && plain_record<zon_ipv6_key_t>);
template <class key>
constexpr bool key_head_is_common = offsetof(key, key_type) == 0 &&
                                    offsetof(key, l4_protocol) == 4 &&
                                    offsetof(key, hash_value) == 8 &&
                                    offsetof(key, hash_valid) == 12 && offsetof(key, vrf_id) == 16;
static_assert(key_head_is_common<zon_key_t> && key_head_is_common<zon_ipv4_key_t> &&
              key_head_is_common<zon_ipv6_key_t>);
static_assert(offsetof(zon_ipv4_key_t, src_ip) == 20 && offsetof(zon_ipv4_key_t, src_port) == 24);
static_assert(offsetof(zon_ipv4_key_t, dst_ip) == 28 && offsetof(zon_ipv4_key_t, dst_port) == 32);
static_assert(offsetof(zon_ipv6_key_t, src_ip) == 20 && offsetof(zon_ipv6_key_t, src_port) == 36);
static_assert(offsetof(zon_ipv6_key_t, dst_ip) == 40 && offsetof(zon_ipv6_key_t, dst_port) == 56);

// Half flows: the link stands first, the storage of a family is what memory accounting charges.
static_assert(sizeof(zon_hashset_hdr) == 16);
static_assert(sizeof(zon_half_flow_t) == 56 && plain_record<zon_half_flow_t>);
static_assert(sizeof(zon_ipv4_half_flow_t) == 72 && plain_record<zon_ipv4_half_flow_t>);
static_assert(sizeof(zon_ipv6_half_flow_t) == 96 && plain_record<zon_ipv6_half_flow_t>);
static_assert(offsetof(zon_half_flow_t, hdr) == 0 && offsetof(zon_half_flow_t, flow) == 16);
static_assert(offsetof(zon_half_flow_t, fo_list) == 24 && offsetof(zon_half_flow_t, key) == 32);
static_assert(offsetof(zon_ipv4_half_flow_t, key) == 32 &&
              offsetof(zon_ipv6_half_flow_t, key) == 32);

static_assert(sizeof(zon_tcp_state_info) == 24 && offsetof(zon_tcp_state_info, rcvwnd) == 16);
static_assert(sizeof(zon_l4_state_t) == 60 && alignof(zon_l4_state_t) == 4);
static_assert(offsetof(zon_l4_state_t, tcp_state) == 4 &&
              offsetof(zon_l4_state_t, term_flags) == 8);
static_assert(offsetof(zon_l4_state_t, pkt_count) == 9 && offsetof(zon_l4_state_t, i_info) == 12);
static_assert(offsetof(zon_l4_state_t, r_info) == 36);
static_assert(plain_record<zon_tcp_state_info> && plain_record<zon_l4_state_t>);
static_assert(plain_record<vem_tw_timer> && plain_record<zon_flow_fo_t> &&
              plain_record<zon_dp_fe_t>);
static_assert(sizeof(vem_tw_links) == 16 && sizeof(vem_tw_timer_basic) == 24 &&
              sizeof(vem_tw_timer) == 40);

// A flow is accounted at 248 bytes, an IPv4 flow with its two directions at 392.
static_assert(sizeof(zon_flow_t) == 248 && plain_record<zon_flow_t>);
static_assert(sizeof(zon_flow_t) + 2 * sizeof(zon_ipv4_half_flow_t) == 392);
static_assert(offsetof(zon_flow_t, next_free) == 16 && offsetof(zon_flow_t, next_flow) == 24);
static_assert(offsetof(zon_flow_t, bundle_parent) == 32 && offsetof(zon_flow_t, fid) == 56);
static_assert(offsetof(zon_flow_t, l4state) == 60 && offsetof(zon_flow_t, packet_number) == 120);
static_assert(offsetof(zon_flow_t, first_payload_seen_on_pkt_num) == 124);
static_assert(offsetof(zon_flow_t, num_l7_bytes) == 128 && offsetof(zon_flow_t, app_id) == 136);
static_assert(offsetof(zon_flow_t, age_ms) == 140 && offsetof(zon_flow_t, timer) == 144);
static_assert(offsetof(zon_flow_t, flow_lock) == 184 && offsetof(zon_flow_t, private_dying) == 193);
static_assert(offsetof(zon_flow_t, private_given_back) == 194 &&
              offsetof(zon_flow_t, fo_list) == 200);
// Read with the marks before it, which every packet reads.
static_assert(offsetof(zon_flow_t, private_half_open) == 196);
static_assert(offsetof(zon_flow_t, bypass_id) == 208 && offsetof(zon_flow_t, tunnel_type) == 212);
static_assert(offsetof(zon_flow_t, super_ctx) == 216);
static_assert(sizeof(zon_flow_fo_t) == 24 && offsetof(zon_flow_fo_t, fo) == 8);

// The indications of a packet: hosts are compiled against these offsets.
static_assert(sizeof(zon_pkt_indications_t) == 96 && plain_record<zon_pkt_indications_t>);
static_assert(offsetof(zon_pkt_indications_t, flow) == 0);
static_assert(offsetof(zon_pkt_indications_t, l7_flow_bytes) == 8);
static_assert(offsetof(zon_pkt_indications_t, flow_pkt_count) == 16);
static_assert(offsetof(zon_pkt_indications_t, l4_payload_size) == 20);
static_assert(offsetof(zon_pkt_indications_t, l3_payload_size) == 24);
static_assert(offsetof(zon_pkt_indications_t, l3_header_size) == 28);
static_assert(offsetof(zon_pkt_indications_t, bypass_id) == 32);
static_assert(offsetof(zon_pkt_indications_t, hash_valid) == 36);
static_assert(offsetof(zon_pkt_indications_t, hash_value) == 40);
static_assert(offsetof(zon_pkt_indications_t, l4_port) == 44);
static_assert(offsetof(zon_pkt_indications_t, l3_protocol) == 48);
static_assert(offsetof(zon_pkt_indications_t, is_initiator) == 50);
static_assert(offsetof(zon_pkt_indications_t, fif) == 51);
static_assert(offsetof(zon_pkt_indications_t, lif) == 52);
static_assert(offsetof(zon_pkt_indications_t, first_payload) == 53);
static_assert(offsetof(zon_pkt_indications_t, was_promoted) == 54);
static_assert(offsetof(zon_pkt_indications_t, packet_seen) == 55);
static_assert(offsetof(zon_pkt_indications_t, l4_protocol) == 56);
static_assert(offsetof(zon_pkt_indications_t, is_fragment) == 57);
static_assert(offsetof(zon_pkt_indications_t, l4_error) == 60);
static_assert(offsetof(zon_pkt_indications_t, tunnel_type) == 64);
static_assert(offsetof(zon_pkt_indications_t, l3_start) == 72);
static_assert(offsetof(zon_pkt_indications_t, l4_start) == 80);
static_assert(offsetof(zon_pkt_indications_t, l7_start) == 88);

static_assert(sizeof(zon_dp_fe_t) == 88 && offsetof(zon_dp_fe_t, l4_start) == 16);
static_assert(offsetof(zon_dp_fe_t, protocol) == 24 && offsetof(zon_dp_fe_t, ipv6_srcaddr) == 28);
static_assert(offsetof(zon_dp_fe_t, i2r_flag) == 60 &&
              offsetof(zon_dp_fe_t, tunneled_flow_type) == 64);
static_assert(offsetof(zon_dp_fe_t, ipv6_frag_hdr) == 72 &&
              offsetof(zon_dp_fe_t, ipv6_options_len) == 80);

static_assert(sizeof(zon_ip_addr_t) == 20 && sizeof(zon_flow_tuple_t) == 52 &&
              plain_record<zon_flow_tuple_t>);
static_assert(offsetof(zon_flow_tuple_t, src_port) == 40 &&
              offsetof(zon_flow_tuple_t, vrf_id) == 44);

static_assert(sizeof(zon_capability_counter_t) == 28 && sizeof(zon_timer_defaults_t) == 24);
static_assert(sizeof(error_stats_t) == 8 && sizeof(memory_usage_stats_t) == 16);
static_assert(sizeof(zon_chunk_mem_t) == 48 && sizeof(zon_flow_memory_usage_t) == 20);
static_assert(sizeof(zon_params_t) == 184 && offsetof(zon_params_t, max_bucket_depth) == 24);
static_assert(offsetof(zon_params_t, capability_counter) == 28);
static_assert(offsetof(zon_params_t, client_enabled_capability) == 56);

// The engine: a host passes the three timer fields, which stand in a row, to the timer set-up.
static_assert(sizeof(zon_t) == 360 && offsetof(zon_t, zon_tw) == 40);
static_assert(offsetof(zon_t, zon_timer_vdm) == offsetof(zon_t, zon_tw) + 8);
static_assert(offsetof(zon_t, zon_timer_process_create) == offsetof(zon_t, zon_tw) + 16);
static_assert(offsetof(zon_t, clients) == 64 && offsetof(zon_t, error_stats) == 72);
static_assert(offsetof(zon_t, memory_usage_stats) == 80 &&
              offsetof(zon_t, memory_chunk_created) == 96);
static_assert(offsetof(zon_t, in_use) == 97 && offsetof(zon_t, zon_chunk_ptr) == 104);
static_assert(offsetof(zon_t, params) == 152 && offsetof(zon_t, frag_table) == 336);
static_assert(offsetof(zon_t, free_client_ids) == 352);

static_assert(sizeof(zon_flow_report_t) == 200 && offsetof(zon_flow_report_t, num_l7_bytes) == 16);
static_assert(offsetof(zon_flow_report_t, parent_fid) == 44 &&
              offsetof(zon_flow_report_t, hasFO) == 48);
static_assert(offsetof(zon_flow_report_t, initiator_key) == 80 &&
              offsetof(zon_flow_report_t, responder_key) == 140);
static_assert(sizeof(zon_dump_output) == 24 && sizeof(zon_dump_flow_context) == 24);
static_assert(offsetof(zon_dump_output, ip_type) == 4 && offsetof(zon_dump_output, ipaddr) == 8);
static_assert(offsetof(zon_dump_output, port) == 16);
static_assert(offsetof(zon_dump_flow_context, ip_type) == 3);
static_assert(offsetof(zon_dump_flow_context, ipaddr) == 8 &&
              offsetof(zon_dump_flow_context, port) == 16);
