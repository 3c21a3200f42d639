// sdp_fuzz.cpp - the reader of SIP messages and of the sessions that they describe, on any text.
//
// Holds  nothing outside the text is read; a description lies within its message; endpoints have
//        ports; a last line without its end says nothing.

#include <string>

#include "fuzz_input.h"
#include "helpers/sip/sdp.h"
#include "helpers/text_lines.h"

using namespace zon_fuzz;
using namespace zonflow;

namespace {

void check_endpoints(std::string_view description) {
    const auto endpoints = media_endpoints(description);
    for (const media_endpoint& one : endpoints)
        require(one.port != 0, "media go to a port");
    // The same without the line that is cut off.
    const std::string whole(description.substr(0, description.rfind('\n') + 1));
    const auto of_whole_lines = media_endpoints(whole);
    require(endpoints.size() == of_whole_lines.size(), "a line without its end says nothing");
    for (size_t i = 0; i < endpoints.size(); ++i)
        require(endpoints[i].port == of_whole_lines[i].port &&
                    same_address(endpoints[i].address, of_whole_lines[i].address),
                "a line without its end changes nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const exact_block block({data, size});
    const std::string_view message = block.text();
    check_endpoints(message);
    if (const auto description = session_description(message)) {
        require(description->data() >= message.data() &&
                    description->data() + description->size() <= message.data() + message.size(),
                "a description lies within its message");
        check_endpoints(*description);
    }
    return 0;
}
