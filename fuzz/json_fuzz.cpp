// json_fuzz.cpp - the JSON that zonflow writes, read back by an independent reader.
//
// Holds  every line is one valid object of valid UTF-8; numbers, names and texts come back as they
//        were, each byte of a text that is no UTF-8 as one replacement character.

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "output/json_output.h"
#include "output/json_text.h"

using namespace zon_fuzz;
using namespace zonflow;
using nlohmann::json;

namespace {

json read_back(const std::string& line) {
    json read = json::parse(line, nullptr, false);
    require(!read.is_discarded(), "what is written is JSON");
    return read;
}

// The length of the UTF-8 character that the text begins with; 0 for none (RFC 3629 4).
size_t character_length(std::string_view text) {
    const auto byte = [&](size_t at) -> uint32_t {
        return at < text.size() ? static_cast<uint8_t>(text[at]) : 0;
    };
    const uint32_t lead = byte(0);
    const size_t length = lead < 0x80 ? 1 : lead < 0xC0 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (length <= 1)
        return length;
    uint32_t code = lead & (0xFFU >> (length + 1));
    for (size_t at = 1; at < length; ++at) {
        if (byte(at) >> 6 != 2)
            return 0;
        code = code << 6 | (byte(at) & 63);
    }
    constexpr uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool is_character = code >= least[length] && code <= 0x10FFFF &&
                              (code < 0xD800 || code > 0xDFFF) && lead < 0xF8;
    return is_character ? length : 0;
}

std::string with_replacements(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const size_t length = character_length(text);
        out += length == 0 ? "\xEF\xBF\xBD" : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

std::string some_text(fuzz_input& input) {
    const auto content = input.take(input.below(64));
    return {content.begin(), content.end()};
}

zon_ip_addr_t some_address(fuzz_input& input) {
    zon_ip_addr_t address{};
    address.addr_type = input.below(2) == 0 ? ZON_IP_ADDR_IPV4 : ZON_IP_ADDR_IPV6;
    for (uint8_t& byte : address.u.v6_addr)
        byte = input.byte();
    return address;
}

direction_counts some_counts(fuzz_input& input) {
    return {input.four_bytes(), input.eight_bytes(), input.eight_bytes(), input.byte()};
}

flow_record some_record(fuzz_input& input) {
    flow_record record;
    record.fid = input.four_bytes();
    record.tuple.src_ip = some_address(input);
    record.tuple.dst_ip = some_address(input);
    record.tuple.dst_ip.addr_type = record.tuple.src_ip.addr_type;
    record.tuple.src_port = static_cast<uint16_t>(input.two_bytes());
    record.tuple.dst_port = static_cast<uint16_t>(input.two_bytes());
    record.tuple.vrf_id = input.four_bytes();
    record.tuple.l4_protocol = input.below(2) == 0 ? 6 : 17;
    record.initiator = some_counts(input);
    record.responder = some_counts(input);
    record.payload_bytes = input.eight_bytes();
    record.later_fragments = input.eight_bytes();
    record.first_seen_us = input.four_bytes();
    record.last_seen_us = record.first_seen_us + input.four_bytes();
    record.session_state = static_cast<uint8_t>(input.below(7));
    record.tcp_state = static_cast<zon_tcp_state_t>(input.below(9));
    record.tunnel = static_cast<zon_tunnel_type_e>(input.below(3));
    record.parent = input.four_bytes();
    record.promoted = input.below(2) != 0;
    record.end_reason = static_cast<zon_flow_deletion_reason_e>(input.below(16));
    if (input.below(2) != 0)
        record.bypass_id = input.four_bytes();
    return record;
}

// Everything that the output writes while it lives.
class written_lines {
public:
    written_lines() : file_(open_memstream(&text_, &size_)) {
        require(file_ != nullptr, "there is memory for the output");
    }
    ~written_lines() {
        std::fclose(file_);
        std::free(text_);
    }
    written_lines(const written_lines&) = delete;
    written_lines& operator=(const written_lines&) = delete;

    std::FILE* file() const { return file_; }
    std::vector<json> read() {
        std::fflush(file_);
        std::string_view rest(text_, size_);
        std::vector<json> lines;
        for (size_t end; (end = rest.find('\n')) != std::string_view::npos;
             rest.remove_prefix(end + 1))
            lines.push_back(read_back(std::string(rest.substr(0, end))));
        require(rest.empty(), "the last line has its end");
        return lines;
    }

private:
    char* text_ = nullptr;
    size_t size_ = 0;
    std::FILE* file_;
};

void check_flow(const json& line, const flow_record& record, const std::string& file) {
    require(line["type"] == "flow" && line["fid"] == record.fid, "the flow is named");
    require(line["file"] == file, "the file's name comes back");
    require(line["vrf"] == record.tuple.vrf_id, "the VRF comes back");
    require(line["protocol"] == record.tuple.l4_protocol, "the protocol comes back");
    require(line["initiator"]["port"] == record.tuple.src_port, "the initiator's port comes back");
    require(line["responder"]["port"] == record.tuple.dst_port, "the responder's port comes back");
    require(line["packets_initiator"] == record.initiator.packets, "packets come back");
    require(line["ip_bytes_responder"] == record.responder.ip_bytes, "bytes come back");
    require(line["payload_bytes"] == record.payload_bytes, "payload comes back");
    require(line["promoted"] == record.promoted, "the promotion comes back");
    require(line["tcp_state"].is_null() == (record.tuple.l4_protocol != 6), "TCP has a state");
    require(line.contains("bypass_id") == record.bypass_id.has_value(), "a bypass is told of");
    require(line["first_seen"].is_number_float(), "time is a number");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const std::string file = some_text(input);
    const flow_record record = some_record(input);
    capture_summary summary;
    summary.packets = input.eight_bytes();
    summary.refused[some_text(input)] = input.four_bytes();
    const std::string reason = summary.refused.begin()->first;
    const auto content = input.take_all();
    const std::string text(content.begin(), content.end());

    written_lines written;
    output_stream stream(written.file());
    json_output output(stream);
    output.begin(file);
    output.flow(record);
    output.dump(text);
    output.summary(summary);
    const std::vector<json> lines = written.read();
    require(lines.size() == 3, "each object has a line");
    check_flow(lines[0], record, with_replacements(file));
    require(lines[1]["text"] == with_replacements(text), "a text comes back");
    require(lines[2]["packets"] == summary.packets, "the summary comes back");
    require(lines[2]["refused"][with_replacements(reason)] == summary.refused[reason],
            "the names of reasons come back");
    require(read_back(json_string(text)) == with_replacements(text), "a string comes back");
    return 0;
}
