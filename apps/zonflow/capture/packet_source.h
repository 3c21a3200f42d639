// packet_source.h - where packets come from, one at a time: a capture, or an interface.
//
// Owns   the bytes of a packet, which live until the next one is read.
// Units  microseconds since 1970 (time_us), microseconds from an arbitrary start (clock_us).
#ifndef ZONFLOW_PACKET_SOURCE_H
#define ZONFLOW_PACKET_SOURCE_H

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

namespace zonflow {

struct captured_packet {
    std::span<const uint8_t> bytes;  // what was captured of the frame
    uint64_t time_us = 0;
    // What flows age by: in a capture the time stamp itself; on live traffic a clock of the machine
    // that does not jump when its date is set.
    uint64_t clock_us = 0;
};

enum class read_result {
    packet,
    quiet,   // none has come for a moment: only clock_us is set, so that flows age in silence too
    ended,   // the end of the file, or a stop signal
    damaged  // nothing more can be read
};

// The source cannot be opened, or holds nothing that can be read at all.
struct open_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The expression is no filter, or none for packets of this link type.
struct filter_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class packet_source {
public:
    virtual ~packet_source() = default;

    // A damaged source stays damaged: what came before has been read, nothing more will be. A stop
    // signal ends any source.
    virtual read_result next(captured_packet& packet) = 0;

    // What is wrong with a damaged source.
    virtual std::string damage() const = 0;

    virtual int link_type() const = 0;
    // The name and the description of the link type, for an error message.
    virtual std::string link_type_name() const = 0;

    virtual uint64_t bytes_read() const = 0;
    // 0 where nobody knows, as with a pipe.
    virtual uint64_t bytes_total() const = 0;

    // Whether strangers send the packets just now.
    virtual bool live() const = 0;
    // Packets of live traffic that were lost before they could be read.
    virtual uint64_t lost() const = 0;
};

}  // namespace zonflow

#endif
