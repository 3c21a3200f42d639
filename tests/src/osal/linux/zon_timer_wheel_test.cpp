// zon_timer_wheel_test.cpp - the engine's timer wheel and its thread are set up and destroyed.

#include <atomic>
#include <filesystem>
#include <fstream>
#include <semaphore>
#include <string>
#include <thread>

#include "src/osal/linux/zon_timer_fixture.h"
#include "support/captured_output.h"
#include "vem/vem_dm.h"
#include "vem/vem_tw.h"

using namespace zon_test;

namespace {

using timer_wheel = wheel_fixture;

bool timer_thread_lives() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        if (name == "ZON Timer Wheel")  // the system keeps 15 characters of a name
            return true;
    }
    return false;
}

// A thread names itself once it runs, and the system lists it for a moment after its end.
bool timer_thread_becomes(bool alive) {
    for (int look = 0; look < 100'000 && timer_thread_lives() != alive; ++look)
        std::this_thread::yield();
    return timer_thread_lives() == alive;
}

}  // namespace

TEST_F(timer_wheel, is_set_up_with_a_manager_and_a_named_thread) {
    EXPECT_TRUE(timer_thread_becomes(false));
    captured_output output(stdout);
    make_wheel();
    EXPECT_NE(wheel, nullptr);
    EXPECT_NE(manager, nullptr);
    EXPECT_TRUE(timer_thread_becomes(true));
    EXPECT_EQ(output.text(), "");
}

TEST_F(timer_wheel, is_destroyed_with_its_thread_joined) {
    make_wheel();
    EXPECT_TRUE(timer_thread_becomes(true));
    zon_timer_tw_destroy(&wheel, &manager, &thread);
    EXPECT_EQ(wheel, nullptr);
    EXPECT_EQ(manager, nullptr);
    EXPECT_TRUE(timer_thread_becomes(false));
}

namespace {

std::atomic<bool> thread_has_ended;

// Makes the end of the thread that runs it slow, and noted.
void slow_down_the_end(vem_tw_wheel, vem_tw_timer*, void*) {
    struct note_at_end {
        bool armed = true;
        ~note_at_end() {
            for (int turn = 0; turn < 1000; ++turn)
                std::this_thread::yield();
            thread_has_ended = armed;
        }
    };
    thread_local note_at_end note;
    note.armed = true;
}

}  // namespace

TEST_F(timer_wheel, is_destroyed_only_after_its_thread_has_ended) {
    thread_has_ended = false;
    ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_MANUAL_WAIT), zon_error_none);
    make_wheel();
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, slow_down_the_end, nullptr), 0);
    advance_ms(10 + two_ticks_ms);
    zon_timer_tw_destroy(&wheel, &manager, &thread);
    EXPECT_TRUE(thread_has_ended) << "the thread was not joined";
}

TEST_F(timer_wheel, is_destroyed_without_a_join_when_no_thread_id_is_given) {
    make_wheel();
    zon_timer_tw_destroy(&wheel, &manager, nullptr);
    EXPECT_EQ(wheel, nullptr);
    EXPECT_EQ(pthread_join(thread, nullptr), 0) << "the thread was joined already, or does not end";
}

TEST_F(timer_wheel, that_cannot_be_made_is_reported) {
    captured_output output(stdout);
    EXPECT_FALSE(zon_timer_tw_init(nullptr, &manager, &thread));
    EXPECT_EQ(output.text(), "\nzon_timer_tw_init: ZON Timer Wheel Creation Failed\n");
    EXPECT_EQ(manager, nullptr);
}

TEST_F(timer_wheel, is_undone_and_reported_when_the_manager_cannot_be_made) {
    captured_output output(stdout);
    EXPECT_FALSE(zon_timer_tw_init(&wheel, nullptr, &thread));
    EXPECT_EQ(output.text(), "\nzon_timer_tw_init: Creating Timer Wheel VDM Failed\n");
    EXPECT_EQ(wheel, nullptr);
}

TEST_F(timer_wheel, is_undone_and_reported_when_the_thread_cannot_be_made) {
    pthread_attr_t kept;
    ASSERT_EQ(pthread_getattr_default_np(&kept), 0);
    pthread_attr_t impossible;
    pthread_attr_init(&impossible);
    ASSERT_EQ(pthread_attr_setstacksize(&impossible, size_t{1} << 50),
              0);  // more than there are addresses
    ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
    const zon_tw_pid_t untouched = thread;
    {
        captured_output output(stdout);
        EXPECT_FALSE(zon_timer_tw_init(&wheel, &manager, &thread));
        EXPECT_EQ(output.text(), "\nzon_timer_tw_init: ZON Timer Process Creation Failed\n");
    }
    ASSERT_EQ(pthread_setattr_default_np(&kept), 0);
    pthread_attr_destroy(&impossible);
    pthread_attr_destroy(&kept);
    EXPECT_EQ(wheel, nullptr);
    EXPECT_EQ(manager, nullptr);
    EXPECT_EQ(thread, untouched);
}

TEST_F(timer_wheel, may_be_set_up_again) {
    for (int round = 0; round < 200;
         ++round) {  // more often than the process could have managers and wheels at once
        make_wheel();
        zon_timer_tw_destroy(&wheel, &manager, &thread);
    }
}

