// zon_lanes_test.cpp - who owns a lane, and until when.

#include "osal/zon_lanes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "support/lanes.h"
#include "support/parked_thread.h"

namespace {

using zon_test::own_a_lane;

class lanes : public ::testing::Test {
protected:
    void SetUp() override { zon_lanes_end(); }
    void TearDown() override { zon_lanes_end(); }
};

template <class function>
void on_another_thread(function body) {
    std::thread(body).join();
}

TEST_F(lanes, belong_to_threads_that_met_another_several_times) {
    on_another_thread([] {
        EXPECT_LT(zon_own_lane(), 0);
        zon_lane_met_another();
        EXPECT_LT(zon_own_lane(), 0) << "once is chance";
        EXPECT_FALSE(zon_lanes_are_used());
        own_a_lane();
        EXPECT_TRUE(zon_lanes_are_used());
    });
    EXPECT_LT(zon_own_lane(), 0) << "another thread's meetings are not this one's";
}

TEST_F(lanes, are_left_to_others_by_a_thread_that_ends) {
    int first = -1;
    int second = -1;
    on_another_thread([&] {
        own_a_lane();
        first = zon_own_lane();
    });
    on_another_thread([&] {
        own_a_lane();
        second = zon_own_lane();
    });
    EXPECT_EQ(first, second);
}

TEST_F(lanes, are_one_for_each_thread_and_none_for_those_that_come_too_late) {
    std::atomic<size_t> asked{0};
    std::vector<int> owned(zon_lane_count + 2, -2);
    std::vector<std::thread> threads;
    for (int& lane : owned)
        threads.emplace_back([&lane, &asked, &owned] {
            for (int meeting = 0; meeting < 100; ++meeting)
                zon_lane_met_another();
            lane = zon_own_lane();
            ++asked;
            while (asked != owned.size())
                std::this_thread::yield();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(std::count(owned.begin(), owned.end(), -1), 2);
    EXPECT_EQ(std::set<int>(owned.begin(), owned.end()).size(), zon_lane_count + 1);
}

TEST_F(lanes, end_with_the_engine_whoever_owns_them) {
    on_another_thread([] {
        own_a_lane();
        zon_lanes_end();
        EXPECT_LT(zon_own_lane(), 0);
        EXPECT_FALSE(zon_lanes_are_used());
        zon_lane_met_another();
        EXPECT_LT(zon_own_lane(), 0) << "meetings are counted anew";
        own_a_lane();
    });
}

// Its end must not give up the lane that somebody owns by now.
TEST_F(lanes, of_an_engine_that_is_gone_are_no_matter_to_a_thread_that_ends) {
    std::atomic<bool> owns{false};
    std::atomic<bool> may_end{false};
    std::thread late([&] {
        own_a_lane();
        owns = true;
        while (!may_end)
            std::this_thread::yield();
    });
    while (!owns)
        std::this_thread::yield();
    zon_lanes_end();
    on_another_thread([&] {
        own_a_lane();
        const int lane = zon_own_lane();
        may_end = true;
        late.join();
        int other = -1;
        on_another_thread([&other] {
            own_a_lane();
            other = zon_own_lane();
        });
        EXPECT_NE(other, lane);
    });
}

// The thread goes from one lock to the other and finds each of them held.
TEST_F(lanes, are_owned_once_shared_locks_were_found_busy) {
    recursive_lock locks[2]{};
    zon_lock_shared_list(&locks[0]);
    zon_lock_shared_list(&locks[0]);
    EXPECT_LT(zon_own_lane(), 0) << "a thread does not meet itself";
    zon_unlock_internal(&locks[0]);
    zon_unlock_internal(&locks[0]);
    constexpr int rounds = 8;
    int lane_after[rounds];
    zon_lock_internal(&locks[0]);
    zon_test::parked_thread other([&] {
        for (int round = 0; round < rounds; ++round) {
            zon_lock_shared_list(&locks[round % 2]);
            lane_after[round] = zon_own_lane();
            zon_unlock_internal(&locks[round % 2]);
        }
    });
    for (int round = 0; round < rounds; ++round) {
        other.wait_until_parked();
        zon_lock_internal(&locks[(round + 1) % 2]);
        zon_unlock_internal(&locks[round % 2]);
    }
    zon_unlock_internal(&locks[rounds % 2]);
    other.finish();
    EXPECT_LT(lane_after[0], 0);
    EXPECT_GE(lane_after[rounds - 1], 0);
}

}  // namespace
