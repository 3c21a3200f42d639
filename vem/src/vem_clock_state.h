// vem_clock_state.h - what the dispatching side needs to know of the clock's mode.
#ifndef VEM_CLOCK_STATE_H
#define VEM_CLOCK_STATE_H

#include <cstdint>

namespace vem {

// The mode as vem_clock_set_mode() got it.
int clock_mode();

// The CLOCK_MONOTONIC reading at which the clock, in system mode, shows this one.
uint64_t monotonic_at(uint64_t clock_us);

}  // namespace vem

#endif
