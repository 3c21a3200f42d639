// host_functions.cpp - what the engine's callbacks do in these tests: they write down.

#include "properties/host_functions.h"

namespace zon_test {

bool nat_is_on = false;

notices& told_by_engine() {
    static notices all;
    return all;
}

std::vector<uint32_t>& visited_by_engine() {
    static std::vector<uint32_t> all;
    return all;
}

void note_deletion(zon_flow_ptr_t fid, void* initiator, void* responder, void* whole,
                   zon_flow_deletion_reason_e reason, zon_client_id_e client) {
    told_by_engine().push_back(
        {notice_of::deletion,
         {client, fid, static_cast<uint64_t>(reason), reinterpret_cast<uintptr_t>(initiator),
          reinterpret_cast<uintptr_t>(responder), reinterpret_cast<uintptr_t>(whole)}});
}

bool may_create(void* context, zon_client_id_e client) {
    told_by_engine().push_back({notice_of::creation, {client}});
    return static_cast<const packet_context*>(context)->vetoed_by != client;
}

void rewrite_bypass(uint32_t payload, bool first, bool promoted, bool first_payload, uint32_t* id) {
    told_by_engine().push_back({notice_of::bypass, {payload, first, promoted, first_payload, *id}});
    *id = next_bypass_id(*id, payload);
}

void note_context_gone(uint32_t context, zon_super_context_types_e type, void** object) {
    told_by_engine().push_back(
        {notice_of::context_gone,
         {context, static_cast<uint64_t>(type), reinterpret_cast<uintptr_t>(object)}});
}

bool note_visit(zon_flow_ptr_t fid) {
    visited_by_engine().push_back(fid);
    return true;
}

namespace {

template <size_t type>
bool look_up(void* context, uint32_t* value) {
    const std::optional<uint32_t>& found =
        static_cast<const packet_context*>(context)->contexts[type];
    if (found)
        *value = *found;
    return found.has_value();
}

}  // namespace

const std::array<zon_super_context_lookup_callback, 4> context_lookups = {look_up<0>, look_up<1>,
                                                                          look_up<2>, look_up<3>};

}  // namespace zon_test

// The hooks that a host replaces by functions of the same names.

bool zon_ipnat_enabled(void*) {
    return zon_test::nat_is_on;
}

bool zon_ipv4nat_fixup_ip_port(void*, uint32_t* src_ip, uint16_t* src_port, uint32_t*, uint16_t*,
                               uint8_t) {
    *src_ip = zon_test::translated_address;
    *src_port = zon_test::translated_port;
    return true;
}
