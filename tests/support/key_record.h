// key_record.h - a half flow by value, with storage for either family, to look up and to insert.
//
// Byte order addresses are host-order words, ports host-order values, as keys hold them.

#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "zon_flow_defs.h"

namespace zon_test {

// The fields of a key that tests vary.
struct key_fields {
    uint32_t type = ZON_IPV4_KEY_COMPLETE;
    std::array<uint32_t, 4> src_ip{0x0A000001, 2, 3, 4};  // an IPv4 key takes the first word
    uint32_t src_port = 40000;
    std::array<uint32_t, 4> dst_ip{0x0A000002, 6, 7, 8};
    uint32_t dst_port = 80;
    uint32_t protocol = 6;
    uint32_t vrf_id = 0;
};

class key_record {
public:
    explicit key_record(const key_fields& fields = {}) {
        zon_key_t& head = half()->key;
        head.key_type = fields.type;
        head.l4_protocol = fields.protocol;
        head.vrf_id = fields.vrf_id;
        if (zon_key_is_ipv4(fields.type))
            fill(ipv4(), fields.src_ip[0], fields.dst_ip[0], fields);
        else
            fill(ipv6(), fields.src_ip, fields.dst_ip, fields);
    }

    zon_half_flow_t* half() { return reinterpret_cast<zon_half_flow_t*>(&storage_); }
    zon_key_t& key() { return half()->key; }
    zon_ipv4_key_t& ipv4() { return *zon_full_key<ipv4_family>(half()); }
    zon_ipv6_key_t& ipv6() { return storage_.key; }

private:
    static void fill(zon_ipv4_key_t& key, uint32_t src_ip, uint32_t dst_ip,
                     const key_fields& fields) {
        key.src_ip = src_ip;
        key.src_port = fields.src_port;
        key.dst_ip = dst_ip;
        key.dst_port = fields.dst_port;
    }
    static void fill(zon_ipv6_key_t& key, const std::array<uint32_t, 4>& src_ip,
                     const std::array<uint32_t, 4>& dst_ip, const key_fields& fields) {
        for (size_t word = 0; word < 4; ++word) {
            key.src_ip[word] = src_ip[word];
            key.dst_ip[word] = dst_ip[word];
        }
        key.src_port = fields.src_port;
        key.dst_port = fields.dst_port;
    }

    zon_ipv6_half_flow_t storage_{};
};

inline const char* key_type_name(uint32_t type) {
    static constexpr const char* names[] = {"ipv4_complete",
                                            "ipv4_destination_only",
                                            "ipv4_source_only",
                                            "ipv4_announced_complete",
                                            "ipv4_any_vrf",
                                            "ipv6_complete",
                                            "ipv6_destination_only",
                                            "ipv6_source_only",
                                            "ipv6_announced_complete",
                                            "ipv6_any_vrf"};
    return type < std::size(names) ? names[type] : "no_key_type";
}

}  // namespace zon_test
