// capture_file_fuzz.cpp - whole capture files, read as zonflow reads them.
//
// Holds  any file is refused, or read until it ends or is found damaged; packets lie within what
//        was captured; damage has a text; a file gives no more packets than it has room for.

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "capture/capture_reader.h"
#include "capture/ip_header.h"
#include "capture/link_layer.h"
#include "fuzz_input.h"

using namespace zon_fuzz;
using namespace zonflow;

namespace {

// A file in memory with a path.
class file_in_memory {
public:
    file_in_memory(const uint8_t* data, size_t size)
        : descriptor_(memfd_create("capture", MFD_CLOEXEC)) {
        require(descriptor_ >= 0, "there is memory for a file");
        require(write(descriptor_, data, size) == static_cast<ssize_t>(size), "it is written");
    }
    ~file_in_memory() { close(descriptor_); }
    file_in_memory(const file_in_memory&) = delete;
    file_in_memory& operator=(const file_in_memory&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

private:
    int descriptor_;
};

void read_all(capture_reader& reader, size_t size) {
    const auto layer = link_layer::of_type(reader.link_type());
    require(!reader.link_type_name().empty(), "a link type has a name");
    captured_packet packet;
    size_t packets = 0, bytes = 0;
    read_result result;
    while ((result = reader.next(packet)) == read_result::packet) {
        bytes += packet.bytes.size();
        require(++packets <= size && bytes <= size, "all that is read is in the file");
        // A copy: the reader's own buffer is larger than the packet.
        const exact_block block(packet.bytes);
        if (!layer)
            continue;
        const link_result found = layer->find_ip({block.data(), block.size()});
        if (found.verdict == link_verdict::ip)
            read_ip_header(found.ip_bytes);
    }
    if (result == read_result::damaged)
        require(!reader.damage().empty(), "damage has a text");
    require(reader.next(packet) != read_result::packet, "what has ended stays so");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const file_in_memory file(data, size);
    try {
        capture_reader reader(file.path());
        require(reader.bytes_total() == size, "the file's size is known");
        read_all(reader, size);
    } catch (const open_error& reason) {
        require(reason.what()[0] != '\0', "a refusal has a text");
    }
    return 0;
}