namespace {

// A handler that is running while somebody destroys the wheel.
struct running_handler {
    zon_tw_wheel_t* wheel = nullptr;
    std::binary_semaphore entered{0};
    bool had_wheel = false;
    zon_tw_timer_t other{};
    zon_fid_t no_fid = ZON_NULL_FID;

    zon_tw_wheel_t seen() const { return std::atomic_ref(*wheel).load(std::memory_order_acquire); }
    static void run(vem_tw_wheel tw, vem_tw_timer*, void* context) {
        auto* self = static_cast<running_handler*>(context);
        self->entered.release();
        while (!vem_tw_is_detached(tw))
            std::this_thread::yield();
        for (int turn = 0; turn < 1000 && self->seen() != nullptr; ++turn)
            std::this_thread::yield();
        self->had_wheel = self->seen() != nullptr;
        zon_timer_flow_start(self->wheel, &self->other, 1000, &self->no_fid);
    }
};

}  // namespace

TEST_F(timer_wheel, stays_until_the_handler_that_is_running_has_done_with_it) {
    ASSERT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
    captured_output output(stdout);
    make_wheel();
    running_handler handler;
    handler.wheel = &wheel;
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 1, running_handler::run, &handler), 0);
    handler.entered.acquire();
    zon_timer_tw_destroy(&wheel, &manager, &thread);
    EXPECT_TRUE(handler.had_wheel);
    EXPECT_FALSE(zon_timer_running(&handler.other)) << "destruction disarms what was started last";
    EXPECT_EQ(wheel, nullptr);
    EXPECT_EQ(output.text(), "");
}

TEST_F(timer_wheel, may_be_made_and_destroyed_while_packets_start_timers) {
    captured_output output(stdout);  // starts may be refused for a moment, and say so
    std::atomic<bool> stop{false};
    std::thread packets([&] {
        while (!stop) {
            zon_timer_flow_start(&wheel, &timer, 1000, &no_fid);
            zon_timer_stop(&timer);
        }
    });
    for (int round = 0; round < 50; ++round) {
        make_wheel();
        std::this_thread::yield();
        zon_timer_tw_destroy(&wheel, &manager, &thread);
    }
    stop = true;
    packets.join();
    EXPECT_EQ(wheel, nullptr);
    EXPECT_FALSE(zon_timer_running(&timer));
}

TEST_F(timer_wheel, may_be_destroyed_by_its_own_handler) {
    struct engine_fields {
        zon_tw_wheel_t* wheel;
        zon_tw_dm_handle_t* manager;
    } fields{&wheel, &manager};
    const auto destroy = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        const auto* own = static_cast<engine_fields*>(context);
        zon_timer_tw_destroy(own->wheel, own->manager, nullptr);
    };
    for (const zon_clock_mode_e mode : {ZON_CLOCK_MANUAL_INLINE, ZON_CLOCK_MANUAL_WAIT}) {
        ASSERT_EQ(zon_clock_set_mode(mode), zon_error_none);
        make_wheel();
        ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, destroy, &fields), 0);
        advance_ms(10 + two_ticks_ms);
        EXPECT_EQ(pthread_join(thread, nullptr), 0);
        EXPECT_EQ(wheel, nullptr);
        EXPECT_EQ(manager, nullptr);
    }
}

TEST_F(timer_wheel, lets_no_handler_turn_or_switch_the_clock) {
    struct refusals {
        zon_error_t turn = zon_error_none;
        zon_error_t turn_to = zon_error_none;
        zon_error_t mode = zon_error_none;
    } got;
    const auto attempt = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* seen = static_cast<refusals*>(context);
        seen->turn = zon_clock_advance_us(1);
        seen->turn_to = zon_clock_advance_to_us(zon_clock_now_us() + 1);
        seen->mode = zon_clock_set_mode(ZON_CLOCK_SYSTEM);
    };
    make_wheel();
    ASSERT_EQ(vem_tw_timer_start(wheel, &timer, 10, attempt, &got), 0);
    advance_ms(10 + two_ticks_ms);
    EXPECT_EQ(got.turn, zon_error_parameter_invalid);
    EXPECT_EQ(got.turn_to, zon_error_parameter_invalid);
    EXPECT_EQ(got.mode, zon_error_parameter_invalid);
}

// Outside a thread of the runtime's own the entry returns and says why.
TEST(timer_thread, without_a_manager_ends_with_a_line) {
    captured_output output(stdout);
    EXPECT_EQ(zon_timer_create_process(nullptr), nullptr);
    EXPECT_EQ(output.text(), "zon_timer_create_process: Failed thread\n");
}

TEST(timer_thread, of_a_destroyed_manager_ends_with_a_line) {
    vem_dm_handle manager = nullptr;
    ASSERT_EQ(vem_dm_create(&manager, "short-lived", 0), 0);
    vem_dm_handle stale = manager;
    ASSERT_EQ(vem_dm_destroy(&manager), 0);
    captured_output output(stdout);
    EXPECT_EQ(zon_timer_create_process(stale), nullptr);
    EXPECT_EQ(output.text(), "zon_timer_create_process: Failed wait\n");
}
