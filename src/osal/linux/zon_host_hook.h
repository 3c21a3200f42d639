// zon_host_hook.h - the mark of functions that a host program may define itself.

#pragma once

// A weak definition gives way to the host's in a static link, and callers in the library never
// assume that they know which one they reach: no inlining, no conclusion drawn from the body. In
// the shared library the default visibility has calls go through the dynamic linker, which finds
// the program's definition first.
#if defined(__clang__)
#define ZON_HOST_HOOK __attribute__((weak, noinline))
#else
#define ZON_HOST_HOOK __attribute__((weak, noipa))
#endif
