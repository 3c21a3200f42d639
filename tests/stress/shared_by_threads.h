// shared_by_threads.h - an engine whose records all pass from thread to thread: few flows, few
// ready records, small chunks.

#pragma once

#include "support/stress_engine.h"

namespace zon_test {

class shared_by_threads : public stress_engine {
protected:
    shared_by_threads() {
        parameters.max_flows = 64;
        parameters.max_mem_buffer_init = 3;
        parameters.create_chunk_elements = 2;
    }
};

}  // namespace zon_test
