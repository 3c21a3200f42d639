// table_output.cpp - lays flows out in columns. Two long IPv6 endpoints take a line each; nothing
// is cut off.
#include "output/table_output.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace zonflow {

namespace {

constexpr int least_columns = 80;
constexpr int columns_beside_addresses = 37;  // of the other columns and the gaps
constexpr int flags_columns = 14;             // of the flags and their gap
constexpr int columns_with_flags = 100;       // from this width on there is room for them
constexpr int widest_addresses = 95;          // two IPv6 endpoints and a gap
constexpr size_t widest_address = 39;         // one of IPv6, without a port

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

std::string end_text(zon_flow_deletion_reason_e reason) {
    switch (reason) {
    case ZON_FLOW_CLOSE_REASON_END_OF_FLOW:
        return "end";
    case ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT:
        return "idle";
    case ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE:
        return "short";
    case ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED:
        return "open";  // it was when the capture ended
    default:
        return "client";
    }
}

// Both directions: "SAPF/SAP".
std::string flags_text(const flow_record& record) {
    if (record.tuple.l4_protocol != ZON_TCP_PROT) {
        return "";
    }
    constexpr std::array<std::pair<uint8_t, char>, 6> names{
        {{0x02, 'S'}, {0x10, 'A'}, {0x08, 'P'}, {0x20, 'U'}, {0x01, 'F'}, {0x04, 'R'}}};
    std::string text;
    for (const direction_counts* counts : {&record.initiator, &record.responder}) {
        text += counts == &record.responder ? "/" : "";
        for (const auto& [bit, letter] : names) {
            if ((counts->tcp_flags & bit) != 0) {
                text += letter;
            }
        }
    }
    return text;
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

table_output::table_output(output_stream& out, bool several_files)
    : out_(out), several_files_(several_files) {
    const int columns = std::max(out.columns(), least_columns);
    show_flags_ = columns >= columns_with_flags;
    const int others = columns_beside_addresses + (show_flags_ ? flags_columns : 0);
    address_columns_ = static_cast<size_t>(std::min(columns - others, widest_addresses));
}

void table_output::begin(const std::string& file_name) {
    if (several_files_) {
        out_.write((first_file_ ? "" : "\n") + file_name + ":\n");
    }
    first_file_ = false;
    header();
}

void table_output::header() {
    const std::string addresses = padded("INITIATOR", (address_columns_ - 1) / 2) + " RESPONDER";
    row("PROT", addresses, "PKTS", "BYTES", "FLAGS", "STATE", "END");
}

void table_output::row(const std::string& protocol, const std::string& addresses,
                       const std::string& packets, const std::string& bytes,
                       const std::string& flags, const std::string& state, const std::string& end) {
    std::string line = padded(protocol, 4) + " " + padded(addresses, address_columns_) + " " +
                       right_aligned(packets, 6) + " " + right_aligned(bytes, 6) + " ";
    if (show_flags_) {
        line += padded(flags, flags_columns - 1) + " ";
    }
    out_.write(line + padded(state, 10) + " " + end + "\n");
}

void table_output::flow(const flow_record& record) {
    const int version = ip_version(record);
    const std::string from = endpoint_text(record.tuple.src_ip, record.tuple.src_port, version);
    const std::string to = endpoint_text(record.tuple.dst_ip, record.tuple.dst_port, version);
    const size_t half = (address_columns_ - 1) / 2;
    std::string protocol = protocol_text(record.tuple.l4_protocol);
    if (record.bypass_id.value_or(0) != 0) {
        protocol += "*";
    }
    std::string addresses = padded(from, half) + " " + to;
    if (from.size() > half || to.size() > half) {
        out_.write(padded(protocol, 4) + " " + from + "\n");
        protocol = "  ->";
        addresses = to;
        if (to.size() > address_columns_) {
            out_.write("  -> " + to + "\n");
            protocol = addresses = "";
        }
    }
    row(protocol, addresses, short_number(record.packets()),
        short_number(record.initiator.ip_bytes + record.responder.ip_bytes), flags_text(record),
        state_text(record), end_text(record.end_reason));
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

void table_output::summary(const capture_summary& summary) {
    std::string text = std::to_string(summary.packets) +
                       " packets: " + std::to_string(summary.classified) + " in " +
                       std::to_string(summary.flows) + " flows, " + std::to_string(summary.not_ip) +
                       " not IP, " + std::to_string(summary.malformed) + " malformed";
    for (const auto& [reason, count] : summary.refused) {
        text += ",\n  " + std::to_string(count) + " refused: " + reason;
    }
    out_.write(text + "\n");
    out_.flush();
}

}  // namespace zonflow
