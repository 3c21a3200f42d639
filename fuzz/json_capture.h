// json_capture.h - a capture of an input's making, with every field that zonflow writes of one.

#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "flows/capture_summary.h"
#include "flows/engine_report.h"
#include "flows/flow_record.h"
#include "flows/source_groups.h"
#include "fuzz_input.h"

namespace zon_fuzz {

inline std::string some_text(fuzz_input& input) {
    const auto content = input.take(input.below(64));
    return {content.begin(), content.end()};
}

// Those of a capture end with the year 9999.
inline constexpr uint64_t last_time_us = 253402300799'999999;

// An address as it travels.
struct wire_address {
    int family = AF_INET;
    std::array<uint8_t, 16> octets{};

    static wire_address from(fuzz_input& input) {
        wire_address address;
        address.family = input.below(2) == 0 ? AF_INET : AF_INET6;
        for (uint8_t& octet : address.octets)
            octet = input.byte();
        return address;
    }
    std::string text() const {
        char shown[INET6_ADDRSTRLEN];
        return inet_ntop(family, octets.data(), shown, sizeof shown);
    }
    // As tuples hold it: words in host order.
    zon_ip_addr_t in_tuple() const {
        std::array<uint32_t, 4> words;
        std::memcpy(words.data(), octets.data(), sizeof words);
        std::ranges::transform(words, words.begin(), ntohl);
        zon_ip_addr_t address{};
        if (family == AF_INET6) {
            address.addr_type = ZON_IP_ADDR_IPV6;
            std::memcpy(address.u.v6_addr, words.data(), sizeof words);
        } else {
            address.addr_type = ZON_IP_ADDR_IPV4;
            address.u.v4_addr = words[0];
        }
        return address;
    }
};

struct flow_of_input {
    wire_address initiator;
    wire_address responder;
    zonflow::flow_record record;
};

inline zonflow::direction_counts some_counts(fuzz_input& input, bool is_tcp) {
    const uint8_t flags = input.byte();
    return {input.four_bytes(), input.eight_bytes(), input.eight_bytes(),
            is_tcp ? flags : uint8_t{0}};
}

// Without the addresses.
inline zon_flow_tuple_t some_tuple(fuzz_input& input) {
    zon_flow_tuple_t tuple{};
    tuple.src_port = static_cast<uint16_t>(input.two_bytes());
    tuple.dst_port = static_cast<uint16_t>(input.two_bytes());
    tuple.vrf_id = input.four_bytes();
    tuple.l4_protocol = input.below(2) == 0 ? ZON_TCP_PROT : ZON_UDP_PROT;
    return tuple;
}

inline void set_states(zonflow::flow_record& record, fuzz_input& input, bool is_tcp) {
    record.session_state = static_cast<uint8_t>(input.below(ZON_L4_ENUM_END));
    if (is_tcp) {
        record.tcp_state = static_cast<zon_tcp_state_t>(input.below(ZON_TCP_ENUM_END));
        record.session_end = static_cast<zonflow::connection_end>(input.below(3));
        record.last_tcp_flags = input.byte();
    }
    record.end_reason = static_cast<zon_flow_deletion_reason_e>(input.below(6));
}

inline void set_times(zonflow::flow_record& record, fuzz_input& input) {
    const uint64_t one = input.eight_bytes() % (last_time_us + 1);
    const uint64_t other = input.eight_bytes() % (last_time_us + 1);
    record.first_seen_us = std::min(one, other);
    record.last_seen_us = std::max(one, other);
}

inline flow_of_input some_flow(fuzz_input& input) {
    flow_of_input flow{wire_address::from(input), wire_address::from(input), {}};
    flow.responder.family = flow.initiator.family;
    zonflow::flow_record& record = flow.record;
    record.fid = input.four_bytes();
    record.tuple = some_tuple(input);
    record.tuple.src_ip = flow.initiator.in_tuple();
    record.tuple.dst_ip = flow.responder.in_tuple();
    const bool is_tcp = record.tuple.l4_protocol == ZON_TCP_PROT;
    record.initiator = some_counts(input, is_tcp);
    record.responder = some_counts(input, is_tcp);
    record.payload_bytes = input.eight_bytes();
    record.later_fragments = input.eight_bytes();
    set_times(record, input);
    set_states(record, input, is_tcp);
    record.tunnel = static_cast<zon_tunnel_type_e>(input.below(3));
    record.parent = input.four_bytes();
    record.promoted = input.below(2) != 0;
    if (input.below(2) != 0)
        record.bypass_id = input.four_bytes();
    return flow;
}

struct group_of_input {
    wire_address address;
    zonflow::source_group group;
};

inline std::vector<group_of_input> some_groups(fuzz_input& input) {
    std::vector<group_of_input> groups(input.below(4));
    for (auto& [address, group] : groups) {
        address = wire_address::from(input);
        group = {address.in_tuple(), input.eight_bytes(), input.eight_bytes(), input.eight_bytes(),
                 input.eight_bytes()};
    }
    return groups;
}

inline zonflow::bucket_depths some_depths(fuzz_input& input) {
    zonflow::bucket_depths depths{input.four_bytes(), input.four_bytes(), {}};
    for (uint32_t count = input.below(4); count > 0; --count) {
        const uint32_t depth = input.byte();
        depths.buckets_of_depth[depth] = input.four_bytes();
    }
    return depths;
}

inline zonflow::capture_summary some_summary(fuzz_input& input) {
    zonflow::capture_summary summary;
    for (uint64_t* count : {&summary.packets, &summary.classified, &summary.flows, &summary.not_ip,
                            &summary.malformed, &summary.out_of_time})
        *count = input.eight_bytes();
    summary.refused["vetoed"] = input.eight_bytes();
    summary.refused[some_text(input)] = input.eight_bytes();
    if (input.below(2) != 0)
        summary.lost = input.eight_bytes();
    return summary;
}

struct capture_of_input {
    std::string file;
    flow_of_input flow;
    std::vector<group_of_input> groups;
    zonflow::bucket_depths depths;
    zonflow::capture_summary summary;
    std::string text;

    // Each part takes its bytes in the order of the fields.
    explicit capture_of_input(fuzz_input& input)
        : file(some_text(input)),
          flow(some_flow(input)),
          groups(some_groups(input)),
          depths(some_depths(input)),
          summary(some_summary(input)) {
        const auto content = input.take_all();
        text.assign(content.begin(), content.end());
    }
};

}  // namespace zon_fuzz
