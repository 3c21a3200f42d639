// capture_file.h - builds frames and writes them as captures of every kind, into files that go away
// with the test.
#ifndef ZONFLOW_TESTS_CAPTURE_FILE_H
#define ZONFLOW_TESTS_CAPTURE_FILE_H

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zonflow_tests {

using bytes = std::vector<uint8_t>;

inline bytes operator+(bytes left, const bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline bytes be16(uint32_t value) {
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

inline bytes be32(uint32_t value) {
    return be16(value >> 16) + be16(value & 0xffff);
}

// ---- packets ----------------------------------------------------------------------------------

inline bytes udp_segment(uint16_t from, uint16_t to, size_t payload) {
    return be16(from) + be16(to) + be16(static_cast<uint32_t>(payload + 8)) + be16(0) +
           bytes(payload, 'u');
}

inline bytes tcp_segment(uint16_t from, uint16_t to, uint8_t flags, size_t payload = 0) {
    return be16(from) + be16(to) + be32(1) + be32(1) + bytes{0x50, flags} + be16(1000) + be32(0) +
           bytes(payload, 't');
}

struct ipv4_fields {
    uint32_t from = 0x0a000001;
    uint32_t to = 0x0a000002;
    uint8_t protocol = 17;
    uint16_t identification = 1;
    uint16_t fragment = 0;  // flags and offset, as in the header
};

inline bytes ipv4_packet(const ipv4_fields& fields, const bytes& payload) {
    return bytes{0x45, 0} + be16(static_cast<uint32_t>(payload.size() + 20)) +
           be16(fields.identification) + be16(fields.fragment) + bytes{64, fields.protocol, 0, 0} +
           be32(fields.from) + be32(fields.to) + payload;
}

inline bytes udp_from_port(uint16_t port) {
    return ipv4_packet({}, udp_segment(port, 53, 10));
}

// From 2001:db8::FROM to 2001:db8::TO.
inline bytes ipv6_packet(uint8_t next_header, const bytes& payload, uint8_t from = 1,
                         uint8_t to = 2) {
    const bytes prefix = be32(0x20010db8) + bytes(11, 0);
    return be32(0x60000000) + be16(static_cast<uint32_t>(payload.size())) + bytes{next_header, 64} +
           prefix + bytes{from} + prefix + bytes{to} + payload;
}

inline bytes ethernet(uint16_t ethertype, const bytes& payload) {
    return bytes(12, 2) + be16(ethertype) + payload;
}

inline bytes vlan_tag(uint16_t vlan, uint16_t next_ethertype) {
    return be16(vlan) + be16(next_ethertype);
}

// ---- captures ---------------------------------------------------------------------------------

struct stamped_frame {
    uint64_t time_ns = 0;
    bytes frame;
};

struct pcap_kind {
    const char* name = "little_endian_microseconds";
    bool big_endian = false;
    bool nanoseconds = false;
};

class word_writer {
public:
    explicit word_writer(bool big_endian) : big_endian_(big_endian) {}
    bytes u32(uint32_t value) const {
        bytes word = be32(value);
        return big_endian_ ? word : bytes{word[3], word[2], word[1], word[0]};
    }
    bytes u16(uint16_t value) const {
        bytes word = be16(value);
        return big_endian_ ? word : bytes{word[1], word[0]};
    }

private:
    bool big_endian_;
};

inline bytes pcap_bytes(const std::vector<stamped_frame>& frames, uint32_t link_type,
                        const pcap_kind& kind = {}) {
    const word_writer write(kind.big_endian);
    const uint64_t unit_ns = kind.nanoseconds ? 1 : 1000;
    bytes file = write.u32(kind.nanoseconds ? 0xa1b23c4d : 0xa1b2c3d4) + write.u16(2) +
                 write.u16(4) + write.u32(0) + write.u32(0) + write.u32(262144) +
                 write.u32(link_type);
    for (const stamped_frame& stamped : frames) {
        const auto length = static_cast<uint32_t>(stamped.frame.size());
        file = std::move(file) + write.u32(static_cast<uint32_t>(stamped.time_ns / 1'000'000'000)) +
               write.u32(static_cast<uint32_t>(stamped.time_ns % 1'000'000'000 / unit_ns)) +
               write.u32(length) + write.u32(length) + stamped.frame;
    }
    return file;
}

// One section, one interface, microseconds.
inline bytes pcapng_bytes(const std::vector<stamped_frame>& frames, uint16_t link_type,
                          bool big_endian) {
    const word_writer write(big_endian);
    const auto block = [&](uint32_t type, const bytes& body) {
        const auto length = static_cast<uint32_t>(body.size() + 12);
        return write.u32(type) + write.u32(length) + body + write.u32(length);
    };
    bytes file = block(0x0a0d0d0a, write.u32(0x1a2b3c4d) + write.u16(1) + write.u16(0) +
                                       write.u32(0xffffffff) + write.u32(0xffffffff));
    file = std::move(file) + block(1, write.u16(link_type) + write.u16(0) + write.u32(0));
    for (const stamped_frame& stamped : frames) {
        const uint64_t time_us = stamped.time_ns / 1000;
        const auto length = static_cast<uint32_t>(stamped.frame.size());
        file =
            file + block(6, write.u32(0) + write.u32(static_cast<uint32_t>(time_us >> 32)) +
                                write.u32(static_cast<uint32_t>(time_us)) + write.u32(length) +
                                write.u32(length) + stamped.frame + bytes((4 - length % 4) % 4, 0));
    }
    return file;
}

// A file of these bytes, removed at the end.
class temporary_file {
public:
    explicit temporary_file(const bytes& content) {
        std::string name = std::filesystem::temp_directory_path() / "zonflow-test-XXXXXX";
        const int descriptor = mkstemp(name.data());
        if (descriptor < 0) {
            throw std::runtime_error("no temporary file");
        }
        close(descriptor);
        path_ = name;
        std::ofstream out(path_, std::ios::binary);
        out.write(reinterpret_cast<const char*>(content.data()),
                  static_cast<std::streamsize>(content.size()));
    }
    ~temporary_file() { std::remove(path_.c_str()); }
    temporary_file(const temporary_file&) = delete;
    temporary_file& operator=(const temporary_file&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace zonflow_tests

#endif
