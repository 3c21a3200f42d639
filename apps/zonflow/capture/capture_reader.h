// capture_reader.h - reads the packets of one capture file, pcap or pcapng, in file order.
//
// Owns   the open file.
// Units  microseconds since 1970 (_us); a nanosecond capture is rounded down.
#ifndef ZONFLOW_CAPTURE_READER_H
#define ZONFLOW_CAPTURE_READER_H

#include <cstdint>
#include <optional>
#include <string>

#include "capture/pcap_source.h"
#include "capture/stop_signal.h"

namespace zonflow {

class capture_reader final : public pcap_source {
public:
    // The path "-" is standard input. Throws open_error and filter_error.
    explicit capture_reader(const std::string& path, const std::string& filter = "");
    ~capture_reader() override;

    read_result next(captured_packet& packet) override;

    uint64_t bytes_read() const override;
    // 0 when the input has no size of its own, as a pipe.
    uint64_t bytes_total() const override { return bytes_total_; }

    bool live() const override { return false; }
    uint64_t lost() const override { return 0; }

private:
    std::optional<stoppable_input> stoppable_;
    uint64_t bytes_total_ = 0;
    bool damaged_ = false;
};

}  // namespace zonflow

#endif
