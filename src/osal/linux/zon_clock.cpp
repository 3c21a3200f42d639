// zon_clock.cpp - the runtime's clock, offered to hosts.
//
// Owns   nothing.
// Locks  none.
// Knows nothing of the engine.

#include "zon_clock.h"

#include "vem/vem_clock.h"

static_assert(static_cast<int>(ZON_CLOCK_SYSTEM) == VEM_CLOCK_SYSTEM);
static_assert(static_cast<int>(ZON_CLOCK_MANUAL_WAIT) == VEM_CLOCK_MANUAL_WAIT);
static_assert(static_cast<int>(ZON_CLOCK_MANUAL_INLINE) == VEM_CLOCK_MANUAL_INLINE);

// Whatever the runtime refuses is a call that the host should not have made.
static zon_error_t as_zon_error(int refused) {
    return refused == 0 ? zon_error_none : zon_error_parameter_invalid;
}

zon_error_t zon_clock_set_mode(zon_clock_mode_e mode) {
    return as_zon_error(vem_clock_set_mode(mode));
}

uint64_t zon_clock_now_us(void) {
    return vem_clock_now_us();
}

zon_error_t zon_clock_advance_us(uint64_t by_us) {
    return as_zon_error(vem_clock_advance_us(by_us));
}

zon_error_t zon_clock_advance_to_us(uint64_t now_us) {
    return as_zon_error(vem_clock_advance_to_us(now_us));
}
