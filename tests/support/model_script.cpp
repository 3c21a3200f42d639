// model_script.cpp - runs scripts through engine and model and compares them after every step.

#include "support/model_script.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>

#include "support/client_tuple.h"
#include "support/flow_reader.h"
#include "support/packet_builder.h"
#include "zon.h"

namespace zon_test {

namespace {

constexpr size_t connections = 96;
constexpr uint16_t largest_payload = 1400;

// ---- the connections of all scripts ----

// A few hosts and ports, so that announcements by one end meet many of them; both families, both
// protocols, two VRFs, and hosts that talk to themselves.
connection_tuple tuple_of(size_t connection) {
    connection_tuple tuple;
    const bool ipv6 = connection % 3 == 1;
    const auto host = [ipv6](uint32_t number) {
        return ipv6 ? address{0x20010db8, 0, 0, number} : address{0x0A000000 + number, 0, 0, 0};
    };
    tuple.source = {ipv6, host(1 + static_cast<uint32_t>(connection % 5)),
                    static_cast<uint16_t>(40000 + connection)};
    tuple.destination = {ipv6, host(1 + static_cast<uint32_t>(connection % 7)),
                         static_cast<uint16_t>(connection % 4 == 0 ? 80 : 53)};
    tuple.protocol = connection % 2 == 0 ? 6 : 17;
    tuple.vrf_id = connection % 11 == 0 ? 1 : 0;
    return tuple;
}

packet_builder builder_for(const connection_tuple& tuple) {
    packet_builder built = tuple.source.ipv6
                               ? packet_builder::ipv6(ipv6_address(tuple.source.ip),
                                                      ipv6_address(tuple.destination.ip))
                               : packet_builder::ipv4(tuple.source.ip[0], tuple.destination.ip[0]);
    if (tuple.protocol == 6)
        built.tcp(tuple.source.port, tuple.destination.port);
    else
        built.udp(tuple.source.port, tuple.destination.port);
    return built.payload(largest_payload);
}

// Each connection's packets, both ways, made once and varied in place.
class packet_store {
public:
    packet_store() {
        for (size_t connection = 0; connection < connections; ++connection) {
            tuples_[connection][0] = tuple_of(connection);
            tuples_[connection][1] = tuple_of(connection).reversed();
            for (const size_t way : {0U, 1U})
                packets_[connection][way] = builder_for(tuples_[connection][way]).build();
        }
    }
    const connection_tuple& tuple(const script_step& step) const {
        return tuples_[step.connection][step.reply ? 1 : 0];
    }
    bytes& packet(const script_step& step) {
        bytes& packet = packets_[step.connection][step.reply ? 1 : 0];
        const connection_tuple& of = tuple(step);
        const uint16_t l4_size = of.protocol == 6 ? 20 : 8;
        const uint16_t ip_size = of.source.ipv6 ? 40 : 20;
        const auto datagram = static_cast<uint16_t>(l4_size + step.payload);
        if (of.source.ipv6)
            put16(packet, 4, datagram);
        else
            put16(packet, 2, static_cast<uint16_t>(ip_size + datagram));
        if (of.protocol == 6) {
            put32(packet, ip_size + 4U, step.value);
            put32(packet, ip_size + 8U, ~step.value);
            put8(packet, ip_size + 13U, step.tcp_flags);
        } else {
            put16(packet, ip_size + 4U, datagram);
        }
        return packet;
    }

private:
    std::array<std::array<connection_tuple, 2>, connections> tuples_;
    std::array<std::array<bytes, 2>, connections> packets_;
};

packet_store& store() {
    static packet_store all;
    return all;
}

// ---- the two sides ----

std::vector<deletion> told_by_engine;
void note_deletion(zon_flow_ptr_t fid, void*, void*, void* object,
                   zon_flow_deletion_reason_e reason, zon_client_id_e) {
    told_by_engine.push_back({fid, reason, reinterpret_cast<uintptr_t>(object)});
}

std::string text(const packet_verdict& v) {
    std::ostringstream out;
    out << "fid " << v.fid << (v.first ? " first" : "") << (v.last ? " last" : "")
        << (v.promoted ? " promoted" : "") << (v.first_payload ? " first-payload" : "")
        << (v.from_initiator ? " from-initiator" : " from-responder") << ", packet " << v.packets
        << ", " << v.bytes << " bytes" << (v.out_of_memory ? ", refused for memory" : "");
    return out.str();
}

std::string text(const std::vector<deletion>& all) {
    std::ostringstream out;
    for (const deletion& told : all)
        out << " fid " << told.fid << " reason " << told.reason << " object " << told.object << ";";
    return all.empty() ? " none" : out.str();
}

class comparison {
public:
    explicit comparison(const flow_model::settings& settings) : model_(settings) {
        zon_clock_set_mode(ZON_CLOCK_MANUAL_INLINE);
        zon_init(settings.max_flows, settings.announced_ms, settings.block, 4, 0, 16, 10);
        zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                          &g_zon->zon_timer_process_create);
        zon_client_feature_register(&client_);
        zon_client_register_delete_cb(client_, note_deletion);
        zon_client_enable_engine_capability(
            client_,
            static_cast<zon_capability_e>(ZON_CAPABILITY_ENABLE_TCP | ZON_CAPABILITY_ENABLE_UDP));
        zon_set_default_aging(6, ZON_L4_OPENING, settings.tcp_opening_ms);
        zon_set_default_aging(17, ZON_L4_OPENING, settings.udp_opening_ms);
        told_by_engine.clear();
        model_.start(zon_clock_now_us());
    }
    ~comparison() {
        zon_destroy();
        zon_clock_set_mode(ZON_CLOCK_SYSTEM);
    }
    comparison(const comparison&) = delete;
    comparison& operator=(const comparison&) = delete;

