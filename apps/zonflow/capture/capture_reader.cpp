// capture_reader.cpp - libpcap behind a small door: one file, one packet at a time, damage told
// apart from the end.
#include "capture/capture_reader.h"

#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zonflow {

namespace {

// Standard input by a descriptor of our own, which may be closed.
std::FILE* open_standard_input() {
    const int descriptor = dup(STDIN_FILENO);
    std::FILE* file = descriptor < 0 ? nullptr : fdopen(descriptor, "rb");
    if (file == nullptr && descriptor >= 0) {
        close(descriptor);
    }
    return file;
}

std::FILE* open_file(const std::string& path, uint64_t& size) {
    std::FILE* file = path == "-" ? open_standard_input() : std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw open_error(std::strerror(errno));
    }
    struct stat status {};
    if (fstat(fileno(file), &status) == 0) {
        if (S_ISDIR(status.st_mode)) {
            std::fclose(file);
            throw open_error(std::strerror(EISDIR));
        }
        size = S_ISREG(status.st_mode) ? static_cast<uint64_t>(status.st_size) : 0;
    }
    return file;
}

// libpcap sign-extends the 32 bits of seconds that a pcap file holds; they are unsigned and reach
// to 2106.
uint64_t to_microseconds(const timeval& time) {
    const auto seconds = time.tv_sec < 0 ? static_cast<uint64_t>(static_cast<uint32_t>(time.tv_sec))
                                         : static_cast<uint64_t>(time.tv_sec);
    const auto fraction = time.tv_usec < 0 ? uint64_t{0} : static_cast<uint64_t>(time.tv_usec);
    constexpr uint64_t latest_seconds = 253402300799;  // the end of the year 9999
    return (seconds < latest_seconds ? seconds : latest_seconds) * 1'000'000 + fraction;
}

}  // namespace

void capture_reader::closer::operator()(pcap* handle) const {
    pcap_close(handle);
}

capture_reader::capture_reader(const std::string& path) {
    std::FILE* file = open_file(path, bytes_total_);
    stoppable_.emplace(fileno(file));
    char reason[PCAP_ERRBUF_SIZE] = "";
    handle_.reset(pcap_fopen_offline(file, reason));
    if (!handle_) {
        stoppable_.reset();
        std::fclose(file);
        throw open_error(std::string("not a capture that can be read: ") + reason);
    }
}

capture_reader::~capture_reader() = default;

read_result capture_reader::next(captured_packet& packet) {
    // libpcap would go on behind the damage, and take whatever stands there for a packet.
    if (damaged_) {
        return read_result::damaged;
    }
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = pcap_next_ex(handle_.get(), &header, &bytes);
    if (result == PCAP_ERROR_BREAK || stop_requested()) {
        return read_result::end_of_file;
    }
    if (result != 1) {
        damaged_ = true;
        return read_result::damaged;
    }
    packet.bytes = {bytes, header->caplen};
    packet.time_us = to_microseconds(header->ts);
    return read_result::packet;
}

std::string capture_reader::damage() const {
    return pcap_geterr(handle_.get());
}

int capture_reader::link_type() const {
    return pcap_datalink(handle_.get());
}

std::string capture_reader::link_type_name() const {
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

uint64_t capture_reader::bytes_read() const {
    std::FILE* file = pcap_file(handle_.get());
    const off_t position = file != nullptr ? ftello(file) : -1;
    return position < 0 ? 0 : static_cast<uint64_t>(position);
}

}  // namespace zonflow
