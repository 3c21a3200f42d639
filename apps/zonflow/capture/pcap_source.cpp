// pcap_source.cpp - libpcap behind a small door: packets, filters, names of link types.
#include "capture/pcap_source.h"

#include <pcap/pcap.h>

namespace zonflow {

namespace {

// libpcap sign-extends the 32 bits of seconds that a pcap file holds; they are unsigned and reach
// to 2106.
uint64_t to_microseconds(const timeval& time) {
    const auto seconds = time.tv_sec < 0 ? static_cast<uint64_t>(static_cast<uint32_t>(time.tv_sec))
                                         : static_cast<uint64_t>(time.tv_sec);
    const auto fraction = time.tv_usec < 0 ? uint64_t{0} : static_cast<uint64_t>(time.tv_usec);
    constexpr uint64_t latest_seconds = 253402300799;  // the end of the year 9999
    return (seconds < latest_seconds ? seconds : latest_seconds) * 1'000'000 + fraction;
}

struct filter_program : bpf_program {
    filter_program() : bpf_program{} {}
    ~filter_program() { pcap_freecode(this); }
    filter_program(const filter_program&) = delete;
    filter_program& operator=(const filter_program&) = delete;
};

}  // namespace

void pcap_source::closer::operator()(pcap* handle) const {
    pcap_close(handle);
}

pcap_source::~pcap_source() = default;

void pcap_source::set_filter(const std::string& expression) {
    if (expression.empty()) {
        return;
    }
    filter_program program;
    constexpr int optimized = 1;
    if (pcap_compile(handle_.get(), &program, expression.c_str(), optimized,
                     PCAP_NETMASK_UNKNOWN) != 0 ||
        pcap_setfilter(handle_.get(), &program) != 0) {
        throw filter_error(pcap_geterr(handle_.get()));
    }
}

int pcap_source::read(captured_packet& packet) {
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = pcap_next_ex(handle_.get(), &header, &bytes);
    if (result == 1) {
        packet.bytes = {bytes, header->caplen};
        packet.time_us = to_microseconds(header->ts);
    }
    return result;
}

std::string pcap_source::damage() const {
    return pcap_geterr(handle_.get());
}

int pcap_source::link_type() const {
    return pcap_datalink(handle_.get());
}

std::string pcap_source::link_type_name() const {
    const int type = link_type();
    const char* name = pcap_datalink_val_to_name(type);
    const char* description = pcap_datalink_val_to_description(type);
    std::string text = std::to_string(type);
    if (name != nullptr) {
        text += std::string(" ") + name;
    }
    if (description != nullptr) {
        text += std::string(" (") + description + ")";
    }
    return text;
}

}  // namespace zonflow
