// every_request_test.cpp - each scenario runs once as it is, and then once for each of its requests
// for memory, records and threads, which fails alone and together with all that follow.
//
// Afterwards what the step said is so, nothing is locked, the tables are sound, the counters tell
// what was refused, the engine works, goes without a block left behind, and comes again.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "failing_requests.h"
#include "scenario.h"
#include "support/record_census.h"
#include "support/table_census.h"
#include "zon_engine/zon_quarantine.h"

namespace {

using namespace zon_faults;
using zon_test::records_in_use;

// What is printed meanwhile is nobody's.
class muted_output {
public:
    muted_output() {
        const int nowhere = open("/dev/null", O_WRONLY);
        for (stream& each : streams_) {
            fflush(each.file);
            each.original = dup(fileno(each.file));
            dup2(nowhere, fileno(each.file));
        }
        close(nowhere);
    }
    ~muted_output() {
        for (const stream& each : streams_) {
            fflush(each.file);
            dup2(each.original, fileno(each.file));
            close(each.original);
        }
    }
    muted_output(const muted_output&) = delete;
    muted_output& operator=(const muted_output&) = delete;

private:
    struct stream {
        FILE* file;
        int original;
    };
    stream streams_[2] = {{stdout, -1}, {stderr, -1}};
};

// Refusals are printed, too, each by its own line.
class all_traces {
public:
    explicit all_traces(bool on) { zon_debug_flag_all = zon_errlog = on; }
    ~all_traces() { zon_debug_flag_all = zon_errlog = false; }
    all_traces(const all_traces&) = delete;
    all_traces& operator=(const all_traces&) = delete;
};

struct outcome {
    zon_error_t answer = zon_error_none;
    account requests;
};

bool engine_is_whole() {
    return g_zon != nullptr && g_zon->memory_chunk_created && g_zon->flow_tbl != nullptr &&
           g_zon->fid_table != nullptr && g_zon->frag_table != nullptr &&
           g_zon->super_ctx_table != nullptr;
}

bool make_remembered_stage(stage begins) {
    const remembered_blocks remember;
    return make_stage(begins);
}

class every_request : public ::testing::TestWithParam<scenario> {
protected:
    static void TearDownTestSuite() {
        std::printf("%d of %d scenarios ask for something, %lld requests in all\n",
                    scenarios_that_ask_, scenarios_, static_cast<long long>(requests_in_all_));
    }

    outcome play(plan chosen, bool traced) {
        const scenario& row = GetParam();
        EXPECT_TRUE(make_remembered_stage(row.begins));
        const muted_output quiet;
        const remembered_blocks remember;
        if (row.prepare != nullptr)
            row.prepare();
        const all_traces talkative(traced);
        const plan_in_force in_force(chosen);
        const zon_error_t answer = row.step();
        return {answer, in_force.so_far()};
    }

    void expect_answer(const outcome& result) const {
        const auto& may = GetParam().may;
        const bool refused = result.requests.refused != 0;
        EXPECT_TRUE(result.answer == zon_error_none ||
                    (refused && std::find(may.begin(), may.end(), result.answer) != may.end()))
            << "answered " << static_cast<int>(result.answer) << ": "
            << zon_error_str(result.answer);
    }

    static bool looked_at(const scenario& row, bool done) {
        const remembered_blocks remember;
        return row.is_so(done);
    }
    // No error means that it is done, and an error that it is not.
    static void expect_truth(const outcome& result) {
        const scenario& row = GetParam();
        const bool done = result.answer == zon_error_none;
        if (run.engine_was_made) {
            EXPECT_EQ(engine_is_whole(), done);
        }
        if (row.is_so == nullptr || !engine_is_whole())
            return;
        EXPECT_TRUE(looked_at(row, done))
            << "it is not as the step says: " << zon_error_str(result.answer);
    }

    // The engine as the step left it.
    static void expect_sound_engine(const account& requests) {
        if (!engine_is_whole())
            return;
        EXPECT_TRUE(zon_test::no_lock_is_held());
        zon_test::expect_sound_buckets();
        expect_counters(requests);
    }

    // The usage of half flows counts attempts: hosts find refused ones in both counters.
    static void expect_counters(const account& requests) {
        auto refused = requests.records_refused;
        if (run.key_was_refused)
            refused[ZON_IPV4_HALF_FLOW_MEM_TYPE] = refused[ZON_IPV6_HALF_FLOW_MEM_TYPE] = 0;
        if (run.engine_was_made)
            refused[ZON_FLOW_MEM_TYPE] = 0;
        if (run.record_is_asked_twice)
            refused[ZON_FLOW_MEM_TYPE] /= 2;
        const auto named = zon_test::named_half_flows::count();
        const memory_usage_stats_t& usage = g_zon->memory_usage_stats;
        EXPECT_EQ(g_zon->error_stats.flow_alloc_errors, refused[ZON_FLOW_MEM_TYPE]);
        EXPECT_EQ(usage.ipv4_half_flow_alloc_count,
                  named.ipv4_in_use + refused[ZON_IPV4_HALF_FLOW_MEM_TYPE]);
        EXPECT_EQ(usage.ipv6_half_flow_alloc_count,
                  named.ipv6_in_use + refused[ZON_IPV6_HALF_FLOW_MEM_TYPE]);
        EXPECT_EQ(g_zon->error_stats.half_flow_alloc_errors,
                  refused[ZON_IPV4_HALF_FLOW_MEM_TYPE] + refused[ZON_IPV6_HALF_FLOW_MEM_TYPE]);
        const records_in_use in_use = records_in_use::of(g_zon->zon_chunk_ptr);
        EXPECT_EQ(usage.super_context_alloc_count, in_use.super_contexts);
        EXPECT_EQ(usage.list_element_alloc_count, in_use.list_elements);
    }

