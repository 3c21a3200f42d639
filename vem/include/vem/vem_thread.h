/* vem_thread.h - named threads.
 *
 * Errors     0, or an errno value.
 */
#ifndef VEM_THREAD_H
#define VEM_THREAD_H

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Starts a thread that runs entry(arg) and stores its id in *id, to be joined by the caller. The
 * name is cut to the 15 characters that the system shows; NULL leaves the thread unnamed. The
 * integers are ignored.
 *   EINVAL          id or entry is NULL
 *   ENOMEM, EAGAIN  no memory, or too many threads
 */
int vem_thread_create(pthread_t* id, int flags, void* (*entry)(void*), void* arg, const char* name,
                      int priority);

/* Ends the calling thread if vem_thread_create started it; a join then gets the code as a pointer's
 * value. On any other thread it returns. Destructors on the thread's stack run, so its callers are
 * not noexcept. */
void vem_thread_exit(int code);

#ifdef __cplusplus
}
#endif

#endif
