// zon_pd_vrf.cpp - the host hook that tells a packet's VRF.
//
// Owns   nothing.
// Locks  none.

#include "osal/linux/zon_host_hook.h"
#include "platform/linux/zon_pd_pkt_inline.h"

ZON_HOST_HOOK uint32_t zon_get_vrf_table_id(void*) {
    return 0;
}
