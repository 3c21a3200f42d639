// nat_host.cpp - stands between the engine and its NAT hooks.

#include "nat_host.h"

#include "zon_pkt_inline.h"

namespace {

zon_test::nat_host* running = nullptr;

}  // namespace

extern "C" bool __real_zon_ipnat_enabled(void* context);
extern "C" bool __wrap_zon_ipnat_enabled(void* context);
extern "C" bool __real_zon_ipv4nat_fixup_ip_port(void* context, uint32_t* src_ip,
                                                 uint16_t* src_port, uint32_t* dst_ip,
                                                 uint16_t* dst_port, uint8_t protocol);
extern "C" bool __wrap_zon_ipv4nat_fixup_ip_port(void* context, uint32_t* src_ip,
                                                 uint16_t* src_port, uint32_t* dst_ip,
                                                 uint16_t* dst_port, uint8_t protocol);

extern "C" bool __wrap_zon_ipnat_enabled(void* context) {
    return running != nullptr || __real_zon_ipnat_enabled(context);
}

extern "C" bool __wrap_zon_ipv4nat_fixup_ip_port(void* context, uint32_t* src_ip,
                                                 uint16_t* src_port, uint32_t* dst_ip,
                                                 uint16_t* dst_port, uint8_t protocol) {
    if (running == nullptr)
        return __real_zon_ipv4nat_fixup_ip_port(context, src_ip, src_port, dst_ip, dst_port,
                                                protocol);
    ++running->calls;
    running->context = context;
    running->protocol = protocol;
    *src_ip = running->address;
    *src_port = running->port;
    return true;
}

namespace zon_test {

nat_host::nat_host(uint32_t translated_address, uint16_t translated_port)
    : address(translated_address), port(translated_port) {
    running = this;
}
nat_host::~nat_host() {
    running = nullptr;
}

}  // namespace zon_test
