// vem_timing_wheel.h - the data structure behind a wheel: levels of slots, each slot a list of
// timers.
//
// Owns   the slots. The timers are their owners' and are linked through their own fields.
// Locks  none; the caller holds the shard's lock around every call.
// Knows nothing of threads and reads no clock.
#ifndef VEM_TIMING_WHEEL_H
#define VEM_TIMING_WHEEL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "vem/vem_tw.h"

namespace vem {

constexpr uint64_t never = UINT64_MAX;

// What tm_ticks says: the number of the timing wheel that the timer is on (0: none), whether it is
// armed, and the upper part of its due tick. A timer that has expired keeps the number: its
// callback may be running there. A stopped one keeps nothing. Read without a lock, hence atomic.
struct timer_word {
    static constexpr uint32_t armed_bit = 1U << 31;

    uint32_t bits = 0;

    static timer_word load(const vem_tw_timer& timer);
    void store(vem_tw_timer& timer) const;

    bool armed() const { return (bits & armed_bit) != 0; }
    uint32_t wheel_number() const { return (bits & ~armed_bit) >> 16; }
    timer_word disarmed() const { return {bits & ~armed_bit}; }
};

// Ticks count from epoch_us.
struct timing_wheel_shape {
    uint32_t slots = 0;
    uint32_t tick_us = 0;
    uint32_t levels = 0;
    uint64_t epoch_us = 0;
};

// Divides microseconds by the length of a tick without a division.
class tick_length {
public:
    explicit tick_length(uint32_t tick_us) : tick_us_(tick_us), reciprocal_(UINT64_MAX / tick_us) {}

    uint64_t us() const { return tick_us_; }
    uint64_t ticks_begun(uint64_t us) const;  // rounded down
    uint64_t ticks_to_pass(uint64_t us) const { return ticks_begun(us + tick_us_ - 1); }

private:
    uint64_t tick_us_;
    uint64_t reciprocal_;
};

// A timer sits on the lowest level on which its due tick differs from the present tick only in that
// level's digit, or below. So all timers of a level come due before those of the next, a level's
// next slot is the first set bit of its bitmap, and timers of one tick keep the order in which they
// were started.
class alignas(64) timing_wheel {
public:
    // NULL when there is no memory.
    static std::unique_ptr<timing_wheel> create(uint32_t number, const timing_wheel_shape& shape);

    // Arms a timer, which may be armed on this wheel already. True when it made next_due_us
    // earlier.
    bool start(vem_tw_timer& timer, uint64_t now_us, uint32_t ms);

    // Takes an armed timer of this wheel off it.
    void stop(vem_tw_timer& timer);

    // Moves timers that are due by now_us to the expired queue, in the order of their due ticks.
    // Stops after `budget` timers were moved between levels, so that the lock is not held for long;
    // false when it has to be called again.
    bool expire(uint64_t now_us, uint32_t budget);

    // When the first of the expired queue was due; `never` when it is empty.
    uint64_t first_expired_tick() const;

    // The first of the expired queue, disarmed; NULL when it is empty.
    vem_tw_timer* take_expired();

    // No expiry comes before this reading; 0 while expired timers wait, `never` when nothing is
    // armed. It may be too early after a stop and while timers sit on upper levels; expire() then
    // brings it forward.
    uint64_t next_due_us() const;

    void disarm_all();

private:
    static constexpr uint32_t most_levels = 64;

    timing_wheel(uint32_t number, uint32_t slot_bits, uint32_t levels, uint32_t tick_us,
                 uint64_t epoch_us);

    bool allocate();
    uint64_t present_tick(uint64_t now_us) const;
    uint64_t due_tick(const vem_tw_timer& timer) const;
    void catch_up(uint64_t now_us);
    void take_out(vem_tw_timer& timer);
    uint64_t place(vem_tw_timer& timer, uint64_t due);
    void occupy(uint32_t level, uint64_t slot);
    void vacate(const vem_tw_links* slot_head);
    uint64_t find_next_tick() const;
    uint64_t first_slot_after(uint32_t level, uint64_t digit) const;
    void open_slot(uint64_t tick);
    bool settle_cascade(uint32_t& budget);

    const uint32_t number_;
    const uint32_t slot_bits_;
    const uint32_t levels_;
    const tick_length tick_;
    const uint64_t epoch_us_;

    uint64_t current_ = 0;        // all that is due by this tick has expired or waits in cascade_
    uint64_t next_tick_ = never;  // no slot wants attention before it
    uint64_t catch_up_us_ = 0;    // the next start from then on looks which tick it is
    vem_tw_links expired_;
    vem_tw_links cascade_;  // taken from an upper level, to be placed anew
    vem_tw_links beyond_;   // past the top level's present round
    std::unique_ptr<vem_tw_links[]> slots_;
    std::unique_ptr<uint64_t[]> occupied_;  // one bit a slot
    std::array<uint32_t, most_levels> occupied_slots_{};
    std::array<uint8_t, 64> level_of_bit_{};
};

}  // namespace vem

#endif
