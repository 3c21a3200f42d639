// machine_clock.h - the clocks of the machine, as everything in this program but the standard
// library reads them. They can be made to jump, counted, and CLOCK_MONOTONIC can be turned by hand.
//
// The program is linked so that clock_gettime and the timed waits come here (tests/CMakeLists.txt).

#pragma once

#include <cstdint>

namespace zon_test::machine_clock {

enum class behaviour {
    honest,             // as the kernel tells them
    time_of_day_jumps,  // every reading of CLOCK_REALTIME is years off, in either direction
    all_jump,           // every reading of every clock
    monotonic_by_hand,  // CLOCK_MONOTONIC is turned by turn_by_us(); CLOCK_REALTIME jumps
};

// Also forgets what was counted.
void behave(behaviour how);

void turn_by_us(uint64_t by_us);

// How often a thread that sleeps until CLOCK_MONOTONIC has moved has looked at the turned clock.
uint64_t looks_of_sleepers();

uint64_t readings_of_time_of_day();
uint64_t readings_of_monotonic();
// Waits until some time of day: a jump would end them early or never.
uint64_t waits_by_time_of_day();

}  // namespace zon_test::machine_clock
