// live_reader.h - reads the packets that pass an interface, as the kernel shows them.
//
// Owns   the packet socket and its ring, which the kernel fills and this empties.
// Units  microseconds since 1970 by the kernel's date (time_us), by CLOCK_MONOTONIC (clock_us).
#ifndef ZONFLOW_LIVE_READER_H
#define ZONFLOW_LIVE_READER_H

#include <cstdint>
#include <string>

#include "capture/pcap_source.h"

namespace zonflow {

class live_reader final : public pcap_source {
public:
    // The interface "any" is all of them. Throws open_error and filter_error.
    live_reader(const std::string& interface_name, const std::string& filter);
    ~live_reader() override;

    // Answers within a tenth of a second, if only with quiet.
    read_result next(captured_packet& packet) override;

    std::string damage() const override;

    uint64_t bytes_read() const override { return bytes_read_; }
    uint64_t bytes_total() const override { return 0; }

    bool live() const override { return true; }
    uint64_t lost() const override;

private:
    void activate();
    void wait_for_packets() const;
    bool interface_is_up() const;

    int descriptor_ = -1;  // libpcap's own
    uint64_t bytes_read_ = 0;
    bool damaged_ = false;
    bool went_down_ = false;
};

}  // namespace zonflow

#endif
