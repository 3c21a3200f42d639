// capture_run.cpp - the packet loop: read, find the IP header, hand to the engine, write the flows
// that ended.
#include "capture_run.h"

#include <cstdio>

#include "capture/capture_reader.h"
#include "capture/link_layer.h"
#include "flows/capture_summary.h"
#include "output/progress.h"

namespace zonflow {

namespace {

void complain(const std::string& path, const std::string& problem) {
    std::fprintf(stderr, "zonflow: %s: %s\n", path.c_str(), problem.c_str());
}

class capture_run {
public:
    capture_run(const options& options, link_layer link, flow_output& output)
        : vlan_key_(options.vlan_key),
          by_source_(options.engine.by_source),
          link_(link),
          output_(output),
          engine_(options.engine) {}

    // Returns false when the file is damaged; what came before the damage has been handled.
    bool read_all(capture_reader& reader) {
        captured_packet packet;
        read_result result = reader.next(packet);
        for (; result == read_result::packet; result = reader.next(packet)) {
            handle(packet);
            write_ended_flows();
            if (progress_.due(summary_.packets)) {
                progress_.draw(reader.bytes_read(), reader.bytes_total(), summary_.packets,
                               engine_.flows_seen());
            }
        }
        progress_.clear();
        return result == read_result::end_of_file;
    }

    void finish() {
        engine_.finish();
        write_ended_flows();
        if (by_source_) {
            output_.groups(engine_.groups());
        }
        output_.summary(summary_);
    }

    uint64_t packets() const { return summary_.packets; }

private:
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

    void write_ended_flows() {
        while (const auto record = engine_.take_ended_flow()) {
            progress_.clear();
            ++summary_.flows;
            output_.flow(*record);
        }
    }

    bool vlan_key_;
    bool by_source_;
    link_layer link_;
    flow_output& output_;
    engine_host engine_;
    capture_summary summary_;
    progress progress_;
};

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
        if (!whole) {
            complain(path, "damaged after " + std::to_string(run.packets()) +
                               " packets: " + reader.damage());
            return exit_code::damaged_input;
        }
        return exit_code::done;
    } catch (const open_error& error) {
        complain(path, error.what());
        return exit_code::cannot_open;
    }
}

}  // namespace zonflow
