/* flows.c - flows found, marked with objects, announced, asked, re-keyed and deleted. */
#include "host.h"

static const zon_flow_tuple_type_t complete = ZON_FLOW_TUPLE_TYPE_COMPLETE;

void use_lookups(void) {
    make_engine();
    zon_fid_t flow = udp_flow(1000, 53, NULL), found = 0;
    zon_lock_t lock = NULL;
    zon_flow_tuple_t tuple = tuple_of(1000, 53);
    int bucket = -1;
    check(zon_flow_find_and_lock(complete, &tuple, &found, &lock) == zon_error_none &&
              found == flow && lock != NULL,
          "a flow is found by its tuple");
    check(zon_flow_unlock(lock) == zon_error_none &&
              zon_flow_unlock(NULL) == zon_error_parameter_is_null,
          "and unlocked");
    check(zon_flow_lookup_tamonet(&tuple, &bucket) == 1 && bucket >= 0, "the probe finds it, too");
    check(zon_delete_flow_tamonet(flow, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST) &&
              !zon_delete_flow_tamonet(flow, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST),
          "it is deleted once");
    check(zon_flow_lookup_tamonet(&tuple, &bucket) == 0, "and not found any more");
    end_engine();
}

void use_feature_objects(void) {
    zon_client_id_e me = make_engine();
    zon_fid_t flow = udp_flow(1000, 53, NULL);
    int whole = 0, side = 0;
    void* found = NULL;
    zon_flow_t snapshot;
    zon_ipv4_key_t key = {ZON_IPV4_KEY_COMPLETE, ZON_UDP_PROT, 0, 0, 0, host_a, 1000, host_b, 53};
    check(zon_flow_attach_fo(flow, me, ZON_DIR_BI, &whole) == zon_error_none &&
              zon_flow_attach_fo(flow, me, ZON_DIR_RESPONDER, &side) == zon_error_none,
          "objects are attached");
    check(zon_flow_get_fo(flow, me, ZON_DIR_BI, &found) == zon_error_none && found == &whole,
          "and read");
    check(
        zon_flow_get_fo_by_fid(flow, me, ZON_DIR_RESPONDER, &found, &snapshot) == zon_error_none &&
            found == &side && snapshot.fid == flow && snapshot.packet_number == 1,
        "with the flow's record");
    zon_unlock_flow_tamonet(&snapshot);
    memset(&snapshot, 0, sizeof snapshot);
    check(zon_flow_get_fo_by_flow_key(&key, me, ZON_DIR_BI, &found, &snapshot) == zon_error_none &&
              found == &whole && snapshot.fid == flow,
          "by its key as well");
    zon_unlock_flow_tamonet(&snapshot);
    check(
        zon_flow_detach_fo(flow, me, ZON_DIR_BI, &found) == zon_error_none && found == &whole &&
            zon_flow_get_fo(flow, me, ZON_DIR_BI, &found) == zon_error_feature_object_not_attached,
        "and detached");
    end_engine();
}

static void ignore_deletion(zon_flow_ptr_t flow, void* initiator, void* responder, void* whole,
                            zon_flow_deletion_reason_e reason, zon_client_id_e cid) {
    (void)flow, (void)initiator, (void)responder, (void)whole, (void)reason, (void)cid;
}

static zon_fid_t visited;
static bool visit(const zon_flow_ptr_t child) {
    visited = child;
    return true;
}

void use_announcements(void) {
    zon_client_id_e me = make_engine();
    zon_fid_t control = udp_flow(1000, 53, NULL), announced = 0, other = 0, parent = 0;
    zon_flow_tuple_t tuple = tuple_of(2000, 3000), another = tuple_of(5, 6);
    zon_lock_t lock = NULL;
    int object = 0;
    void* found = NULL;
    check(zon_pre_flow_add(complete, &tuple, control, &announced, &lock) == zon_error_none &&
              announced != 0,
          "a connection is announced");
    check(zon_client_register_delete_cb(me, ignore_deletion) == zon_error_none,
          "its objects need a callback");
    check(zon_uni_flow_attach_fo(me, complete, &tuple, &object) == zon_error_none,
          "it gets an object");
    check(zon_flow_unlock(lock) == zon_error_none, "before any packet sees it");
    check(zon_uni_flow_get_fo(me, complete, &tuple, &found) == zon_error_none && found == &object,
          "the object is read by the tuple");
    check(zon_uni_flow_detach_fo(me, complete, &tuple, &found) == zon_error_none &&
              found == &object &&
              zon_uni_flow_get_fo(me, complete, &tuple, &found) ==
                  zon_error_feature_object_not_attached,
          "and taken off by it");
    zon_pkt_indications_t seen;
    check(udp_flow(2000, 3000, &seen) == announced && seen.was_promoted == 1,
          "the packet's flow is the announced one");
    check(zon_flow_get_parent(announced, &parent) == zon_error_none && parent == control,
          "it has a parent");
    check(zon_flow_traverse_child_flows(control, visit) == zon_error_none && visited == announced,
          "which has it as a child");
    check(zon_pre_flow_add(complete, &another, 0, &other, NULL) == zon_error_none && other != 0,
          "another one");
    check(zon_pre_flow_delete_using_flow_tuple(complete, &another) == zon_error_none &&
              zon_pre_flow_delete_using_flow_tuple(complete, &another) == zon_error_flow_not_found,
          "is taken back");
    end_engine();
}

