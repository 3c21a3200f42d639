// burst_clients.h - the functions that the clients of a run register.

#pragma once

#include "burst/burst_run.h"

namespace zon_test {

// The run that the functions write to; one at a time.
struct burst_clients {
    static void enter(burst_run& run);
    static void leave();
    static void register_functions(zon_client_id_e client);
    static bool is_translated(const void* note);

    static bool may_create(void* note, zon_client_id_e client);
    static void bypass(uint32_t payload, bool first, bool promoted, bool first_payload,
                       uint32_t* id);
    static void deleted(zon_flow_ptr_t fid, void* initiator, void* responder, void* whole,
                        zon_flow_deletion_reason_e reason, zon_client_id_e client);
    static bool find_context(void* note, uint32_t* context);
    static void context_gone(uint32_t context, zon_super_context_types_e type, void** object);

private:
    static burst_run* running_;
};

}  // namespace zon_test
