// lanes.h - gives this thread a lane without another one to meet, and empties all lanes.

#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include "osal/zon_mem.h"
#include "zon_fid_lanes.h"
#include "zon_lane_counts.h"

namespace zon_test {

inline void own_a_lane() {
    for (int meeting = 0; meeting < 100 && zon_own_lane() < 0; ++meeting)
        zon_lane_met_another();
    ASSERT_GE(zon_own_lane(), 0) << "every lane has an owner";
}

// Small tables have lanes only where a test wants them. Before any thread uses the engine.
inline void give_lanes_to_the_table() {
    storage_of(g_zon->fid_table)->has_lanes = true;
}

// Runs what it is given on one thread that owns a lane, until it is destroyed.
class laned_thread {
public:
    laned_thread() : thread_([this] { serve(); }) {}
    ~laned_thread() {
        run([this] { ended_ = true; });
        thread_.join();
    }
    laned_thread(const laned_thread&) = delete;
    laned_thread& operator=(const laned_thread&) = delete;

    void run(std::function<void()> what) {
        what_ = std::move(what);
        is_asked_ = true;
        is_asked_.notify_one();
        is_asked_.wait(true);
    }

private:
    void serve() {
        own_a_lane();
        while (!ended_) {
            is_asked_.wait(false);
            what_();
            is_asked_ = false;
            is_asked_.notify_one();
        }
    }

    std::function<void()> what_;
    std::atomic<bool> is_asked_{false};
    bool ended_ = false;
    std::thread thread_;
};

// At rest: nothing waits in a lane, and the figures in the engine's records are whole.
inline void bring_back_from_lanes() {
    zon_lane_counts_settle();
    zon_mem_gather_lanes();
    if (g_zon != nullptr && g_zon->fid_table != nullptr)
        zon_fid_table_gather(g_zon->fid_table);
}

}  // namespace zon_test
