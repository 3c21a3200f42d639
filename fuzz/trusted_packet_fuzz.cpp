// trusted_packet_fuzz.cpp - packets that the checks of captured ones accept, handed to the entry
// that checks nothing.
//
// Each program runs twice, on engines of the same configuration: through the checking entry, and
// through the trusting one.
//
// Holds  the trusting entry reads nothing outside a packet that is whole and sound, and answers
//        what the checking one does.
//
// Later fragments and tunnels whose inner packet is refused are left out: there the trusting entry
// believes what the checking one does not look at, on purpose.

#include <vector>

#include "packet_program.h"
#include "zon_bytes.h"
#include "zon_engine/zon_captured_packet.h"
#include "zon_engine/zon_packet_entry.h"

using namespace zon_fuzz;

namespace {

// All of the packet that its headers promise is there.
bool is_whole(const uint8_t* packet, size_t size) {
    switch (packet[0] >> 4) {
    case 4:
        return load_be16(packet + 2) <= size;
    case 6:
        return load_be16(packet + 4) + size_t{40} <= size;
    default:
        return true;
    }
}

bool is_sound(const exact_block& block) {
    zon_dp_fe_t fe{};
    if (zon_check_captured_packet(block.data(), block.size(), fe) != packet_check::sound)
        return false;
    if (fe.l3_proto != ZON_L3_OTHER && is_later_fragment(fe))
        return false;
    return is_whole(block.data(), block.size());
}

packet_answer hand_in_trusted(const packet_of_program& packet, uint8_t* at) {
    packet_answer answer;
    answer.seen = packet.indications();
    answer.fid = zon_sync_packet(at, packet.vrf_id, nullptr, &answer.seen, &answer.error,
                                 packet.reported_fid, packet.reported_state, 1);
    check_answer(answer, at, packet.content.size());
    note_answer(answer, packet.reported_fid != 0);
    return answer;
}

// Inner packets that are refused, and the later fragments inside tunnels, are seen by their answer
// only. One that there is no room for is another matter: it leaves its traces in the table.
bool is_read_with_care(const packet_answer& checked) {
    return checked.error == zon_error_parameter_invalid ||
           checked.seen.l4_error == ZON_L4_NOERR_NON_FIRST_FRAG;
}

void compare(const packet_answer& checked, const packet_answer& trusted) {
    const zon_pkt_indications_t &one = checked.seen, &other = trusted.seen;
    require(checked.fid == trusted.fid, "both entries find the same flow");
    require(checked.error == trusted.error, "both entries tell the same error");
    require(one.l7_flow_bytes == other.l7_flow_bytes, "both entries count the same bytes");
    require(one.flow_pkt_count == other.flow_pkt_count, "both entries count the same packets");
    require(one.l4_payload_size == other.l4_payload_size, "both entries see the same payload");
    require(one.l3_header_size == other.l3_header_size, "both entries see the same header");
    require(one.fif == other.fif && one.lif == other.lif, "both see the same first and last");
    require(one.is_initiator == other.is_initiator, "both entries see the same direction");
    require(one.tunnel_type == other.tunnel_type, "both entries see the same tunnel");
    require(one.l4_error == other.l4_error, "both entries tell the same of the transport");
}

// What the checking entry answered to each packet of the input that may be trusted.
struct checked_packet {
    bool is_trusted = false;
    packet_answer answer;
};

std::vector<checked_packet> run_checked(const fuzz_input& input) {
    std::vector<checked_packet> all;
    run_program(input, [&](const packet_of_program& packet) {
        const exact_block block(packet.content);
        checked_packet& one = all.emplace_back();
        if (is_sound(block)) {
            one.answer = hand_in_captured(packet, block.data());
            one.is_trusted = !is_read_with_care(one.answer);
        }
    });
    return all;
}

void run_trusted(const fuzz_input& input, const std::vector<checked_packet>& checked) {
    auto one = checked.begin();
    run_program(input, [&](const packet_of_program& packet) {
        const exact_block block(packet.content);
        if (one->is_trusted)
            compare(one->answer, hand_in_trusted(packet, block.data()));
        ++one;
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz_input input(data, size);
    run_trusted(input, run_checked(input));
    return 0;
}
