// zon_packet_burst.cpp - takes many packets in at once. What one packet waits for is asked for
// while others are read: first all headers, then the lines of the index, then those of the flows;
// then the packets are taken one after another, as if each had come alone.
//
// Owns   nothing; the packets of a group are on the stack.
// Locks  one flow's at a time.

#include <algorithm>
#include <array>
#include <span>

#include "zon_engine/zon_plain_packet.h"
#include "zon_hashset_internal.h"
#include "zon_pkt_inline.h"

namespace {

// Enough for the memory to be busy all the time, few enough to stay in the first cache.
constexpr size_t group_size = 32;

// A packet on its way; what stands in it beyond the kind depends on that.
struct prepared_packet {
    enum class kind : uint8_t { plain_ipv4, plain_ipv6, other };

    union {
        plain_packet<ipv4_family> v4;
        plain_packet<ipv6_family> v6;
    };
    union {
        connection_ends<ipv4_family> ends_v4;
        connection_ends<ipv6_family> ends_v6;
    };
    uint64_t hash = 0;
    flow_buckets buckets;  // of a connection that the index does not name, else below 0
    connection_index::guess guess;
    kind is;

    template <class family>
    plain_packet<family>& of() {
        if constexpr (std::is_same_v<family, ipv4_family>)
            return v4;
        else
            return v6;
    }
    template <class family>
    connection_ends<family>& ends() {
        if constexpr (std::is_same_v<family, ipv4_family>)
            return ends_v4;
        else
            return ends_v6;
    }
};

using group = std::span<zon_burst_packet_t>;
using prepared_group = std::array<prepared_packet, group_size>;

arriving_packet arriving_of(zon_burst_packet_t& packet, zon_t* engine) {
    return {engine,
            packet.iphdr,
            packet.captured_length,
            packet.vrf_id,
            packet.pkt_ctx,
            packet.pkt_indications,
            &packet.error,
            0,
            ZON_L4_CLOSED,
            0};
}

void take_alone(zon_burst_packet_t& packet) {
    packet.fid = zon_handle_captured_packet(packet.iphdr, packet.captured_length, packet.vrf_id,
                                            packet.pkt_ctx, packet.pkt_indications, &packet.error);
}

void fetch_headers(group packets) {
    for (const zon_burst_packet_t& packet : packets)
        __builtin_prefetch(packet.iphdr);
}

template <class family>
[[gnu::always_inline]] inline bool prepare_if_plain(const arriving_packet& arriving,
                                                    const connection_index& index,
                                                    prepared_packet& prepared) {
    plain_packet<family>& plain = prepared.of<family>();
    if (!read_plain_packet<false>(arriving, plain)) [[unlikely]]
        return false;
    prepared.hash = index.hash_of(plain.between);
    return true;
}

[[gnu::always_inline]] inline prepared_packet::kind prepare(const arriving_packet& arriving,
                                                            const connection_index& index,
                                                            prepared_packet& prepared) {
    using kind = prepared_packet::kind;
    if (arriving.ip == nullptr || arriving.captured == 0 || arriving.indications == nullptr)
        return kind::other;
    switch (arriving.ip[0] >> 4) {
    case 4:
        return prepare_if_plain<ipv4_family>(arriving, index, prepared) ? kind::plain_ipv4
                                                                        : kind::other;
    case 6:
        return prepare_if_plain<ipv6_family>(arriving, index, prepared) ? kind::plain_ipv6
                                                                        : kind::other;
    default:
        return kind::other;
    }
}

void read_headers(group packets, zon_t* engine, const connection_index& index,
                  prepared_group& prepared) {
    for (size_t i = 0; i < packets.size(); ++i)
        prepared[i].is = prepare(arriving_of(packets[i], engine), index, prepared[i]);
}

// The processor looks up many pages at once as long as the requests stand close together, so they
// are made in loops that do little else.
void fetch_index_lines(size_t count, const connection_index& index,
                       const prepared_group& prepared) {
    for (size_t i = 0; i < count; ++i)
        index.touch_line(prepared[i].hash);
}

// Whether all plain packets may have a flow that is known.
bool find_flows(size_t count, const connection_index& index, prepared_group& prepared) {
    bool all_found = true;
    for (size_t i = 0; i < count; ++i) {
        prepared_packet& packet = prepared[i];
        packet.guess = {};
        packet.buckets.responder = -1;
        if (packet.is == prepared_packet::kind::other) [[unlikely]]
            continue;
        packet.guess = index.find(packet.hash);
        all_found &= packet.guess.flow != nullptr;
    }
    return all_found;
}

bool is_unknown(const prepared_packet& packet) {
    return packet.is != prepared_packet::kind::other && packet.guess.flow == nullptr;
}

template <class family>
void find_buckets(const zon_flow_table_t* tbl, prepared_packet& packet) {
    packet.ends<family>() = ends_of(packet.of<family>());
    packet.buckets = zon_buckets_of(tbl, packet.ends<family>());
}

// What a new flow looks at and changes in the table: the heads of two buckets, what they lead to,
// and what is next in the chain of the first.
void fetch_buckets(size_t count, zon_flow_table_t* tbl, prepared_group& prepared) {
    std::array<flow_buckets, group_size> buckets;
    std::array<const zon_hashset_hdr*, group_size> items;
    size_t unknown = 0;
    for (size_t i = 0; i < count; ++i) {
        if (!is_unknown(prepared[i]))
            continue;
        if (prepared[i].is == prepared_packet::kind::plain_ipv4)
            find_buckets<ipv4_family>(tbl, prepared[i]);
        else
            find_buckets<ipv6_family>(tbl, prepared[i]);
        buckets[unknown++] = prepared[i].buckets;
    }
    for (size_t i = 0; i < unknown; ++i) {
        touch_bucket(tbl->table, static_cast<uint32_t>(buckets[i].initiator));
        touch_bucket(tbl->table, static_cast<uint32_t>(buckets[i].responder));
    }
    for (size_t i = 0; i < unknown; ++i) {
        items[i] = touch_first_item(tbl->table, static_cast<uint32_t>(buckets[i].initiator));
        touch_first_item(tbl->table, static_cast<uint32_t>(buckets[i].responder));
    }
    for (size_t i = 0; i < unknown; ++i)
        prefetch_next_item(items[i]);
}

void fetch_flows(group packets, const prepared_group& prepared) {
    for (size_t i = 0; i < packets.size(); ++i)
        if (prepared[i].guess.flow != nullptr) [[likely]]
            touch_flow(prepared[i].guess.flow);
    for (size_t i = 0; i < packets.size(); ++i) {
        __builtin_prefetch(packets[i].pkt_indications, 1);
        prefetch_behind<true>(packets[i].pkt_indications, 64);
    }
}

// What decides whether a packet is plain, beside its bytes. Client functions that a packet runs may
// change it, and a packet that is taken alone may be the first of a tunnel.
struct what_is_plain {
    bool tcp;
    bool udp;
    bool may_be_teredo;
    bool traced;

