// operation.cpp - which operations a script is made of, how often, and how they shrink.

#include "properties/operation.h"

#include <algorithm>
#include <iterator>
#include <ostream>

namespace zon_test {

namespace {

struct kind_row {
    op kind;
    const char* name;
    uint32_t weight;
    std::vector<field> uses;
};

// In the order of the kinds.
const std::vector<kind_row>& rows() {
    using enum field;
    static const std::vector<kind_row> all = {
        {op::packet, "packet", 200, {tuple, vrf, value, extra}},
        {op::sync_packet, "sync packet", 25, {tuple, vrf, fid, value, extra}},
        {op::kit_packet, "kit packet", 30, {tuple, vrf, value, extra}},
        {op::engine_packet, "engine packet", 20, {tuple, vrf, value, extra}},
        {op::clean_up, "clean up", 8, {}},
        {op::wait, "wait", 30, {value, extra}},
        {op::announce, "announce", 110, {tuple, vrf, type, fid, extra}},
        {op::withdraw, "withdraw", 12, {tuple, vrf, type}},
        {op::find, "find", 25, {tuple, vrf, type, extra}},
        {op::probe, "probe", 12, {tuple, vrf}},
        {op::attach, "attach", 35, {fid, client, dir, value}},
        {op::get, "get object", 20, {fid, client, dir}},
        {op::get_by_fid, "get object and snapshot", 12, {fid, client, dir}},
        {op::get_by_key, "get object by key", 12, {tuple, vrf, type, client, dir}},
        {op::detach, "detach", 15, {fid, client, dir}},
        {op::attach_uni, "attach by tuple", 15, {tuple, vrf, type, client, value}},
        {op::get_uni, "get object by tuple", 10, {tuple, vrf, type, client}},
        {op::detach_uni, "detach by tuple", 10, {tuple, vrf, type, client}},
        {op::remove, "delete", 35, {fid, value}},
        {op::remove_client, "take off objects", 6, {client}},
        {op::set_aging, "set idle time", 15, {fid, value}},
        {op::set_defaults, "set default idle time", 8, {type, value, extra}},
        {op::set_state, "set state", 12, {fid, value}},
        {op::set_application, "set application", 8, {fid, value}},
        {op::set_bypass, "set bypass id", 8, {fid, value}},
        {op::sequence_number, "next sequence number", 8, {fid, dir}},
        {op::rekey, "re-key one side", 30, {fid, dir, tuple, vrf}},
        {op::rekey_mirrored, "re-key both sides", 15, {fid, tuple, vrf}},
        {op::move_vrf, "move to VRF", 12, {fid, vrf}},
        {op::parent, "parent of", 8, {fid}},
        {op::children, "children of", 35, {fid}},
        {op::register_client, "register client", 14, {}},
        {op::unregister_client, "unregister client", 6, {client}},
        {op::delete_callback, "delete callback", 12, {client, extra}},
        {op::create_callback, "pre-create callback", 14, {client, extra}},
        {op::bypass_callback, "bypass callback", 8, {client, extra}},
        {op::enable, "enable", 12, {client, value}},
        {op::disable, "disable", 6, {client, value}},
        {op::capability, "ask for capability", 6, {value}},
        {op::context_lookup, "super-context lookup", 12, {type, extra}},
        {op::context_delete_callback, "super-context callback", 6, {client, extra}},
        {op::context_attach, "super-context attach", 12, {fid, type, client, value}},
        {op::context_get, "super-context get", 8, {fid, type, client}},
        {op::context_handle, "super-context handle", 8, {fid, type}},
        {op::context_walk, "super-context walk", 10, {type, value}},
        {op::translate, "translate", 5, {extra}},
        {op::report, "report", 3, {tuple, extra}},
        {op::dump, "dump", 1, {tuple, extra}},
        {op::clear_stats, "clear statistics", 2, {}},
        {op::configure, "configure", 4, {value}},
        {op::restart, "restart", 2, {extra}},
    };
    return all;
}

const kind_row& row_of(op kind) {
    return rows()[static_cast<size_t>(kind)];
}

// How many values a number takes.
uint32_t limit_of(field of) {
    switch (of) {
    case field::tuple:
        return 48;
    case field::vrf:
        return 2;
    case field::fid:
        return engine_capacity + 1;
    case field::type:
        return 4;
    case field::client:
        return client_ids.size();
    case field::dir:
        return 4;
    case field::value:
    case field::extra:
        return 256;
    }
    return 1;
}

const char* name_of(field of) {
    constexpr const char* names[] = {"tuple",  "vrf",       "fid",   "type",
                                     "client", "direction", "value", "extra"};
    return names[static_cast<size_t>(of)];
}

// The kinds of a script, each as often as it weighs.
const std::vector<op>& lottery() {
    static const std::vector<op> tickets = [] {
        std::vector<op> all;
        for (const kind_row& row : rows())
            all.insert(all.end(), row.weight, row.kind);
        return all;
    }();
    return tickets;
}

// Some connections, flows and clients are favourites: packets meet their flows, children a parent.
uint8_t draw(rc::Random& random, field of) {
    const uint64_t bits = random.next();
    switch (of) {
    case field::tuple:
        if (bits % 4 == 0)
            return static_cast<uint8_t>(bits / 4 % 4);
        break;
    case field::vrf:
        if (bits % 4 != 0)
            return 0;
        break;
    case field::fid:
        if (bits % 2 == 0)
            return static_cast<uint8_t>(1 + bits / 4 % 2);
        break;
    case field::client:
        if (bits % 2 == 0)
            return 0;
        break;
    default:
        break;
    }
    return static_cast<uint8_t>(bits / 4 % limit_of(of));
}

// Every number by itself towards 0, in few steps; its lower bits, which mostly mean something of
// their own, apart from the others.
rc::Seq<operation> plainer(const operation& step) {
    std::vector<operation> all;
    for (const field of : row_of(step.kind).uses) {
        const int number = step[of];
        for (const int smaller : {0, number & 7, number & ~7, number / 2, number - 1}) {
            const bool is_last_resort = smaller == number - 1 && number > 8;
            if (smaller >= number || smaller < 0 || is_last_resort)
                continue;
            operation changed = step;
            changed.numbers[static_cast<size_t>(of)] = static_cast<uint8_t>(smaller);
            all.push_back(changed);
        }
    }
    return rc::seq::fromContainer(std::move(all));
}

rc::Gen<operation> operations() {
    return [](const rc::Random& seed, int) {
        rc::Random random = seed;
        operation step;
        step.kind = lottery()[random.next() % lottery().size()];
        for (const field of : row_of(step.kind).uses)
            step.numbers[static_cast<size_t>(of)] = draw(random, of);
        return rc::shrinkable::shrinkRecur(std::move(step),
                                           [](const operation& shrunk) { return plainer(shrunk); });
    };
}

void show_end(std::ostream& out, const endpoint& end) {
    if (end.ipv6)
        out << "2001:db8::" << end.ip[3];
    else
        out << "10.0.0." << (end.ip[0] & 0xFF);
    out << " port " << end.port;
}

}  // namespace

connection_tuple tuple_of(const operation& step) {
    struct ends {
        uint32_t source_host, destination_host;
        uint16_t source_port, destination_port;
    };
    constexpr ends between[] = {{1, 2, 1000, 80}, {1, 3, 1000, 80}, {3, 2, 1000, 80},
                                {1, 2, 1001, 80}, {1, 1, 1000, 80}, {2, 2, 80, 80}};
    const uint32_t number = step[field::tuple];
    const bool ipv6 = (number >> 1 & 1) != 0;
    const ends& of = between[(number >> 3) % std::size(between)];
    const auto host = [ipv6](uint32_t host_number) {
        return ipv6 ? address{0x20010db8, 0, 0, host_number}
                    : address{0x0A000000 + host_number, 0, 0, 0};
    };
    connection_tuple tuple;
    tuple.source = {ipv6, host(of.source_host), of.source_port};
    tuple.destination = {ipv6, host(of.destination_host), of.destination_port};
    tuple.protocol = (number >> 2 & 1) != 0 ? 6 : 17;
    tuple.vrf_id = step[field::vrf];
    return (number & 1) != 0 ? tuple.reversed() : tuple;
}

operation operation_of(uint16_t kind, const std::array<uint8_t, fields>& numbers) {
    operation step;
    step.kind = lottery()[kind % lottery().size()];
    for (const field of : row_of(step.kind).uses) {
        const auto place = static_cast<size_t>(of);
        step.numbers[place] = static_cast<uint8_t>(numbers[place] % limit_of(of));
    }
    return step;
}

rc::Gen<script> scripts() {
    return rc::gen::container<script>(operations());
}

const char* name_of(op kind) {
    return row_of(kind).name;
}

std::ostream& operator<<(std::ostream& out, const operation& step) {
    out << row_of(step.kind).name;
    for (const field of : row_of(step.kind).uses) {
        if (of == field::tuple) {
            const connection_tuple tuple = tuple_of(step);
            out << ", " << (tuple.protocol == 6 ? "tcp " : "udp ");
            show_end(out, tuple.source);
            out << " to ";
            show_end(out, tuple.destination);
        } else if (of == field::type) {
            constexpr const char* types[] = {"complete/0", "source/1", "destination/2",
                                             "any-vrf/3"};
            out << ", type " << types[step[of] % std::size(types)];
        } else if (of == field::client) {
            out << ", client " << client_ids[step[of] % client_ids.size()];
        } else {
            out << ", " << name_of(of) << ' ' << int{step[of]};
        }
    }
    return out;
}

void showValue(const script& steps, std::ostream& out) {
    out << steps.size() << " steps\n";
    for (size_t i = 0; i < steps.size(); ++i)
        out << "  " << i + 1 << ". " << steps[i] << '\n';
}

}  // namespace zon_test
