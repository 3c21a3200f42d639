// zon_debug.cpp - trace lines on standard error, and the end of a program whose invariants do not
// hold.
//
// Owns   nothing: both buffers of a trace line are on the stack.
// Locks  none; lines of several threads may interleave.
// Knows nothing of what is traced.

#include "osal/zon_debug.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "osal/linux/zon_time_stamp.h"
#include "vem/vem_time.h"

zon_time_formatter zon_trace_time_formatter = vem_time_format_system_default;

static constexpr size_t message_room = 200;
static constexpr size_t time_room = 96;

static void print_stamped(const char* message) {
    timespec now{};
    vem_time_get_timespec(&now);
    char time_text[time_room];
    const char* stamp =
        zon_trace_time_formatter(&now, VEM_TIME_FORMAT_TZONE_LOCAL, time_text, sizeof time_text);
    if (stamp != nullptr)
        fprintf(stderr, "%s : %s", stamp, message);
    else
        fputs(message, stderr);
}

void zon_buginf(const char* format, ...) {
    char message[message_room];
    va_list arguments;
    va_start(arguments, format);
    const int wanted = vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    if (wanted < 0)  // nothing that could be printed
        message[0] = '\0';
    print_stamped(message);
}

void zon_require_failed(const char* text, const char* function, const char* file, int line) {
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, text);
    fflush(stderr);
    abort();
}
