// stress_threads.h - threads that start together and are watched, for tests of what happens when
// they meet.
//
//   stress_crew crew;
//   crew.add("packets", [&](stress_thread& self) { for (...) { self.doing("send"); ... self.meet();
//   } }); crew.add("deleter", ...); crew.run(GetParam());
//
// Every body ends by itself after a number of operations. On one thread the bodies run one after
// the other: that tests the test. Together they start at a barrier, are interrupted anywhere
// (interruptions.h) and where they let go of a lock (lock_stumbles.h), and whoever hangs is named
// by the watchdog.

#pragma once

#include <pthread.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/interruptions.h"
#include "support/lanes.h"
#include "support/lock_stumbles.h"
#include "support/watchdog.h"

namespace zon_test {

enum class schedule { one_thread, together };

inline std::string name_of(schedule how) {
    return how == schedule::one_thread ? "one_thread" : "together";
}

inline constexpr uint32_t stress_seed = 20250131;

class stress_thread {
public:
    stress_thread(std::string name, uint32_t seed) : name_(std::move(name)), random_(seed) {}

    // What it is about to do, for the watchdog; a literal.
    void doing(const char* step) {
        step_.store(step, std::memory_order_relaxed);
        steps_.fetch_add(1, std::memory_order_relaxed);
    }
    // Waits for all threads of the crew, every time the same number of times on each; nothing on
    // one thread.
    void meet() {
        if (barrier_ != nullptr) {
            doing("wait for the others");
            barrier_->arrive_and_wait();
        }
    }
    bool is_alone() const { return barrier_ == nullptr; }
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    // Lets others in now and then, so that a single core also meets the odd interleaving. Alone it
    // has nobody to let in, and gives its turn to no other program.
    void stumble() {
        if (below(8) == 0 && !is_alone())
            std::this_thread::yield();
    }

private:
    friend class stress_crew;
    std::string name_;
    std::minstd_rand random_;
    std::atomic<const char*> step_{"start"};
    std::atomic<uint64_t> steps_{0};
    std::atomic<bool> done_{false};
    std::atomic<uintptr_t> thread_{0};  // its pthread_self(), once it works
    std::barrier<>* barrier_ = nullptr;
};

class stress_crew {
public:
    using body = std::function<void(stress_thread&)>;

    explicit stress_crew(uint32_t seed = stress_seed) : seed_(seed) {}

    void add(std::string name, body what) {
        const auto number = static_cast<uint32_t>(members_.size());
        members_.push_back(
            {std::make_unique<stress_thread>(std::move(name), seed_ + number), std::move(what)});
    }

    // Threads are interrupted anywhere unless this is called: they get further, and meet less.
    void leave_uninterrupted() { is_interrupted_ = false; }

    void run(schedule how, std::chrono::seconds limit = std::chrono::seconds(120)) {
        const watchdog watched(limit, [this] { describe(); });
        run_unwatched(how);
    }
    // Where a watchdog of the caller's describes the crew.
    void run_unwatched(schedule how) {
        if (how == schedule::one_thread) {
            for (member& each : members_)
                work(each);
        } else {
            run_together();
        }
        bring_back_from_lanes();
    }

    // While the members work, on a watchdog's thread.
    void describe() const {
        for (const member& each : members_)
            std::fprintf(stderr, "  %-24s step %llu: %s\n", each.self->name_.c_str(),
                         static_cast<unsigned long long>(each.self->steps_.load()),
                         each.self->done_.load() ? "done" : each.self->step_.load());
    }
    // Who works on a thread, by its pthread_self(), or did so last; empty when no member did.
    std::string name_of(uintptr_t thread) const {
        std::string name;
        for (const member& each : members_)
            if (each.self->thread_.load(std::memory_order_relaxed) == thread)
                name = each.self->name_;
        return name;
    }

private:
    struct member {
        std::unique_ptr<stress_thread> self;
        body what;
    };

    static void work(member& each) {
        each.self->thread_.store(pthread_self(), std::memory_order_relaxed);
        each.what(*each.self);
        each.self->done_.store(true, std::memory_order_relaxed);
    }

    void run_together() {
        const lock_stumbles behind_locks;
        std::barrier<> barrier(static_cast<std::ptrdiff_t>(members_.size()));
        std::vector<std::thread> threads;
        for (member& each : members_) {
            each.self->barrier_ = &barrier;
            threads.emplace_back([this, &each, &barrier, seed = each.self->below(UINT32_MAX)] {
                std::optional<interruptions> everywhere;
                if (is_interrupted_)
                    everywhere.emplace(seed);
                barrier.arrive_and_wait();
                work(each);
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    }

    const uint32_t seed_;
    bool is_interrupted_ = true;
    std::vector<member> members_;
};

}  // namespace zon_test
