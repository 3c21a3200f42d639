// zon_destroy_test.cpp - what zon_destroy does with flows that clients make meanwhile, and with
// chunks that cannot be destroyed.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/captured_output.h"
#include "support/engine_fixture.h"
#include "support/flow_reader.h"
#include "support/watchdog.h"
#include "vem/vem_mem_chunk.h"

namespace {

using namespace zon_test;

// ---- flows that a delete callback makes ----

std::vector<zon_fid_t> told;
uint16_t next_port;
uint32_t flows_to_make;  // so many of the next deletions are answered with a new flow

zon_fid_t new_flow() {
    bytes packet = packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(next_port++, 53).build();
    zon_pkt_indications_t seen{};
    zon_error_t error{};
    return zon_handle_packet(packet.data(), 0, nullptr, &seen, &error);
}

void answer_with_a_flow(zon_flow_ptr_t fid, void*, void*, void*, zon_flow_deletion_reason_e reason,
                        zon_client_id_e) {
    EXPECT_EQ(reason, ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED);
    told.push_back(fid);
    if (flows_to_make > 0) {
        --flows_to_make;
        EXPECT_NE(new_flow(), 0U);
    }
}

class engine_with_an_eager_client : public engine_fixture {
protected:
    engine_with_an_eager_client() { parameters.min_init_flows = 3; }
    void SetUp() override {
        engine_fixture::SetUp();
        told.clear();
        next_port = 1000;
        flows_to_make = 0;
        ASSERT_EQ(zon_client_register_delete_cb(client, answer_with_a_flow), zon_error_none);
        for (int flow = 0; flow < 3; ++flow)
            ASSERT_NE(new_flow(), 0U);
        ASSERT_EQ(g_zon->fid_table->free_head, nullptr) << "the next flow needs a new block";
    }
    const watchdog watched{std::chrono::seconds(60), [] {}};
};

TEST_F(engine_with_an_eager_client, destroys_a_flow_made_in_a_new_block) {
    flows_to_make = 1;
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(told, (std::vector<zon_fid_t>{1, 2, 3, 4}));
}

// Records are used again: the walk has passed the new flow's record already.
TEST_F(engine_with_an_eager_client, destroys_a_flow_made_in_a_record_used_before) {
    static uint32_t made_late;
    made_late = 0;
    ASSERT_EQ(zon_client_register_delete_cb(client,
                                            [](zon_flow_ptr_t fid, void*, void*, void*,
                                               zon_flow_deletion_reason_e, zon_client_id_e) {
                                                told.push_back(fid);
                                                if (fid == 3 && made_late++ == 0) {
                                                    EXPECT_EQ(new_flow(), 1U);
                                                }
                                            }),
              zon_error_none);
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(told, (std::vector<zon_fid_t>{1, 2, 3, 1}));
}

TEST_F(engine_with_an_eager_client, destroys_every_flow_of_a_few_made_one_after_the_other) {
    flows_to_make = 5;
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(told.size(), 8U);
}

TEST_F(engine_with_an_eager_client, ends_although_every_deletion_is_answered) {
    flows_to_make = 1'000'000;
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(g_zon, nullptr);
    flows_to_make = 0;
    EXPECT_EQ(zon_init(100, 0, 3, 1, 0, 16, 10), zon_error_none);
    EXPECT_EQ(flows_in_use(), 0U);
}

// ---- a test that destroys its engine itself ----

class whole_test : public engine_fixture {
public:
    void run() {
        SetUp();
        EXPECT_EQ(zon_clock_advance_us(1), zon_error_none);
        EXPECT_EQ(zon_destroy(), zon_error_none);
        TearDown();
    }

private:
    void TestBody() override {}
};

TEST(engine_fixture_end, gives_the_system_its_clock_back_without_an_engine_too) {
    whole_test().run();
    EXPECT_EQ(zon_clock_advance_us(1), zon_error_parameter_invalid)
        << "the next test would run on a clock turned by hand";
}

// ---- chunks that cannot be destroyed ----

struct chunk_row {
    const char* name;
    vem_chunk_type zon_chunk_mem_t::*handle;
};

class engine_without_a_chunk : public ::testing::TestWithParam<chunk_row> {
protected:
    void SetUp() override {
        ASSERT_EQ(init(), zon_error_none);
        taken = std::exchange(g_zon->zon_chunk_ptr.*GetParam().handle, nullptr);
        ASSERT_NE(taken, nullptr);
    }
    void TearDown() override {
        zon_debug_flag_engine = zon_debug_flag_all = false;
        EXPECT_TRUE(vem_mem_chunk_destroy(taken));
        if (g_zon != nullptr) {
            EXPECT_EQ(zon_destroy(), zon_error_none);
        }
    }
    static zon_error_t init() { return zon_init(100, 0, 10, 2, 0, 16, 10); }
    static bool contains(const std::string& text, const char* wanted) {
        return text.find(wanted) != std::string::npos;
    }

