// zon_packet_fragments.cpp - gives the later fragments of a datagram the flow of its first one (RFC
// 791 2.3, RFC 8200 4.5).
//
// Locks  the flow of a later fragment, while its counters are read.

#include "zon_engine/zon_packet_entry.h"
#include "zon_frag.h"

namespace {

bool has_ports(uint8_t protocol) {
    return protocol == ZON_TCP_PROT || protocol == ZON_UDP_PROT;
}

zon_l4_port_t ports_of(zon_dp_fe_t& fe) {
    return has_ports(fe.protocol) ? zon_l4_port_t{zon_srcport(&fe), zon_dstport(&fe)}
                                  : zon_l4_port_t{0, 0};
}

// The fragment table's operations on the datagram that a packet belongs to, whatever its family.
class datagram {
public:
    datagram(const arriving_packet& arriving, zon_dp_fe_t& fe)
        : table_(arriving.engine->frag_table), vrf_id_(arriving.vrf_id), fe_(fe) {}

    void remember(zon_fid_t fid) {
        if (is_ipv4())
            zon_frag_flow_insert_ipv4(table_, zon_ipv4_frag_id(&fe_), vrf_id_, fe_.protocol,
                                      zon_ipv4_srcip(&fe_), zon_ipv4_dstip(&fe_), fid);
        else
            zon_frag_flow_insert_ipv6(table_, zon_ipv6_frag_id(&fe_), vrf_id_, fe_.protocol,
                                      fe_.ipv6_srcaddr, fe_.ipv6_dstaddr, fid);
    }
    zon_fid_t recall() {
        return is_ipv4()
                   ? zon_frag_flow_lookup_ipv4(table_, zon_ipv4_frag_id(&fe_), vrf_id_,
                                               fe_.protocol, zon_ipv4_srcip(&fe_),
                                               zon_ipv4_dstip(&fe_))
                   : zon_frag_flow_lookup_ipv6(table_, zon_ipv6_frag_id(&fe_), vrf_id_,
                                               fe_.protocol, fe_.ipv6_srcaddr, fe_.ipv6_dstaddr);
    }
    zon_fid_t recall_and_forget() {
        return is_ipv4()
                   ? zon_frag_flow_delete_ipv4(table_, zon_ipv4_frag_id(&fe_), vrf_id_,
                                               fe_.protocol, zon_ipv4_srcip(&fe_),
                                               zon_ipv4_dstip(&fe_))
                   : zon_frag_flow_delete_ipv6(table_, zon_ipv6_frag_id(&fe_), vrf_id_,
                                               fe_.protocol, fe_.ipv6_srcaddr, fe_.ipv6_dstaddr);
    }
    void forget_if(zon_fid_t fid) {
        if (is_ipv4())
            zon_frag_flow_delete_if_ipv4(table_, zon_ipv4_frag_id(&fe_), vrf_id_, fe_.protocol,
                                         zon_ipv4_srcip(&fe_), zon_ipv4_dstip(&fe_), fid);
        else
            zon_frag_flow_delete_if_ipv6(table_, zon_ipv6_frag_id(&fe_), vrf_id_, fe_.protocol,
                                         fe_.ipv6_srcaddr, fe_.ipv6_dstaddr, fid);
    }

private:
    bool is_ipv4() const { return fe_.l3_proto == ZON_L3_IPV4; }

    zon_frag_table_t* table_;
    uint32_t vrf_id_;
    zon_dp_fe_t& fe_;
};

zon_fid_t classify(const arriving_packet& arriving, zon_dp_fe_t& fe, zon_tunnel_type_e tunnel) {
    scratch_half_flow scratch;
    if (fe.l3_proto == ZON_L3_IPV4)
        scratch.set_ipv4(arriving, fe, ports_of(fe));
    else
        scratch.set_ipv6(arriving, fe, ports_of(fe));
    return run_engine(arriving, scratch.head(), fe, tunnel);
}

zon_fid_t first_fragment(const arriving_packet& arriving, zon_dp_fe_t& fe,
                         zon_tunnel_type_e tunnel) {
    const zon_fid_t fid = classify(arriving, fe, tunnel);
    arriving.indications->is_fragment = 1;
    if (fid == 0) {
        arriving.indications->l4_start = fe.l4_start;
        arriving.indications->l7_start = zon_token_l4_payload_start(&fe);
        arriving.indications->l4_port = ports_of(fe);
        return 0;
    }
    datagram(arriving, fe).remember(fid);
    return fid;
}

// The flow of the datagram's first fragment, locked. A flow that has gone takes its entry along.
locked_flow flow_of_first_fragment(datagram whole, bool is_last) {
    const zon_fid_t fid = is_last ? whole.recall_and_forget() : whole.recall();
    if (fid == 0)
        return {};
    if (zon_flow_t* flow = zon_get_flow(fid))
        return locked_flow::adopt(flow);
    if (!is_last)
        whole.forget_if(fid);
    return {};
}

// Ports and payload start are read as if a transport header stood at the beginning of the
// fragment's data, on purpose: hosts get the same fields for every fragment.
zon_fid_t later_fragment(const arriving_packet& arriving, zon_dp_fe_t& fe, bool is_last) {
    zon_pkt_indications_t& seen = *arriving.indications;
    seen.is_fragment = 1;
    seen.l4_error = ZON_L4_NOERR_NON_FIRST_FRAG;
    seen.l7_start = zon_token_l4_payload_start(&fe);
    const locked_flow flow = flow_of_first_fragment(datagram(arriving, fe), is_last);
    if (!flow)
        return 0;
    seen.flow = flow->fid;
    seen.l4_start = fe.l4_start;
    seen.l4_port = ports_of(fe);
    seen.bypass_id = flow->bypass_id;
    seen.flow_pkt_count = flow->packet_number;
    seen.l7_flow_bytes = flow->num_l7_bytes;
    return flow->fid;
}

}  // namespace

zon_fid_t zon_classify_or_follow(const arriving_packet& arriving, zon_dp_fe_t& fe,
                                 zon_tunnel_type_e tunnel) {
    preset_indications(arriving, fe, tunnel);
    switch (fe.l3_proto == ZON_L3_IPV4 ? zon_ipv4_frag_type(&fe) : zon_ipv6_frag_type(&fe)) {
    case zon_ip_frag_first:
        return first_fragment(arriving, fe, tunnel);
    case zon_ip_frag_middle:
        return later_fragment(arriving, fe, false);
    case zon_ip_frag_last:
        return later_fragment(arriving, fe, true);
    default:
        return classify(arriving, fe, tunnel);
    }
}
