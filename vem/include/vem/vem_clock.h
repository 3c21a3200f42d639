/* vem_clock.h - the one clock of the process, by which all timers run.
 *
 * It follows CLOCK_MONOTONIC until somebody asks to turn it by hand. Turned by hand, it stands
 * still between turns; a turn over a long span stops at each due time on the way, so that every
 * callback sees its own due time and a timer that its callback starts again fires at the right
 * moments within the same turn. A start that another thread makes while the clock is being turned
 * counts as made before or after the turn and is never lost; at the latest the next turn runs it.
 *
 * Threads    any thread. Turns that need callbacks run one after the other.
 * Locks      none is held while a callback runs. Whoever turns the clock holds no lock that a
 *            callback may want.
 * Units      microseconds (_us) from an arbitrary start; no reading exceeds 2^62.
 * Errors     0, or an errno value.
 */
#ifndef VEM_CLOCK_H
#define VEM_CLOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VEM_CLOCK_SYSTEM 0        /* CLOCK_MONOTONIC */
#define VEM_CLOCK_MANUAL_WAIT 1   /* by hand; a turn waits for the dispatching thread */
#define VEM_CLOCK_MANUAL_INLINE 2 /* by hand; a turn runs what is due on its own thread */

uint64_t vem_clock_now_us(void);

/* Chooses the mode; time continues from the present reading. Ticks count from the reading at which
 * a wheel was made, so a run that shall repeat exactly chooses the mode before it makes its wheel.
 *   EINVAL   no such mode
 *   EDEADLK  called from a timer's callback
 */
int vem_clock_set_mode(int mode);

/* Turns the clock forward and returns when every timer due by then, of all attached wheels, has
 * run. Without such a wheel only the time moves. In the waiting mode a due timer makes this wait
 * for vem_dm_dispatch on another thread, also if that thread has yet to come; if none comes, the
 * turn never returns.
 *   EPERM      the mode is VEM_CLOCK_SYSTEM
 *   EDEADLK    called from a timer's callback; the clock has not moved
 *   EOVERFLOW  the reading would exceed 2^62; the clock has not moved
 */
int vem_clock_advance_us(uint64_t by_us);

/* The same up to an absolute reading. A reading in the past turns nothing back and gives 0. */
int vem_clock_advance_to_us(uint64_t now_us);

#ifdef __cplusplus
}
#endif

#endif
