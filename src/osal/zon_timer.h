// zon_timer.h - idle timers of flows and fragments on the engine's wheel.
//
// A timer is started, restarted and stopped under the lock of the record that embeds it, or while
// nobody can take that record into use. The two
// handlers are the engine's (zon_timer_common); the platform calls them on the timer thread, or on
// the thread that turns a manual clock.

#pragma once

#include "zon_engine_defs.h"

struct zon_frag_item_;

// timervalue in milliseconds; 0 arms 1024 ms. Nothing happens without a wheel.
void zon_timer_flow_start(zon_tw_wheel_t* zon_tw, zon_tw_timer_t* timer, uint32_t timervalue,
                          zon_fid_t* fid);
void zon_timer_frag_start(zon_tw_wheel_t* zon_tw, zon_tw_timer_t* timer, uint32_t timervalue,
                          zon_frag_item_* frag_item);
// Never waits: an expiry that is under way is told cancelled.
void zon_timer_stop(zon_tw_timer_t* timer);
bool zon_timer_running(const zon_tw_timer_t* timer);

// Copies the timer as it stands, although its neighbours on the wheel come and go. The copy is
// never started or stopped.
void zon_timer_copy(const zon_tw_timer_t* timer, zon_tw_timer_t* copy);

// Inside a handler: has the timer been started or stopped since this expiry was taken off the
// wheel?
bool zon_timer_expiry_cancelled(const zon_tw_timer_t* timer);
// Inside a handler: has the same expiry come again very soon, unless it was cancelled meanwhile.
void zon_timer_retry_expiry(zon_tw_timer_t* timer);
// Waits until no handler runs and lets none start, unless called from inside a handler. Starts and
// stops stay allowed.
void zon_timer_quiesce(zon_tw_wheel_t wheel);

void* zon_timer_create_process(void* arg);

void zon_timer_handle_flow_idle_timeout_full(vem_tw_wheel tw, vem_tw_timer* tmr, void* context);
void zon_timer_handle_frag_flow_idle_timeout_full(vem_tw_wheel tw, vem_tw_timer* tmr,
                                                  void* context);
