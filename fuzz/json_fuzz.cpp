// json_fuzz.cpp - the JSON that zonflow writes, read back by an independent reader.
//
// Holds  every line is one valid object of valid UTF-8 with the fields that docs/zonflow.md lists
//        and no others; each comes back as it was put in, to the last digit, each byte of a text
//        that is no UTF-8 as one replacement character.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "json_capture.h"
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

// ---- what is to come back ----

constexpr std::array session_words{"closed",          "opening",
                                   "uni-established", "uni-established incorrect",
                                   "bi-established",  "bi-established incorrect",
                                   "closing"};
constexpr std::array tcp_words{"closed", "listen",     "syn_sent", "syn_recv",
                               "estab",  "close_wait", "last_ack", "time_wait"};
constexpr std::array tunnel_words{"none", "ipv6inip", "teredo"};
constexpr std::array end_reason_words{"end_of_flow",       "inactive_timeout",
                                      "client_request",    "client_unregistered",
                                      "resource_shortage", "flows_destroyed"};
static_assert(session_words.size() == ZON_L4_ENUM_END && tcp_words.size() == ZON_TCP_ENUM_END);

template <size_t count>
const char* word_of(const std::array<const char*, count>& words, auto value) {
    return words.at(static_cast<size_t>(value));
}

std::string letters_of(uint8_t flags) {
    std::string letters;
    for (const auto& [letter, bit] :
         {std::pair{'S', 1}, {'A', 4}, {'P', 3}, {'U', 5}, {'F', 0}, {'R', 2}})
        if ((flags >> bit & 1) != 0)
            letters += letter;
    return letters;
}

bool has_flag(uint8_t flags, char letter) {
    return letters_of(flags).find(letter) != std::string::npos;
}

// What brought the connection to its end counts, then the flags, then why the flow left.
const char* end_of(const flow_record& record) {
    const bool both_sent_fin =
        has_flag(record.initiator.tcp_flags, 'F') && has_flag(record.responder.tcp_flags, 'F');
    if (record.session_end != connection_end::none)
        return record.session_end == connection_end::closed ? "closed" : "reset";
    if (both_sent_fin)
        return "closed";
    if (has_flag(record.last_tcp_flags, 'R'))
        return "reset";
    if (record.end_reason == ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT)
        return "idle";
    return record.end_reason == ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED ? "open" : "other";
}

json expected_tcp_fields(const flow_record& record) {
    if (record.tuple.l4_protocol != ZON_TCP_PROT)
        return {{"tcp_state", nullptr},
                {"tcp_flags_initiator", nullptr},
                {"tcp_flags_responder", nullptr}};
    return {{"tcp_state", word_of(tcp_words, record.tcp_state)},
            {"tcp_flags_initiator", letters_of(record.initiator.tcp_flags)},
            {"tcp_flags_responder", letters_of(record.responder.tcp_flags)}};
}

// Without the times.
json expected_flow(const flow_of_input& flow) {
    const flow_record& record = flow.record;
    json expected{
        {"type", "flow"},
        {"fid", record.fid},
        {"ip_version", flow.initiator.family == AF_INET6 ? 6 : 4},
        {"protocol", record.tuple.l4_protocol},
        {"vrf", record.tuple.vrf_id},
        {"initiator", {{"address", flow.initiator.text()}, {"port", record.tuple.src_port}}},
        {"responder", {{"address", flow.responder.text()}, {"port", record.tuple.dst_port}}},
        {"packets", record.initiator.packets + record.responder.packets},
        {"packets_initiator", record.initiator.packets},
        {"packets_responder", record.responder.packets},
        {"ip_bytes_initiator", record.initiator.ip_bytes},
        {"ip_bytes_responder", record.responder.ip_bytes},
        {"payload_bytes", record.payload_bytes},
        {"payload_bytes_initiator", record.initiator.payload_bytes},
        {"payload_bytes_responder", record.responder.payload_bytes},
        {"later_fragments", record.later_fragments},
        {"l4_state", word_of(session_words, record.session_state)},
        {"tunnel", word_of(tunnel_words, record.tunnel)},
        {"parent", record.parent},
        {"promoted", record.promoted},
        {"end_reason", word_of(end_reason_words, record.end_reason)},
        {"end", end_of(record)}};
    expected.update(expected_tcp_fields(record));
    if (record.bypass_id)
        expected["bypass_id"] = *record.bypass_id;
    return expected;
}

json expected_group(const group_of_input& of) {
    return {{"type", "group"},
            {"by", "source"},
            {"address", of.address.text()},
            {"flows", of.group.flows},
            {"packets", of.group.packets},
            {"ip_bytes", of.group.ip_bytes},
            {"payload_bytes", of.group.payload_bytes}};
}

