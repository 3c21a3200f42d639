// zon_debug.h - trace lines, the switches that gate them, and the check of invariants.

#pragma once

#include <cstddef>

#include "zon_engine_defs.h"
#include "zon_relaxed.h"

// Prints "TIME : message" to standard error, without adding a newline. Messages are cut to 199
// characters. Any thread.
void zon_buginf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A component's lines are printed while its own switch or the common one is set; the test is made
// at each print.
inline bool zon_tracing(const bool& component) {
    return relaxed_load(component) || relaxed_load(zon_debug_flag_all);
}
inline bool zon_tracing_engine() {
    return zon_tracing(zon_debug_flag_engine);
}
inline bool zon_tracing_fe() {
    return zon_tracing(zon_debug_flag_fe);
}
inline bool zon_tracing_l4() {
    return zon_tracing(zon_debug_flag_l4);
}
inline bool zon_tracing_ager() {
    return zon_tracing(zon_debug_flag_ager);
}

[[noreturn, gnu::cold]] void zon_require_failed(const char* text, const char* function,
                                                const char* file, int line);

// Stops the program with the text of an invariant that does not hold, in every build type: the
// texts are what hosts look for in their crash logs.
inline void zon_require(bool holds, const char* text, const char* function = __builtin_FUNCTION(),
                        const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (!holds) [[unlikely]]
        zon_require_failed(text, function, file, line);
}
