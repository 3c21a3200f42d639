// table_output.cpp - lays flows out in columns; nothing is cut off.
#include "output/table_output.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "output/messages.h"

namespace zonflow {

namespace {

constexpr int least_columns = 80;
constexpr int columns_beside_addresses = 37;  // of the other columns, a mark and the gaps
constexpr int flags_columns = 14;             // of the flags and their gap
constexpr int vlan_columns = 5;
constexpr int columns_with_flags = 100;  // from this width on there is room for them
constexpr int widest_addresses = 95;     // two IPv6 endpoints and a gap
constexpr size_t widest_address = 39;    // one of IPv6, without a port

constexpr char announced = 'p';
constexpr char ipv6_in_ipv4 = '6';
constexpr char teredo = 't';
constexpr char bypassed = '*';

// In the order in which they are explained.
constexpr std::array<std::pair<char, const char*>, 4> mark_texts{{
    {announced, "announced by its control connection (promoted)"},
    {ipv6_in_ipv4, "inside an IPv6-in-IPv4 tunnel"},
    {teredo, "inside a Teredo tunnel"},
    {bypassed, "bypassed"},
}};

std::string protocol_text(uint8_t protocol) {
    switch (protocol) {
    case ZON_TCP_PROT:
        return "TCP";
    case ZON_UDP_PROT:
        return "UDP";
    default:
        return std::to_string(protocol);
    }
}

std::string endpoint_text(const zon_ip_addr_t& address, uint16_t port, int version) {
    const std::string text = address_text(address, version);
    return (version == 6 ? "[" + text + "]" : text) + ":" + std::to_string(port);
}

std::string padded(std::string text, size_t columns) {
    text.resize(std::max(text.size(), columns), ' ');
    return text;
}

std::string right_aligned(const std::string& text, size_t columns) {
    return std::string(columns - std::min(columns, text.size()), ' ') + text;
}

// For TCP the state of the connection; for the others that of the session, in a word that fits.
std::string state_text(const flow_record& record) {
    if (record.tuple.l4_protocol == ZON_TCP_PROT) {
        return zon_tcp_state_string(record.tcp_state);
    }
    switch (record.session_state) {
    case ZON_L4_UNI_ESTABLISHED:
        return "uni-estab";
    case ZON_L4_UNI_ESTABLISHED_INCORRECT:
        return "uni-wrong";
    case ZON_L4_BI_ESTABLISHED:
        return "bi-estab";
    case ZON_L4_BI_ESTABLISHED_INCORRECT:
        return "bi-wrong";
    default:
        return zon_session_state_string(record.session_state);
    }
}

// Both directions: "SAPF/SAP".
std::string flags_text(const flow_record& record) {
    if (record.tuple.l4_protocol != ZON_TCP_PROT) {
        return "";
    }
    return tcp_flag_letters(record.initiator.tcp_flags) + "/" +
           tcp_flag_letters(record.responder.tcp_flags);
}

std::string counted(uint64_t count, const char* one, const char* several) {
    return std::to_string(count) + " " + (count == 1 ? one : several);
}

}  // namespace

std::string short_number(uint64_t value) {
    if (value < 100'000) {
        return std::to_string(value);
    }
    double scaled = static_cast<double>(value);
    for (const char unit : {'K', 'M', 'G', 'T', 'P', 'E'}) {
        scaled /= 1000;
        if (scaled < 999.5 || unit == 'E') {
            char text[16];
            std::snprintf(text, sizeof(text), scaled < 99.95 ? "%.1f%c" : "%.0f%c", scaled, unit);
            return text;
        }
    }
    return "";
}

table_output::table_output(output_stream& out, bool several_files, bool show_vlan)
    : out_(out), several_files_(several_files), show_vlan_(show_vlan) {
    const int columns = std::max(out.columns(), least_columns);
    show_flags_ = columns >= columns_with_flags;
    const int others = columns_beside_addresses + (show_flags_ ? flags_columns : 0) +
                       (show_vlan_ ? vlan_columns : 0);
    address_columns_ = static_cast<size_t>(std::min(columns - others, widest_addresses));
}

void table_output::begin(const std::string& file_name) {
    if (several_files_) {
        out_.write((first_file_ ? "" : "\n") + printable(file_name) + ":\n");
    }
    first_file_ = false;
    marks_.clear();
    row({"PROT", "VLAN", "INITIATOR", "RESPONDER", "PKTS", "BYTES", "FLAGS", "STATE", "END", ""});
}

void table_output::row(const cells& of) {
    // A short responder gives way to a long initiator.
    const size_t half = (address_columns_ - 1) / 2;
    const size_t room = address_columns_ - std::min(of.to.size() + 1, address_columns_);
    const std::string from = padded(of.from, std::min(half, room));
    std::string line = padded(of.protocol, 4) + " ";
    if (show_vlan_) {
        line += right_aligned(of.vlan, vlan_columns - 1) + " ";
    }
    line += padded(from + " " + of.to, address_columns_) + " " + right_aligned(of.packets, 5) +
            " " + right_aligned(of.bytes, 5) + " ";
    if (show_flags_) {
        line += padded(of.flags, flags_columns - 1) + " ";
    }
    line += padded(of.state, 10) + " " + padded(of.end, 6) + " " + of.marks;
    line.erase(line.find_last_not_of(' ') + 1);
    out_.write(line + "\n");
}

std::string table_output::marks_of(const flow_record& record) {
    std::string marks;
    if (record.promoted) {
        marks += announced;
    }
    if (record.tunnel == ZON_TUNNEL_TYPE_IPV6INIP) {
        marks += ipv6_in_ipv4;
    } else if (record.tunnel == ZON_TUNNEL_TYPE_TEREDO) {
        marks += teredo;
    }
    marks_.insert(marks.begin(), marks.end());
    return marks;
}

void table_output::flow(const flow_record& record) {
    const int version = ip_version(record);
    std::string protocol = protocol_text(record.tuple.l4_protocol);
    if (record.bypass_id.value_or(0) != 0) {
        protocol += bypassed;
        marks_.insert(bypassed);
    }
    row({protocol, std::to_string(record.tuple.vrf_id),
         endpoint_text(record.tuple.src_ip, record.tuple.src_port, version),
         endpoint_text(record.tuple.dst_ip, record.tuple.dst_port, version),
         short_number(record.packets()),
         short_number(record.initiator.ip_bytes + record.responder.ip_bytes), flags_text(record),
         state_text(record), end_name(record), marks_of(record)});
}

void table_output::explain_marks() {
    for (const auto& [mark, text] : mark_texts) {
        if (marks_.count(mark) != 0) {
            out_.write(std::string(1, mark) + " " + text + "\n");
        }
    }
}

void table_output::groups(const std::vector<source_group>& groups) {
    group_row("SOURCE", "FLOWS", "PKTS", "BYTES");
    for (const source_group& group : groups) {
        group_row(address_text(group.address), short_number(group.flows),
                  short_number(group.packets), short_number(group.ip_bytes));
    }
}

void table_output::group_row(const std::string& address, const std::string& flows,
                             const std::string& packets, const std::string& bytes) {
    out_.write(padded(address, widest_address) + " " + right_aligned(flows, 6) + " " +
               right_aligned(packets, 6) + " " + right_aligned(bytes, 6) + "\n");
}

void table_output::dump(const std::string& text) {
    out_.write("\n" + text + "\n");
}

void table_output::histogram(const bucket_depths& depths) {
    out_.write("\nHash distribution: " + counted(depths.half_flows, "half flow", "half flows") +
               " (two a flow) in " + counted(depths.buckets, "bucket", "buckets") +
               "\n     DEPTH    BUCKETS\n");
    for (const auto& [depth, buckets] : depths.buckets_of_depth) {
        out_.write(right_aligned(std::to_string(depth), 10) + " " +
                   right_aligned(std::to_string(buckets), 10) + "\n");
    }
    out_.write("\n");
}

void table_output::summary(const capture_summary& summary) {
    explain_marks();
    std::string text =
        counted(summary.packets, "packet", "packets") + ": " + std::to_string(summary.classified) +
        " in " + counted(summary.flows, "flow", "flows") + ", " + std::to_string(summary.not_ip) +
        " not IP, " + std::to_string(summary.malformed) + " malformed";
    for (const auto& [reason, count] : summary.refused) {
        text += ",\n  " + std::to_string(count) + " refused: " + reason;
    }
    out_.write(text + "\n");
    out_.flush();
}

}  // namespace zonflow
