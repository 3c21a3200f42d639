// sip_helper.h - reads the session descriptions of SIP calls and announces the RTP and RTCP that
// they tell of, as children of the flow that carries the signalling.
//
// Reads  messages that lie within one packet; of a message that is cut, what is there.
#ifndef ZONFLOW_SIP_HELPER_H
#define ZONFLOW_SIP_HELPER_H

#include "helpers/announcer.h"
#include "helpers/seen_packet.h"

namespace zonflow {

class sip_helper {
public:
    // Needs an engine. Throws announcer_error.
    sip_helper();

    void before_packet() { announcer_.withdraw_orphans(); }
    void after_packet(const seen_packet& packet);

private:
    announcer announcer_;
};

}  // namespace zonflow

#endif
