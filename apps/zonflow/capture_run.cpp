// capture_run.cpp - the packet loop: read, find the IP header, hand to the engine, write the flows
// that ended.
#include "capture_run.h"

#include <cstdio>
#include <optional>

#include "capture/capture_reader.h"
#include "capture/link_layer.h"
#include "capture/stop_signal.h"
#include "flows/capture_summary.h"
#include "flows/engine_report.h"
#include "output/progress.h"

namespace zonflow {

namespace {

void complain(const std::string& path, const std::string& problem) {
    std::fprintf(stderr, "zonflow: %s: %s\n", path.c_str(), problem.c_str());
}

std::string packets_text(uint64_t count) {
    return std::to_string(count) + (count == 1 ? " packet" : " packets");
}

class capture_run {
public:
    capture_run(const options& options, link_layer link, flow_output& output)
        : vlan_key_(options.vlan_key),
          by_source_(options.engine.by_source),
          dump_(options.dump),
          histogram_(options.histogram),
          link_(link),
          output_(output),
          engine_(options.engine) {}

    // Returns false when the file is damaged; what came before the damage has been handled.
    bool read_all(capture_reader& reader) {
        // The flows of a feed are shown as they end: nobody knows when the next packet comes.
        const bool feed = reader.bytes_total() == 0;
        if (feed) {
            output_.flush();
        }
        captured_packet packet;
        read_result result = reader.next(packet);
        for (; result == read_result::packet; result = reader.next(packet)) {
            handle(packet);
            if (write_ended_flows() && feed) {
                output_.flush();
            }
            if (progress_.due(summary_.packets)) {
                progress_.draw(reader.bytes_read(), reader.bytes_total(), summary_.packets,
                               engine_.flows_seen());
            }
        }
        progress_.clear();
        return result == read_result::end_of_file;
    }

    void finish() {
        const engine_reports reports = make_reports();
        engine_.finish();
        write_ended_flows();
        summary_.out_of_time = engine_.out_of_time();
        if (by_source_) {
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
        if (dump_) {
            output_.flush();
            made.dump = flow_table_dump();
        }
        if (histogram_) {
            made.histogram = flow_table_depths();
        }
        return made;
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
        const uint32_t vrf = vlan_key_ ? found.outer_vlan : 0;
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

    bool vlan_key_;
    bool by_source_;
    bool dump_;
    bool histogram_;
    link_layer link_;
    flow_output& output_;
    engine_host engine_;
    capture_summary summary_;
    progress progress_;
};

// What is no error, and yet a person would want to know.
void warn(const std::string& path, const capture_summary& summary, uint32_t max_flows) {
    const auto no_room = summary.refused.find(engine_host::reason_of_no_room());
    if (no_room != summary.refused.end()) {
        complain(path, packets_text(no_room->second) + " refused for want of room: " +
                           "--max-flows sets how many flows there may be (now " +
                           std::to_string(max_flows) + ")");
    }
    if (summary.out_of_time != 0) {
        complain(path, packets_text(summary.out_of_time) +
                           " stamped more than a second before an earlier one; no time passes "
                           "with such packets, so flows may have aged too early or not at all");
    }
    if (stop_requested()) {
        complain(path, "stopped after " + packets_text(summary.packets));
    }
}

}  // namespace

exit_code run_capture(const std::string& path, const options& options, flow_output& output) {
    try {
        capture_reader reader(path);
        const std::optional<link_layer> link = link_layer::of_type(reader.link_type());
        if (!link) {
            complain(path, "link type " + reader.link_type_name() +
                               " is not known; the known ones are " + known_link_types());
            return exit_code::cannot_open;
        }
        output.begin(path);
        capture_run run(options, *link, output);
        const bool whole = run.read_all(reader);
        run.finish();
        warn(path, run.summary(), options.engine.max_flows);
        if (!whole) {
            complain(path, "damaged after " + packets_text(run.summary().packets) + ": " +
                               reader.damage());
            return exit_code::damaged_input;
        }
        return exit_code::done;
    } catch (const open_error& error) {
        if (stop_requested()) {
            return exit_code::done;
        }
        complain(path, error.what());
        return exit_code::cannot_open;
    }
}

}  // namespace zonflow
