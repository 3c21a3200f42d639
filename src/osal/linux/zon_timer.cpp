// zon_timer.cpp - the engine's timers on the runtime's wheel, and the thread that runs what has
// expired.
//
// Owns   nothing: wheel, manager and thread live in fields that the caller hands in.
// Locks  none of its own. A timer is started and stopped under the lock of the record that embeds
// it. Knows nothing of flows and fragments but where their handlers are.
//
// The lines of this unit go to standard output, whatever the trace switches say: hosts look for
// them there.

#include "osal/zon_timer.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <utility>

#include "vem/vem_dm.h"
#include "vem/vem_thread.h"
#include "vem/vem_tw.h"

namespace {

constexpr uint32_t wheel_slots = 1024;
constexpr uint32_t wheel_tick_us = 15000;
constexpr uint32_t wheel_levels = 3;
constexpr uint32_t idle_ms_for_zero = 1024;
constexpr uint32_t retry_ms = 1;

// Read once a start: the wheel may be made or destroyed meanwhile, which stores the handle
// atomically. Null without a wheel.
zon_tw_wheel_t present_wheel(zon_tw_wheel_t* zon_tw) {
    return zon_tw == nullptr ? nullptr : std::atomic_ref(*zon_tw).load(std::memory_order_acquire);
}

uint32_t armed_ms(uint32_t timervalue) {
    return timervalue == 0 ? idle_ms_for_zero : timervalue;
}

// Makes manager and thread on a wheel. Null when all of it stands, else what failed.
const char* run_wheel(zon_tw_wheel_t wheel, zon_tw_dm_handle_t* manager, zon_tw_pid_t* thread) {
    if (vem_dm_create(manager, "ZON Timer Wheel vdm", 0) != 0)
        return "\nzon_timer_tw_init: Creating Timer Wheel VDM Failed";
    if (vem_tw_attach_vdm(wheel, *manager) != 0)
        return "\nzon_timer_tw_init: ZON Timer Wheel Attaching to VDM Failed";
    if (vem_thread_create(thread, 0, zon_timer_create_process, *manager, "ZON Timer Wheel Process",
                          0) != 0)
        return "\nzon_timer_tw_init: ZON Timer Process Creation Failed";
    return nullptr;
}

// The exit comes first on purpose: on a thread that the runtime started it does not return, and the
// line is for callers from elsewhere.
void* end_timer_thread(const char* why) {
    vem_thread_exit(0);
    puts(why);
    return nullptr;
}

}  // namespace

bool zon_timer_tw_init(zon_tw_wheel_t* zon_tw, zon_tw_dm_handle_t* zon_timer_vdm,
                       zon_tw_pid_t* zon_timer_process_create) {
    if (vem_tw_init_wheel(zon_tw, wheel_slots, wheel_tick_us, wheel_levels, 0, 0, 0) != 0) {
        puts("\nzon_timer_tw_init: ZON Timer Wheel Creation Failed");
        return false;
    }
    zon_tw_pid_t thread{};
    if (const char* failure = run_wheel(*zon_tw, zon_timer_vdm, &thread); failure != nullptr) {
        puts(failure);
        zon_timer_tw_destroy(zon_tw, zon_timer_vdm, nullptr);
        return false;
    }
    *zon_timer_process_create = thread;
    return true;
}

void zon_timer_tw_destroy(zon_tw_wheel_t* zon_tw, zon_tw_dm_handle_t* zon_timer_vdm,
                          zon_tw_pid_t* vdm_pid) {
    // Detaches the wheel and lets a handler that is running finish with it, unless this is one.
    vem_tw_quiesce(present_wheel(zon_tw));
    vem_tw_destroy_wheel(zon_tw);
    vem_dm_destroy(zon_timer_vdm);
    // There is no thread to join before the first creation nor after a join; an id of 0 says so.
    if (vdm_pid != nullptr && *vdm_pid != 0)
        pthread_join(std::exchange(*vdm_pid, 0), nullptr);
}

void* zon_timer_create_process(void* arg) {
    const auto manager = static_cast<vem_dm_handle>(arg);
    if (manager == nullptr)
        return end_timer_thread("zon_timer_create_process: Failed thread");
    for (;;) {
        if (vem_dm_wait(manager) != 0)
            return end_timer_thread("zon_timer_create_process: Failed wait");
        if (vem_dm_dispatch(manager) != 0)
            return end_timer_thread("zon_timer_create_process: Failed dispatch");
    }
}

void zon_timer_flow_start(zon_tw_wheel_t* zon_tw, zon_tw_timer_t* timer, uint32_t timervalue,
                          zon_fid_t* fid) {
    zon_tw_wheel_t wheel = present_wheel(zon_tw);
    if (timer == nullptr || wheel == nullptr)
        return;
    const int refused = vem_tw_timer_start(wheel, timer, armed_ms(timervalue),
                                           zon_timer_handle_flow_idle_timeout_full, fid);
    if (refused != 0)
        printf("zon_timer_flow_start: start error: %s, trying to start timer at %d\n",
               strerror(refused), static_cast<int>(timervalue));
    if (!vem_tw_timer_running(timer))
        puts("zon_timer_flow_start: Error: Timer cannot start");
}

void zon_timer_frag_start(zon_tw_wheel_t* zon_tw, zon_tw_timer_t* timer, uint32_t timervalue,
                          zon_frag_item_* frag_item) {
    zon_tw_wheel_t wheel = present_wheel(zon_tw);
    if (timer == nullptr || wheel == nullptr)
        return;
    vem_tw_timer_start(wheel, timer, armed_ms(timervalue),
                       zon_timer_handle_frag_flow_idle_timeout_full, frag_item);
    if (!vem_tw_timer_running(timer))
        puts("zon_timer_frag_start: Error: Timer cannot start");
}

void zon_timer_stop(zon_tw_timer_t* timer) {
    vem_tw_timer_stop(timer);
}

void zon_timer_copy(const zon_tw_timer_t* timer, zon_tw_timer_t* copy) {
    vem_tw_timer_copy(timer, copy);
}

bool zon_timer_running(const zon_tw_timer_t* timer) {
    return vem_tw_timer_running(timer);
}

bool zon_timer_expiry_cancelled(const zon_tw_timer_t* timer) {
    return vem_tw_expiry_cancelled(timer);
}

void zon_timer_retry_expiry(zon_tw_timer_t* timer) {
    vem_tw_expiry_retry(timer, retry_ms);
}

void zon_timer_quiesce(zon_tw_wheel_t wheel) {
    vem_tw_quiesce(wheel);
}

// The kind of a timer is the handler that it was started with.
void zon_timer_set_type(zon_tw_wheel_t*, zon_tw_timer_t*, zon_timer_type) {}
