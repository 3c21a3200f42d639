// flood_table.cpp - the rows of the table and the remarks under it.

#include "flood_table.h"

#include <cstdio>
#include <string>

namespace zon_bench {
namespace {

std::string text(const percentiles& ns) {
    return std::to_string(ns.median) + " / " + std::to_string(ns.of_100) + " / " +
           std::to_string(ns.of_1000);
}

std::string name_of(size_t error) {
    switch (error) {
    case zon_error_memory:
        return "zon_error_memory";
    case zon_error_flow_creation_prevented:
        return "zon_error_flow_creation_prevented";
    case zon_error_parameter_invalid:
        return "zon_error_parameter_invalid";
    default:
        return "error " + std::to_string(error);
    }
}

std::string refusals(const flood_report& report) {
    std::string all;
    for (size_t error = 0; error < report.refused.size(); ++error)
        if (report.refused[error] != 0)
            all += (all.empty() ? "" : ", ") + std::to_string(report.refused[error]) + " " +
                   name_of(error);
    return all.empty() ? "0" : all;
}

std::string mebibytes(uint64_t before, uint64_t flooded, uint64_t after) {
    std::string all;
    for (const uint64_t bytes : {before, flooded, after}) {
        char number[32];
        std::snprintf(number, sizeof number, "%s%.1f", all.empty() ? "" : " / ",
                      static_cast<double>(bytes) / (1024 * 1024));
        all += number;
    }
    return all;
}

std::string until(double passed, const char* format) {
    if (passed < 0)
        return "not yet";
    char number[32];
    std::snprintf(number, sizeof number, format, passed);
    return number;
}

void print_share(const char* name, const char* when, const share& followed) {
    std::printf("%s: %s, %llu of %llu datagrams of an established flow had both fragments in it\n",
                name, when, static_cast<unsigned long long>(followed.had),
                static_cast<unsigned long long>(followed.of));
}

void print_sums(const char* name, const flood_report& report) {
    const auto print = [name](const char* what, uint64_t count) {
        std::printf("%s: %llu %s\n", name, static_cast<unsigned long long>(count), what);
    };
    print("established flows kept", report.kept);
    print("of their packets strayed", report.strayed);
    print("packets of the flood", report.packets);
    print("of them made flows", report.made);
    print("flows made room for others", report.replaced);
    print("of them found theirs", report.known);
    print("of them belonged to none", report.without_flow);
    print("of them were broken", report.refused[zon_error_parameter_invalid]);
    print("were expected to be", report.expected_broken);
    print("flows made in all", report.made_in_all);
    print("flows deleted", report.deleted_in_all);
    print("flows left", report.flows_left);
    print("flows of the flood in the attacked bucket", report.in_victims_bucket);
    print("places that others had taken there", report.others_in_victims_bucket);
    print("flows in the table when the flood was over", report.flows_flooded);
    print("places for flows", report.max_flows);
    print("datagrams tracked", report.datagrams);
    print("newcomers served by the quiet engine", report.newcomers_quiet.had);
    print("newcomers there", report.newcomers_quiet.of);
}

}  // namespace

void print_heading() {
    std::puts(
        "| flood | packets | packets/s | kept | quiet, ns: 50 / 99 / 99.9 % | flooded, ns | flows "
        "made | refused | newcomers served | resident MiB: before / flooded / "
        "after | records MiB | "
        "flows gone, s | quiet again, ms |\n"
        "|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|");
}

void print_row(const char* name, const flood_report& report) {
    const memory_figures& before = report.memory_before;
    const memory_figures& flooded = report.memory_flooded;
    const memory_figures& after = report.memory_after;
    std::printf(
        "| %s | %llu | %.0f | %u | %s | %s | %llu | %s | %llu of %llu | %s | %s | %s | %s "
        "|\n",
        name, static_cast<unsigned long long>(report.packets), report.packets_a_second, report.kept,
        text(report.quiet).c_str(), text(report.flooded).c_str(),
        static_cast<unsigned long long>(report.made), refusals(report).c_str(),
        static_cast<unsigned long long>(report.newcomers_flooded.had),
        static_cast<unsigned long long>(report.newcomers_flooded.of),
        mebibytes(before.resident, flooded.resident, after.resident).c_str(),
        mebibytes(before.records, flooded.records, after.records).c_str(),
        until(report.flows_gone_s, "%.1f").c_str(), until(report.quiet_again_ms, "%.1f").c_str());
}

void print_remarks(const char* name, const flood_report& report) {
    if (report.victim_quiet.median != 0)
        std::printf(
            "%s: %u flows of it in the attacked bucket; packets of the established flow "
            "there: quiet %s, flooded %s ns\n",
            name, report.in_victims_bucket, text(report.victim_quiet).c_str(),
            text(report.victim_flooded).c_str());
    if (report.fragments_quiet.of != 0) {
        print_share(name, "quiet", report.fragments_quiet);
        print_share(name, "flooded", report.fragments_flooded);
        print_share(name, "at the end", report.fragments_after);
    }
}

bool print_disappointments(const flood& which, const flood_report& report) {
    bool is_as_expected = true;
    for (const expectation& each : expectations_of(which, report))
        if (!each.is_met) {
            std::printf("%s: NOT SO: %s\n", which.name, each.what);
            is_as_expected = false;
        }
    if (!is_as_expected)
        print_sums(which.name, report);
    return is_as_expected;
}

void print_depth_heading(uint32_t max_flows) {
    std::printf("Honest connections refused while a table of %u flows fills\n\n", max_flows);
    std::puts("| bucket depth | to 25 % | to 50 % | to 75 % | to 100 % |\n|--:|--:|--:|--:|--:|");
}

void print_depth_row(unsigned bucket_depth, const depth_report& report) {
    std::printf("| %u |", bucket_depth);
    for (size_t quarter = 0; quarter < report.of.size(); ++quarter)
        std::printf(" %llu of %llu |", static_cast<unsigned long long>(report.refused[quarter]),
                    static_cast<unsigned long long>(report.of[quarter]));
    std::puts("");
}

}  // namespace zon_bench