    static constexpr const char* line = "\nZON Engine: Unable to destroy memory chunk\n";
    vem_chunk_type taken = nullptr;
};

TEST_P(engine_without_a_chunk, is_gone_after_all_when_its_destruction_says_so) {
    zon_debug_flag_engine = true;
    captured_output trace(stderr);
    EXPECT_EQ(zon_destroy(), zon_error_memory_chunk_deletion_failed);
    EXPECT_EQ(g_zon, nullptr);
    EXPECT_TRUE(contains(trace.text(), line)) << trace.text();
    EXPECT_EQ(trace.text().find(line), trace.text().rfind(line));
    EXPECT_GT(trace.text().rfind("\nZON Engine: zon_destroy"), trace.text().find(line))
        << "the rest is destroyed all the same";
    EXPECT_EQ(zon_destroy(), zon_error_none) << "nothing is left to destroy";
}

TEST_P(engine_without_a_chunk, traces_when_everything_is_traced) {
    zon_debug_flag_all = true;
    captured_output trace(stderr);
    EXPECT_EQ(zon_destroy(), zon_error_memory_chunk_deletion_failed);
    EXPECT_TRUE(contains(trace.text(), line)) << trace.text();
}

TEST_P(engine_without_a_chunk, says_nothing_unless_it_is_traced) {
    captured_output trace(stderr);
    EXPECT_EQ(zon_destroy(), zon_error_memory_chunk_deletion_failed);
    EXPECT_FALSE(contains(trace.text(), line)) << trace.text();
}

TEST_P(engine_without_a_chunk, is_not_followed_by_another_one_at_once) {
    EXPECT_EQ(init(), zon_error_memory_chunk_deletion_failed);
    EXPECT_EQ(g_zon, nullptr) << "the old engine has gone, no new one was made";
    EXPECT_EQ(zon_is_init(), zon_error_engine_not_init);
    EXPECT_EQ(init(), zon_error_none) << "the next attempt succeeds";
    EXPECT_EQ(zon_is_init(), zon_error_none);
}

TEST_P(engine_without_a_chunk, cannot_be_restarted) {
    zon_debug_flag_engine = true;
    captured_output trace(stderr);
    EXPECT_FALSE(zon_restart());
    EXPECT_EQ(g_zon, nullptr);
    EXPECT_TRUE(contains(trace.text(), "\nZON Engine: zon_destroy failed\n")) << trace.text();
    EXPECT_FALSE(contains(trace.text(), "\nZON Engine: zon_init "));
}

INSTANTIATE_TEST_SUITE_P(
    chunks, engine_without_a_chunk,
    ::testing::Values(chunk_row{"ipv4_half_flow", &zon_chunk_mem_t::zon_ipv4_half_flow_mem},
                      chunk_row{"ipv6_half_flow", &zon_chunk_mem_t::zon_ipv6_half_flow_mem},
                      chunk_row{"flow", &zon_chunk_mem_t::zon_flow_mem},
                      chunk_row{"super_context", &zon_chunk_mem_t::zon_super_ctx_mem},
                      chunk_row{"flow_list_element", &zon_chunk_mem_t::zon_flow_list_mem},
                      chunk_row{"flow_fo", &zon_chunk_mem_t::zon_flow_fo_mem}),
    [](const auto& row) { return row.param.name; });

}  // namespace
