// vem_lock_order_test.cpp - what a thread holds, what it may wait for, and where the runtime's own
// locks stand.
#include "vem/vem_lock_order.h"

#ifdef VEM_CHECK_LOCK_ORDER

#include <gtest/gtest.h>

#include <array>
#include <thread>

#include "vem/vem_clock.h"
#include "vem/vem_dm.h"
#include "vem/vem_mem_chunk.h"
#include "vem_attached_wheel.h"

namespace {

constexpr vem_lock_class early{"early lock", 1, VEM_LOCK_ALONE};
constexpr vem_lock_class late{"late lock", 2, VEM_LOCK_ALONE};
constexpr vem_lock_class beside{"lock beside", 2, VEM_LOCK_ALONE};
constexpr vem_lock_class in_row{"lock in a row", 3, VEM_LOCK_IN_ROW};
constexpr vem_lock_class of_users{"lock of users", 4, VEM_LOCK_OF_USERS};

// Addresses stand for locks.
constexpr std::array<char, 600> locks{};

const void* lock(size_t number) {
    return &locks[number];
}

// The classes of the runtime: the turn comes before all of its users' locks, the others after.
struct lock_of_runtime {
    const char* name;
    vem_lock_id id;
    void (*taken_first_by)(vem_tw_wheel, vem_chunk_type);
};
class runtime_lock : public ::testing::TestWithParam<lock_of_runtime> {};

void turn_clock(vem_tw_wheel, vem_chunk_type) {
    vem_clock_set_mode(VEM_CLOCK_SYSTEM);
}
void take_record(vem_tw_wheel, vem_chunk_type chunk) {
    vem_mem_chunk_malloc(chunk);
}
void make_manager(vem_tw_wheel, vem_chunk_type) {
    vem_dm_handle manager;
    vem_dm_create(&manager, "another", 0);
}
void start_timer(vem_tw_wheel wheel, vem_chunk_type) {
    static vem_tw_timer timer;
    vem_tw_timer_start(
        wheel, &timer, 10, [](vem_tw_wheel, vem_tw_timer*, void*) {}, nullptr);
}

std::string name_of_row(const ::testing::TestParamInfo<lock_of_runtime>& row) {
    return row.param.name;
}

}  // namespace

TEST(order_of_locks, is_a_matter_of_steps_and_of_rows) {
    EXPECT_TRUE(vem_lock_may_wait(&early, 0, &late, 0));
    EXPECT_FALSE(vem_lock_may_wait(&late, 0, &early, 0));
    EXPECT_FALSE(vem_lock_may_wait(&late, 0, &beside, 0));
    EXPECT_FALSE(vem_lock_may_wait(&late, 0, &late, 1));
    EXPECT_TRUE(vem_lock_may_wait(&in_row, 1, &in_row, 2));
    EXPECT_FALSE(vem_lock_may_wait(&in_row, 2, &in_row, 2));
    EXPECT_FALSE(vem_lock_may_wait(&in_row, 3, &in_row, 2));
    EXPECT_TRUE(vem_lock_may_wait(&of_users, 3, &of_users, 2));
}

TEST(order_of_locks, is_kept_by_all_that_a_thread_holds_not_by_the_last) {
    vem_lock_taken(&late, lock(1), 0);
    vem_lock_taken(&early, lock(0), 0);
    EXPECT_DEATH(vem_lock_wanted(&beside, lock(2), 0),
                 "lock order: (.*\n)*  late lock 0 .*in the way");
    EXPECT_EXIT(
        {
            vem_lock_wanted(&in_row, lock(3), 0);
            std::exit(7);
        },
        ::testing::ExitedWithCode(7), "");
    vem_lock_released(lock(1));
    vem_lock_wanted(&beside, lock(2), 0);
    vem_lock_released(lock(0));
}

