// announcer.h - a client of the engine that announces connections before their first packet.
//
// A control flow has told of an endpoint to which a connection will come, from a source that nobody
// knows yet. The engine then makes the connection's flow a child of the control flow.
//
// On every control flow hangs, as the client's feature object, what the flow has announced last.
// When the flow goes away, what is still awaited of it is withdrawn: the engine would give the
// connection a parent that is no more.
//
// Owns     a client id, the feature objects. Must outlive the engine that it was made with.
// Threads  one: that of the packets.
#ifndef ZONFLOW_ANNOUNCER_H
#define ZONFLOW_ANNOUNCER_H

#include <cstdint>
#include <deque>
#include <map>
#include <stdexcept>

#include "zon.h"

namespace zonflow {

struct announcer_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class announcer {
public:
    // A flow that announces more loses its oldest announcements. Throws announcer_error.
    explicit announcer(size_t most_per_flow);
    ~announcer();
    announcer(const announcer&) = delete;
    announcer& operator=(const announcer&) = delete;

    // Awaits a connection of the protocol to the address and port, in the VRF of the control flow,
    // for as long as the engine's pre-flow time says. The newest announcement of an endpoint
    // counts. In a full flow table nothing is awaited. Call it with no flow locked.
    void announce(zon_fid_t control, uint8_t protocol, const zon_ip_addr_t& address, uint16_t port);

    // Withdraws what is awaited for flows that have gone away. Call it before the next packet, with
    // no flow locked.
    void withdraw_orphans();

private:
    struct control_state;
    struct endpoint_order {
        bool operator()(const zon_flow_tuple_t& one, const zon_flow_tuple_t& other) const;
    };

    control_state* state_of(zon_fid_t control);
    void withdraw(const zon_flow_tuple_t& tuple);
    void free_orphans();
    static void flow_goes_away(zon_flow_ptr_t flow, void* initiator_fo, void* responder_fo,
                               void* flow_fo, zon_flow_deletion_reason_e reason,
                               zon_client_id_e client);

    size_t most_per_flow_;
    zon_client_id_e client_ = 0;
    std::map<zon_flow_tuple_t, control_state*, endpoint_order> announced_;  // and who by
    control_state* orphans_ = nullptr;
};

}  // namespace zonflow

#endif
