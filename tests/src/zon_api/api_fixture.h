// api_fixture.h - what the tests of the operations on flows share: tuples, flows by packet,
// recorded deletions.

#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "osal/zon_mem.h"
#include "support/captured_output.h"
#include "support/engine_fixture.h"
#include "zon_engine_inline.h"

namespace zon_test {

// One call of a delete callback.
struct told_deletion {
    zon_fid_t fid;
    void* initiator_fo;
    void* responder_fo;
    void* flow_fo;
    zon_flow_deletion_reason_e reason;
    zon_client_id_e cid;
};

inline std::vector<told_deletion> told;
inline void (*while_telling)(zon_fid_t fid) = nullptr;

inline void record_deletion(zon_flow_ptr_t flow, void* initiator_fo, void* responder_fo,
                            void* flow_fo, zon_flow_deletion_reason_e reason, zon_client_id_e cid) {
    told.push_back({flow, initiator_fo, responder_fo, flow_fo, reason, cid});
    if (while_telling != nullptr)
        while_telling(flow);
}

constexpr uint32_t host_a = 0x0A000001;  // 10.0.0.1
constexpr uint32_t host_b = 0x0A000002;
constexpr uint8_t udp = 17;
constexpr uint8_t tcp = 6;

inline zon_flow_tuple_t tuple4(uint32_t src, uint16_t sport, uint32_t dst, uint16_t dport,
                               uint8_t protocol = udp, uint32_t vrf_id = 0) {
    zon_flow_tuple_t tuple{};
    tuple.src_ip.addr_type = ZON_IP_ADDR_IPV4;
    tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV4;
    tuple.src_ip.u.v4_addr = src;
    tuple.dst_ip.u.v4_addr = dst;
    tuple.src_port = sport;
    tuple.dst_port = dport;
    tuple.vrf_id = vrf_id;
    tuple.l4_protocol = protocol;
    return tuple;
}

inline zon_flow_tuple_t tuple6(const char* src, uint16_t sport, const char* dst, uint16_t dport,
                               uint8_t protocol = udp) {
    zon_flow_tuple_t tuple = tuple4(0, sport, 0, dport, protocol);
    tuple.src_ip.addr_type = ZON_IP_ADDR_IPV6;
    tuple.dst_ip.addr_type = ZON_IP_ADDR_IPV6;
    std::memcpy(tuple.src_ip.u.v6_addr, ipv6_address(src).words.data(), 16);
    std::memcpy(tuple.dst_ip.u.v6_addr, ipv6_address(dst).words.data(), 16);
    return tuple;
}

inline zon_flow_tuple_t reversed(zon_flow_tuple_t tuple) {
    std::swap(tuple.src_ip, tuple.dst_ip);
    std::swap(tuple.src_port, tuple.dst_port);
    return tuple;
}

inline int bucket_of(zon_flow_tuple_t tuple) {
    int bucket = -1;
    zon_flow_lookup_tamonet(&tuple, &bucket);
    return bucket;
}

inline bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

inline bytes udp_packet(uint16_t sport, uint16_t dport) {
    return packet_builder::ipv4(ipv4_address(host_a), ipv4_address(host_b))
        .udp(sport, dport)
        .payload(10)
        .build();
}
inline bytes udp6_packet(uint16_t sport, uint16_t dport) {
    return packet_builder::ipv6("2001:db8::1", "2001:db8::2").udp(sport, dport).payload(10).build();
}

// How often a feature-object record comes out of its chunk: more than once means that it was given
// back twice.
inline int times_handed_out(const zon_flow_fo_t* record) {
    std::vector<void*> taken;
    for (int i = 0; i < 64; ++i)
        taken.push_back(zon_private_chunk_malloc(ZON_FLOW_FO_MEM_TYPE, &g_zon->zon_chunk_ptr));
    const auto times = std::count(taken.begin(), taken.end(), static_cast<const void*>(record));
    std::sort(taken.begin(), taken.end());
    taken.erase(std::unique(taken.begin(), taken.end()), taken.end());
    for (void* element : taken)
        zon_private_chunk_free(ZON_FLOW_FO_MEM_TYPE, element, &g_zon->zon_chunk_ptr);
    return static_cast<int>(times);
}

class api_fixture : public engine_fixture {
protected:
    void SetUp() override {
        told.clear();
        while_telling = nullptr;
        engine_fixture::SetUp();
    }
    void TearDown() override {
        while_telling = nullptr;
        zon_debug_flag_engine = false;
        zon_errlog = false;
        engine_fixture::TearDown();
    }

    static zon_client_id_e new_client(bool tells = true) {
        zon_client_id_e cid = 0;
        EXPECT_EQ(zon_client_feature_register(&cid), zon_error_none);
        if (tells) {
            EXPECT_EQ(zon_client_register_delete_cb(cid, record_deletion), zon_error_none);
        }
        return cid;
    }

    static zon_fid_t udp_flow(uint16_t sport, uint16_t dport = 53) {
        const packet_result result = handle(udp_packet(sport, dport));
        EXPECT_NE(result.fid, 0u);
        return result.fid;
    }

    static zon_fid_t pre_flow(zon_flow_tuple_type_t type, const zon_flow_tuple_t& tuple,
                              zon_fid_t parent = 0) {
        zon_fid_t fid = 99;
        EXPECT_EQ(zon_pre_flow_add(type, &tuple, parent, &fid, nullptr), zon_error_none);
        return fid;
    }

    // Announces a connection for a parent and sends its first packet.
    static zon_fid_t child_of(zon_fid_t parent, uint16_t sport) {
        pre_flow(ZON_FLOW_TUPLE_TYPE_COMPLETE, tuple4(host_a, sport, host_b, 2000), parent);
        const packet_result result = handle(udp_packet(sport, 2000));
        EXPECT_EQ(result.indications.was_promoted, 1);
        return result.fid;
    }

    static zon_fid_t find(const zon_flow_tuple_t& tuple,
                          zon_flow_tuple_type_t type = ZON_FLOW_TUPLE_TYPE_COMPLETE) {
        zon_fid_t fid = 0;
        zon_lock_t lock = nullptr;
        if (zon_flow_find_and_lock(type, &tuple, &fid, &lock) == zon_error_none) {
            EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
        }
        return fid;
    }

    static zon_flow_t* record_of(zon_fid_t fid) { return g_zon->fid_table->table[fid - 1]; }

    // Whether another thread could take the flow's lock now.
    static bool is_locked(const zon_flow_t* flow) {
        bool taken = false;
        std::thread([&] {
            taken = zon_try_lock_internal(flow->flow_lock);
            if (taken)
                zon_unlock_internal(flow->flow_lock);
        }).join();
        return !taken;
    }

    static std::string traced(const auto& action) {
        captured_output errors(stderr);
        action();
        return errors.text();
    }

    static uint32_t elements() { return zon_flow_table_num_elements(g_zon->flow_tbl); }
};

// An object to hang on flows; only its address counts.
inline char objects[8];

}  // namespace zon_test