    // Empty, or what differs after the step.
    std::string run(const script_step& step, script_result& counts) {
        difference_.clear();
        switch (step.kind) {
        case step_kind::packet:
        case step_kind::captured_packet:
            run_packet(step, counts);
            break;
        case step_kind::wait:
            run_wait(step);
            break;
        case step_kind::announce:
            run_announce(step);
            break;
        case step_kind::withdraw:
            run_withdraw(step);
            break;
        case step_kind::remove:
            remove(step.value % (g_zon->params.max_flows + 1), static_cast<int>(step.payload % 5));
            break;
        case step_kind::set_idle:
            run_set_idle(step);
            break;
        }
        compare_counts();
        counts.deletions += told_by_engine.size();
        counts.refused = model_.refused();
        told_by_engine.clear();
        return difference_;
    }

    // Nothing may be left when every flow has gone.
    std::string clear_all() {
        difference_.clear();
        for (const uint32_t fid : model_.fids()) {
            told_by_engine.clear();
            remove(fid, 2);
        }
        const memory_usage_stats_t& usage = g_zon->memory_usage_stats;
        expect("half flows in use at the end",
               usage.ipv4_half_flow_alloc_count + usage.ipv6_half_flow_alloc_count, 0);
        compare_counts();
        return difference_;
    }

private:
    template <class value>
    void expect(const char* what, const value& engine, const value& model) {
        if (engine == model || !difference_.empty())
            return;
        std::ostringstream out;
        out << what << ": the engine says " << engine << ", the model " << model;
        difference_ = out.str();
    }
    void expect(const char* what, size_t engine, size_t model) {
        expect<size_t>(what, engine, model);
    }

    void expect_told(const std::vector<deletion>& expected) {
        if (told_by_engine != expected && difference_.empty())
            difference_ = "deletions told:" + text(told_by_engine) + " expected:" + text(expected);
    }

    void run_packet(const script_step& step, script_result& counts) {
        ++counts.packets;
        const connection_tuple& tuple = store().tuple(step);
        bytes& packet = store().packet(step);
        zon_pkt_indications_t seen;
        std::memset(&seen, 0xFF, sizeof seen);
        seen.hash_valid = 0;
        zon_error_t error = zon_error_end;
        packet_verdict engine;
        engine.fid =
            step.kind == step_kind::packet
                ? zon_handle_packet(packet.data(), tuple.vrf_id, nullptr, &seen, &error)
                : zon_handle_captured_packet(packet.data(), static_cast<uint32_t>(packet.size()),
                                             tuple.vrf_id, nullptr, &seen, &error);
        engine.first = seen.fif != 0;
        engine.last = seen.lif != 0;
        engine.from_initiator = seen.is_initiator != 0;
        engine.promoted = seen.was_promoted != 0;
        engine.first_payload = seen.first_payload != 0;
        engine.packets = seen.flow_pkt_count;
        engine.bytes = seen.l7_flow_bytes;
        engine.out_of_memory = error == zon_error_memory;
        const packet_verdict model = model_.packet({tuple, step.tcp_flags, step.payload});
        counts.promoted += model.promoted ? 1 : 0;
        if (!(engine == model) && difference_.empty())
            difference_ = "the engine says " + text(engine) + "; the model " + text(model);
        if (model.fid != 0) {
            expect("payload of the packet", seen.l4_payload_size, uint32_t{step.payload});
            expect("error", static_cast<int>(error), 0);
        }
        if (model.first && difference_.empty())
            attach(model.fid);
        expect_told({});
        if (model.last && step.value % 2 == 0 && difference_.empty()) {
            zon_pkt_ctx_t finished{seen};
            expect("clean-up accepted", zon_cleanup_packet(&finished), true);
            model_.set_idle_seconds(model.fid, 0);
        }
    }

