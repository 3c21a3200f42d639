/* vem_lock_order.h - stops a program whose thread waits for locks in the wrong order, in builds
 * that define VEM_CHECK_LOCK_ORDER; in all others none of these functions exists.
 *
 * Each lock has a class, each class a step. A thread waits only for a lock of a later step than all
 * that it holds; for one that it holds already it does not wait at all. What was found is printed
 * to standard error, after a line that begins with "lock order", and the program is aborted.
 *
 * Threads    any thread. All that is remembered is the calling thread's own: the check orders no
 *            two threads, so that a race detector still sees their races.
 * Locks      none, and no memory is asked for.
 * Ownership  a class lives as long as the locks that have it.
 */
#ifndef VEM_LOCK_ORDER_H
#define VEM_LOCK_ORDER_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a thread that holds one lock of a class may do about another lock of the same class. */
typedef enum {
    VEM_LOCK_ALONE,    /* wait for none */
    VEM_LOCK_IN_ROW,   /* wait for one that stands later in the row of them */
    VEM_LOCK_OF_USERS, /* wait for any, unless it holds one by a claim: see vem_lock_claimed */
} vem_lock_siblings;

typedef struct {
    const char* name;
    int step;
    vem_lock_siblings siblings;
} vem_lock_class;

/* The runtime's own. Callbacks run under the turn of the clock, so it comes before all locks of
 * users, whose steps are 1 to 9; the others come after those. */
typedef enum {
    VEM_LOCK_TURN,
    VEM_LOCK_CHUNK,
    VEM_LOCK_SCHEDULE,
    VEM_LOCK_WHEEL,
    VEM_LOCK_CLASSES,
} vem_lock_id;
extern const vem_lock_class vem_lock_classes[VEM_LOCK_CLASSES];

#define VEM_LOCK_FIRST_STEP_OF_USERS 1
#define VEM_LOCK_LAST_STEP_OF_USERS 9

/* The rule for two locks that are not the same; entry is a lock's place in its row, 0 without one.
 */
bool vem_lock_may_wait(const vem_lock_class* held, int held_entry, const vem_lock_class* wanted,
                       int wanted_entry);

/* Before a thread waits for a lock. */
void vem_lock_wanted(const vem_lock_class* of, const void* lock, int entry);
/* Once it has a lock, by waiting or by trying; as often as it takes it. */
void vem_lock_taken(const vem_lock_class* of, const void* lock, int entry);
/* A lock that was only tried for, and would have been awaited had it been busy. */
void vem_lock_could_wait(const void* lock);
/* As often as taken; nothing for a lock that this thread does not hold. */
void vem_lock_released(const void* lock);
/* A lock's memory goes, however often it is held. */
void vem_lock_forgotten(const void* lock);

/* The module that owns the locks holds this one for itself, not for its user: until the claim ends,
 * it waits for no second lock of the class. */
void vem_lock_claimed(const void* lock);
void vem_lock_claim_ended(const void* lock);
/* Around a call of the user's function, which may do what a user may, whatever is claimed. */
void vem_lock_user_begins(void);
void vem_lock_user_ends(void);

#ifdef __cplusplus
}
#endif

#endif
