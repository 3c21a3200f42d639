// main.cpp - zonflow: prints the flows of captures and of live traffic, found by the engine.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>

#include "capture/stop_signal.h"
#include "capture_run.h"
#include "options.h"
#include "output/json_output.h"
#include "output/messages.h"
#include "output/output_stream.h"
#include "output/table_output.h"
#include "standard_descriptors.h"

namespace {

using namespace zonflow;

std::unique_ptr<flow_output> make_output(const options& options, output_stream& out) {
    if (options.format == output_format::json) {
        return std::make_unique<json_output>(out);
    }
    return std::make_unique<table_output>(out, options.files.size() > 1, options.vlan_key);
}

void trace(trace_part part) {
    switch (part) {
    case trace_part::engine:
        zon_debug_flag_engine = true;
        return;
    case trace_part::fe:
        zon_debug_flag_fe = true;
        return;
    case trace_part::l4:
        zon_debug_flag_l4 = true;
        return;
    case trace_part::ager:
        zon_debug_flag_ager = true;
        return;
    case trace_part::all:
        zon_debug_flag_all = true;
        return;
    }
}

exit_code run_all(const options& options) {
    std::for_each(options.trace.begin(), options.trace.end(), trace);
    output_stream out(stdout);
    const auto output = make_output(options, out);
    exit_code worst = options.interface_name.empty() ? exit_code::done : run_live(options, *output);
    for (const std::string& path : options.files) {
        if (stop_requested()) {
            break;
        }
        worst = std::max(worst, run_capture(path, options, *output));
    }
    out.flush();
    return worst;
}

exit_code run(int argc, char** argv) {
    keep_standard_descriptors();
    // A reader that goes away and a file that reaches its limit are errors of writing: no crash.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        const auto parsed = parse_options(argc, argv);
        if (const auto* code = std::get_if<exit_code>(&parsed)) {
            return *code;
        }
        stop_reading_on_signals();
        return run_all(std::get<options>(parsed));
    } catch (const output_error& error) {
        say(std::string("cannot write the output: ") + error.what());
        return exit_code::output_failed;
    } catch (const std::exception& error) {
        say(error.what());
        return exit_code::usage;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return static_cast<int>(run(argc, argv));
}
