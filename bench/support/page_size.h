// page_size.h - whether the program's memory may lie in huge pages where somebody asks for them.

#pragma once

#include <sys/prctl.h>

namespace zon_bench {

inline void allow_huge_pages(bool allowed) {
    prctl(PR_SET_THP_DISABLE, allowed ? 0 : 1, 0, 0, 0);
}

}  // namespace zon_bench
