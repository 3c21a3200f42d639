// guarded_packet_fuzz.cpp - the programs of captured_packet_fuzz, with each packet at the end of a
// page whose next page is not mapped.
//
// Holds  no read of any kind behind the captured bytes, neither of the engine's own code nor of a
//        library's, which the address sanitizer may not watch.

#include "packet_program.h"
#include "support/guarded_memory.h"

using namespace zon_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static zon_test::guarded_memory guarded(4096);
    run_program(fuzz_input(data, size), [](const packet_of_program& packet) {
        const zon_test::bytes content(packet.content.begin(), packet.content.end());
        hand_in_captured(packet, guarded.place(content, content.size()));
    });
    return 0;
}
