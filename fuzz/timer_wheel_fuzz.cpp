// timer_wheel_fuzz.cpp - a timer wheel beside a sorted map of due times.
//
// The input begins with the wheel's shape; then come starts, stops, turns of the clock, and what
// the callbacks do.
//
// Holds  a timer fires once, at the first tick at or after its time, in the order of due times and,
//        where these are equal, of shards and then of starts.

#include <array>
#include <compare>
#include <map>

#include "fuzz_input.h"
#include "vem/vem_clock.h"
#include "vem/vem_dm.h"
#include "vem/vem_tw.h"
#include "vem_wheel_registry.h"

using namespace zon_fuzz;

namespace {

constexpr uint32_t timer_count = 24;

class wheel_and_map {
public:
    explicit wheel_and_map(fuzz_input& input) : input_(input), made_at_us_(vem_clock_now_us()) {
        constexpr uint32_t ticks[] = {1, 333, 1000, 15000, 1'000'000};
        const uint32_t slots = 1 + input.below(64);
        const uint32_t tick_us = ticks[input.below(5)];
        tick_us_ = tick_us;
        const uint32_t levels_and_shards = input.below(8);
        require(vem_tw_init_wheel(&wheel_, slots, tick_us, 1 + levels_and_shards % 4, 0, 0, 0) == 0,
                "the wheel is made");
        if (levels_and_shards >= 4)
            make_shards();
        require(vem_dm_create(&manager_, "fuzz", 0) == 0, "the manager is made");
        require(vem_tw_attach_vdm(wheel_, manager_) == 0, "the wheel is attached");
        for (record& one : timers_)
            one.owner = this;
    }
    ~wheel_and_map() {
        for (record& one : timers_)
            vem_tw_timer_stop(&one.timer);
        vem_tw_destroy_wheel(&wheel_);
        vem_dm_destroy(&manager_);
        vem::home_shard() = 0;
    }
    wheel_and_map(const wheel_and_map&) = delete;
    wheel_and_map& operator=(const wheel_and_map&) = delete;

    void run() {
        while (!input_.is_empty()) {
            if (input_.below(3) != 0) {
                stir();
                continue;
            }
            vem_clock_advance_us(some_ms() * 1000 / 8 + input_.byte());
            require(expected_.empty() || expected_.begin()->first.due_us > vem_clock_now_us(),
                    "no timer that is due has been left out");
        }
    }

private:
    struct timer_place {
        uint64_t due_us;
        uint32_t shard;
        uint64_t start;
        auto operator<=>(const timer_place&) const = default;
    };
    struct record {
        vem_tw_timer timer{};
        wheel_and_map* owner = nullptr;
        timer_place place{};  // in expected_
        bool armed = false;
        bool sits_in_shard = false;  // it runs or has expired: started again, it stays there
    };

    // As threads do that find a shard busy.
    void make_shards() {
        has_shards_ = true;
        vem::wheel_entry& entry = vem::wheel_at(1);
        const auto handle = reinterpret_cast<uintptr_t>(wheel_);
        for (uint32_t home = 1; home < vem::most_shards; ++home) {
            vem::home_shard() = home;
            require(vem::settle_in_home_shard(entry, handle) == home, "a shard is made");
        }
    }

    // Every level of the wheel gets its share.
    uint64_t some_ms() {
        const uint32_t bits = input_.below(33);
        const uint64_t value = input_.two_bytes();
        return std::min<uint64_t>((uint64_t{1} << bits) * value >> 16, UINT32_MAX);
    }
    void stir() {
        record& one = timers_[input_.below(timer_count)];
        if (input_.below(3) == 0) {
            forget(one);
            one.sits_in_shard = false;
            require(vem_tw_timer_stop(&one.timer) == 0, "a timer can be stopped");
        } else {
            start(one, static_cast<uint32_t>(some_ms()));
        }
        require(vem_tw_timer_running(&one.timer) == one.armed, "a timer runs once it is started");
    }
    void start(record& one, uint32_t ms) {
        forget(one);
        const uint64_t since_us =
            vem_clock_now_us() - made_at_us_ + std::max<uint64_t>(ms, 1) * 1000;
        const uint64_t due_tick = (since_us + tick_us_ - 1) / tick_us_;
        if (has_shards_)
            vem::home_shard() = input_.below(vem::most_shards);
        const uint32_t shard = one.sits_in_shard ? one.place.shard : vem::home_shard();
        one.place = {made_at_us_ + due_tick * tick_us_, shard, ++starts_};
        one.sits_in_shard = true;
        one.armed = true;
        expected_.emplace(one.place, &one);
        require(vem_tw_timer_start(wheel_, &one.timer, ms, expired, &one) == 0, "a timer starts");
    }
    void forget(record& one) {
        if (one.armed)
            expected_.erase(one.place);
        one.armed = false;
    }
    static void expired(vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* one = static_cast<record*>(context);
        one->owner->check_expiry(*one);
    }
    void check_expiry(record& one) {
        require(!expected_.empty() && expected_.begin()->second == &one, "it is this one's turn");
        require(one.place.due_us == vem_clock_now_us(), "it fires at its time");
        forget(one);
        require(!vem_tw_timer_running(&one.timer), "a timer that fires runs no more");
        // Only while there is input: a turn over weeks would go on for ever.
        if (!input_.is_empty() && input_.below(2) == 0)
            stir();
    }

    fuzz_input& input_;
    vem_tw_wheel wheel_ = nullptr;
    vem_dm_handle manager_ = nullptr;
    uint64_t made_at_us_;
    uint64_t tick_us_ = 0;
    uint64_t starts_ = 0;
    std::array<record, timer_count> timers_;
    bool has_shards_ = false;
    std::map<timer_place, record*> expected_;
};

// The clock has a last reading, which one input is far from reaching.
constexpr uint64_t last_start_us = uint64_t{1} << 61;

[[noreturn]] void leave_to_a_new_process(uint64_t inputs) {
    dprintf(STDERR_FILENO, "%llu inputs have used up the clock\n",
            static_cast<unsigned long long>(inputs));
    _exit(used_up);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vem_clock_set_mode(VEM_CLOCK_MANUAL_INLINE);
    static uint64_t inputs = 0;
    if (vem_clock_now_us() > last_start_us)
        leave_to_a_new_process(inputs);
    ++inputs;
    fuzz_input input(data, size);
    wheel_and_map(input).run();
    return 0;
}
