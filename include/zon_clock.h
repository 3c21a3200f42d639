/* zon_clock.h - the one clock by which flows and fragments age.
 *
 * By default it is the system's monotonic clock, and a host that never includes this header pays
 * nothing for it. A host that replays captures turns it by hand to each packet's time, so that
 * flows age as they did in life; a test turns it to let half an hour pass in a microsecond.
 *
 * Threads    one thread turns the clock; any thread reads it.
 * Units      microseconds, from an arbitrary start.
 */
#ifndef ZON_CLOCK_H
#define ZON_CLOCK_H

#include "zon_error.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum zon_clock_mode_e_ ZON_ENUM_BASE {
    /* CLOCK_MONOTONIC */
    ZON_CLOCK_SYSTEM = 0,
    /* turned by hand; the timer thread runs what is due, the turner waits for it */
    ZON_CLOCK_MANUAL_WAIT = 1,
    /* turned by hand; what is due runs on the turning thread itself */
    ZON_CLOCK_MANUAL_INLINE = 2
} zon_clock_mode_e;

/* Chooses the clock. Time goes on from the present reading. Set it before zon_timer_tw_init.
 *   35 unknown mode, or called from a callback of the engine's timers */
ZON_API zon_error_t zon_clock_set_mode(zon_clock_mode_e mode);

/* The clock's reading. */
ZON_API uint64_t zon_clock_now_us(void);

/* Turns a manual clock forward and returns when everything due by then has run, each timer at its
 * own time. Must not be called with a flow locked. With ZON_CLOCK_MANUAL_WAIT a due timer makes
 * this wait for the timer thread; where that thread has ended and the engine is still set up, the
 * turn never returns.
 *   35 the clock is the system's, the reading would exceed 2^62, or called from a callback of the
 *      engine's timers; the clock has not moved */
ZON_API zon_error_t zon_clock_advance_us(uint64_t by_us);

/* The same to an absolute reading; a reading in the past turns nothing back and is no error. */
ZON_API zon_error_t zon_clock_advance_to_us(uint64_t now_us);

#ifdef __cplusplus
}
#endif

#endif
