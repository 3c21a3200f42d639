// zon_flood.cpp - floods an engine while 10,000 established flows go on, and prints what became of
// them.
//
//   zon_flood [--scale N] [--flood NAME] [--clock turned|system] [--threads 1|2]
//
//   --scale  packets of each flood, 20,000,000 unless said otherwise
//   --flood  only the floods of this name; may be given several times. "depths" asks for no flood
//            but for what bounds on the depth of buckets cost honest traffic
//   --clock  turned: the engine's clock goes on as if the flood came at a fixed rate, so that
//            counts are the same anywhere; system: its timer thread runs expiries meanwhile
//   --threads  1: flood and established flows take turns; 2: the flood has a thread of its own
//
// Each flood has a process of its own, whose memory nothing else has touched. Ends with 0 when
// every established flow was kept and each flood did what is expected of it (expectations.cpp);
// what was not so is told in a line. A short flood has a smaller table, and fills it all the same.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

#include "flood_table.h"
#include "latencies.h"
#include "scenarios.h"

namespace {

using namespace zon_bench;

struct options {
    uint64_t scale = 20'000'000;
    std::vector<std::string_view> floods;
    run_style style;
};

constexpr std::string_view depths = "depths";

[[noreturn]] void explain() {
    std::fputs(
        "usage: zon_flood [--scale N] [--flood NAME]... [--clock turned|system] [--threads "
        "1|2]\nfloods:",
        stderr);
    for (const flood& each : all_floods())
        std::fprintf(stderr, " %s", each.name);
    std::fprintf(stderr, " %s\n", depths.data());
    std::exit(2);
}

// Below that a table with room for the established flows is not filled and filled again.
constexpr uint64_t smallest_scale = 40'000;

options read_options(int argc, char** argv) {
    options read;
    if (argc % 2 == 0)
        explain();
    for (int at = 1; at < argc; at += 2) {
        const std::string_view name = argv[at], value = argv[at + 1];
        const bool is_known =
            value == depths || std::any_of(all_floods().begin(), all_floods().end(),
                                           [&](const flood& each) { return each.name == value; });
        if (name == "--scale")
            read.scale = std::strtoull(argv[at + 1], nullptr, 10);
        else if (name == "--flood" && is_known)
            read.floods.push_back(value);
        else if (name == "--clock" && (value == "turned" || value == "system"))
            read.style.clock = value == "system" ? clock_choice::system : clock_choice::turned;
        else if (name == "--threads" && (value == "1" || value == "2"))
            read.style.has_own_thread = value == "2";
        else
            explain();
    }
    if (read.scale < smallest_scale)
        explain();
    return read;
}

bool is_wanted(const options& wanted, std::string_view name) {
    return wanted.floods.empty() ||
           std::find(wanted.floods.begin(), wanted.floods.end(), name) != wanted.floods.end();
}

bool read_whole(int from, void* record, size_t size) {
    auto* bytes = static_cast<char*>(record);
    for (ssize_t got = 1; size > 0; bytes += got, size -= static_cast<size_t>(got)) {
        got = read(from, bytes, size);
        if (got <= 0)
            return false;
    }
    return true;
}

// What a process of its own reports.
template <class work, class report = std::invoke_result_t<work>>
report run_apart(work run) {
    static_assert(std::is_trivially_copyable_v<report>);
    int ends[2];
    require(pipe(ends) == 0, "no pipe");
    std::fflush(nullptr);
    const pid_t child = fork();
    require(child >= 0, "no process");
    if (child == 0) {
        const report result = run();
        std::exit(write(ends[1], &result, sizeof result) == ssize_t{sizeof result} ? 0 : 1);
    }
    close(ends[1]);
    report result{};
    const bool is_whole = read_whole(ends[0], &result, sizeof result);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    require(is_whole && status == 0, "a process ended without figures");
    return result;
}

void print_timer_cost() {
    latencies readings;
    for (int i = 0; i < 1'000'000; ++i) {
        const uint64_t start = now_ns();
        readings.add(now_ns() - start);
    }
    std::printf("Every time contains one reading of the clock, %llu ns.\n\n",
                static_cast<unsigned long long>(readings.at(0.5)));
}

// Whether all is well.
bool run_floods(const options& wanted) {
    std::vector<std::pair<const flood*, flood_report>> reports;
    for (const flood& each : all_floods()) {
        if (!is_wanted(wanted, each.name))
            continue;
        if (reports.empty())
            print_heading();
        reports.emplace_back(
            &each, run_apart([&] { return run_flood(each, wanted.scale, wanted.style); }));
        print_row(each.name, reports.back().second);
    }
    std::puts("");
    bool all_well = true;
    for (const auto& [which, report] : reports) {
        print_remarks(which->name, report);
        all_well = print_disappointments(*which, report) && all_well;
    }
    return all_well;
}

void compare_depths(const options& wanted) {
    const auto max_flows = static_cast<uint32_t>(std::min<uint64_t>(wanted.scale / 20, 100'000));
    const auto tables = static_cast<uint32_t>(1 + wanted.scale / 2'000'000);
    std::puts("");
    print_depth_heading(max_flows);
    for (const uint8_t depth : std::to_array<uint8_t>({4, 6, 8, 10, 12, 16}))
        print_depth_row(depth, run_apart([&] { return fill_tables(depth, max_flows, tables); }));
}

}  // namespace

int main(int argc, char** argv) {
    const options wanted = read_options(argc, argv);
    print_timer_cost();
    const bool all_well = run_floods(wanted);
    if (is_wanted(wanted, depths))
        compare_depths(wanted);
    return all_well ? 0 : 1;
}
