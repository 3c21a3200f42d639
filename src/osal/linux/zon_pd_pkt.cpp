// zon_pd_pkt.cpp - the host hook that ends the handling of a packet.
//
// Owns   nothing.
// Locks  none; the flow is locked for as long as its idle time is set.

#include "osal/linux/zon_host_hook.h"
#include "platform/linux/zon_pd_pkt_inline.h"
#include "zon_flow.h"
#include "zon_relaxed.h"

ZON_HOST_HOOK bool zon_cleanup_packet(void* pak_ctx) {
    if (pak_ctx == nullptr)
        return false;
    const zon_pkt_indications_t& seen = static_cast<const zon_pkt_ctx_t*>(pak_ctx)->pkt_indications;
    if (seen.lif == 0)
        return false;
    return zon_flow_set_aging(seen.flow, relaxed_load(ZON_DEFAULT_MIN_AGING)) == zon_error_none;
}
