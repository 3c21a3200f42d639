// captured_packet_fuzz.cpp - any bytes, with any length, VRF and capabilities, handed to a real
// engine as packets from outside: one by one, and the same ones once more in bursts.
//
// Holds  nothing outside the captured bytes is touched; every answer agrees with itself and lies
//        within its packet; each flow begins once and ends once; a burst answers as its packets do;
//        a refused packet, and a burst of refused packets, change nothing.

#include <algorithm>
#include <vector>

#include "packet_program.h"
#include "support/same_indications.h"

using namespace zon_fuzz;

namespace {

// A burst ends where time passes, where the host reports a flow, and here.
constexpr size_t longest_burst = 40;

struct handed_packet {
    packet_of_program from;
    exact_block block;
    packet_answer answer{};

    explicit handed_packet(const packet_of_program& packet) : from(packet), block(packet.content) {
        answer.seen = packet.indications();
    }
};

// Distances within the packet, so that two lives of an engine can be compared.
packet_answer without_addresses(packet_answer answer, const uint8_t* start) {
    for (uint8_t** at : {&answer.seen.l3_start, &answer.seen.l4_start, &answer.seen.l7_start})
        if (*at != nullptr)
            *at = reinterpret_cast<uint8_t*>(*at - start + 1);
    return answer;
}

std::vector<packet_answer> answers_one_by_one(const fuzz_input& input) {
    std::vector<packet_answer> answers;
    run_program(input, [&](const packet_of_program& packet) {
        const exact_block block(packet.content);
        answers.push_back(without_addresses(hand_in_captured(packet, block.data()), block.data()));
    });
    return answers;
}

class burst_of_program {
public:
    explicit burst_of_program(const std::vector<packet_answer>& expected) : expected_(expected) {}

    void take(const packet_of_program& packet) {
        if (packet.reported_fid != 0)
            hand_in();
        packets_.emplace_back(packet);
        if (packet.reported_fid != 0) {
            handed_packet& reported = packets_.back();
            reported.answer = hand_in_captured(packet, reported.block.data());
            compare(reported);
            packets_.clear();
        } else if (packet.wait_us != 0 || packets_.size() == longest_burst) {
            hand_in();
        }
        zon_clock_advance_us(packet.wait_us);
    }
    void hand_in() {
        std::vector<zon_burst_packet_t> row;
        for (handed_packet& packet : packets_)
            row.push_back({packet.block.data(), static_cast<uint32_t>(packet.block.size()),
                           packet.from.vrf_id, nullptr, &packet.answer.seen, zon_error_end, 0});
        const auto before = zon_test::engine_state::now();
        const ends_of_burst ends;
        const uint32_t with_flow =
            zon_handle_packet_burst(row.data(), static_cast<uint32_t>(row.size()));
        uint32_t counted = 0;
        for (size_t i = 0; i < row.size(); ++i) {
            handed_packet& packet = packets_[i];
            packet.answer.fid = row[i].fid;
            packet.answer.error = row[i].error;
            counted += row[i].fid != 0;
            check_answer(packet.answer, packet.block.data(), packet.block.size());
            note_answer(packet.answer, false);
            compare(packet);
        }
        require(with_flow == counted, "a burst counts its packets with a flow");
        if (std::ranges::all_of(packets_, is_refused, &handed_packet::answer))
            require_unchanged(before);
        packets_.clear();
    }

private:
    void compare(const handed_packet& packet) {
        const packet_answer got = without_addresses(packet.answer, packet.block.data());
        const packet_answer& alone = expected_[compared_++];
        require(got.fid == alone.fid && got.error == alone.error &&
                    zon_test::same_indications(got.seen, alone.seen),
                "a packet in a burst is told what it is told alone");
    }

    const std::vector<packet_answer>& expected_;
    size_t compared_ = 0;
    std::vector<handed_packet> packets_;
};

void compare_in_bursts(fuzz_input input, const std::vector<packet_answer>& expected) {
    const fuzzed_engine engine(input);
    burst_of_program burst(expected);
    while (!input.is_empty())
        burst.take(packet_of_program::from(input));
    burst.hand_in();
}

// Before there is an engine, and after its end, every packet is told so.
void expect_no_engine(const uint8_t* data, size_t size) {
    const exact_block block({data, size});
    zon_pkt_indications_t seen{};
    zon_burst_packet_t packet{
        block.data(), static_cast<uint32_t>(size), 0, nullptr, &seen, zon_error_none, 1};
    require(zon_handle_packet_burst(&packet, 1) == 0 && packet.fid == 0 &&
                packet.error == zon_error_engine_not_init,
            "no engine has no flows");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz_input input(data, size);
    expect_no_engine(data, size);
    compare_in_bursts(input, answers_one_by_one(input));
    return 0;
}
