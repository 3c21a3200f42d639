// fixed_time_stamp.h - gives every trace line the same time stamp while the object lives, or none.

#pragma once

#include "osal/linux/zon_time_stamp.h"

namespace zon_test {

class fixed_time_stamp {
public:
    enum kind { noon, none };
    explicit fixed_time_stamp(kind which = noon) : original_(zon_trace_time_formatter) {
        zon_trace_time_formatter = which == noon ? say_noon : fail;
    }
    fixed_time_stamp(const fixed_time_stamp&) = delete;
    fixed_time_stamp& operator=(const fixed_time_stamp&) = delete;
    ~fixed_time_stamp() { zon_trace_time_formatter = original_; }

private:
    static const char* say_noon(const timespec*, int, char*, size_t) { return "noon"; }
    static const char* fail(const timespec*, int, char*, size_t) { return nullptr; }

    zon_time_formatter original_;
};

}  // namespace zon_test
