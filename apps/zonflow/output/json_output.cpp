// json_output.cpp - the fields of the JSON output, in their order.
#include "output/json_output.h"

#include "output/json_text.h"

namespace zonflow {

namespace {

json_object endpoint(const zon_ip_addr_t& address, uint16_t port, int version) {
    json_object object;
    object.text("address", address_text(address, version)).number("port", port);
    return object;
}

}  // namespace

void json_output::begin(const std::string& file_name) {
    file_ = file_name;
}

void json_output::flow(const flow_record& record) {
    const int version = ip_version(record);
    json_object object;
    object.text("type", "flow")
        .number("fid", record.fid)
        .number("ip_version", static_cast<uint64_t>(version))
        .number("protocol", record.tuple.l4_protocol)
        .number("vrf", record.tuple.vrf_id)
        .object("initiator", endpoint(record.tuple.src_ip, record.tuple.src_port, version))
        .object("responder", endpoint(record.tuple.dst_ip, record.tuple.dst_port, version))
        .number("packets", record.packets())
        .number("packets_initiator", record.initiator.packets)
        .number("packets_responder", record.responder.packets)
        .number("ip_bytes_initiator", record.initiator.ip_bytes)
        .number("ip_bytes_responder", record.responder.ip_bytes)
        .number("payload_bytes", record.payload_bytes)
        .number("payload_bytes_initiator", record.initiator.payload_bytes)
        .number("payload_bytes_responder", record.responder.payload_bytes)
        .number("later_fragments", record.later_fragments)
        .seconds("first_seen", record.first_seen_us)
        .seconds("last_seen", record.last_seen_us)
        .text("l4_state", zon_session_state_string(record.session_state));
    if (record.tuple.l4_protocol == ZON_TCP_PROT) {
        object.text("tcp_state", zon_tcp_state_string(record.tcp_state))
            .text("tcp_flags_initiator", tcp_flag_letters(record.initiator.tcp_flags))
            .text("tcp_flags_responder", tcp_flag_letters(record.responder.tcp_flags));
    } else {
        object.null("tcp_state").null("tcp_flags_initiator").null("tcp_flags_responder");
    }
    object.text("tunnel", tunnel_name(record.tunnel))
        .number("parent", record.parent)
        .boolean("promoted", record.promoted)
        .text("end_reason", end_reason_name(record.end_reason))
        .text("end", end_name(record))
        .seconds("duration", record.last_seen_us - record.first_seen_us)
        .text("file", file_);
    if (record.bypass_id) {
        object.number("bypass_id", *record.bypass_id);
    }
    out_.write(object.str() + "\n");
}

void json_output::groups(const std::vector<source_group>& groups) {
    for (const source_group& group : groups) {
        json_object object;
        object.text("type", "group")
            .text("by", "source")
            .text("address", address_text(group.address))
            .number("flows", group.flows)
            .number("packets", group.packets)
            .number("ip_bytes", group.ip_bytes)
            .number("payload_bytes", group.payload_bytes)
            .text("file", file_);
        out_.write(object.str() + "\n");
    }
}

void json_output::dump(const std::string& text) {
    json_object object;
    object.text("type", "dump").text("text", text).text("file", file_);
    out_.write(object.str() + "\n");
}

void json_output::histogram(const bucket_depths& depths) {
    json_object counts;
    for (const auto& [depth, buckets] : depths.buckets_of_depth) {
        counts.number(std::to_string(depth), buckets);
    }
    json_object object;
    object.text("type", "histogram")
        .number("buckets", depths.buckets)
        .number("half_flows", depths.half_flows)
        .object("buckets_of_depth", counts)
        .text("file", file_);
    out_.write(object.str() + "\n");
}

void json_output::summary(const capture_summary& summary) {
    json_object refused;
    for (const auto& [reason, count] : summary.refused) {
        refused.number(reason, count);
    }
    json_object object;
    object.text("type", "summary")
        .number("packets", summary.packets)
        .number("classified", summary.classified)
        .number("flows", summary.flows)
        .number("not_ip", summary.not_ip)
        .object("refused", refused)
        .number("malformed", summary.malformed)
        .number("out_of_time", summary.out_of_time)
        .text("file", file_);
    if (summary.lost) {
        object.number("lost", *summary.lost);
    }
    out_.write(object.str() + "\n");
    out_.flush();
}

}  // namespace zonflow
