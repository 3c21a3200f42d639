/* vem_tw.h - timer wheels: millions of one-shot timers, embedded in the records of their owners.
 *
 * Start, restart and stop cost the same however many timers run, and allocate nothing but what the
 * next lines say. By the readings of vem_clock, which are whole microseconds, a timer never fires
 * early and at most two ticks late, whatever the machine's clock does.
 *
 * Timers fire in the order of their ticks, those of one tick in the order of their starts. A thread
 * whose start finds the wheel busy is given a part of the wheel for its starts, where it does not
 * meet the others; that allocates the part, once, and without memory for it the thread waits.
 * Timers of one tick then fire part by part.
 *
 * Threads    any thread, also from inside callbacks. One timer is started and stopped by one thread
 *            at a time (its owner's lock sees to that), while the dispatching thread may run it.
 * Locks      a wheel's own locks are innermost and are never held while a callback runs. Stop never
 *            waits for a callback, so that a caller may hold whatever lock the callback wants.
 * Ownership  the record that embeds a timer owns it; it stays in place while the timer runs. A
 *            zero-filled timer is one that does not run. A wheel's handle is not a pointer: a
 *            destroyed wheel's is refused, never followed.
 * Units      milliseconds (ms), microseconds (_us).
 * Errors     0, or an errno value, unless a function says otherwise. NULL is accepted everywhere.
 */
#ifndef VEM_TW_H
#define VEM_TW_H

#include <stdbool.h>
#include <stdint.h>

#include "vem/vem_dm.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VEM_TW_TIMER_DEFINED
#define VEM_TW_TIMER_DEFINED
typedef struct vem_tw_wheel_* vem_tw_wheel;
typedef struct vem_tw_timer_ vem_tw_timer;

/* Called once when the timer expires. The timer counts as not running from here on and may be
 * started again. */
typedef void (*vem_tw_timer_handler)(vem_tw_wheel wheel, vem_tw_timer* timer, void* context);

typedef struct vem_tw_links_ {
    struct vem_tw_links_* tw_next;
    struct vem_tw_links_* tw_prev;
} vem_tw_links;

typedef struct vem_tw_timer_basic_ {
    vem_tw_links tm_links;
    uint32_t tm_ticks;
} vem_tw_timer_basic;

/* All fields are the wheel's, and so is the padding behind tm_ticks. */
struct vem_tw_timer_ {
    vem_tw_timer_basic timer;
    vem_tw_timer_handler callback;
    void* context;
};
#endif

/* Creates a wheel of at least `levels` levels with `slots` slots each (rounded up to a power of
 * two; 1 to 65536) and a tick of tick_us microseconds. Levels are added or left out so that the
 * wheel spans 2^32 - 1 ms. Ticks count from the clock's reading at this moment. The handle is
 * stored atomically. The last three arguments are ignored.
 *   EINVAL  wheel is NULL, or slots, tick_us or levels is out of range
 *   ENOMEM  no memory
 *   EAGAIN  the process has as many wheels as it can have (128)
 */
int vem_tw_init_wheel(vem_tw_wheel* wheel, uint32_t slots, uint32_t tick_us, uint32_t levels,
                      uint32_t unused1, uint32_t unused2, uint32_t unused3);

/* Makes the wheel's timers run where the manager is dispatched; NULL detaches. On a detached wheel
 * timers may be started and stopped, and fire once it is attached again. Does not wait for a
 * callback that is running; the new manager's thread does, before it runs the wheel's next one.
 *   EINVAL  either one is destroyed, or wheel is NULL
 */
int vem_tw_attach_vdm(vem_tw_wheel wheel, vem_dm_handle manager);

/* Destroys the wheel and sets the handle to NULL, by an atomic store: others may load it atomically
 * meanwhile, and a start with what they loaded is refused. Does not wait for a callback that is
 * running (vem_tw_quiesce does). Timers that run are disarmed without a call of
 * their callbacks, so that a later stop is harmless; an expiry whose callback is running counts as
 * cancelled.
 *   EINVAL  NULL, or destroyed before
 */
int vem_tw_destroy_wheel(vem_tw_wheel* wheel);

/* Arms the timer to call handler(wheel, timer, context) once, ms milliseconds from now (0 counts as
 * 1). A timer that runs is armed anew; an expiry that is on its way is cancelled.
 *   EINVAL  an argument but context is NULL, or the wheel is destroyed
 */
int vem_tw_timer_start(vem_tw_wheel wheel, vem_tw_timer* timer, uint32_t ms,
                       vem_tw_timer_handler handler, void* context);

/* Disarms the timer and cancels an expiry that is on its way; never waits. Harmless on a timer that
 * does not run.
 *   EINVAL  timer is NULL
 */
int vem_tw_timer_stop(vem_tw_timer* timer);

/* Is the timer armed? An expired timer counts as armed until its callback is called. */
bool vem_tw_timer_running(const vem_tw_timer* timer);

/* Copies the timer's fields as one moment shows them, whatever other threads do with the wheel. The
 * caller sees to it that the timer is neither started nor stopped meanwhile. The copy is a picture:
 * it is on no wheel and must not be started or stopped. Nothing happens when one is NULL. */
void vem_tw_timer_copy(const vem_tw_timer* timer, vem_tw_timer* copy);

/* Asked inside the timer's own callback: was it started or stopped after this expiry was taken off
 * the wheel? A callback asks once it holds its owner's lock, and leaves the owner alone if so.
 * False outside the callback. */
bool vem_tw_expiry_cancelled(const vem_tw_timer* timer);

/* Called inside the timer's own callback, when it cannot have its owner's lock at once: the same
 * expiry comes again after ms milliseconds, unless it was cancelled meanwhile. In one step: a start
 * or stop on another thread is never undone.
 *   EINVAL     not inside the timer's callback
 *   ECANCELED  the expiry was cancelled
 */
int vem_tw_expiry_retry(vem_tw_timer* timer, uint32_t ms);

/* Detaches the wheel and waits until none of its callbacks runs; inside a callback it does not
 * wait. No callback starts until the wheel is attached again. The caller holds no lock that a
 * callback may want.
 *   EINVAL  NULL, or destroyed
 */
int vem_tw_quiesce(vem_tw_wheel wheel);

/* True when no callback can start: the wheel is detached or destroyed. False for NULL. Takes no
 * lock. */
bool vem_tw_is_detached(vem_tw_wheel wheel);

#ifdef __cplusplus
}
#endif

#endif
