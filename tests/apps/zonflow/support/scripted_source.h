// scripted_source.h - a source that answers what a test has written down, and an output that keeps
// what it is given; both tell a common log, so that the order shows.
#ifndef ZONFLOW_TESTS_SCRIPTED_SOURCE_H
#define ZONFLOW_TESTS_SCRIPTED_SOURCE_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "capture/packet_source.h"
#include "output/flow_output.h"
#include "tests/apps/zonflow/support/capture_file.h"

namespace zonflow_tests {

struct answer {
    zonflow::read_result result = zonflow::read_result::packet;
    uint64_t clock_us = 0;
    uint64_t time_us = 0;
    bytes frame;
};

inline answer packet_at(uint64_t clock_us, uint64_t time_us, bytes frame) {
    return {zonflow::read_result::packet, clock_us, time_us, std::move(frame)};
}

inline answer quiet_at(uint64_t clock_us) {
    return {zonflow::read_result::quiet, clock_us, 0, {}};
}

enum class source_kind { capture, live };

// Raw IP. Behind the last answer it has ended.
class scripted_source final : public zonflow::packet_source {
public:
    scripted_source(source_kind kind, std::vector<answer> answers,
                    std::vector<std::string>* log = nullptr)
        : kind_(kind), answers_(std::move(answers)), log_(log) {}

    zonflow::read_result next(zonflow::captured_packet& packet) override {
        if (log_ != nullptr) {
            log_->push_back("next");
        }
        if (asked_ == answers_.size()) {
            return zonflow::read_result::ended;
        }
        const answer& given = answers_[asked_++];
        packet = {given.frame, given.time_us, given.clock_us};
        return given.result;
    }
    std::string damage() const override { return "as written down"; }
    int link_type() const override { return 101; }
    std::string link_type_name() const override { return "101 RAW"; }
    uint64_t bytes_read() const override { return 0; }
    uint64_t bytes_total() const override { return kind_ == source_kind::live ? 0 : 1; }
    bool live() const override { return kind_ == source_kind::live; }
    uint64_t lost() const override { return lost_packets; }

    uint64_t lost_packets = 0;
    size_t asked() const { return asked_; }

private:
    source_kind kind_;
    std::vector<answer> answers_;
    std::vector<std::string>* log_;
    size_t asked_ = 0;
};

class collected_output final : public zonflow::flow_output {
public:
    explicit collected_output(std::vector<std::string>* log = nullptr) : log_(log) {}

    void begin(const std::string& file_name) override { name = file_name; }
    void flow(const zonflow::flow_record& record) override {
        flows.push_back(record);
        tell(zonflow::end_name(record));
    }
    void groups(const std::vector<zonflow::source_group>&) override {}
    void dump(const std::string&) override {}
    void histogram(const zonflow::bucket_depths&) override {}
    void summary(const zonflow::capture_summary& told) override { sums = told; }
    void flush() override { tell("flush"); }

    std::string name;
    std::vector<zonflow::flow_record> flows;
    std::optional<zonflow::capture_summary> sums;

private:
    void tell(const char* what) {
        if (log_ != nullptr) {
            log_->push_back(what);
        }
    }
    std::vector<std::string>* log_;
};

}  // namespace zonflow_tests

#endif
