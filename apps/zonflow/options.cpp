// options.cpp - declares the options, their bounds and their help.
#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iostream>
#include <map>

#include "flows/bypass_rule.h"

namespace zonflow {

namespace {

// An idle time is handed to the engine in milliseconds of 32 bits.
constexpr uint32_t longest_idle_sec = UINT32_MAX / 1000;
constexpr uint32_t most_flows = 16'000'000;

const std::map<std::string, trace_part> trace_parts{{"engine", trace_part::engine},
                                                    {"fe", trace_part::fe},
                                                    {"l4", trace_part::l4},
                                                    {"ager", trace_part::ager},
                                                    {"all", trace_part::all}};

constexpr const char* what_it_does =
    "Prints the flows of network captures: who talked to whom, how much, and how it ended.\n"
    "Reads pcap and pcapng. Flows age by the time stamps of the capture.";

constexpr const char* examples =
    "\nExamples:\n"
    "  zonflow web.pcap\n"
    "      a table of the flows in web.pcap\n"
    "  zonflow -o json monday.pcapng tuesday.pcapng\n"
    "      the same for programs: a JSON object a line for each flow, then a summary of each file\n"
    "  zonflow --by source --veto 10.0.0.0/8 --veto 2001:db8::/32 web.pcap\n"
    "      who began how many flows, leaving out those with two networks\n"
    "\nExit codes:\n"
    "  0  done\n"
    "  1  a capture is damaged; everything before the damage has been reported\n"
    "  2  the command line is wrong, or asks more of the engine than it can give\n"
    "  3  a file cannot be opened or is no capture that can be read\n"
    "  4  the output could not be written\n"
    "With several files the highest code counts.";

std::vector<std::string> names_of(const std::map<std::string, trace_part>& parts) {
    std::vector<std::string> names;
    for (const auto& [name, part] : parts) {
        names.push_back(name);
    }
    return names;
}

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
    app.add_option_function<std::string>(
           "--by", [&result](const std::string&) { result.engine.by_source = true; },
           "Add flows up as well, under the address of their initiator")
        ->check(CLI::IsMember({"source"}))
        ->option_text("source");
    app.add_option_function<std::vector<std::string>>(
           "--trace",
           [&result](const std::vector<std::string>& names) {
               for (const std::string& name : names) {
                   result.trace.push_back(trace_parts.at(name));
               }
           },
           "Tell on standard error what parts of the engine do: engine, fe, l4, ager, all")
        ->check(CLI::IsMember(names_of(trace_parts)))
        ->delimiter(',')
        ->allow_extra_args(false)
        ->option_text("PART[,PART...]");
}

// CLI11's own networks are of IPv4 only.
std::string problem_of_network(const std::string& text) {
    return network_of_text(text) ? "" : text + " is no network such as 10.0.0.0/8 or 2001:db8::/32";
}

void add_flow_choices(CLI::App& app, engine_settings& engine) {
    app.add_option_function<std::vector<std::string>>(
           "--veto",
           [&engine](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   engine.vetoes.push_back(network_of_text(text).value());
               }
           },
           "Refuse flows with an address of this network; may be given several times")
        ->check(CLI::Validator(problem_of_network, ""))
        ->allow_extra_args(false)
        ->option_text("CIDR");
    app.add_option("--bypass-after", engine.bypass_after_bytes,
                   "Mark TCP flows as bypassed from so much payload on")
        ->check(CLI::Range(uint32_t{1}, most_bypass_after_bytes))
        ->option_text("BYTES");
    app.add_flag_callback(
        "--no-helpers", [&engine] { engine.helpers = false; },
        "Do not read FTP and SIP for the connections that they announce");
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
    const CLI::Range waiting_times(uint32_t{1}, longest_idle_sec);
    add_number(app, "--idle-announced", engine.idle_announced_sec, waiting_times, "SECONDS",
               "How long an announced connection is awaited");
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
    add_flow_choices(app, result.engine);
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