    static what_is_plain now(const zon_t* engine) {
        const zon_capability_counter_t& enabled = engine->params.capability_counter;
        return {relaxed_load(enabled.zon_engine_flow_tcp) != 0,
                relaxed_load(enabled.zon_engine_flow_udp) != 0, is_teredo_active(engine),
                relaxed_load(zon_debug_flag_fe)};
    }
    bool operator==(const what_is_plain&) const = default;
};

enum class taken { plain, aside };

// An earlier packet of the group may have made the flow of one that no flow was known of.
template <class family>
[[gnu::always_inline]] inline locked_flow lock_flow_of(zon_t* engine, prepared_packet& prepared) {
    if (prepared.guess.flow == nullptr) [[unlikely]]
        prepared.guess = index_of(engine->flow_tbl).find(prepared.hash);
    if (prepared.guess.flow == nullptr) [[unlikely]]
        return {};
    return locked_flow::adopt(zon_lock_guess(prepared.guess, prepared.of<family>().between));
}

template <class family>
[[gnu::noinline]] zon_fid_t search_prepared(zon_burst_packet_t& packet, zon_t* engine,
                                            prepared_packet& prepared) {
    const plain_packet<family>& plain = prepared.of<family>();
    // Another packet's client function may have written to the header since.
    const bool as_hashed =
        prepared.buckets.responder >= 0 && prepared.ends<family>() == ends_of(plain);
    return search_flow_of(arriving_of(packet, engine), plain,
                          as_hashed ? prepared.buckets : flow_buckets{-1, -1});
}

template <class family>
[[gnu::always_inline]] inline taken take_plain(zon_burst_packet_t& packet, zon_t* engine,
                                               prepared_packet& prepared) {
    packet.error = zon_error_none;
    locked_flow flow = lock_flow_of<family>(engine, prepared);
    if (!flow) [[unlikely]] {
        packet.fid = search_prepared<family>(packet, engine, prepared);
        return taken::aside;
    }
    packet.fid =
        account_plain_packet(std::move(flow), arriving_of(packet, engine), prepared.of<family>());
    return taken::plain;
}

[[gnu::always_inline]] inline taken take(zon_burst_packet_t& packet, zon_t* engine,
                                         prepared_packet& prepared) {
    const bool hashed_by_host =
        prepared.is != prepared_packet::kind::other && packet.pkt_indications->hash_valid == 1;
    if (prepared.is == prepared_packet::kind::other || hashed_by_host) [[unlikely]] {
        take_alone(packet);
        return taken::aside;
    }
    return prepared.is == prepared_packet::kind::plain_ipv4
               ? take_plain<ipv4_family>(packet, engine, prepared)
               : take_plain<ipv6_family>(packet, engine, prepared);
}

bool runs_bypass_functions(const zon_t* engine) {
    return relaxed_load(engine->params.capability_counter.zon_engine_client_bypass) != 0;
}

// How many of the packets have a flow.
uint32_t take_group(group packets, zon_t* engine) {
    prepared_group prepared;
    const connection_index& index = index_of(engine->flow_tbl);
    const what_is_plain as_read = what_is_plain::now(engine);
    fetch_headers(packets);
    read_headers(packets, engine, index, prepared);
    fetch_index_lines(packets.size(), index, prepared);
    const bool all_found = find_flows(packets.size(), index, prepared);
    fetch_flows(packets, prepared);
    if (!all_found)
        fetch_buckets(packets.size(), engine->flow_tbl, prepared);
    bool may_have_changed = runs_bypass_functions(engine);
    uint32_t with_flow = 0;
    for (size_t i = 0; i < packets.size(); ++i) {
        if (may_have_changed && what_is_plain::now(engine) != as_read) [[unlikely]]
            take_alone(packets[i]);
        else if (take(packets[i], engine, prepared[i]) == taken::aside)
            may_have_changed = true;
        with_flow += packets[i].fid != 0;
    }
    return with_flow;
}

// There is no engine, or half of one: each packet is told so.
uint32_t take_each_alone(group packets) {
    uint32_t with_flow = 0;
    for (zon_burst_packet_t& packet : packets) {
        take_alone(packet);
        with_flow += packet.fid != 0;
    }
    return with_flow;
}

}  // namespace

uint32_t zon_handle_packet_burst(zon_burst_packet_t* packets, uint32_t count) {
    if (packets == nullptr)
        return 0;
    zon_t* engine = g_zon;
    const group all(packets, count);
    if (engine == nullptr || !zon_engine_is_whole(engine))
        return take_each_alone(all);
    uint32_t with_flow = 0;
    for (size_t first = 0; first < all.size(); first += group_size)
        with_flow +=
            take_group(all.subspan(first, std::min(group_size, all.size() - first)), engine);
    return with_flow;
}
