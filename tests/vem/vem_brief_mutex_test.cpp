// vem_brief_mutex_test.cpp - one thread at a time, and nobody is left asleep.
#include "src/vem_brief_mutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using vem::brief_mutex;

TEST(vem_brief_mutex, is_had_by_one_and_free_again_afterwards) {
    brief_mutex mutex;
    EXPECT_TRUE(mutex.try_lock());
    EXPECT_FALSE(mutex.try_lock()) << "not recursive";
    mutex.unlock();
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

void count_together(int threads, int rounds) {
    brief_mutex mutex;
    uint64_t counted = 0;  // plain: the mutex is all that keeps the sum right
    std::barrier start(threads);
    {
        std::vector<std::jthread> running;
        for (int thread = 0; thread < threads; ++thread)
            running.emplace_back([&] {
                start.arrive_and_wait();
                for (int round = 0; round < rounds; ++round) {
                    const std::lock_guard hold(mutex);
                    ++counted;
                }
            });
    }
    EXPECT_EQ(counted, uint64_t(threads) * uint64_t(rounds));
}

TEST(vem_brief_mutex, loses_no_count_of_one_thread) {
    count_together(1, 20'000);
}

TEST(vem_brief_mutex, loses_no_count_of_many_threads) {
    count_together(6, 20'000);
}

// Every one of them finds the mutex held for longer than a thread looks before it sleeps.
TEST(vem_brief_mutex, lets_all_sleepers_in_one_after_another) {
    constexpr int sleepers = 4;
    brief_mutex mutex;
    std::atomic<int> waiting = 0;
    int let_in = 0;  // guarded by the mutex
    std::vector<std::jthread> running;
    mutex.lock();
    for (int thread = 0; thread < sleepers; ++thread)
        running.emplace_back([&] {
            ++waiting;
            const std::lock_guard hold(mutex);
            ++let_in;
        });
    while (waiting != sleepers)
        std::this_thread::yield();
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
    while (std::chrono::steady_clock::now() < until)
        std::this_thread::yield();
    EXPECT_EQ(let_in, 0);
    mutex.unlock();
    running.clear();
    EXPECT_EQ(let_in, sleepers);
}

}  // namespace