    static void expect_working_engine() {
        if (!engine_is_whole())
            return;
        const remembered_blocks remember;
        delete_all_flows();
        zon_client_id_e client = g_zon->clients != nullptr ? run.client : 0;
        if (g_zon->clients == nullptr && g_zon->free_client_ids != nullptr) {
            EXPECT_EQ(zon_client_feature_register(&client), zon_error_none);
        }
        if (client != 0) {
            bool udp = false;
            zon_engine_get_capability(ZON_CAPABILITY_ENABLE_UDP, &udp);
            if (!udp)
                zon_client_enable_engine_capability(client, ZON_CAPABILITY_ENABLE_UDP);
            EXPECT_EQ(hand_in(packets().udp6), zon_error_none);
            delete_all_flows();
        }
    }

    static void delete_all_flows() {
        for (zon_fid_t fid = 1; fid <= g_zon->fid_table->capacity; ++fid)
            zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    }

    static void expect_nothing_in_use() {
        if (!engine_is_whole())
            return;
        EXPECT_EQ(zon_test::flows_in_use(), 0U);
        EXPECT_EQ(zon_flow_table_num_elements(g_zon->flow_tbl), 0U);
        EXPECT_EQ(records_in_use::of(g_zon->zon_chunk_ptr), records_in_use{});
    }

    static void expect_clean_end() {
        zon_error_t answer = zon_error_none;
        {
            const muted_output quiet;
            answer = zon_destroy();
        }
        EXPECT_EQ(answer, zon_error_none);
        EXPECT_EQ(g_zon, nullptr);
        EXPECT_EQ(remembered_blocks::left(), 0) << "blocks of memory leaked";
        remembered_blocks::forget_all();
    }

    static void expect_another_life() {
        EXPECT_TRUE(make_stage(stage::timers));
        EXPECT_EQ(hand_in(packets().udp4), zon_error_none);
        EXPECT_EQ(zon_destroy(), zon_error_none);
        EXPECT_EQ(zon_clock_set_mode(ZON_CLOCK_SYSTEM), zon_error_none);
    }

    outcome play_and_check(plan chosen, bool traced) {
        const outcome result = play(chosen, traced);
        expect_answer(result);
        expect_sound_engine(result.requests);
        expect_truth(result);
        expect_working_engine();
        expect_nothing_in_use();
        expect_clean_end();
        expect_another_life();
        return result;
    }

    static void add_to_sum(int64_t requests) {
        ++scenarios_;
        scenarios_that_ask_ += requests > 0 ? 1 : 0;
        requests_in_all_ += requests;
    }

    void fail_each_in_turn(bool traced) {
        packets();
        const outcome undisturbed = play_and_check({}, traced);
        ASSERT_EQ(undisturbed.answer, zon_error_none);
        const int64_t requests = undisturbed.requests.requests;
        RecordProperty("requests", std::to_string(requests));
        if (!traced)
            add_to_sum(requests);
        EXPECT_TRUE(requests > 0 || GetParam().may[0] == zon_error_none)
            << "a step that may be refused asks for nothing";
        // A step without requests runs once more, where any would fail.
        for (int64_t request = 0; request < std::max<int64_t>(requests, 1); ++request)
            for (const bool onwards : {false, true}) {
                SCOPED_TRACE("request " + std::to_string(request) +
                             (onwards ? " and all after it" : ""));
                const outcome disturbed = play_and_check({request, onwards}, traced);
                EXPECT_EQ(disturbed.requests.refused > 0, requests > 0) << "nothing was refused";
                if (HasFailure())
                    return;
            }
    }

private:
    inline static int scenarios_ = 0;
    inline static int scenarios_that_ask_ = 0;
    inline static int64_t requests_in_all_ = 0;
};

TEST_P(every_request, may_fail) {
    fail_each_in_turn(false);
}
TEST_P(every_request, may_fail_while_everything_is_traced) {
    fail_each_in_turn(true);
}

std::vector<scenario> all_scenarios() {
    std::vector<scenario> all;
    for (const auto rows : {life_scenarios(), client_scenarios(), packet_scenarios(),
                            flow_scenarios(), group_scenarios()})
        all.insert(all.end(), rows.begin(), rows.end());
    return all;
}

INSTANTIATE_TEST_SUITE_P(of_scenario, every_request, ::testing::ValuesIn(all_scenarios()),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
