// zon_time_stamp.h - the time stamp of trace lines.

#pragma once

#include <cstddef>
#include <ctime>

using zon_time_formatter = const char* (*)(const timespec* time, int zone, char* text,
                                           size_t length);

// What trace lines format their time with, the runtime's formatter at load. A null result of it
// leaves the stamp out. It is replaced only while no other thread traces.
extern zon_time_formatter zon_trace_time_formatter;
