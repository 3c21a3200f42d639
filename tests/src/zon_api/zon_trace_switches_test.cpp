// zon_trace_switches_test.cpp - the lines that operations on flows print: each in full, under the
// engine's own switch, under the common one, and under none.

#include "client_operation.h"
#include "support/fixed_time_stamp.h"

using namespace zon_test;

namespace {

using scene = client_scene;

struct traced_row {
    const char* name;
    std::string text;  // behind the time stamp
    void (*act)(scene&);
    void (*prepare)(scene&) = nullptr;
};

struct switch_row {
    const char* name;
    bool engine;
    bool all;
};

// The flow that calls mean is neither the first one nor named like a client or a direction.
constexpr zon_fid_t flow_fid = 5;

const std::string client_api = "\nZON Engine: ZON_ERRMSG_CLIENT_API, ";
const std::string client_api_short = "\nZON Engine: ZON_ERRMSG_CLIENT_API,";
const std::string no_memory = "\nZON Engine: ZON_ERRMSG_NO_MEMORY, ";

class traced_operation : public client_scene,
                         public ::testing::WithParamInterface<std::tuple<traced_row, switch_row>> {
protected:
    void SetUp() override {
        make_engine();
        for (uint16_t port = 1001; port < 1004; ++port)
            hand_in(udp_packet(port, 53));
        mean(hand_in(udp_packet(1004, 53)));
        ASSERT_EQ(flow, flow_fid);
        cid = own;
        type = ZON_FLOW_TUPLE_TYPE_COMPLETE;
        tuple = flow_tuple = connection(1004, 53);
        zon_build_key(&key, ZON_IPV4_KEY_COMPLETE, &tuple);
    }
    void TearDown() override {
        zon_debug_flag_all = false;
        give_half_flow_memory();
        client_scene::TearDown();
    }
};

// The texts of a missing object: the backslash and the n are two characters.
std::string object_missing(const char* whose, size_t blanks, const char* operation) {
    return std::string("\nZON Engine: ") + whose + " is not attached for the given flow \\n" +
           std::string(blanks, ' ') + operation + ", fid=[" + std::to_string(flow_fid) + "]";
}

template <zon_flow_direction_e dir>
void attach(scene& s) {
    zon_flow_attach_fo(s.fid, s.cid, dir, &objects[0]);
}
template <zon_flow_direction_e dir>
void get(scene& s) {
    zon_flow_get_fo(s.fid, s.cid, dir, &s.out.fo);
}
template <zon_flow_direction_e dir>
void get_by_fid(scene& s) {
    zon_flow_get_fo_by_fid(s.fid, s.cid, dir, &s.out.fo, &s.out.snapshot);
}
template <zon_flow_direction_e dir>
void get_by_key(scene& s) {
    zon_flow_get_fo_by_flow_key(&s.key, s.cid, dir, &s.out.fo, &s.out.snapshot);
}
template <zon_flow_direction_e dir>
void detach(scene& s) {
    zon_flow_detach_fo(s.fid, s.cid, dir, &s.out.fo);
}
void uni_attach(scene& s) {
    zon_uni_flow_attach_fo(s.cid, s.type, &s.tuple, &objects[0]);
}
void uni_get(scene& s) {
    zon_uni_flow_get_fo(s.cid, s.type, &s.tuple, &s.out.fo);
}
void uni_detach(scene& s) {
    zon_uni_flow_detach_fo(s.cid, s.type, &s.tuple, &s.out.fo);
}
void announce(scene& s) {
    s.tuple = s.nobodys();
    zon_pre_flow_add(s.type, &s.tuple, 0, &s.out.fid, nullptr);
}
void get_tuple(scene& s) {
    zon_flow_get_tuple(s.fid, s.dir, &s.out.tuple);
}
void update_responder(scene& s) {
    s.tuple = s.connection(7000, 8000);
    zon_flow_update_responder(s.fid, &s.tuple);
}

void mean_no_flow(scene& s) {
    s.fid = flow_fid + 2;
}
void mean_nobody(scene& s) {
    s.tuple = s.nobodys();
}

const std::string bi_overwritten =
    "\nZON Engine: Overwrote the already attached Bi-FO with a new FO";
const std::string initiator_overwritten =
    "\nZON Engine: Overwrote the already attached initiator FO with a new FO";
const std::string responder_overwritten =
    "\nZON Engine: Overwrote the already attached responder FO with a new FO";

std::vector<traced_row> objects_of_flows() {
    const std::string bi_missed = object_missing("Bi-FO", 33, "zon_flow_get_fo");
    const std::string initiator_missed = object_missing("Initiator FO", 38, "zon_flow_get_fo");
    return {
        {"attach_fo_bi_twice", bi_overwritten, attach<ZON_DIR_BI>, attach<ZON_DIR_BI>},
        {"attach_fo_initiator_twice", initiator_overwritten, attach<ZON_DIR_INITIATOR>,
         attach<ZON_DIR_INITIATOR>},
        {"attach_fo_responder_twice", responder_overwritten, attach<ZON_DIR_RESPONDER>,
         attach<ZON_DIR_RESPONDER>},
        {"get_fo_bi", bi_missed, get<ZON_DIR_BI>},
        {"get_fo_initiator", initiator_missed, get<ZON_DIR_INITIATOR>},
        {"get_fo_responder", client_api, get<ZON_DIR_RESPONDER>},
        {"get_fo_by_fid_bi", bi_missed, get_by_fid<ZON_DIR_BI>},
        {"get_fo_by_fid_initiator", initiator_missed, get_by_fid<ZON_DIR_INITIATOR>},
        {"get_fo_by_fid_responder", client_api, get_by_fid<ZON_DIR_RESPONDER>},
        {"get_fo_by_flow_key_bi", bi_missed, get_by_key<ZON_DIR_BI>},
        {"get_fo_by_flow_key_initiator", initiator_missed, get_by_key<ZON_DIR_INITIATOR>},
        {"get_fo_by_flow_key_responder", client_api, get_by_key<ZON_DIR_RESPONDER>},
        {"detach_fo_bi", object_missing("Bi-FO", 38, "zon_flow_detach_fo"), detach<ZON_DIR_BI>},
        {"detach_fo_initiator", object_missing("Initiator FO", 38, "zon_flow_detach_fo"),
         detach<ZON_DIR_INITIATOR>},
        {"detach_fo_responder", object_missing("Responder FO", 38, "zon_flow_detach_fo"),
         detach<ZON_DIR_RESPONDER>},
        {"detach_fo_of_no_flow", client_api, detach<ZON_DIR_BI>, mean_no_flow},
    };
}

std::vector<traced_row> announcements() {
    return {
        {"uni_attach_fo_twice", "\nZON Engine: Overwrote the already attached FO with a new FO",
         uni_attach, uni_attach},
        {"uni_attach_fo_without_a_callback", client_api, uni_attach,
         [](scene& s) { s.cid = s.silent; }},
        {"uni_attach_fo_of_no_flow", client_api, uni_attach, mean_nobody},
        {"uni_get_fo_of_no_flow", client_api, uni_get, mean_nobody},
        {"uni_detach_fo_of_no_flow", client_api, uni_detach, mean_nobody},
        {"uni_get_fo_of_no_object", client_api, uni_get},
        {"uni_detach_fo_of_no_object", client_api, uni_detach},
        {"pre_flow_add_without_a_half_flow", no_memory, announce,
         [](scene& s) { s.take_half_flow_memory(0); }},
        {"pre_flow_add_without_the_second_half_flow", no_memory, announce,
         [](scene& s) { s.take_half_flow_memory(1); }},
        {"pre_flow_add_without_a_flow_record", no_memory,
         [](scene& s) {
             s.take_flow_records();
             announce(s);
             s.give_flow_records();
         }},
    };
}

std::vector<traced_row> queries() {
    return {
        {"get_l4_state_of_no_flow", client_api,
         [](scene& s) { zon_flow_get_l4_state(s.fid, &s.out.state); }, mean_no_flow},
        {"get_packet_count_of_no_flow", client_api_short,
         [](scene& s) { zon_flow_get_packet_count(s.fid, &s.out.number); }, mean_no_flow},
        {"get_application_id_of_no_flow", client_api,
         [](scene& s) { zon_flow_get_application_id(s.fid, &s.out.number); }, mean_no_flow},
        {"set_application_id_of_no_flow", client_api_short,
         [](scene& s) { zon_flow_set_application_id(s.fid, 1); }, mean_no_flow},
        {"set_dpi_bypass_id_of_no_flow", client_api_short,
         [](scene& s) { zon_flow_set_dpi_bypass_id(s.fid, 1); }, mean_no_flow},
        {"get_tuple_of_no_flow", client_api, get_tuple, mean_no_flow},
        {"get_tuple_of_the_whole_flow", client_api, get_tuple,
         [](scene& s) { s.dir = ZON_DIR_BI; }},
        {"get_tuple_of_direction_3", client_api, get_tuple},
        {"get_next_tcp_seq_nbr_of_no_flow", client_api_short,
         [](scene& s) {
             zon_flow_get_next_tcp_seq_nbr(s.fid, ZON_DIR_INITIATOR, &s.out.number, nullptr);
         },
         mean_no_flow},
        {"get_parent_of_no_flow", client_api,
         [](scene& s) { zon_flow_get_parent(s.fid, &s.out.fid); }, mean_no_flow},
        {"get_parent_without_one", client_api,
         [](scene& s) { zon_flow_get_parent(s.fid, &s.out.fid); }},
        {"traverse_child_flows_of_no_flow", client_api,
         [](scene& s) {
             zon_flow_traverse_child_flows(s.fid, [](const zon_flow_ptr_t) { return true; });
         },
         mean_no_flow},
    };
}

std::vector<traced_row> changes() {
    return {
        {"update_responder_of_no_flow", client_api, update_responder, mean_no_flow},
        {"update_responder_without_memory_for_the_side", no_memory, update_responder,
         [](scene& s) {
             zon_half_flow_t* half = std::exchange(s.record->responder_flow, nullptr);
             zon_private_remove_half_flow(half);
             zon_deallocate_half_flow(half);
             s.take_half_flow_memory(0);
         }},
        {"update_responder_into_a_full_bucket",
         "\nZON Engine: ZON_ERRMSG_FLOW_CREATION_PREVENTED, ",
         [](scene& s) {
             s.take_room();
             update_responder(s);
             s.give_room();
         }},
    };
}

TEST_P(traced_operation, prints_its_line_while_one_of_its_switches_is_on) {
    const traced_row& row = std::get<0>(GetParam());
    const switch_row& switches = std::get<1>(GetParam());
    if (row.prepare != nullptr)
        row.prepare(*this);
    zon_debug_flag_engine = switches.engine;
    zon_debug_flag_all = switches.all;
    const fixed_time_stamp noon;
    const std::string printed = traced([&] { row.act(*this); });
    zon_debug_flag_engine = zon_debug_flag_all = false;
    EXPECT_EQ(printed, switches.engine || switches.all ? "noon : " + row.text : "");
    EXPECT_TRUE(no_lock_is_held());
}

using ::testing::Combine;
using ::testing::Values;
using ::testing::ValuesIn;
const auto every_switch =
    Values(switch_row{"engine_switch", true, false}, switch_row{"common_switch", false, true},
           switch_row{"no_switch", false, false});
std::string name_of_traced(const auto& row) {
    return std::string(std::get<0>(row.param).name) + "_under_" + std::get<1>(row.param).name;
}
INSTANTIATE_TEST_SUITE_P(objects, traced_operation,
                         Combine(ValuesIn(objects_of_flows()), every_switch),
                         [](const auto& row) { return name_of_traced(row); });
INSTANTIATE_TEST_SUITE_P(announcements, traced_operation,
                         Combine(ValuesIn(announcements()), every_switch),
                         [](const auto& row) { return name_of_traced(row); });
INSTANTIATE_TEST_SUITE_P(queries, traced_operation, Combine(ValuesIn(queries()), every_switch),
                         [](const auto& row) { return name_of_traced(row); });
INSTANTIATE_TEST_SUITE_P(changes, traced_operation, Combine(ValuesIn(changes()), every_switch),
                         [](const auto& row) { return name_of_traced(row); });

}  // namespace
