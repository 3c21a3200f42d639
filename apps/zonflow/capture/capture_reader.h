// capture_reader.h - reads the packets of one capture file, pcap or pcapng, in file order.
//
// Owns   the open file; the bytes of a packet live until the next one is read.
// Units  microseconds since 1970 (_us); a nanosecond capture is rounded down.
#ifndef ZONFLOW_CAPTURE_READER_H
#define ZONFLOW_CAPTURE_READER_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include "capture/stop_signal.h"

struct pcap;

namespace zonflow {

struct captured_packet {
    std::span<const uint8_t> bytes;  // what was captured of the frame
    uint64_t time_us = 0;
};

enum class read_result { packet, end_of_file, damaged };

// The file cannot be opened, or is no capture that can be read at all.
struct open_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class capture_reader {
public:
    // The path "-" is standard input. Throws open_error.
    explicit capture_reader(const std::string& path);
    ~capture_reader();
    capture_reader(const capture_reader&) = delete;
    capture_reader& operator=(const capture_reader&) = delete;

    // A damaged file stays damaged: what came before has been read, nothing more will be. A stop
    // signal ends any file.
    read_result next(captured_packet& packet);

    // What is wrong with a damaged file.
    std::string damage() const;

    int link_type() const;
    // The name and the description of the link type, for an error message.
    std::string link_type_name() const;

    uint64_t bytes_read() const;
    // 0 when the input has no size of its own, as a pipe.
    uint64_t bytes_total() const { return bytes_total_; }

private:
    struct closer {
        void operator()(pcap* handle) const;
    };
    std::unique_ptr<pcap, closer> handle_;
    std::optional<stoppable_input> stoppable_;
    uint64_t bytes_total_ = 0;
    bool damaged_ = false;
};

}  // namespace zonflow

#endif
