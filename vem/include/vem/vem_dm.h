/* vem_dm.h - dispatch managers: what a thread waits on, and where its wheels' timers run.
 *
 * A thread loops over wait and dispatch; the callbacks of every wheel attached to the manager run
 * there, one at a time. In the clock's inline mode (vem_clock.h) they run on the thread that turns
 * the clock instead.
 *
 * Threads    any thread; one dispatches at a time, a second one waits for its turn.
 *            A callback may dispatch another manager, and then waits for whoever has that one's
 *            turn. Callbacks of two managers, on two threads, that dispatch each other's manager
 *            wait for each other forever. The same goes for a wheel that is attached to another
 *            manager while its callback runs: there its timers wait for that callback.
 * Locks      none is held while a callback runs, and none is held on return.
 * Ownership  a handle names its manager and is not a pointer: a destroyed manager's handle is
 *            refused, never followed.
 * Errors     0, or an errno value.
 */
#ifndef VEM_DM_H
#define VEM_DM_H

#ifdef __cplusplus
extern "C" {
#endif

#ifndef VEM_DM_HANDLE_DEFINED
#define VEM_DM_HANDLE_DEFINED
typedef struct vem_dm_* vem_dm_handle;
#endif

/* Creates a manager; name is for people who debug and may be NULL. The last argument is ignored.
 *   EINVAL  manager is NULL
 *   EAGAIN  the process has as many managers as it can have (64)
 */
int vem_dm_create(vem_dm_handle* manager, const char* name, int flags);

/* Blocks until a timer of an attached wheel is due. While nothing is due the thread sleeps without
 * waking up.
 *   EINVAL  NULL, or the manager is destroyed, also when that happens during the wait
 */
int vem_dm_wait(vem_dm_handle manager);

/* Runs the callbacks of all timers that are due, on the calling thread. Nothing due is no error.
 *   EINVAL   NULL, or the manager is destroyed
 *   EDEADLK  called from a callback that this manager runs
 * Inside a callback of a wheel that was meanwhile attached to this manager, that wheel is left out.
 */
int vem_dm_dispatch(vem_dm_handle manager);

/* Destroys the manager and sets the handle to NULL; wheels that are attached are detached. Threads
 * that wait return with an error. Does not wait for a callback that is running.
 *   EINVAL  NULL, or destroyed before
 */
int vem_dm_destroy(vem_dm_handle* manager);

#ifdef __cplusplus
}
#endif

#endif