json expected_histogram(const bucket_depths& depths) {
    json counts = json::object();
    for (const auto& [depth, buckets] : depths.buckets_of_depth)
        counts[std::to_string(depth)] = buckets;
    return {{"type", "histogram"},
            {"buckets", depths.buckets},
            {"half_flows", depths.half_flows},
            {"buckets_of_depth", counts}};
}

json expected_summary(const capture_summary& summary) {
    json refused = json::object();
    for (const auto& [reason, count] : summary.refused)
        refused[with_replacements(reason)] = count;
    json expected{{"type", "summary"},
                  {"packets", summary.packets},
                  {"classified", summary.classified},
                  {"flows", summary.flows},
                  {"not_ip", summary.not_ip},
                  {"refused", refused},
                  {"malformed", summary.malformed},
                  {"out_of_time", summary.out_of_time}};
    if (summary.lost)
        expected["lost"] = *summary.lost;
    return expected;
}

// ---- what comes back ----

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
    std::vector<std::string> read() {
        std::fflush(file_);
        std::string_view rest(text_, size_);
        std::vector<std::string> lines;
        for (size_t end; (end = rest.find('\n')) != std::string_view::npos;
             rest.remove_prefix(end + 1))
            lines.emplace_back(rest.substr(0, end));
        require(rest.empty(), "the last line has its end");
        return lines;
    }

private:
    char* text_ = nullptr;
    size_t size_ = 0;
    std::FILE* file_;
};

// Goes through the lines in their order.
class line_checker {
public:
    line_checker(std::vector<std::string> lines, std::string file)
        : lines_(std::move(lines)), file_(std::move(file)) {}

    void check_flow(const flow_of_input& flow) {
        const flow_record& record = flow.record;
        const uint64_t duration_us = record.last_seen_us - record.first_seen_us;
        json line = next();
        take_time(line, "first_seen", record.first_seen_us);
        take_time(line, "last_seen", record.last_seen_us);
        take_time(line, "duration", duration_us);
        check(line, expected_flow(flow));
    }
    void check(const json& expected) { check(next(), expected); }
    void check_end() const { require(next_ == lines_.size(), "each object has one line"); }

private:
    json next() {
        require(next_ < lines_.size(), "each object has a line");
        return read_back(lines_[next_++]);
    }
    // A double has not enough digits for a time, so those that are written are compared. A text
    // cannot look like a field: its quotes are written with a backslash.
    void take_time(json& line, const std::string& name, uint64_t time_us) const {
        const std::string& written = lines_[next_ - 1];
        const std::string field = '"' + name + "\":";
        const size_t at = written.find(field);
        require(at != std::string::npos && line[name].is_number(), "a time is a number");
        const std::string digits = written.substr(at + field.size());
        require(digits.substr(0, digits.find_first_of(",}")) == seconds_of(time_us),
                "a time comes back to the microsecond");
        line.erase(name);
    }
    static std::string seconds_of(uint64_t time_us) {
        const std::string fraction = std::to_string(1'000'000 + time_us % 1'000'000);
        return std::to_string(time_us / 1'000'000) + "." + fraction.substr(1);
    }
    void check(const json& line, json expected) const {
        expected["file"] = file_;
        if (line != expected)
            dprintf(STDERR_FILENO, "%s\n", json::diff(expected, line).dump().c_str());
        require(line == expected, "each field comes back, and no other");
    }

    const std::vector<std::string> lines_;
    const std::string file_;
    size_t next_ = 0;
};

void write(const capture_of_input& capture, json_output& output) {
    std::vector<source_group> groups;
    for (const group_of_input& of : capture.groups)
        groups.push_back(of.group);
    output.begin(capture.file);
    output.flow(capture.flow.record);
    output.groups(groups);
    output.dump(capture.text);
    output.histogram(capture.depths);
    output.summary(capture.summary);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const capture_of_input capture(input);
    written_lines written;
    output_stream stream(written.file());
    json_output output(stream);
    write(capture, output);

    const std::string text = with_replacements(capture.text);
    line_checker lines(written.read(), with_replacements(capture.file));
    lines.check_flow(capture.flow);
    for (const group_of_input& group : capture.groups)
        lines.check(expected_group(group));
    lines.check({{"type", "dump"}, {"text", text}});
    lines.check(expected_histogram(capture.depths));
    lines.check(expected_summary(capture.summary));
    lines.check_end();
    require(read_back(json_string(capture.text)) == text, "a string comes back");
    return 0;
}
