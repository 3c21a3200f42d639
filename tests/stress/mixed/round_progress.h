// round_progress.h - what a round is at and who holds what, for the message of its watchdog.

#pragma once

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <string>

#include "support/stress_threads.h"

namespace zon_test {

class round_progress {
public:
    explicit round_progress(uint32_t round) : round_(round) {}

    // A literal.
    void at(const char* stage) { stage_.store(stage, std::memory_order_relaxed); }

    // Its threads are part of the message while they work.
    void run(stress_crew& crew, schedule how);

    // On the watchdog's thread.
    void describe() const;

private:
    void watch(const stress_crew* crew);
    std::string name_of(uintptr_t thread) const;

    const uint32_t round_;
    const uintptr_t own_thread_ = pthread_self();
    std::atomic<const char*> stage_{"start"};
    mutable std::mutex guard_of_crew_;
    const stress_crew* crew_ = nullptr;
};

}  // namespace zon_test
