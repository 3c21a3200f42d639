// vem_attached_wheel.h - what the runtime's tests are written with: a clock turned by hand, a wheel
// that is attached to a manager, and a thread that dispatches.
#ifndef VEM_ATTACHED_WHEEL_H
#define VEM_ATTACHED_WHEEL_H

#include <gtest/gtest.h>

#include <cstdint>

#include "vem/vem_clock.h"
#include "vem/vem_dm.h"
#include "vem/vem_thread.h"
#include "vem/vem_tw.h"

// The mode for one test; afterwards the clock is the system's again.
class clock_in_mode {
public:
    explicit clock_in_mode(int mode) { EXPECT_EQ(vem_clock_set_mode(mode), 0); }
    ~clock_in_mode() { EXPECT_EQ(vem_clock_set_mode(VEM_CLOCK_SYSTEM), 0); }
    clock_in_mode(const clock_in_mode&) = delete;
    clock_in_mode& operator=(const clock_in_mode&) = delete;
};

struct wheel_shape {
    uint32_t slots = 1024;
    uint32_t tick_us = 15000;
    uint32_t levels = 3;
};

class attached_wheel {
public:
    explicit attached_wheel(const wheel_shape& shape = {}) : made_at_us_(vem_clock_now_us()) {
        EXPECT_EQ(vem_tw_init_wheel(&wheel, shape.slots, shape.tick_us, shape.levels, 0, 0, 0), 0);
        EXPECT_EQ(vem_dm_create(&manager, "test manager", 0), 0);
        EXPECT_EQ(vem_tw_attach_vdm(wheel, manager), 0);
    }
    ~attached_wheel() {
        vem_tw_destroy_wheel(&wheel);
        vem_dm_destroy(&manager);
    }
    attached_wheel(const attached_wheel&) = delete;
    attached_wheel& operator=(const attached_wheel&) = delete;

    // Exact with a clock turned by hand.
    uint64_t made_at_us() const { return made_at_us_; }

    vem_tw_wheel wheel = nullptr;
    vem_dm_handle manager = nullptr;

private:
    uint64_t made_at_us_;
};

// Waits and dispatches until its manager is destroyed.
class dispatching_thread {
public:
    explicit dispatching_thread(vem_dm_handle manager) {
        EXPECT_EQ(vem_thread_create(&id_, 0, loop, manager, "test dispatch", 0), 0);
    }
    ~dispatching_thread() { join(); }
    dispatching_thread(const dispatching_thread&) = delete;
    dispatching_thread& operator=(const dispatching_thread&) = delete;

    void join() {
        if (id_ != 0) {
            pthread_join(id_, nullptr);
            id_ = 0;
        }
    }

private:
    static void* loop(void* arg) {
        auto* manager = static_cast<vem_dm_handle>(arg);
        while (vem_dm_wait(manager) == 0 && vem_dm_dispatch(manager) == 0) {
        }
        return nullptr;
    }

    pthread_t id_ = 0;
};

// Counts its expiries and remembers when the last one was.
struct counted_timer {
    vem_tw_timer timer{};
    uint32_t expiries = 0;
    uint64_t expired_at_us = 0;

    counted_timer() = default;
    ~counted_timer() { vem_tw_timer_stop(&timer); }
    counted_timer(const counted_timer&) = delete;
    counted_timer& operator=(const counted_timer&) = delete;

    static void expired(vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* self = static_cast<counted_timer*>(context);
        ++self->expiries;
        self->expired_at_us = vem_clock_now_us();
    }
    int start(vem_tw_wheel wheel, uint32_t ms) {
        return vem_tw_timer_start(wheel, &timer, ms, expired, this);
    }
};

#endif
