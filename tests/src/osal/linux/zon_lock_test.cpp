// zon_lock_test.cpp - recursive locks, rows of them, and the holders of a scope.

#include "osal/zon_lock.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/lock_level.h"

namespace {

using zon_test::is_free_for_others;

class single_lock : public ::testing::Test {
protected:
    void SetUp() override {
        lock = zon_lock_allocate();
        ASSERT_NE(lock, nullptr);
        zon_lock_init(lock);
    }
    void TearDown() override {
        zon_lock_destroy(lock);
        free(lock);
    }
    zon_lock_t lock = nullptr;
};

ptrdiff_t distance_of_first_locks(zon_lock_pool_t pool) {
    return static_cast<char*>(zon_lock_get_pool_lock(pool, 1)) -
           static_cast<char*>(zon_lock_get_pool_lock(pool, 0));
}

class lock_pool : public ::testing::Test {
protected:
    static constexpr int size = 4;
    void SetUp() override {
        pool = zon_lock_create_pool(size);
        ASSERT_NE(pool, nullptr);
    }
    void TearDown() override { zon_lock_destroy_pool(pool, size); }
    zon_lock_pool_t pool = nullptr;
};

}  // namespace

TEST(lock_memory, is_zero_filled_and_not_yet_a_lock) {
    zon_lock_t lock = zon_lock_allocate();
    ASSERT_NE(lock, nullptr);
    const auto* bytes = static_cast<const unsigned char*>(lock);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof(recursive_lock),
                            [](unsigned char byte) { return byte == 0; }));
    free(lock);
}

TEST(lock_memory, outlives_the_destruction_of_the_lock) {
    zon_lock_t lock = zon_lock_allocate();
    zon_lock_init(lock);
    zon_lock_destroy(lock);
    zon_lock_init(lock);  // the memory is still the caller's
    EXPECT_EQ(zon_lock_internal(lock), 0);
    EXPECT_EQ(zon_unlock_internal(lock), 0);
    zon_lock_destroy(lock);
    free(lock);
}

TEST_F(single_lock, taken_twice_needs_two_unlocks) {
    EXPECT_EQ(zon_lock_internal(lock), 0);
    EXPECT_EQ(zon_lock_internal(lock), 0);
    EXPECT_FALSE(is_free_for_others(lock));
    EXPECT_EQ(zon_unlock_internal(lock), 0);
    EXPECT_FALSE(is_free_for_others(lock));
    EXPECT_EQ(zon_unlock_internal(lock), 0);
    EXPECT_TRUE(is_free_for_others(lock));
}

TEST_F(single_lock, is_tried_recursively_by_its_holder) {
    EXPECT_TRUE(zon_try_lock_internal(lock));
    EXPECT_TRUE(zon_try_lock_internal(lock));
    zon_unlock_internal(lock);
    EXPECT_FALSE(is_free_for_others(lock));
    zon_unlock_internal(lock);
    EXPECT_TRUE(is_free_for_others(lock));
}

TEST_F(single_lock, is_not_let_go_by_a_thread_that_does_not_hold_it) {
    EXPECT_EQ(zon_unlock_internal(lock), EPERM) << "nobody holds it";
    zon_lock_internal(lock);
    std::thread([this] { EXPECT_EQ(zon_unlock_internal(lock), EPERM); }).join();
    EXPECT_FALSE(is_free_for_others(lock));
    EXPECT_EQ(zon_unlock_internal(lock), 0);
    EXPECT_EQ(zon_unlock_internal(lock), EPERM) << "once too often";
    EXPECT_TRUE(is_free_for_others(lock));
}

// Each waits long enough to fall asleep, since the holder lets go only when all of them sleep.
TEST_F(single_lock, wakes_everybody_who_fell_asleep_over_it) {
    constexpr uint32_t threads = 4;
    zon_lock_internal(lock);
    std::vector<std::thread> sleepers;
    int served = 0;
    for (uint32_t i = 0; i < threads; ++i)
        sleepers.emplace_back([&] {
            zon_lock_internal(lock);
            ++served;
            zon_unlock_internal(lock);
        });
    while ((lock_at(lock)->waiting.load() & lock_detail::sleepers_mask) != threads)
        std::this_thread::yield();
    EXPECT_EQ(served, 0);
    zon_unlock_internal(lock);
    for (std::thread& sleeper : sleepers)
        sleeper.join();
    EXPECT_EQ(served, static_cast<int>(threads));
    EXPECT_EQ(lock_at(lock)->waiting.load() & lock_detail::sleepers_mask, 0u);
    EXPECT_TRUE(is_free_for_others(lock));
}

