// main.cpp - the mixed stress: threads that do everything at once that a host may do, round after
// round.
//
//   zon_mixed_stress [--minutes N | --seconds N] [--threads N] [--seed S] [gtest's own arguments]
//
// Without arguments it is the short form that the suite runs. A failure names the seed and the
// round; the same seed gives the same rounds, though threads may meet differently.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "stress/mixed/round.h"

namespace zon_test {
namespace {

// One of each role; and what a machine can carry.
constexpr uint32_t least_threads = 9;
constexpr uint32_t most_threads = 256;

struct options {
    std::chrono::seconds duration{3};
    uint32_t threads = least_threads;
    uint32_t seed = stress_seed;
    bool is_long = false;
};
options chosen;

// Every clock, every size of the table, a share for half-open flows and every way to end comes up
// within so many rounds.
constexpr uint32_t least_rounds = 4;

// What the engine prints meanwhile is of no interest.
class muted_output {
public:
    muted_output() {
        std::fflush(stdout);
        kept_ = dup(STDOUT_FILENO);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDOUT_FILENO);
        close(nowhere);
    }
    ~muted_output() {
        std::fflush(stdout);
        dup2(kept_, STDOUT_FILENO);
        close(kept_);
    }
    muted_output(const muted_output&) = delete;
    muted_output& operator=(const muted_output&) = delete;

private:
    int kept_;
};

// The first failures of a round, where its muted output cannot hide them.
class failures_on_stderr : public ::testing::EmptyTestEventListener {
    void OnTestPartResult(const ::testing::TestPartResult& result) override {
        constexpr int enough = 20;
        if (!result.failed() || ++told_ > enough)
            return;
        std::fprintf(stderr, "%s:%d: %s\n", result.file_name(), result.line_number(),
                     result.message());
    }
    std::atomic<int> told_{0};
};

const char* name_of(zon_clock_mode_e clock) {
    switch (clock) {
    case ZON_CLOCK_SYSTEM:
        return "the system's clock";
    case ZON_CLOCK_MANUAL_WAIT:
        return "a turned clock, timer thread";
    default:
        return "a turned clock, timers inline";
    }
}

void describe(const round_settings& settings) {
    std::fprintf(stderr, "round %u of seed %u: %u flows, %u %% half-open, %u locks, %s%s%s%s%s\n",
                 settings.number, chosen.seed, settings.max_flows, settings.half_open_percent,
                 settings.max_locks, name_of(settings.clock), settings.loose ? ", loose" : "",
                 settings.interrupted ? ", interrupted" : "",
                 settings.destroyed_with_flows ? ", destroyed with flows" : "",
                 settings.restarted ? ", restarted" : "");
}

void print(const round_totals& totals) {
    std::fprintf(stderr, "%llu rounds of seed %u\n", static_cast<unsigned long long>(totals.rounds),
                 chosen.seed);
    for (size_t what = 0; what < totals.feats.size(); ++what)
        std::fprintf(stderr, "  %-32s %12llu\n", name_of(static_cast<feat>(what)),
                     static_cast<unsigned long long>(totals.feats[what]));
}

void expect_every_feat(const round_totals& totals) {
    for (size_t what = 0; what < totals.feats.size(); ++what)
        EXPECT_GT(totals.feats[what], 0U) << name_of(static_cast<feat>(what)) << ": never happened";
}

void play_until(std::chrono::steady_clock::time_point end, uint32_t threads, schedule how) {
    round_totals totals;
    {
        const muted_output muted;
        for (uint32_t number = 0; number < least_rounds || std::chrono::steady_clock::now() < end;
             ++number) {
            const round_settings settings = settings_of_round(number, chosen.seed);
            if (chosen.is_long && number % 50 == 0)
                describe(settings);
            play_round(settings, threads, how, totals);
            if (::testing::Test::HasFailure()) {
                describe(settings);
                break;
            }
        }
    }
    // A round that failed was the last one.
    if (!::testing::Test::HasFailure())
        expect_every_feat(totals);
    if (chosen.is_long || ::testing::Test::HasFailure())
        print(totals);
}

// Nine roles one after the other: that tests the test.
TEST(mixed_operations, add_up_on_one_thread) {
    play_until({}, least_threads, schedule::one_thread);
}

TEST(mixed_operations, add_up_when_threads_mix_them) {
    play_until(std::chrono::steady_clock::now() + chosen.duration, chosen.threads,
               schedule::together);
}

[[noreturn]] void explain() {
    std::fprintf(stderr,
                 "usage: zon_mixed_stress [--minutes N | --seconds N] [--threads N] [--seed S]\n"
                 "N from 1 on, of threads %u to %u\n",
                 least_threads, most_threads);
    std::exit(2);
}

void read_arguments(int argc, char** argv) {
    for (int i = 1; i < argc; i += 2) {
        const std::string_view name = argv[i];
        if (i + 1 == argc)
            explain();
        const std::string_view text = argv[i + 1];
        uint32_t value = 0;
        const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
        if (read.ec != std::errc{} || read.ptr != text.data() + text.size())
            explain();
        if (name == "--minutes" && value > 0)
            chosen.duration = std::chrono::minutes(value);
        else if (name == "--seconds" && value > 0)
            chosen.duration = std::chrono::seconds(value);
        else if (name == "--threads" && value >= least_threads && value <= most_threads)
            chosen.threads = value;
        else if (name == "--seed")
            chosen.seed = value;
        else
            explain();
        chosen.is_long = true;
    }
    std::fprintf(stderr, "seed %u\n", chosen.seed);
}

}  // namespace
}  // namespace zon_test

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    zon_test::read_arguments(argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new zon_test::failures_on_stderr);
    return RUN_ALL_TESTS();
}
