/* engine.c - the engine's life, its clock and idle times, its configuration and its texts. */
#include "host.h"

void use_engine(void) {
    uint32_t flows = 7;
    check(g_zon == NULL && zon_is_init() == zon_error_engine_not_init,
          "there is no engine at first");
    check(!zon_restart(), "what is not there is not made anew");
    zon_client_id_e me = make_engine();
    check(zon_is_init() == zon_error_none && g_zon != NULL, "there is an engine");
    check(zon_config_get_max_flows(&flows) == zon_error_none && flows == 100,
          "it was made for 100 flows");
    check(udp_flow(1, 2, NULL) != ZON_NULL_FID, "it makes flows");
    check(zon_restart() && zon_is_init() == zon_error_none, "it is made anew");
    check(zon_config_get_max_flows(&flows) == zon_error_none && flows == 100, "as large as before");
    zon_client_id_e again = 0;
    check(zon_client_feature_register(&again) == zon_error_none && again == me,
          "its clients are gone");
    check(g_zon->zon_tw == NULL, "and so are its timers");
    end_engine();
}

static void leave_no_timers(void) {
    check(g_zon->zon_tw != NULL && *zon_get_tw_internal() == g_zon->zon_tw,
          "the engine has a wheel");
    zon_tw_timer_t timer;
    memset(&timer, 0, sizeof timer);
    const zon_tw_timer_t as_it_was = timer;
    zon_timer_set_type(zon_get_tw_internal(), &timer, ZON_TIMER_FRAG_FLOW_IDLE);
    check(memcmp(&timer, &as_it_was, sizeof timer) == 0, "kinds of timers are all the same here");
    zon_timer_tw_destroy(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                         &g_zon->zon_timer_process_create);
    check(g_zon->zon_tw == NULL && g_zon->zon_timer_vdm == NULL, "timers can be taken away");
}

void use_clock_and_aging(void) {
    make_engine();
    uint32_t seconds = 0;
    const uint64_t start = zon_clock_now_us();
    check(zon_set_default_aging(ZON_UDP_PROT, ZON_L4_OPENING, 20000),
          "UDP flows that open live 20 s");
    check(!zon_set_default_aging(1, ZON_L4_OPENING, 1), "there is no such time for ICMP");
    zon_fid_t first = udp_flow(1000, 53, NULL);
    check(zon_flow_get_aging(first, &seconds) == zon_error_none && seconds == 20,
          "and so does this one");
    zon_fid_t second = udp_flow(1001, 53, NULL);
    check(zon_flow_set_aging(second, 60) == zon_error_none, "one may live longer");
    check(
        zon_clock_advance_us(19000000) == zon_error_none && zon_clock_now_us() == start + 19000000,
        "the clock is turned by 19 s");
    check(zon_flow_get_aging(first, &seconds) == zon_error_none, "the first flow is still there");
    check(zon_clock_advance_to_us(start + 22000000) == zon_error_none &&
              zon_clock_now_us() == start + 22000000,
          "the clock is turned to 22 s");
    check(zon_flow_get_aging(first, &seconds) == zon_error_flow_not_found,
          "the first flow has aged out");
    check(zon_flow_get_aging(second, &seconds) == zon_error_none && seconds == 60,
          "the second has not");

    zon_l4_flow_state_e state = ZON_L4_ENUM_END;
    udp_packet reply = udp_of(host_b, 53, host_a, 1001);
    zon_pkt_indications_t seen;
    zon_error_t error;
    zon_set_open_flow_after_pkts(3);
    for (int packet = 2; packet <= 3; ++packet) {
        memset(&seen, 0, sizeof seen);
        zon_handle_captured_packet(reply.bytes, sizeof reply.bytes, 0, NULL, &seen, &error);
        zon_flow_get_l4_state(second, &state);
        check(state == (packet < 3 ? ZON_L4_OPENING : ZON_L4_UNI_ESTABLISHED),
              "a UDP flow is established by its third packet");
    }
    zon_set_open_flow_after_pkts(0);
    leave_no_timers();
    end_engine();
}

