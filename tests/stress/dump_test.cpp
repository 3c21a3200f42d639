// dump_test.cpp - dumps that operators ask for while packets make flows and clients delete them.
#include <algorithm>
#include <cstdio>
#include <regex>
#include <sstream>

#include "support/captured_output.h"
#include "support/stress_engine.h"
#include "support/table_census.h"
#include "zon_debug_api.h"
#include "zon_test_packets.h"

namespace zon_test {
namespace {

constexpr uint32_t connections = 60;

class dumps : public stress_engine {
protected:
    dumps() { parameters.max_flows = 200; }

    // Ends of one direction, protocol and VRF; the other direction has the ends exchanged.
    static bool is_flow_line(const std::string& line) {
        static const std::regex pattern(
            " *\\d+ +\\d+ +\\d+ (?:<(\\S+?:\\d+),(\\S+?:\\d+),(\\d+,\\d+)>  "
            "<(\\S+?:\\d+),(\\S+?:\\d+)"
            ",(\\d+,\\d+)>|  )");
        std::smatch part;
        if (!std::regex_match(line, part, pattern))
            return false;
        return part[1] == part[5] && part[2] == part[4] && part[3] == part[6];
    }
    static bool is_known(const std::string& line) {
        static const std::regex others(
            "|\\s*\\S.*\t +\\d+|.*: \\d+|\\d+,\\d+|are we dumping here\\? |Hash distribution:"
            "|There are no flows allocated\\.|FID  L4-Sess L4-TCP      \tInitiator\t\t\t  Responder"
            "|  Global ZON Parameters  |-------------------------");
        return is_flow_line(line) || std::regex_match(line, others);
    }
};

void delete_one(stress_thread& self, zon_fid_t fid) {
    self.doing("delete");
    if (fid != 0)
        zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
}

void send_and_delete(stress_thread& self) {
    zon_fid_t parent = 0;
    for (uint32_t i = 0; i < 1500; ++i) {
        self.doing("send");
        const uint32_t number = self.below(connections);
        const sent_packet sent = send(connection_packet::udp(number, self.below(2) == 0));
        if (self.below(3) == 0) {
            self.doing("announce a child");
            const zon_flow_tuple_t tuple = tuple_of(connections + self.below(20));
            zon_fid_t announced = 0;
            zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, parent, &announced, nullptr);
        } else if (self.below(4) == 0) {
            self.doing("promote a child");
            send(connection_packet::udp(connections + self.below(20)));
        }
        if (self.below(3) == 0)
            delete_one(self, sent.fid);
        parent = sent.fid;
        self.stumble();
    }
}

// The kit keys each packet with a record out of the reserve that other threads use, too.
void use_the_kit(stress_thread& self) {
    for (uint32_t i = 0; i < 1500; ++i) {
        self.doing("hand in a packet of the kit");
        zon_error_t error = zon_error_none;
        const zon_fid_t fid = zon_test_handle_packet_fields(
            0x0A000000 + self.below(connections), server_address, client_port, server_port, 17, 0,
            100, nullptr, nullptr, &error);
        EXPECT_NE(fid, 0u) << "error " << error;
        if (self.below(4) == 0)
            delete_one(self, fid);
        self.stumble();
    }
}

void dump_everything(stress_thread& self) {
    uint32_t address = server_address;
    for (uint32_t i = 0; i < 40; ++i) {
        self.doing("dump");
        zon_dump_output out{};
        out.stats = self.below(3) == 0;
        out.active_flows = true;
        out.deleted_flows = self.below(2) == 0;
        out.histogram = self.below(4) == 0;
        if (self.below(3) == 0) {
            out.ip_type = L3_ADDR_IPV4;
            out.ipaddr = &address;
            out.port = server_port;
        }
        zon_debug_flow_table_dump(self.below(8) == 0 ? nullptr : &out);
        if (self.below(10) == 0)
            zon_debug_flow_table_clear_stats();
    }
}

void check_report(zon_flow_report_t* report, void*) {
    const zon_ipv4_key_t& from = report->initiator_key.ipv4;
    const zon_ipv4_key_t& to = report->responder_key.ipv4;
    EXPECT_EQ(from.src_ip, to.dst_ip) << "flow " << report->fid << " was seen half changed";
    EXPECT_EQ(from.dst_port, to.src_port) << "flow " << report->fid << " was seen half changed";
    EXPECT_NE(report->parent_fid, report->fid);
    // Nothing is held: an operation on the same flow ends.
    uint32_t packets = 0;
    zon_flow_get_packet_count(report->fid, &packets);
}

void look_at_reports(stress_thread& self) {
    for (uint32_t i = 0; i < 40; ++i) {
        self.doing("walk");
        zon_test_fid_table_iterate_flow(check_report, nullptr);
        self.doing("statistics");
        int32_t used = 0;
        zon_debug_flow_table_stats(nullptr, &used, nullptr, nullptr, nullptr, nullptr, nullptr,
                                   nullptr);
        EXPECT_GE(used, 0);
        EXPECT_LE(used, 400);
    }
}

TEST_P(dumps, run_beside_packets_and_deletions) {
    std::string text;
    {
        captured_output output(stdout);
        stress_crew crew;
        crew.add("packets 0", send_and_delete);
        crew.add("packets 1", send_and_delete);
        crew.add("kit", use_the_kit);
        crew.add("dumper 0", dump_everything);
        crew.add("dumper 1", dump_everything);
        crew.add("reports", look_at_reports);
        run(crew);
        text = output.text();
    }
    EXPECT_FALSE(g_zon->in_use);
    expect_sound_tables();
    std::istringstream lines(text);
    uint32_t flows = 0;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(is_known(line)) << "torn or wrong line: " << line;
        flows += is_flow_line(line);
    }
    EXPECT_GT(flows, 0u);
}

// A packet thread holds a flow locked while a dump comes to it: the dump waits for it with nothing
// else held, so that other flows go on.
TEST_F(contended_engine, answers_packets_while_a_dump_waits_for_a_flow) {
    const zon_fid_t first = send(connection_packet::udp(1)).fid;
    const zon_flow_tuple_t tuple = tuple_of(1);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
              zon_error_none);
    ASSERT_EQ(fid, first);
    std::atomic<bool> dumped{false};
    std::thread dumper([&dumped] {
        zon_debug_flow_table_dump(nullptr);
        dumped = true;
    });
    wait_until([] { return __atomic_load_n(&g_zon->fid_table->in_use, __ATOMIC_RELAXED); });
    for (uint32_t number = 2; number < 50; ++number) {
        EXPECT_NE(send(connection_packet::udp(number)).fid, 0u);
        EXPECT_EQ(zon_destroy(), zon_error_zon_table_access_failed);
    }
    EXPECT_FALSE(dumped);
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    dumper.join();
    EXPECT_FALSE(g_zon->in_use);
}

INSTANTIATE_TEST_SUITE_P(stress, dumps, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test
