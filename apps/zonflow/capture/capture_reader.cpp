// capture_reader.cpp - one file, one packet at a time, damage told apart from the end.
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

}  // namespace

capture_reader::capture_reader(const std::string& path, const std::string& filter) {
    std::FILE* file = open_file(path, bytes_total_);
    stoppable_.emplace(fileno(file));
    char reason[PCAP_ERRBUF_SIZE] = "";
    handle_.reset(pcap_fopen_offline(file, reason));
    if (!handle_) {
        stoppable_.reset();
        std::fclose(file);
        throw open_error(std::string("not a capture that can be read: ") + reason);
    }
    set_filter(filter);
}

capture_reader::~capture_reader() = default;

read_result capture_reader::next(captured_packet& packet) {
    // libpcap would go on behind the damage, and take whatever stands there for a packet.
    if (damaged_) {
        return read_result::damaged;
    }
    const int result = read(packet);
    if (result == PCAP_ERROR_BREAK || stop_requested()) {
        return read_result::ended;
    }
    if (result != 1) {
        damaged_ = true;
        return read_result::damaged;
    }
    packet.clock_us = packet.time_us;
    return read_result::packet;
}

uint64_t capture_reader::bytes_read() const {
    std::FILE* file = pcap_file(handle_.get());
    const off_t position = file != nullptr ? ftello(file) : -1;
    return position < 0 ? 0 : static_cast<uint64_t>(position);
}

}  // namespace zonflow