TEST(order_of_locks, counts_levels) {
    vem_lock_taken(&late, lock(0), 0);
    vem_lock_taken(&late, lock(0), 0);
    vem_lock_wanted(&late, lock(0), 0);
    vem_lock_released(lock(0));
    EXPECT_DEATH(vem_lock_wanted(&early, lock(1), 0), "lock order: ");
    vem_lock_released(lock(0));
    vem_lock_wanted(&early, lock(1), 0);
    vem_lock_released(lock(0));
    vem_lock_wanted(&early, lock(1), 0);
}

TEST(order_of_locks, is_each_threads_own) {
    vem_lock_taken(&late, lock(0), 0);
    std::thread([] {
        vem_lock_wanted(&early, lock(1), 0);
        vem_lock_taken(&early, lock(1), 0);
        vem_lock_released(lock(0));
    }).join();
    EXPECT_DEATH(vem_lock_wanted(&early, lock(1), 0), "lock order: ");
    vem_lock_forgotten(lock(0));
    vem_lock_wanted(&early, lock(1), 0);
}

TEST(order_of_locks, forbids_whoever_claims_a_lock_to_wait_for_its_like) {
    vem_lock_taken(&of_users, lock(0), 0);
    vem_lock_claimed(lock(0));
    vem_lock_claimed(lock(0));
    vem_lock_claim_ended(lock(0));
    EXPECT_DEATH(vem_lock_wanted(&of_users, lock(1), 1), "lock order: ");
    vem_lock_user_begins();
    vem_lock_wanted(&of_users, lock(1), 1);
    vem_lock_claim_ended(lock(0));  // none of this depth
    vem_lock_user_ends();
    EXPECT_DEATH(vem_lock_wanted(&of_users, lock(1), 1), "lock order: ");
    vem_lock_claim_ended(lock(0));
    vem_lock_wanted(&of_users, lock(1), 1);
    vem_lock_released(lock(0));
}

TEST(order_of_locks, is_not_forgotten_when_a_thread_holds_very_many) {
    for (size_t number = 0; number < 512; ++number)
        vem_lock_taken(&of_users, lock(number), static_cast<int>(number));
    EXPECT_DEATH(vem_lock_taken(&of_users, lock(512), 512),
                 "lock order: a thread has more than 512");
    EXPECT_DEATH(vem_lock_wanted(&early, lock(513), 0), "lock order: (.*\n)*  lock of users 511 ");
    for (size_t number = 0; number < 512; ++number)
        vem_lock_released(lock(number));
    vem_lock_wanted(&early, lock(513), 0);
}

TEST_P(runtime_lock, is_of_its_class) {
    const vem_lock_class& own = vem_lock_classes[GetParam().id];
    const attached_wheel wheel;
    const vem_chunk_type chunk = vem_mem_chunk_create(8, 1, 0, 0, 0, nullptr);
    const vem_lock_class at_its_step{"barrier", own.step, VEM_LOCK_ALONE};
    vem_lock_taken(&at_its_step, lock(0), 0);
    EXPECT_DEATH(GetParam().taken_first_by(wheel.wheel, chunk),
                 std::string("may not wait for\n  ") + own.name);
    vem_lock_released(lock(0));
    const vem_lock_class before{"before", own.step - 1, VEM_LOCK_ALONE};
    vem_lock_taken(&before, lock(0), 0);
    vem_lock_wanted(&own, lock(1), 0);
    vem_lock_released(lock(0));
    vem_mem_chunk_destroy(chunk);
}

INSTANTIATE_TEST_SUITE_P(of_each_class, runtime_lock,
                         ::testing::Values(lock_of_runtime{"turn", VEM_LOCK_TURN, turn_clock},
                                           lock_of_runtime{"chunk", VEM_LOCK_CHUNK, take_record},
                                           lock_of_runtime{"schedule", VEM_LOCK_SCHEDULE,
                                                           make_manager},
                                           lock_of_runtime{"wheel", VEM_LOCK_WHEEL, start_timer}),
                         name_of_row);

#endif
