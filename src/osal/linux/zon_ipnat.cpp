// zon_ipnat.cpp - the host hooks of address translation: here, nothing is translated.
//
// Owns   nothing.
// Locks  none.

#include "osal/linux/zon_host_hook.h"
#include "platform/linux/zon_pd_pkt_inline.h"

ZON_HOST_HOOK bool zon_ipnat_enabled(void*) {
    return false;
}

ZON_HOST_HOOK bool zon_ipnat_translation_required(void*) {
    return false;
}

ZON_HOST_HOOK bool zon_ipv4nat_fixup_ip_port(void*, uint32_t*, uint16_t*, uint32_t*, uint16_t*,
                                             uint8_t) {
    return false;
}

ZON_HOST_HOOK bool zon_ipv4nat_get_translated_ip_port(void*, uint32_t*, uint16_t*, uint32_t*,
                                                      uint16_t*) {
    return false;
}
