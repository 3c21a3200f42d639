// options.cpp - declares the options, their bounds and their help.
#include "options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <iostream>
#include <map>
#include <string_view>
#include <utility>

#include "flows/bypass_rule.h"
#include "output/output_stream.h"

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

const std::map<std::string, output_format> formats{{"table", output_format::table},
                                                   {"json", output_format::json}};

constexpr const char* what_it_does =
    "Prints the flows of network captures, or of the traffic of an interface: who talked to whom,\n"
    "how much, and how it ended. Reads pcap and pcapng, whose flows age by their time stamps.";

constexpr const char* epilogue =
    "\nThe table: PKTS and BYTES count both directions, BYTES whole IP packets. STATE is what the\n"
    "engine makes of the connection. Marks are explained below the flows. END is how it ended:\n"
    "  closed  TCP: both sides have sent a FIN\n"
    "  reset   TCP: a RST ended the connection, or was the last that was seen of it\n"
    "  idle    nothing came any more for the idle time\n"
    "  open    none of these when the reading ended\n"
    "\nTeredo is looked for on every UDP port, so other traffic may rarely be taken for it;\n"
    "--no-tunnels keeps to the outer packets.\n"
    "\nIdle times: a flow leaves after at least so many seconds of silence and at most twice as\n"
    "many. SIGINT and SIGTERM end the reading; what was found so far is reported.\n"
    "\nExamples:\n"
    "  zonflow web.pcap\n"
    "      a table of the flows in web.pcap\n"
    "  zonflow -o json monday.pcapng tuesday.pcapng\n"
    "      the same for programs: a JSON object a line for each flow, then a summary of each file\n"
    "  zonflow --by source --veto 10.0.0.0/8 --veto 2001:db8::/32 web.pcap\n"
    "      who began how many flows, leaving out those with two networks\n"
    "  zonflow -i eth0 --filter 'not port 22'\n"
    "      flows of live traffic, each as it ends; takes root or CAP_NET_RAW\n"
    "\nExit codes:\n"
    "  0  done\n"
    "  1  a capture is damaged, or an interface went away; what was read has been reported\n"
    "  2  the command line is wrong, or asks more of the engine than it can give\n"
    "  3  a file cannot be opened or is no capture that can be read; an interface is not there,\n"
    "     is down or may not be read\n"
    "  4  the output could not be written\n"
    "With several files the highest code counts.";

template <class value>
std::string listed(const std::map<std::string, value>& known) {
    std::string text;
    for (const auto& [name, meaning] : known) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

template <class value>
std::string problem_of_name(const std::string& text, const char* what,
                            const std::map<std::string, value>& known) {
    return known.count(text) != 0 ? "" : "\"" + text + "\" is no " + what + ": " + listed(known);
}

// "engine,fe" gives two; nothing between two commas is an empty name.
std::vector<std::string> split_at_commas(const std::string& text) {
    std::vector<std::string> names(1);
    for (const char letter : text) {
        if (letter == ',') {
            names.emplace_back();
        } else {
            names.back() += letter;
        }
    }
    return names;
}

std::string problem_of_trace(const std::string& text) {
    for (const std::string& name : split_at_commas(text)) {
        std::string problem = problem_of_name(name, "part of the engine", trace_parts);
        if (!problem.empty()) {
            return problem;
        }
    }
    return "";
}

// Decimal digits and nothing else.
CLI::Validator number_between(uint32_t least, uint32_t most) {
    return {[least, most](const std::string& text) -> std::string {
                uint32_t value = 0;
                const char* end = text.data() + text.size();
                const auto [stop, error] = std::from_chars(text.data(), end, value);
                if (error == std::errc() && stop == end && value >= least && value <= most) {
                    return "";
                }
                return "\"" + text + "\" is no number from " + std::to_string(least) + " to " +
                       std::to_string(most);
            },
            ""};
}

void add_output_options(CLI::App& app, options& result) {
    app.add_option_function<std::string>(
           "-o,--output", [&result](const std::string& name) { result.format = formats.at(name); },
           "How to print: table or json")
        ->check(CLI::Validator(
            [](const std::string& text) { return problem_of_name(text, "format", formats); }, ""))
        ->take_last()
        ->option_text("FORMAT [table]");
    app.add_flag("--dump", result.dump, "Print at the end the engine's own dump of its flow table");
    app.add_flag("--histogram", result.histogram,
                 "Print at the end how evenly flows lie in the hash table");
    app.add_option_function<std::vector<std::string>>(
           "--trace",
           [&result](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   for (const std::string& name : split_at_commas(text)) {
                       result.trace.push_back(trace_parts.at(name));
                   }
               }
           },
           "Tell on standard error what parts of the engine do: engine, fe, l4, ager, all")
        ->check(CLI::Validator(problem_of_trace, ""))
        ->allow_extra_args(false)
        ->option_text("PART[,PART...]");
}

