// link_layer_fuzz.cpp - frames of every link type, and the IP header behind them.
//
// Holds  nothing outside the frame is read; IP bytes are there and reach to the frame's end, or end
//        within it; a frame that is cut never turns from IP into something else.

#include "capture/ip_header.h"
#include "capture/link_layer.h"
#include "fuzz_input.h"

using namespace zon_fuzz;
using namespace zonflow;

namespace {

void check_frame(const link_layer& layer, std::span<const uint8_t> content) {
    const exact_block block(content);
    const std::span<const uint8_t> frame(block.data(), block.size());
    const link_result found = layer.find_ip(frame);
    if (found.verdict != link_verdict::ip) {
        require(found.ip_bytes.empty(), "only IP has bytes of IP");
        return;
    }
    const std::span<const uint8_t> ip = found.ip_bytes;
    require(!ip.empty(), "IP has a byte");
    require(ip.data() >= frame.data() && ip.data() + ip.size() <= frame.data() + frame.size(),
            "IP lies within the frame");
    const ip_header header = read_ip_header(ip);
    require(header.version == 0 || header.version == ip[0] >> 4, "the version is the header's");
    // A frame that ends within its IP header begins in the same way.
    const size_t before = static_cast<size_t>(ip.data() - frame.data());
    const exact_block shorter(content.first(before + 1));
    const link_result again = layer.find_ip({shorter.data(), shorter.size()});
    require(again.verdict == link_verdict::ip && again.ip_bytes.size() == 1,
            "IP is found where a frame's first byte of it is");
    require(again.outer_vlan == found.outer_vlan, "the VLAN is the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz_input input(data, size);
    const auto layer = link_layer::of_type(static_cast<int>(input.two_bytes()));
    const auto frame = input.take_all();
    if (layer)
        check_frame(*layer, frame);
    // The link types that there are, whatever the input asks for.
    for (const int type : {0, 1, 12, 101, 108, 113, 228, 229, 276})
        if (const auto known = link_layer::of_type(type))
            check_frame(*known, frame);
    return 0;
}
