// ipv6_walk_fuzz.cpp - the walk over the headers of captured packets of both families, alone.
//
// Holds  nothing outside the captured bytes is read; the walk over IPv6 extension headers ends
//        where a plain one does, for the same reason.

#include "fuzz_input.h"
#include "zon_engine/zon_captured_packet.h"

using namespace zon_fuzz;

namespace {

struct end_of_walk {
    fe_extent extent = fe_extent::broken;
    size_t transport = 0;  // offset of the transport header; 0 for none
    size_t fragment = 0;   // offset of the fragment header; 0 for none
    uint8_t protocol = 0;
};

size_t size_of_extension(uint8_t type, uint8_t length) {
    if (type == 44)
        return 8;
    return type == 51 ? length * 4U + 8 : length * 8U + 8;
}

end_of_walk plain_walk(std::span<const uint8_t> ip) {
    end_of_walk end;
    if (ip.size() < 40)
        return end;
    end.protocol = ip[6];
    size_t at = 40;
    for (unsigned headers = 0; zon_is_ipv6_extension(end.protocol); ++headers) {
        if (end.protocol == 50) {
            end.protocol = 59;
            end.extent = fe_extent::complete;
            return end;
        }
        if (headers == 16 || at + 2 > ip.size())
            return end;
        const size_t next = at + size_of_extension(end.protocol, ip[at + 1]);
        if (next > ip.size())
            return end;
        if (end.protocol == 44) {
            if (end.fragment != 0)
                return end;
            end.fragment = at;
            const bool is_later = ip[at + 2] != 0 || ip[at + 3] > 7;
            if (is_later && zon_is_ipv6_extension(ip[at])) {
                end = {fe_extent::hidden, next, at, ip[at]};
                return end;
            }
        }
        end.protocol = ip[at];
        at = next;
    }
    end.extent = fe_extent::complete;
    end.transport = at;
    return end;
}

void compare_walks(const exact_block& block) {
    zon_dp_fe_t fe{};
    const end_of_walk expected = plain_walk({block.data(), block.size()});
    const fe_extent extent = zon_fe_extract_fields_within(block.data(), block.size(), &fe);
    require(extent == expected.extent, "the walk ends for the same reason");
    if (extent == fe_extent::broken) {
        require(fe.l4_start == nullptr, "a broken chain leads nowhere");
        return;
    }
    const auto offset = [&](const uint8_t* at) {
        return at == nullptr ? size_t{0} : static_cast<size_t>(at - block.data());
    };
    require(offset(fe.l4_start) == expected.transport, "the transport header is at its place");
    require(offset(fe.ipv6_frag_hdr) == expected.fragment, "the fragment header is at its place");
    require(fe.protocol == expected.protocol, "the protocol is the last header's");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const exact_block block({data, size});
    zon_dp_fe_t fe{};
    const packet_check check = zon_check_captured_packet(block.data(), block.size(), fe);
    if (check == packet_check::sound && fe.l4_start != nullptr)
        require(fe.l4_start > block.data() && fe.l4_start <= block.data() + block.size(),
                "the transport header of a sound packet is there");
    if (size != 0 && data[0] >> 4 == 6)
        compare_walks(block);
    return 0;
}