void add_input_options(CLI::App& app, options& result) {
    app.add_option("-i,--interface", result.interface_name,
                   "Read the traffic of an interface in the place of captures; any is all of them")
        ->take_last()
        ->option_text("NAME");
    app.add_option("--filter", result.filter, "Read only packets that a pcap filter fits")
        ->take_last()
        ->option_text("EXPRESSION");
    const CLI::Validator limits = number_between(1, UINT32_MAX);
    app.add_option("--packets", result.packet_limit, "End the reading after so many packets")
        ->check(limits)
        ->take_last()
        ->option_text("COUNT");
    app.add_option("--seconds", result.time_limit_sec, "End the reading after so much time")
        ->check(limits)
        ->take_last()
        ->option_text("SECONDS");
}

void add_options(CLI::App& app, options& result) {
    app.add_option("FILE", result.files, "Captures, read one after another; - is standard input")
        ->option_text("...");
    add_input_options(app, result);
    add_output_options(app, result);
    app.add_flag("--vlan-key", result.vlan_key,
                 "Keep the flows of different outer VLANs apart (the VLAN becomes the VRF)");
    const std::map<std::string, bool> groupings{{"source", true}};
    app.add_option_function<std::string>(
           "--by", [&result](const std::string&) { result.engine.by_source = true; },
           "Add flows up as well, under the address of their initiator")
        ->check(CLI::Validator(
            [groupings](const std::string& text) {
                return problem_of_name(text, "grouping", groupings);
            },
            ""))
        ->take_last()
        ->option_text("source");
}

// CLI11's own networks are of IPv4 only.
std::string problem_of_network(const std::string& text) {
    const std::optional<network> found = network_of_text(text);
    if (!found) {
        return "\"" + text + "\" is no network such as 10.0.0.0/8 or 2001:db8::/32";
    }
    if (has_bits_behind_prefix(*found)) {
        return "\"" + text + "\" has address bits behind its prefix: " +
               text_of(without_bits_behind_prefix(*found)) + " is the network";
    }
    return "";
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
        ->check(number_between(1, most_bypass_after_bytes))
        ->take_last()
        ->option_text("BYTES");
    app.add_flag_callback(
        "--no-helpers", [&engine] { engine.helpers = false; },
        "Do not read FTP and SIP for the connections that they announce");
}

void add_number(CLI::App& app, const char* name, uint32_t& value, const CLI::Validator& bounds,
                const char* unit, const char* help) {
    app.add_option(name, value, help)
        ->check(bounds)
        ->take_last()
        ->option_text(std::string(unit) + " [" + std::to_string(value) + "]");
}

void add_engine_options(CLI::App& app, engine_settings& engine) {
    const CLI::Validator counts = number_between(1, most_flows);
    const CLI::Validator idle_times = number_between(0, longest_idle_sec);
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
    const CLI::Validator waiting_times = number_between(1, longest_idle_sec);
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
    output_stream out(stdout);
    out.write(text);
    out.flush();
    return exit_code::done;
}

exit_code complain(const std::string& problem) {
    std::cerr << "zonflow: " << problem << "\nRun zonflow --help for the options.\n";
    return exit_code::usage;
}

}  // namespace

std::variant<options, exit_code> parse_options(int argc, char** argv) {
    options result;
    CLI::App app(what_it_does, "zonflow");
    app.footer(epilogue);
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
    } catch (const CLI::ArgumentMismatch& error) {
        // Every option takes one value, and of several the last counts: so one is missing.
        const std::string text = error.what();
        return complain(text.substr(0, text.find(':')) + ": a value is missing");
    } catch (const CLI::ParseError& error) {
        return complain(error.what());
    }
    if (result.files.empty() == result.interface_name.empty()) {
        return complain(result.files.empty() ? "a FILE or an --interface is needed"
                                             : "FILE and --interface exclude each other");
    }
    return result;
}

}  // namespace zonflow
