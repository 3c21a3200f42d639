// capture_run.cpp - the packet loop: read, turn the clock, find the IP header, hand to the engine,
// write the flows that ended.
#include "capture_run.h"

#include <optional>

#include "capture/capture_reader.h"
#include "capture/link_layer.h"
#include "capture/live_reader.h"
#include "capture/stop_signal.h"
#include "flows/capture_summary.h"
#include "flows/engine_report.h"
#include "flows/hash_seed.h"
#include "output/messages.h"
#include "output/progress.h"

namespace zonflow {

namespace {

void complain(const std::string& name, const std::string& problem) {
    say(name + ": " + problem);
}

std::string packets_text(uint64_t count) {
    return std::to_string(count) + (count == 1 ? " packet" : " packets");
}

// Who sends live traffic may choose what shares a bucket of the plain hash. The output of a capture
// is the same on every run instead, its dump and its histogram too.
engine_settings settings_for(const packet_source& source, const options& options) {
    engine_settings settings = options.engine;
    settings.hash_seed = source.live() ? random_hash_seed() : 0;
    return settings;
}

class capture_run {
public:
    capture_run(const options& options, packet_source& source, link_layer link, flow_output& output)
        : options_(options),
          source_(source),
          link_(link),
          output_(output),
          engine_(settings_for(source, options)) {}

    // Returns false when the source is damaged; what came before the damage has been handled.
    bool read_all() {
        // The flows of a feed are shown as they end: nobody knows when the next packet comes.
        const bool feed = source_.bytes_total() == 0;
        if (feed) {
            output_.flush();
        }
        captured_packet packet;
        read_result result = read_result::ended;
        while (!has_enough_packets()) {
            result = source_.next(packet);
            const bool goes_on = result == read_result::packet || result == read_result::quiet;
            if (!goes_on || is_late(packet.clock_us)) {
                break;
            }
            engine_.turn_clock(packet.clock_us);
            if (result == read_result::packet) {
                handle(packet);
            }
            if (write_ended_flows() && feed) {
                output_.flush();
            }
            show_progress();
        }
        progress_.clear();
        return result != read_result::damaged;
    }

    void finish() {
        const engine_reports reports = make_reports();
        engine_.finish();
        write_ended_flows();
        summary_.out_of_time = engine_.out_of_time();
        if (source_.live()) {
            summary_.lost = source_.lost();
        }
        if (options_.engine.by_source) {
            output_.groups(engine_.groups());
        }
        if (reports.dump) {
            output_.dump(*reports.dump);
        }
        if (reports.histogram) {
            output_.histogram(*reports.histogram);
        }
        output_.summary(summary_);
    }

    const capture_summary& summary() const { return summary_; }

private:
    // Of the flows that the capture leaves open, so made before the engine ends them.
    struct engine_reports {
        std::optional<std::string> dump;
        std::optional<bucket_depths> histogram;
    };

    engine_reports make_reports() {
        engine_reports made;
        if (options_.dump) {
            output_.flush();
            made.dump = flow_table_dump();
        }
        if (options_.histogram) {
            made.histogram = flow_table_depths();
        }
        return made;
    }

    bool has_enough_packets() const {
        return options_.packet_limit && summary_.packets >= *options_.packet_limit;
    }

    bool is_late(uint64_t clock_us) {
        if (!begun_us_) {
            begun_us_ = clock_us;
        }
        constexpr uint64_t second_us = 1'000'000;
        return options_.time_limit_sec &&
               clock_us >= *begun_us_ + *options_.time_limit_sec * second_us;
    }

    void show_progress() {
        if (progress_.due(summary_.packets)) {
            progress_.draw(source_.bytes_read(), source_.bytes_total(), summary_.packets,
                           engine_.flows_seen());
        }
    }

    void handle(const captured_packet& packet) {
        ++summary_.packets;
        const link_result found = link_.find_ip(packet.bytes);
        switch (found.verdict) {
        case link_verdict::not_ip:
            ++summary_.not_ip;
            return;
        case link_verdict::cut:
            ++summary_.malformed;
            return;
        case link_verdict::ip:
            break;
        }
        const uint32_t vrf = options_.vlan_key ? found.outer_vlan : 0;
        count(engine_.handle(found.ip_bytes, vrf, packet.time_us));
    }

    void count(const packet_outcome& outcome) {
        switch (outcome.fate) {
        case packet_fate::classified:
            ++summary_.classified;
            return;
        case packet_fate::refused:
            ++summary_.refused[outcome.reason];
            return;
        case packet_fate::malformed:
            ++summary_.malformed;
            return;
        }
    }

    // Whether there were any.
    bool write_ended_flows() {
        const uint64_t before = summary_.flows;
        while (const auto record = engine_.take_ended_flow()) {
            progress_.clear();
            ++summary_.flows;
            output_.flow(*record);
        }
        return summary_.flows != before;
    }

    const options& options_;
    packet_source& source_;
    link_layer link_;
    flow_output& output_;
    engine_host engine_;
    capture_summary summary_;
    std::optional<uint64_t> begun_us_;  // when the source answered first
    progress progress_;
};

// What is no error, and yet a person would want to know.
void warn(const std::string& name, const capture_summary& summary, uint32_t max_flows) {
    const auto no_room = summary.refused.find(engine_host::reason_of_no_room());
    if (no_room != summary.refused.end()) {
        complain(name, packets_text(no_room->second) + " refused for want of room: " +
                           "--max-flows sets how many flows there may be (now " +
                           std::to_string(max_flows) + ")");
    }
    if (summary.out_of_time != 0) {
        complain(name, packets_text(summary.out_of_time) +
                           " stamped more than a second before an earlier one; no time passes "
                           "with such packets, so flows may have aged too early or not at all");
    }
    if (summary.lost.value_or(0) != 0) {
        complain(name, packets_text(*summary.lost) +
                           " lost in the kernel or the interface, so flows may count too little");
    }
    if (stop_requested()) {
        complain(name, "stopped after " + packets_text(summary.packets));
    }
}

// Tells what keeps a source from being read at all.
template <class reader>
exit_code open_and_run(const std::string& name, const options& options, flow_output& output) {
    try {
        reader source(name, options.filter);
        return run_source(source, name, options, output);
    } catch (const open_error& error) {
        if (stop_requested()) {
            return exit_code::done;
        }
        complain(name, error.what());
        return exit_code::cannot_open;
    } catch (const filter_error& error) {
        complain(name, "--filter: " + std::string(error.what()));
        return exit_code::usage;
    }
}

}  // namespace

exit_code run_source(packet_source& source, const std::string& name, const options& options,
                     flow_output& output) {
    const std::optional<link_layer> link = link_layer::of_type(source.link_type());
    if (!link) {
        complain(name, "link type " + source.link_type_name() +
                           " is not known; the known ones are " + known_link_types());
        return exit_code::cannot_open;
    }
    output.begin(name);
    capture_run run(options, source, *link, output);
    const bool whole = run.read_all();
    run.finish();
    warn(name, run.summary(), options.engine.max_flows);
    if (!whole) {
        complain(name, std::string(source.live() ? "broken off" : "damaged") + " after " +
                           packets_text(run.summary().packets) + ": " + source.damage());
        return exit_code::damaged_input;
    }
    return exit_code::done;
}

exit_code run_capture(const std::string& path, const options& options, flow_output& output) {
    return open_and_run<capture_reader>(path, options, output);
}

exit_code run_live(const options& options, flow_output& output) {
    return open_and_run<live_reader>(options.interface_name, options, output);
}

}  // namespace zonflow
