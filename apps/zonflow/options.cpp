// options.cpp - declares the options, their bounds and their help.
#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iostream>
#include <map>

namespace zonflow {

namespace {

// An idle time is handed to the engine in milliseconds of 32 bits.
constexpr uint32_t longest_idle_sec = UINT32_MAX / 1000;
constexpr uint32_t most_flows = 16'000'000;

constexpr const char* what_it_does =
    "Prints the flows of network captures: who talked to whom, how much, and how it ended.\n"
    "Reads pcap and pcapng. Flows age by the time stamps of the capture.";

constexpr const char* examples =
    "\nExamples:\n"
    "  zonflow web.pcap\n"
    "      a table of the flows in web.pcap\n"
    "  zonflow -o json monday.pcapng tuesday.pcapng\n"
    "      the same for programs: a JSON object a line for each flow, then a summary of each file\n"
    "\nExit codes:\n"
    "  0  done\n"
    "  1  a capture is damaged; everything before the damage has been reported\n"
    "  2  the command line is wrong, or asks more of the engine than it can give\n"
    "  3  a file cannot be opened or is no capture that can be read\n"
    "  4  the output could not be written\n"
    "With several files the highest code counts.";

void add_options(CLI::App& app, options& result) {
    app.add_option("FILE", result.files, "Captures, read one after another")
        ->required()
        ->option_text("...");
    const std::map<std::string, output_format> formats{{"table", output_format::table},
                                                       {"json", output_format::json}};
    app.add_option("-o,--output", result.format, "How to print: table or json")
        ->transform(CLI::CheckedTransformer(formats))
        ->option_text("FORMAT [table]");
    app.add_flag("--vlan-key", result.vlan_key,
                 "Keep the flows of different outer VLANs apart (the VLAN becomes the VRF)");
}

void add_number(CLI::App& app, const char* name, uint32_t& value, const CLI::Range& range,
                const char* unit, const char* help) {
    app.add_option(name, value, help)
        ->check(range)
        ->option_text(std::string(unit) + " [" + std::to_string(value) + "]");
}

void add_engine_options(CLI::App& app, engine_settings& engine) {
    const CLI::Range counts(uint32_t{1}, most_flows);
    const CLI::Range idle_times(uint32_t{0}, longest_idle_sec);
    add_number(app, "--max-flows", engine.max_flows, counts, "COUNT",
               "Flows at any one time; more are refused");
    add_number(app, "--idle-opening", engine.idle_opening_sec, idle_times, "SECONDS",
               "Idle time of flows with no answer yet");
    add_number(app, "--idle-tcp", engine.idle_tcp_sec, idle_times, "SECONDS",
               "Idle time of established TCP flows");
    add_number(app, "--idle-udp", engine.idle_udp_sec, idle_times, "SECONDS",
               "Idle time of answered UDP flows");
    add_number(app, "--idle-closing", engine.idle_closing_sec, idle_times, "SECONDS",
               "Idle time of TCP flows that are closing");
    app.add_flag("--tcp-checks", engine.tcp_checks,
                 "Let the engine check TCP sequence and acknowledgement numbers");
    app.add_flag_callback(
        "--no-tunnels", [&engine] { engine.tunnels = false; },
        "Do not look through IPv6-in-IPv4 and Teredo tunnels");
    app.add_flag_callback(
        "--no-fragments", [&engine] { engine.fragments = false; },
        "Do not count later fragments to the flow of their first");
}

// Help and version are output like any other: a full disk is told.
exit_code print_and_leave(const std::string& text) {
    std::cout << text << std::flush;
    return std::cout ? exit_code::done : exit_code::output_failed;
}

}  // namespace

std::variant<options, exit_code> parse_options(int argc, char** argv) {
    options result;
    CLI::App app(what_it_does, "zonflow");
    app.footer(examples);
    app.set_version_flag("--version", std::string("zonflow ") + ZONFLOW_VERSION);
    app.get_formatter()->column_width(32);
    add_options(app, result);
    add_engine_options(app, result.engine);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return print_and_leave(app.help());
    } catch (const CLI::CallForVersion& version) {
        return print_and_leave(std::string(version.what()) + "\n");
    } catch (const CLI::ParseError& error) {
        std::cerr << "zonflow: " << error.what() << "\nRun zonflow --help for the options.\n";
        return exit_code::usage;
    }
    return result;
}

}  // namespace zonflow