    void attach(uint32_t fid) {
        ++objects_;
        zon_flow_attach_fo(fid, client_, ZON_DIR_BI,
                           reinterpret_cast<void*>(static_cast<uintptr_t>(objects_)));
        model_.attach(fid, objects_);
    }

    void run_wait(const script_step& step) {
        const uint64_t now =
            model_.next_certain_moment(zon_clock_now_us() + uint64_t{step.value} * 1000);
        std::vector<flow_model::expiry> expected = model_.advance_to(now);
        zon_clock_advance_to_us(now);
        // The order of flows that leave at nearly the same moment is the engine's.
        std::vector<deletion> sorted_engine = told_by_engine;
        std::vector<deletion> sorted_model;
        for (const flow_model::expiry& expiry : expected)
            sorted_model.push_back(expiry.told);
        std::sort(sorted_engine.begin(), sorted_engine.end());
        std::sort(sorted_model.begin(), sorted_model.end());
        if (sorted_engine != sorted_model) {
            difference_ = "aged out:" + text(sorted_engine) + " expected:" + text(sorted_model);
            return;
        }
        expect_order(expected);
        model_.leave(told_by_engine);
        // Their next deadlines would be too uncertain to compare.
        for (const uint32_t fid : model_.vague()) {
            told_by_engine.clear();
            remove(fid, 2);
        }
    }
    void expect_order(const std::vector<flow_model::expiry>& expected) {
        const auto of = [&](const deletion& told) {
            return *std::find_if(expected.begin(), expected.end(),
                                 [&](const flow_model::expiry& one) { return one.told == told; });
        };
        for (size_t i = 1; i < told_by_engine.size(); ++i)
            if (of(told_by_engine[i]).to < of(told_by_engine[i - 1]).from)
                difference_ = "aged out in the wrong order:" + text(told_by_engine);
    }

    struct announcement {
        announced_as how;
        zon_flow_tuple_type_t type;
    };
    static announcement kind_of(const script_step& step) {
        static constexpr announcement kinds[] = {
            {announced_as::complete, ZON_FLOW_TUPLE_TYPE_COMPLETE},
            {announced_as::any_vrf, ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN},
            {announced_as::source_only, ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN},
            {announced_as::destination_only, ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN}};
        return kinds[step.value % 4];
    }

    std::optional<uint32_t> run_announce(const script_step& step) {
        const zon_flow_tuple_t tuple = to_client(store().tuple(step));
        zon_fid_t fid = 0;
        const zon_error_t error = zon_pre_flow_add(kind_of(step).type, &tuple, 0, &fid, nullptr);
        const std::optional<uint32_t> expected =
            model_.announce(kind_of(step).how, store().tuple(step));
        expect("identifier of the announcement", fid, expected.value_or(0));
        expect("error of the announcement", static_cast<int>(error), expected ? 0 : 2);
        expect_told({});
        return expected;
    }
    // Announces, and withdraws what was announced if it is not a flow already.
    void run_withdraw(const script_step& step) {
        const std::optional<uint32_t> fid = run_announce(step);
        if (!difference_.empty() || !fid || !model_.is_announced(*fid))
            return;
        const zon_flow_tuple_t tuple = to_client(store().tuple(step));
        expect("withdrawal",
               static_cast<int>(zon_pre_flow_delete_using_flow_tuple(kind_of(step).type, &tuple)),
               0);
        expect_told({*model_.remove(*fid, 2)});
    }
    void remove(uint32_t fid, int reason) {
        const bool deleted =
            zon_delete_flow_tamonet(fid, static_cast<zon_flow_deletion_reason_e>(reason));
        const std::optional<deletion> expected = model_.remove(fid, reason);
        expect("deleted", deleted, expected.has_value());
        expect_told(expected ? std::vector<deletion>{*expected} : std::vector<deletion>{});
    }
    void run_set_idle(const script_step& step) {
        const uint32_t fid = 1 + step.payload % g_zon->params.max_flows;
        const uint32_t seconds = step.value % 12;
        const zon_error_t error = zon_flow_set_aging(fid, seconds);
        expect("idle time set", error == zon_error_none, model_.has(fid));
        if (model_.has(fid))
            model_.set_idle_seconds(fid, seconds);
    }

    void compare_counts() {
        expect("half flows in the table", zon_flow_table_num_elements(g_zon->flow_tbl),
               2 * model_.flows());
        uint32_t announced = 0;
        for (const uint32_t count : g_zon->flow_tbl->active_preflow_count)
            announced += count;
        expect("announced half flows", announced, 2 * model_.announced());
        expect("flows refused for memory", g_zon->error_stats.flow_alloc_errors, model_.refused());
    }

