// round_progress.cpp - tells what a round that does not end is at.

#include "stress/mixed/round_progress.h"

#include <cstdio>

#include "support/lock_owners.h"
#include "support/thread_locks.h"

namespace zon_test {

void round_progress::watch(const stress_crew* crew) {
    const std::lock_guard hold(guard_of_crew_);
    crew_ = crew;
}

void round_progress::run(stress_crew& crew, schedule how) {
    watch(&crew);
    crew.run_unwatched(how);
    watch(nullptr);
}

void round_progress::describe() const {
    const std::lock_guard hold(guard_of_crew_);
    std::fprintf(stderr, "round %u: %s\n", round_, stage_.load(std::memory_order_relaxed));
    if (crew_ != nullptr)
        crew_->describe();
    const auto who = [this](uintptr_t thread) { return name_of(thread); };
    print_held_locks(who);
    print_locks_of_threads(who);
}

std::string round_progress::name_of(uintptr_t thread) const {
    std::string name = crew_ != nullptr ? crew_->name_of(thread) : "";
    if (!name.empty())
        return name;
    if (thread == own_thread_)
        return "the round's own thread";
    // The engine has its timer thread.
    return "a thread beyond the crew";
}

}  // namespace zon_test