static void use_texts(void) {
    check(strcmp(zon_error_str(zon_error_none), zon_error_str(zon_error_memory)) != 0,
          "errors have texts");
    check(strcmp(zon_error_str(zon_error_end), "unknown zon error") == 0,
          "other codes have one for all");
    check(strcmp(zon_tcp_state_string(ZON_TCP_ESTAB), zon_tcp_state_string(ZON_TCP_LISTEN)) != 0 &&
              strcmp(zon_tcp_state_string(ZON_TCP_ENUM_END), "unknown") == 0,
          "TCP states have texts");
    check(strcmp(zon_session_state_string(ZON_L4_OPENING),
                 zon_session_state_string(ZON_L4_CLOSED)) != 0 &&
              strcmp(zon_session_state_string(-1), "unknown") == 0,
          "session states have texts");
    check(strcmp(zon_l4_retcode_string(ZON_L4_INVALID_SEQ), zon_l4_retcode_string(ZON_L4_NOERR)) !=
                  0 &&
              strcmp(zon_l4_retcode_string(99), "unknown") == 0,
          "verdicts have texts");
}

void use_texts_and_defaults(void) {
    use_texts();
    check(ZON_NULL_FID == 0, "no flow is flow 0");
    check(ipv4_half_flow_buf_size == 72 && ipv6_half_flow_buf_size == 96,
          "half flows are accounted");
    check(ZON_DEFAULT_MAX_FLOWS == 5000 && ZON_DEFAULT_MIN_INIT_FLOWS == 10 &&
              ZON_DEFAULT_FLOW_CHUNK_SIZE == 10,
          "flows by default");
    check(ZON_DEFAULT_MAX_CONCURRENCY == 10 && ZON_DEFAULT_FLOW_TO_HASH_SIZE_RATIO == 1 &&
              ZON_DEFAULT_MAX_COLLISION_SIZE == 0,
          "locks and buckets by default");
    check(ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS == 16 && ZON_DEFAULT_MAX_MEM_BUFFER_INIT == 10 &&
              ZON_DEFAULT_MIN_AGING == 0,
          "memory and time by default");
    check(!zon_debug_flag_engine && !zon_debug_flag_fe && !zon_debug_flag_l4 &&
              !zon_debug_flag_ager && !zon_debug_flag_all && !zon_errlog,
          "nothing is traced by default");

    zon_params_t others;
    memset(&others, 0, sizeof others);
    others.max_flows = 77;
    others.max_bucket_depth = 3;
    check(zon_set_default_params(&others) == zon_error_none && ZON_DEFAULT_MAX_FLOWS == 77 &&
              ZON_DEFAULT_MAX_COLLISION_SIZE == 3,
          "defaults can be replaced");
    check(zon_config_set_max_flows(5000) == zon_error_none && ZON_DEFAULT_MAX_FLOWS == 5000,
          "and one of them alone");
    check(zon_config_set_hash_seed(0) == zon_error_none, "the hash stays plain");
    check(zon_config_set_huge_pages(false) == zon_error_none, "pages stay small");
    check(zon_config_set_half_open_share(101) == zon_error_parameter_invalid &&
              zon_config_set_half_open_share(0) == zon_error_none,
          "half-open flows stay unbounded");
    check(zon_config_set_max_flows(0) == zon_error_parameter_is_null, "though not by nothing");
    uint32_t flows = 0;
    check(zon_config_calc_max_flows_for_given_memory(3920, &flows) == zon_error_none && flows == 10,
          "ten flows take 3920 bytes");

    make_engine();
    zon_flow_memory_usage_t usage;
    check(udp_flow(1, 2, NULL) != 0 &&
              zon_config_calc_crnt_memory_usage(&usage) == zon_error_none &&
              usage.bytes_used_for_ipv4_half_flows == 144 &&
              usage.bytes_used_for_ipv6_half_flows == 0,
          "one flow takes two half flows");

    zon_debug_flag_engine = true;
    watch(stderr);
    check(zon_delete_flow_tamonet(1, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST), "a flow is deleted");
    check(strstr(watched(stderr), "Deleting fid:1 ") != NULL, "which is traced");
    zon_debug_flag_engine = false;
    zon_errlog = true;
    watch(stderr);
    check(zon_flow_set_l4_state(1, ZON_L4_OPENING) == zon_error_flow_not_found, "it is gone");
    check(strstr(watched(stderr), "Could not find flow for the given fid") != NULL,
          "which is logged");
    zon_errlog = false;
    zon_set_debug(true);
    watch(stderr);
    check(udp_flow(3, 4, NULL) != 0, "another flow is made");
    check(strstr(watched(stderr), "i_to_r") != NULL, "and its change of state is printed");
    zon_set_debug(false);
    end_engine();
}