    flow_model model_;
    zon_client_id_e client_ = 0;
    uint64_t objects_ = 0;
    std::string difference_;
};

// ---- random scripts ----

class random_steps {
public:
    explicit random_steps(uint32_t seed) : random_(seed) {}

    script_step next() {
        script_step step{};
        const uint32_t dice = below(1000);
        // Connections come and go in favour: a dozen neighbours get most of the packets.
        if (below(400) == 0)
            favourite_ = below(connections);
        step.connection = static_cast<uint8_t>(
            (favourite_ + (below(4) == 0 ? below(connections) : below(12))) % connections);
        step.reply = below(2) == 0;
        step.value = static_cast<uint32_t>(random_());
        step.payload = static_cast<uint16_t>(below(3) == 0 ? 0 : below(largest_payload + 1));
        step.tcp_flags = flags();
        if (dice < 950) {
            step.kind = below(2) == 0 ? step_kind::packet : step_kind::captured_packet;
        } else if (dice < 980) {
            step.kind = step_kind::wait;
            step.value = below(10) == 0 ? below(9000) : below(300);
        } else if (dice < 990) {
            step.kind = step_kind::announce;
        } else if (dice < 993) {
            step.kind = step_kind::withdraw;
        } else if (dice < 996) {
            step.kind = step_kind::remove;
        } else {
            step.kind = step_kind::set_idle;
            step.payload = static_cast<uint16_t>(below(256));
        }
        return step;
    }

private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    // What stacks send, and now and then anything.
    uint8_t flags() {
        static constexpr uint8_t plausible[] = {
            tcp_syn,           tcp_syn | tcp_ack, tcp_ack,           tcp_ack, tcp_ack,
            tcp_psh | tcp_ack, tcp_fin | tcp_ack, tcp_fin | tcp_ack, tcp_rst};
        return below(10) == 0 ? static_cast<uint8_t>(below(256))
                              : plausible[below(std::size(plausible))];
    }

    std::mt19937 random_;
    uint32_t favourite_ = 0;
};

}  // namespace

flow_model::settings settings_of(uint32_t seed) {
    static constexpr flow_model::settings sizes[] = {{64, 10, 4000, 6000, 3000},
                                                     {24, 10, 4000, 6000, 3000},
                                                     {7, 3, 2500, 3500, 10000},
                                                     {100, 33, 5000, 5000, 1500}};
    return sizes[seed % std::size(sizes)];
}

std::vector<script_step> make_script(uint32_t seed, size_t steps) {
    random_steps random(seed);
    std::vector<script_step> script(steps);
    std::generate(script.begin(), script.end(), [&] { return random.next(); });
    return script;
}

script_result run_script(const flow_model::settings& settings,
                         std::span<const script_step> script) {
    script_result result;
    comparison both(settings);
    for (size_t at = 0; at < script.size(); ++at) {
        result.difference = both.run(script[at], result);
        if (!result.difference.empty()) {
            result.failed_at = at;
            return result;
        }
    }
    result.difference = both.clear_all();
    if (!result.difference.empty())
        result.failed_at = script.size() - 1;
    return result;
}

std::vector<script_step> shortened(const flow_model::settings& settings,
                                   std::vector<script_step> script, int attempts) {
    for (size_t span = script.size() / 2; span > 0; span /= 2)
        for (size_t at = 0; at + span <= script.size() && attempts > 0;) {
            std::vector<script_step> shorter = script;
            shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(at),
                          shorter.begin() + static_cast<std::ptrdiff_t>(at + span));
            --attempts;
            const script_result tried = run_script(settings, shorter);
            if (!shorter.empty() && tried.failed_at) {
                shorter.resize(*tried.failed_at + 1);
                script = std::move(shorter);
            } else {
                at += span;
            }
        }
    return script;
}

std::string to_text(const script_step& step) {
    std::ostringstream out;
    const auto connection = [&]() -> std::ostringstream& {
        out << "connection " << int{step.connection} << (step.reply ? " reply" : "");
        return out;
    };
    switch (step.kind) {
    case step_kind::packet:
    case step_kind::captured_packet:
        connection() << (step.kind == step_kind::packet ? ": packet" : ": captured packet");
        out << ", flags " << int{step.tcp_flags} << ", " << step.payload << " bytes, number "
            << step.value;
        break;
    case step_kind::wait:
        out << "wait " << step.value << " ms";
        break;
    case step_kind::announce:
    case step_kind::withdraw:
        connection() << (step.kind == step_kind::announce ? ": announce"
                                                          : ": announce and withdraw")
                     << ", kind " << step.value % 4;
        break;
    case step_kind::remove:
        out << "remove by number " << step.value << ", reason " << step.payload % 5;
        break;
    case step_kind::set_idle:
        out << "idle time by number " << step.payload << ": " << step.value % 12 << " s";
        break;
    }
    return out.str();
}

}  // namespace zon_test
