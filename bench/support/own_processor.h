// own_processor.h - keeps the threads of a benchmark on different processors, as a host does with
// those that take packets: two on one would wait for the end of each other's time slice.

#pragma once

#include <sched.h>

namespace zon_bench {

// Keeps the calling thread on the number-th of the processors that it may use; where there are not
// so many, it starts again with the first.
inline void take_own_processor(int number) {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        return;
    int left = number % CPU_COUNT(&allowed);
    for (int processor = 0; processor < CPU_SETSIZE; ++processor)
        if (CPU_ISSET(processor, &allowed) && left-- == 0) {
            cpu_set_t own;
            CPU_ZERO(&own);
            CPU_SET(processor, &own);
            sched_setaffinity(0, sizeof own, &own);
            return;
        }
}

}  // namespace zon_bench
