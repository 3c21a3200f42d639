/* vem_time.h - the time of day, for people to read. It has nothing to do with the clock of the
 * timers.
 *
 * Threads    any thread.
 */
#ifndef VEM_TIME_H
#define VEM_TIME_H

#include <stddef.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VEM_TIME_FORMAT_TZONE_UTC 1
#define VEM_TIME_FORMAT_TZONE_LOCAL 2

/* Reads the time of day. 0, or an errno value; EINVAL for NULL. */
int vem_time_get_timespec(struct timespec* now);

/* Writes the time as "2025-01-31 13:05:09.000123 CET" into buf and returns buf. NULL when an
 * argument is NULL, the zone is neither of the two above, the time has no calendar date, or len is
 * too short for text and terminator. */
const char* vem_time_format_system_default(const struct timespec* time, int zone, char* buf,
                                           size_t len);

#ifdef __cplusplus
}
#endif

#endif
