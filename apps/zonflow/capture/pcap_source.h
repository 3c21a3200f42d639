// pcap_source.h - what a capture and an interface have in common: both are read through libpcap.
#ifndef ZONFLOW_PCAP_SOURCE_H
#define ZONFLOW_PCAP_SOURCE_H

#include <memory>
#include <string>

#include "capture/packet_source.h"

struct pcap;

namespace zonflow {

class pcap_source : public packet_source {
public:
    pcap_source(const pcap_source&) = delete;
    pcap_source& operator=(const pcap_source&) = delete;

    std::string damage() const override;
    int link_type() const override;
    std::string link_type_name() const override;

protected:
    pcap_source() = default;
    ~pcap_source() override;

    // From here on only packets that the expression fits are read; the empty one fits all. Throws
    // filter_error.
    void set_filter(const std::string& expression);

    // What pcap_next_ex answers; 1 has set the packet's bytes and time_us.
    int read(captured_packet& packet);

    struct closer {
        void operator()(pcap* handle) const;
    };
    std::unique_ptr<pcap, closer> handle_;
};

}  // namespace zonflow

#endif
