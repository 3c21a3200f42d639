// vem_timing_wheel.cpp - places timers in slots and takes them out again when they are due.
//
// Owns   the slots. The timers are their owners' and are linked through their own fields.
// Locks  none; the caller holds the shard's lock around every call.
// Knows nothing of threads and reads no clock.
#include "vem_timing_wheel.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <new>

namespace vem {

namespace {

static_assert(sizeof(vem_tw_links) == 16);
static_assert(sizeof(vem_tw_timer_basic) == 24);
static_assert(sizeof(vem_tw_timer) == 40);
static_assert(offsetof(vem_tw_timer, callback) == 24);
static_assert(offsetof(vem_tw_timer, context) == 32);

// The padding behind tm_ticks holds the lower part of an armed timer's due tick. It may hold
// anything in a timer that does not run: an assignment of zeros to a record need not reach its
// padding.
constexpr std::size_t due_offset = offsetof(vem_tw_timer_basic, tm_ticks) + sizeof(uint32_t);
static_assert(due_offset + sizeof(uint32_t) == sizeof(vem_tw_timer_basic));

// A due tick is kept in 48 bits, which is plenty: the longest time-out has fewer than 2^43 ticks.
constexpr uint32_t due_bits = 48;
constexpr uint64_t due_mask = (uint64_t{1} << due_bits) - 1;

std::atomic_ref<uint32_t> word_of(const vem_tw_timer& timer) {
    return std::atomic_ref<uint32_t>(const_cast<vem_tw_timer&>(timer).timer.tm_ticks);
}

uint32_t low_due(const vem_tw_timer& timer) {
    uint32_t low = 0;
    std::memcpy(&low, reinterpret_cast<const char*>(&timer) + due_offset, sizeof(low));
    return low;
}

void set_low_due(vem_tw_timer& timer, uint32_t low) {
    std::memcpy(reinterpret_cast<char*>(&timer) + due_offset, &low, sizeof(low));
}

uint64_t kept_due(const vem_tw_timer& timer) {
    return uint64_t{timer_word::load(timer).bits & 0xFFFF} << 32 | low_due(timer);
}

vem_tw_timer* timer_of(vem_tw_links* links) {
    return reinterpret_cast<vem_tw_timer*>(links);
}

void make_empty(vem_tw_links& head) {
    head = {&head, &head};
}
bool is_empty(const vem_tw_links& head) {
    return head.tw_next == &head;
}

void append(vem_tw_links& head, vem_tw_links& links) {
    links.tw_next = &head;
    links.tw_prev = head.tw_prev;
    head.tw_prev->tw_next = &links;
    head.tw_prev = &links;
}

void remove(vem_tw_links& links) {
    links.tw_prev->tw_next = links.tw_next;
    links.tw_next->tw_prev = links.tw_prev;
    links = {nullptr, nullptr};
}

void append_all(vem_tw_links& head, vem_tw_links& from) {
    if (is_empty(from)) {
        return;
    }
    from.tw_next->tw_prev = head.tw_prev;
    head.tw_prev->tw_next = from.tw_next;
    from.tw_prev->tw_next = &head;
    head.tw_prev = from.tw_prev;
    make_empty(from);
}

void disarm(vem_tw_timer& timer) {
    timer_word::load(timer).disarmed().store(timer);
}

uint32_t levels_to_span(uint32_t slot_bits, uint32_t tick_us) {
    const uint64_t longest = uint64_t{UINT32_MAX} * 1000 / tick_us + 2;
    return (static_cast<uint32_t>(std::bit_width(longest)) + slot_bits - 1) / slot_bits;
}

}  // namespace

timer_word timer_word::load(const vem_tw_timer& timer) {
    return {word_of(timer).load(std::memory_order_relaxed)};
}

void timer_word::store(vem_tw_timer& timer) const {
    word_of(timer).store(bits, std::memory_order_relaxed);
}

uint64_t tick_length::ticks_begun(uint64_t us) const {
    __extension__ using wide = unsigned __int128;
    auto ticks = static_cast<uint64_t>((wide{us} * reciprocal_) >> 64);
    // The rounded reciprocal gives a few ticks too few at most.
    for (uint64_t rest = us - ticks * tick_us_; rest >= tick_us_; rest -= tick_us_) {
        ++ticks;
    }
    return ticks;
}

timing_wheel::timing_wheel(uint32_t number, uint32_t slot_bits, uint32_t levels, uint32_t tick_us,
                           uint64_t epoch_us)
    : number_(number), slot_bits_(slot_bits), levels_(levels), tick_(tick_us), epoch_us_(epoch_us) {
    make_empty(expired_);
    make_empty(cascade_);
    make_empty(beyond_);
    for (uint32_t bit = 0; bit < level_of_bit_.size(); ++bit) {
        level_of_bit_[bit] = static_cast<uint8_t>(bit / slot_bits);
    }
}

std::unique_ptr<timing_wheel> timing_wheel::create(uint32_t number,
                                                   const timing_wheel_shape& shape) {
    const auto slot_bits = static_cast<uint32_t>(std::bit_width(std::max(shape.slots, 2U) - 1));
    const uint32_t spanning = levels_to_span(slot_bits, shape.tick_us);
    const uint32_t most = std::max(spanning, (due_bits - 1) / slot_bits);
    std::unique_ptr<timing_wheel> wheel(
        new (std::nothrow) timing_wheel(number, slot_bits, std::clamp(shape.levels, spanning, most),
                                        shape.tick_us, shape.epoch_us));
    if (wheel == nullptr || !wheel->allocate()) {
        return nullptr;
    }
    return wheel;
}

bool timing_wheel::allocate() {
    const std::size_t slots = std::size_t{levels_} << slot_bits_;
    slots_.reset(new (std::nothrow) vem_tw_links[slots]);
    occupied_.reset(new (std::nothrow) uint64_t[slots / 64 + 1]());
    if (slots_ == nullptr || occupied_ == nullptr) {
        return false;
    }
    std::for_each_n(slots_.get(), slots, make_empty);
    return true;
}

uint64_t timing_wheel::present_tick(uint64_t now_us) const {
    return now_us > epoch_us_ ? tick_.ticks_begun(now_us - epoch_us_) : 0;
}

uint64_t timing_wheel::due_tick(const vem_tw_timer& timer) const {
    return current_ + ((kept_due(timer) - current_) & due_mask);
}

bool timing_wheel::start(vem_tw_timer& timer, uint64_t now_us, uint32_t ms) {
    if (timer_word::load(timer).armed()) {
        take_out(timer);
    }
    if (now_us >= catch_up_us_) {
        catch_up(now_us);
    }
    const uint64_t since_epoch_us = now_us > epoch_us_ ? now_us - epoch_us_ : 0;
    const uint64_t due = tick_.ticks_to_pass(since_epoch_us + uint64_t{std::max(ms, 1U)} * 1000);
    const uint64_t attention = place(timer, std::max(due, current_ + 1));
    if (attention >= next_tick_) {
        return false;
    }
    next_tick_ = attention;
    return is_empty(expired_);
}

// Once a tick: unless something happens up to now, makes now's tick the present one, so that timers
// find their places on low levels.
void timing_wheel::catch_up(uint64_t now_us) {
    const uint64_t now_tick = present_tick(now_us);
    if (now_tick < next_tick_) {
        current_ = std::max(current_, now_tick);
    }
    catch_up_us_ = epoch_us_ + (now_tick + 1) * tick_.us();
}

void timing_wheel::stop(vem_tw_timer& timer) {
    take_out(timer);
    timer_word{}.store(timer);
}

// Its word stays: who looks at a timer that is being started anew sees it armed throughout.
void timing_wheel::take_out(vem_tw_timer& timer) {
    vem_tw_links& links = timer.timer.tm_links;
    const vem_tw_links* next = links.tw_next;
    const bool was_alone = next == links.tw_prev;
    remove(links);
    if (was_alone) {
        vacate(next);
    }
}

// Links a timer where its due tick belongs and tells the tick at which that place wants attention.
uint64_t timing_wheel::place(vem_tw_timer& timer, uint64_t due) {
    set_low_due(timer, static_cast<uint32_t>(due));
    timer_word{timer_word::armed_bit | number_ << 16 | (static_cast<uint32_t>(due >> 32) & 0xFFFF)}
        .store(timer);
    vem_tw_links& links = timer.timer.tm_links;
    if (due <= current_) {
        append(expired_, links);
        return current_;
    }
    const auto top_bit = static_cast<uint32_t>(63 - std::countl_zero(due ^ current_));
    const uint32_t level = level_of_bit_[top_bit];
    if (level >= levels_) {
        append(beyond_, links);
        const uint32_t round_bits = levels_ * slot_bits_;
        return ((current_ >> round_bits) + 1) << round_bits;
    }
    const uint32_t shift = level * slot_bits_;
    const uint64_t slot = (due >> shift) & ((uint64_t{1} << slot_bits_) - 1);
    append(slots_[(std::size_t{level} << slot_bits_) + slot], links);
    occupy(level, slot);
    return (due >> shift) << shift;
}

void timing_wheel::occupy(uint32_t level, uint64_t slot) {
    const uint64_t index = (uint64_t{level} << slot_bits_) + slot;
    const uint64_t bit = uint64_t{1} << (index % 64);
    if ((occupied_[index / 64] & bit) == 0) {
        occupied_[index / 64] |= bit;
        ++occupied_slots_[level];
    }
}

// A list has lost its last timer: if its head is a slot's, marks the slot free.
void timing_wheel::vacate(const vem_tw_links* slot_head) {
    if (slot_head == &expired_ || slot_head == &cascade_ || slot_head == &beyond_) {
        return;
    }
    const auto index = static_cast<uint64_t>(slot_head - slots_.get());
    occupied_[index / 64] &= ~(uint64_t{1} << (index % 64));
    --occupied_slots_[index >> slot_bits_];
}

// The first tick after the present one at which a slot opens.
uint64_t timing_wheel::find_next_tick() const {
    for (uint32_t level = 0; level < levels_; ++level) {
        if (occupied_slots_[level] == 0) {
            continue;
        }
        const uint32_t shift = level * slot_bits_;
        const uint64_t digit = (current_ >> shift) & ((uint64_t{1} << slot_bits_) - 1);
        const uint64_t round = current_ >> (shift + slot_bits_) << slot_bits_;
        return (round | first_slot_after(level, digit)) << shift;
    }
    if (is_empty(beyond_)) {
        return never;
    }
    const uint32_t round_bits = levels_ * slot_bits_;
    return ((current_ >> round_bits) + 1) << round_bits;
}

// The first occupied slot of a level behind a digit; there is one, because a level holds no slot
// that has passed.
uint64_t timing_wheel::first_slot_after(uint32_t level, uint64_t digit) const {
    const uint64_t base = uint64_t{level} << slot_bits_;
    const uint64_t first = base + digit + 1;
    uint64_t word = first / 64;
    uint64_t bits = occupied_[word] & (~uint64_t{0} << (first % 64));
    while (bits == 0) {
        bits = occupied_[++word];
    }
    return word * 64 + static_cast<uint64_t>(std::countr_zero(bits)) - base;
}

// Makes `tick`, which find_next_tick() named, the present one and empties the slot that opens.
void timing_wheel::open_slot(uint64_t tick) {
    const uint32_t round_bits = levels_ * slot_bits_;
    const auto top_bit = static_cast<uint32_t>(63 - std::countl_zero(tick ^ current_));
    const bool new_round = top_bit >= round_bits;
    const uint32_t level = level_of_bit_[top_bit];
    current_ = tick;
    if (new_round) {
        append_all(cascade_, beyond_);
        return;
    }
    const uint64_t slot = (tick >> (level * slot_bits_)) & ((uint64_t{1} << slot_bits_) - 1);
    vem_tw_links& head = slots_[(std::size_t{level} << slot_bits_) + slot];
    append_all(level == 0 ? expired_ : cascade_, head);
    vacate(&head);
}

// Places what an upper slot held; false when the budget ran out first.
bool timing_wheel::settle_cascade(uint32_t& budget) {
    for (; budget > 0 && !is_empty(cascade_); --budget) {
        vem_tw_links& links = *cascade_.tw_next;
        vem_tw_timer& timer = *timer_of(&links);
        __builtin_prefetch(links.tw_next->tw_next);
        const uint64_t due = due_tick(timer);
        remove(links);
        place(timer, due);
    }
    return is_empty(cascade_);
}

bool timing_wheel::expire(uint64_t now_us, uint32_t budget) {
    const uint64_t now_tick = present_tick(now_us);
    for (;;) {
        if (!settle_cascade(budget)) {
            next_tick_ = current_;
            return false;
        }
        next_tick_ = find_next_tick();
        if (next_tick_ > now_tick) {
            current_ = std::max(current_, now_tick);
            return true;
        }
        open_slot(next_tick_);
    }
}

uint64_t timing_wheel::first_expired_tick() const {
    if (is_empty(expired_)) {
        return never;
    }
    const uint64_t kept = kept_due(*timer_of(expired_.tw_next));
    return current_ - ((current_ - kept) & due_mask);
}

vem_tw_timer* timing_wheel::take_expired() {
    if (is_empty(expired_)) {
        return nullptr;
    }
    vem_tw_timer* timer = timer_of(expired_.tw_next);
    remove(timer->timer.tm_links);
    disarm(*timer);
    return timer;
}

uint64_t timing_wheel::next_due_us() const {
    if (!is_empty(expired_)) {
        return 0;
    }
    return next_tick_ == never ? never : epoch_us_ + next_tick_ * tick_.us();
}

void timing_wheel::disarm_all() {
    append_all(expired_, cascade_);
    append_all(expired_, beyond_);
    const std::size_t slots = std::size_t{levels_} << slot_bits_;
    std::for_each_n(slots_.get(), slots,
                    [this](vem_tw_links& head) { append_all(expired_, head); });
    while (take_expired() != nullptr) {
    }
}

}  // namespace vem
