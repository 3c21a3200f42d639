/* clients.c - clients with their callbacks and capabilities, and groups of flows. */
#include "host.h"

static bool allowed;
static bool allow(void* context, zon_client_id_e cid) {
    (void)context, (void)cid;
    return allowed;
}

static void bypass(uint32_t size, bool fif, bool promoted, bool first_payload,
                   uint32_t* bypass_id) {
    (void)size, (void)promoted, (void)first_payload;
    *bypass_id = fif ? 5 : 6;
}

static void* given_back;
static zon_flow_deletion_reason_e told_reason;
static void tell(zon_flow_ptr_t flow, void* initiator, void* responder, void* whole,
                 zon_flow_deletion_reason_e reason, zon_client_id_e cid) {
    (void)flow, (void)initiator, (void)responder, (void)cid;
    given_back = whole;
    told_reason = reason;
}

void use_clients(void) {
    zon_client_id_e me = make_engine();
    zon_pkt_indications_t seen;
    zon_error_t error;
    bool in_force = false;
    check(zon_engine_get_capability(ZON_CAPABILITY_ENABLE_UDP, &in_force) == zon_error_none &&
              in_force,
          "UDP is enabled");
    check(zon_client_disable_engine_capability(me, ZON_CAPABILITY_ENABLE_UDP) == zon_error_none &&
              zon_engine_get_capability(ZON_CAPABILITY_ENABLE_UDP, &in_force) == zon_error_none &&
              !in_force,
          "and disabled");
    check(udp_flow(1, 2, NULL) == ZON_NULL_FID, "UDP makes no flow now");

    check(zon_client_register_pre_flow_create_cb(me, allow) == zon_error_none,
          "the client is asked");
    check(tcp_flow(1, 2, &seen, &error) == ZON_NULL_FID &&
              error == zon_error_client_pre_create_prevented,
          "and forbids a flow");
    check(zon_client_unregister_pre_flow_create_cb(me) == zon_error_none,
          "the client is not asked any more");
    check(zon_client_register_bypass_cb(me, bypass) == zon_error_none, "it marks flows");
    zon_fid_t flow = tcp_flow(1, 2, &seen, &error);
    check(flow != ZON_NULL_FID && seen.bypass_id == 5, "this one with 5");
    check(zon_client_unregister_bypass_cb(me) == zon_error_none, "it marks flows no more");
    tcp_flow(1, 2, &seen, &error);
    check(seen.bypass_id == 5, "so that the mark stays");

    int object = 0;
    check(zon_unreg_client_fo(me) == zon_error_client_delete_cb_not_registered,
          "objects come back by a callback");
    check(zon_client_register_delete_cb(me, tell) == zon_error_none, "which is registered now");
    check(zon_flow_attach_fo(flow, me, ZON_DIR_BI, &object) == zon_error_none,
          "there is an object");
    check(zon_unreg_client_fo(me) == zon_error_none && given_back == &object &&
              told_reason == ZON_FLOW_CLOSE_REASON_CLIENT_UNREGISTERED,
          "it comes back");
    check(zon_client_unregister_delete_cb(me) == zon_error_none, "the client is not told any more");
    given_back = NULL;
    zon_flow_attach_fo(flow, me, ZON_DIR_BI, &object);
    check(zon_delete_flow_tamonet(flow, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST) && given_back == NULL,
          "not even of the end of a flow");
    zon_client_id_e again = 0;
    check(zon_client_feature_unregister(me) == zon_error_none &&
              zon_client_feature_register(&again) == zon_error_none && again == me,
          "the id is free again");
    end_engine();
}

static bool group_of(void* context, uint32_t* value) {
    (void)context;
    *value = 42;
    return true;
}

static unsigned members;
static bool count_member(zon_flow_ptr_t flow) {
    members += flow != ZON_NULL_FID;
    return true;
}

static uint32_t group_gone;
static void end_of_group(uint32_t value, zon_super_context_types_e type, void** fo) {
    (void)type;
    group_gone = value;
    given_back = (void*)fo;
}

void use_groups(void) {
    zon_client_id_e me = make_engine();
    const zon_super_context_types_e type = ZON_SUPER_CONTEXT_IDENTITY;
    int object = 0;
    uint32_t value = 0;
    void* found = NULL;
    check(zon_super_context_client_register(type, group_of) == zon_error_none, "flows are grouped");
    check(zon_super_context_register_delete_cb(me, end_of_group) == zon_error_none,
          "the end of a group is told");
    zon_fid_t first = udp_flow(1, 2, NULL), second = udp_flow(3, 4, NULL);
    check(zon_super_context_get_sctxt_handle(first, type, &value) == zon_error_none && value == 42,
          "the flow is in the group");
    check(zon_super_context_attach_fo(first, type, me, &object) == zon_error_none &&
              zon_super_context_get_fo(second, type, me, &found) == zon_error_none &&
              found == &object,
          "its object is that of the other flow, too");
    check(zon_super_context_traverse_flows(type, value, count_member) == zon_error_none &&
              members == 2,
          "the group has two flows");
    check(zon_super_context_client_unregister(type) == zon_error_none,
          "flows are not grouped any more");
    zon_fid_t third = udp_flow(5, 6, NULL);
    check(zon_super_context_get_sctxt_handle(third, type, &value) == zon_error_sctx_unmapped,
          "nor is this one");
    zon_delete_flow_tamonet(first, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    check(group_gone == 0, "the group outlives one flow");
    zon_delete_flow_tamonet(second, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    check(group_gone == 42 && given_back == &object, "but not the last one");
    check(zon_super_context_unregister_delete_cb(me) == zon_error_none,
          "the end of a group is told no more");
    group_gone = 0;
    zon_super_context_client_register(type, group_of);
    zon_fid_t last = udp_flow(7, 8, NULL);
    zon_super_context_attach_fo(last, type, me, &object);
    zon_delete_flow_tamonet(last, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    check(group_gone == 0, "indeed");
    end_engine();
}
