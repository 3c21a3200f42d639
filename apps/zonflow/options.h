// options.h - the command line of zonflow.
#ifndef ZONFLOW_OPTIONS_H
#define ZONFLOW_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "exit_code.h"
#include "flows/engine_host.h"

namespace zonflow {

enum class output_format { table, json };

// What of the engine can be traced.
enum class trace_part { engine, fe, l4, ager, all };

struct options {
    std::vector<std::string> files;
    std::string interface_name;  // live traffic, in the place of files
    std::string filter;          // empty: every packet
    std::optional<uint32_t> packet_limit;
    std::optional<uint32_t> time_limit_sec;
    output_format format = output_format::table;
    bool vlan_key = false;  // the outer VLAN is the VRF
    bool dump = false;
    bool histogram = false;
    std::vector<trace_part> trace;
    engine_settings engine;
};

// The options, or the code to leave with: after --help and --version, which have been printed, or
// after an error, which has been told on standard error. Throws output_error.
std::variant<options, exit_code> parse_options(int argc, char** argv);

}  // namespace zonflow

#endif
