// captured_packet_fuzz.cpp - any bytes, with any length, VRF and capabilities, handed to a real
// engine as packets from outside.
//
// Holds  nothing outside the captured bytes is touched; every answer agrees with itself and lies
//        within its packet; each flow begins once and ends once.

#include "packet_program.h"

using namespace zon_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const fuzzed_engine engine(input);
    while (!input.is_empty()) {
        const auto packet = packet_of_program::from(input);
        const exact_block block(packet.content);
        hand_in_captured(packet, block.data());
        zon_clock_advance_us(packet.wait_us);
    }
    return 0;
}