void use_queries(void) {
    zon_client_id_e me = make_engine();
    zon_fid_t flow = udp_flow(1000, 53, NULL);
    zon_l4_flow_state_e state = ZON_L4_ENUM_END;
    uint32_t number = 0, sequence = 0;
    uint16_t window = 0;
    zon_flow_tuple_t tuple;
    zon_pkt_indications_t seen;
    zon_error_t error;
    check(zon_flow_get_l4_state(flow, &state) == zon_error_none && state == ZON_L4_OPENING,
          "a flow opens");
    check(zon_flow_set_l4_state(flow, ZON_L4_CLOSING) == zon_error_none &&
              zon_flow_get_l4_state(flow, &state) == zon_error_none && state == ZON_L4_CLOSING,
          "unless it is told otherwise");
    check(zon_flow_get_packet_count(flow, &number) == zon_error_none && number == 1,
          "it has one packet");
    check(zon_flow_set_application_id(flow, 80) == zon_error_none &&
              zon_flow_get_application_id(flow, &number) == zon_error_none && number == 80,
          "it belongs to an application");
    check(zon_flow_set_dpi_bypass_id(flow, 9) == zon_error_none &&
              udp_flow(1000, 53, &seen) == flow && seen.bypass_id == 9,
          "its packets are marked");
    check(zon_flow_get_tuple(flow, ZON_DIR_RESPONDER, &tuple) == zon_error_none &&
              tuple.src_port == 53 && tuple.dst_ip.u.v4_addr == host_a,
          "its responder has a tuple");
    zon_fid_t tcp = tcp_flow(1000, 80, &seen, &error);
    check(zon_flow_get_next_tcp_seq_nbr(tcp, ZON_DIR_INITIATOR, &sequence, &window) ==
              zon_error_invalid_next_seq_number,
          "numbers are known where they are checked");
    check(zon_client_enable_engine_capability(me, ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS) ==
              zon_error_none,
          "which is enabled now");
    tcp = tcp_flow(1001, 80, &seen, &error);
    check(zon_flow_get_next_tcp_seq_nbr(tcp, ZON_DIR_INITIATOR, &sequence, &window) ==
                  zon_error_none &&
              sequence == 2 && window == 1024,
          "a SYN with number 1 is followed by number 2");
    end_engine();
}

static zon_fid_t flow_of(zon_flow_tuple_t tuple) {
    zon_fid_t found = 0;
    zon_lock_t lock = NULL;
    if (zon_flow_find_and_lock(complete, &tuple, &found, &lock) == zon_error_none)
        zon_flow_unlock(lock);
    return found;
}

void use_new_keys(void) {
    make_engine();
    zon_fid_t flow = udp_flow(1000, 53, NULL);
    zon_flow_tuple_t here = tuple_of(2000, 53), there = tuple_of(3000, 53), moved;
    check(zon_flow_update_initiator(flow, &here) == zon_error_none && flow_of(here) == flow &&
              flow_of(tuple_of(1000, 53)) == 0,
          "the initiator moves");
    check(zon_flow_update_responder(flow, &there) == zon_error_none && flow_of(there) == flow,
          "the responder, too");
    zon_fid_t locked = 0;
    zon_lock_t lock = NULL;
    zon_flow_find_and_lock(complete, &here, &locked, &lock);
    check(zon_flow_update_vrf(flow, 8) == 0 && flow_of(here) == 0, "both leave their VRF");
    check(zon_flow_get_tuple(flow, ZON_DIR_INITIATOR, &moved) == zon_error_none &&
              moved.vrf_id == 8 && flow_of(moved) == flow,
          "for another one");
    check(zon_flow_unlock(lock) == zon_error_none && zon_flow_unlock(lock) == zon_error_none,
          "the second level of the lock goes, too");
    end_engine();
}
