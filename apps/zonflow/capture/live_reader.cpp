// live_reader.cpp - an interface through libpcap, never waiting for longer than flows may.
//
// libpcap's own time-out is no help there: with a ring, a silent interface keeps it waiting for
// ever. So it is asked without waiting, and the waiting is done here.
#include "capture/live_reader.h"

#include <linux/if_packet.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <chrono>

#include "capture/stop_signal.h"

namespace zonflow {

namespace {

constexpr int moment_ms = 100;  // a packet lies in the ring no longer, and no silence is longer
constexpr int whole_frame_bytes = 262'144;
constexpr int ring_bytes = 16 << 20;

std::string reason_of(pcap* handle, int status) {
    switch (status) {
    case PCAP_ERROR_NO_SUCH_DEVICE:
        return "no such interface";
    case PCAP_ERROR_PERM_DENIED:
    case PCAP_ERROR_PROMISC_PERM_DENIED:
        return "no permission to read its traffic: that takes root or CAP_NET_RAW";
    case PCAP_ERROR_IFACE_NOT_UP:
        return "the interface is down";
    default:
        const std::string reason = pcap_geterr(handle);
        return reason.empty() ? pcap_statustostr(status) : reason;
    }
}

uint64_t monotonic_us() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

}  // namespace

live_reader::live_reader(const std::string& interface_name, const std::string& filter) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    handle_.reset(pcap_create(interface_name.c_str(), reason));
    if (!handle_) {
        throw open_error(reason);
    }
    activate();
    set_filter(filter);
}

live_reader::~live_reader() = default;

void live_reader::activate() {
    pcap* handle = handle_.get();
    pcap_set_snaplen(handle, whole_frame_bytes);
    pcap_set_promisc(handle, 1);
    pcap_set_timeout(handle, moment_ms);
    pcap_set_buffer_size(handle, ring_bytes);
    const int status = pcap_activate(handle);
    if (status < 0) {
        throw open_error(reason_of(handle, status));
    }
    char reason[PCAP_ERRBUF_SIZE] = "";
    if (pcap_setnonblock(handle, 1, reason) != 0) {
        throw open_error(reason);
    }
    descriptor_ = pcap_get_selectable_fd(handle);
    if (descriptor_ < 0) {
        throw open_error("not an interface that can be waited for");
    }
}

read_result live_reader::next(captured_packet& packet) {
    if (damaged_) {
        return read_result::damaged;
    }
    int result = stop_requested() ? PCAP_ERROR_BREAK : read(packet);
    if (result == 0) {
        wait_for_packets();
        result = stop_requested() ? PCAP_ERROR_BREAK : read(packet);
    }
    packet.clock_us = monotonic_us();
    switch (result) {
    case 1:
        bytes_read_ += packet.bytes.size();
        return read_result::packet;
    case 0:
        // libpcap would wait for the interface to come back.
        went_down_ = !interface_is_up();
        damaged_ = went_down_;
        return damaged_ ? read_result::damaged : read_result::quiet;
    case PCAP_ERROR_BREAK:
        return read_result::ended;
    default:
        damaged_ = true;
        return read_result::damaged;
    }
}

// A signal ends the waiting, too, and one that comes just before it is noticed a moment later. What
// is wrong with the interface shows when it is read.
void live_reader::wait_for_packets() const {
    pollfd readable{descriptor_, POLLIN, 0};
    poll(&readable, 1, moment_ms);
}

// Asks by the socket, so that an interface may be given another name meanwhile.
bool live_reader::interface_is_up() const {
    sockaddr_ll address{};
    socklen_t size = sizeof(address);
    if (getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        address.sll_ifindex == 0) {
        return true;  // all interfaces are never down
    }
    ifreq request{};
    request.ifr_ifindex = address.sll_ifindex;
    return ioctl(descriptor_, SIOCGIFNAME, &request) == 0 &&
           ioctl(descriptor_, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) != 0;
}

std::string live_reader::damage() const {
    return went_down_ ? "the interface went down or away" : pcap_source::damage();
}

uint64_t live_reader::lost() const {
    pcap_stat counted{};
    if (pcap_stats(handle_.get(), &counted) != 0) {
        return 0;
    }
    return uint64_t{counted.ps_drop} + counted.ps_ifdrop;
}

}  // namespace zonflow