// Only the first sleep is short: whoever lets the lock go may have missed the one who falls asleep.
TEST_F(single_lock, is_slept_for_and_not_looked_at_all_the_time) {
    zon_lock_internal(lock);
    rusage used{};
    std::thread sleeper([&] {
        zon_lock_internal(lock);
        zon_unlock_internal(lock);
        getrusage(RUSAGE_THREAD, &used);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    zon_unlock_internal(lock);
    sleeper.join();
    EXPECT_LT(used.ru_nvcsw, 40);
}

TEST_F(single_lock, keeps_others_out_of_a_critical_section) {
    int in_order = 0;
    const auto count = [&] {
        for (int i = 0; i < 2000; ++i) {
            zon_lock_internal(lock);
            ++in_order;
            zon_unlock_internal(lock);
        }
    };
    std::thread first(count);
    std::thread second(count);
    first.join();
    second.join();
    EXPECT_EQ(in_order, 4000);
}

// Levels, tries and waits of several threads at once; what is read and written inside belongs to
// one of them at a time.
TEST_F(single_lock, keeps_levels_apart_from_those_of_other_threads) {
    constexpr int threads = 4;
    constexpr int turns = 1500;
    int inside = 0;
    int done = 0;
    int strangers = 0;
    const auto take_turns = [&](int first) {
        for (int turn = first; turn < first + turns; ++turn) {
            const int levels = 1 + turn % 3;
            for (int level = 0; level < levels; ++level)
                if (turn % 2 == 0 || !zon_try_lock_internal(lock))
                    zon_lock_internal(lock);
            strangers += ++inside != 1;
            --inside;
            ++done;
            for (int level = 0; level < levels; ++level)
                zon_unlock_internal(lock);
        }
    };
    std::vector<std::thread> all;
    for (int number = 0; number < threads; ++number)
        all.emplace_back(take_turns, number);
    for (std::thread& thread : all)
        thread.join();
    EXPECT_EQ(done, threads * turns);
    EXPECT_EQ(strangers, 0);
    EXPECT_EQ(zon_unlock_internal(lock), EPERM) << "a level was left";
    EXPECT_EQ(lock_at(lock)->waiting.load() & lock_detail::sleepers_mask, 0u);
    EXPECT_TRUE(is_free_for_others(lock));
}

// Whoever forks goes on in the child, with the same locks.
TEST_F(single_lock, is_held_by_the_thread_that_forked_in_its_child_too) {
    zon_lock_internal(lock);
    const pid_t child = fork();
    if (child == 0) {
        const bool goes_on = zon_try_lock_internal(lock) && zon_unlock_internal(lock) == 0 &&
                             zon_unlock_internal(lock) == 0 && zon_unlock_internal(lock) == EPERM;
        _exit(goes_on ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(is_free_for_others(lock)) << "what a child does is its own";
    zon_unlock_internal(lock);
}

TEST_F(single_lock, is_held_for_the_scope_of_a_holder) {
    {
        const held_lock held(lock);
        EXPECT_FALSE(is_free_for_others(lock));
    }
    EXPECT_TRUE(is_free_for_others(lock));
}

TEST_F(single_lock, is_released_once_by_a_holder_that_was_moved_or_released_early) {
    held_lock first(lock);
    held_lock second(std::move(first));
    EXPECT_FALSE(is_free_for_others(lock));
    second.release();
    EXPECT_TRUE(is_free_for_others(lock));
    second.release();
    EXPECT_TRUE(is_free_for_others(lock));
}

TEST_F(single_lock, of_a_flow_is_released_with_its_scope) {
    zon_flow_t flow{};
    flow.flow_lock = lock;
    zon_lock_internal(lock);
    {
        const locked_flow held = locked_flow::adopt(&flow);
        EXPECT_TRUE(held);
        EXPECT_EQ(held.get(), &flow);
        EXPECT_FALSE(is_free_for_others(lock));
    }
    EXPECT_TRUE(is_free_for_others(lock));
}

TEST_F(single_lock, of_a_flow_that_is_handed_over_stays_held) {
    zon_flow_t flow{};
    flow.flow_lock = lock;
    zon_lock_internal(lock);
    EXPECT_EQ(locked_flow::adopt(&flow).hand_over(), &flow);
    EXPECT_FALSE(is_free_for_others(lock));
    zon_unlock_internal(lock);
}

TEST_F(single_lock, of_a_flow_is_released_when_its_holder_takes_another_flow) {
    zon_flow_t flow{};
    flow.flow_lock = lock;
    zon_lock_internal(lock);
    locked_flow held = locked_flow::adopt(&flow);
    held = locked_flow();
    EXPECT_FALSE(held);
    EXPECT_TRUE(is_free_for_others(lock));
}

TEST_F(lock_pool, is_a_row_of_locks_that_share_no_cache_line) {
    for (int entry = 0; entry < size; ++entry)
        EXPECT_EQ(reinterpret_cast<uintptr_t>(zon_lock_get_pool_lock(pool, entry)) % 64, 0u);
    EXPECT_EQ(distance_of_first_locks(pool), 64);
}

TEST(large_lock_pool, has_several_locks_on_a_line_and_none_on_two) {
    constexpr int many = 5000;
    const zon_lock_pool_t pool = zon_lock_create_pool(many);
    const ptrdiff_t distance = distance_of_first_locks(pool);
    EXPECT_GE(distance, static_cast<ptrdiff_t>(sizeof(recursive_lock)));
    EXPECT_LT(distance, 64);
    EXPECT_EQ(64 % distance, 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(zon_lock_get_pool_lock(pool, 0)) % 64, 0u);
    for (const int entry : {0, 1, many - 1})
        EXPECT_EQ(zon_lock_pool_internal(pool, entry), 0);
    EXPECT_FALSE(is_free_for_others(zon_lock_get_pool_lock(pool, many - 1)));
    EXPECT_TRUE(is_free_for_others(zon_lock_get_pool_lock(pool, many - 2)));
    for (const int entry : {0, 1, many - 1})
        EXPECT_EQ(zon_unlock_pool_internal(pool, entry), 0);
    zon_lock_destroy_pool(pool, many);
}

TEST_F(single_lock, refuses_a_level_that_it_cannot_count_and_stays_held) {
    const uint64_t most = UINT64_MAX / lock_detail::one_level;
    uint64_t levels = 0;
    while (levels <= most && zon_lock_internal(lock) == 0)
        ++levels;
    EXPECT_EQ(levels, most);
    EXPECT_EQ(zon_lock_internal(lock), EAGAIN);
    EXPECT_FALSE(zon_try_lock_internal(lock));
    EXPECT_FALSE(is_free_for_others(lock));
    for (; levels > 1; --levels)
        ASSERT_EQ(zon_unlock_internal(lock), 0);
    EXPECT_FALSE(is_free_for_others(lock));
    EXPECT_EQ(zon_unlock_internal(lock), 0);
    EXPECT_TRUE(is_free_for_others(lock));
    EXPECT_EQ(zon_unlock_internal(lock), EPERM);
}

TEST_F(lock_pool, lets_one_thread_lock_an_entry_twice_in_sequence) {
    const int seven = 7 % size;
    const int eleven = 11 % size;
    EXPECT_EQ(zon_lock_pool_internal(pool, seven), 0);
    EXPECT_EQ(zon_lock_pool_internal(pool, eleven), 0);
    EXPECT_EQ(zon_unlock_pool_internal(pool, eleven), 0);
    EXPECT_FALSE(is_free_for_others(zon_lock_get_pool_lock(pool, seven)));
    EXPECT_EQ(zon_unlock_pool_internal(pool, seven), 0);
    EXPECT_TRUE(is_free_for_others(zon_lock_get_pool_lock(pool, seven)));
}

TEST_F(lock_pool, locks_its_entries_one_by_one) {
    for (int entry = 0; entry < size; ++entry) {
        EXPECT_EQ(zon_lock_pool_internal(pool, entry), 0);
        for (int other = 0; other < size; ++other)
            EXPECT_EQ(is_free_for_others(zon_lock_get_pool_lock(pool, other)), other != entry);
        EXPECT_EQ(zon_unlock_pool_internal(pool, entry), 0);
    }
}

TEST(lock_pool_of_nothing, is_given_back_like_any_other) {
    for (const int size : {0, -1, -1000})
        zon_lock_destroy_pool(zon_lock_create_pool(size), size);
}
