// zon_ager_fragments_test.cpp - what is said when the timer of a fragment entry finds the entry
// gone.

#include <gtest/gtest.h>

#include <string>

#include "osal/zon_timer.h"
#include "support/captured_output.h"
#include "support/engine_fixture.h"
#include "zon_frag.h"

namespace {

using zon_test::captured_output;

struct switch_row {
    const char* name;
    bool ager;
    bool all;
    const char* line;
};

class ager_of_recycled_fragments : public zon_test::engine_fixture,
                                   public ::testing::WithParamInterface<switch_row> {
protected:
    void TearDown() override {
        zon_debug_flag_ager = zon_debug_flag_all = false;
        engine_fixture::TearDown();
    }

    // An item that served a datagram and is free again.
    static zon_frag_item_t* recycled_item() {
        constexpr zon_fid_t fid = 7;
        zon_frag_table_t* table = g_zon->frag_table;
        EXPECT_EQ(zon_frag_flow_insert_ipv4(table, 1, 2, 17, 3, 4, fid), fid);
        zon_frag_item_t* item = table->list_head;
        EXPECT_EQ(zon_frag_flow_delete_ipv4(table, 1, 2, 17, 3, 4), fid);
        EXPECT_EQ(table->free_list_head, item);
        return item;
    }
};

TEST_P(ager_of_recycled_fragments, says_so_by_the_switches_and_leaves_the_table_alone) {
    zon_frag_item_t* item = recycled_item();
    constexpr zon_fid_t others_fid = 8;
    zon_frag_item_t* other_free = item->list_next;
    zon_debug_flag_ager = GetParam().ager;
    zon_debug_flag_all = GetParam().all;
    captured_output trace(stderr);
    captured_output out(stdout);
    zon_timer_handle_frag_flow_idle_timeout_full(g_zon->zon_tw, &item->timer, item);
    const std::string said = trace.text();
    zon_debug_flag_ager = zon_debug_flag_all = false;
    if (*GetParam().line == '\0')
        EXPECT_EQ(said, "");
    else
        EXPECT_NE(said.find(GetParam().line), std::string::npos) << said;
    EXPECT_EQ(out.text(), "");
    EXPECT_FALSE(zon_timer_running(&item->timer));
    EXPECT_EQ(zon_frag_entry_count(g_zon->frag_table), 0U);
    EXPECT_EQ(g_zon->frag_table->free_list_head, item);
    EXPECT_EQ(item->list_next, other_free);
    EXPECT_EQ(zon_frag_flow_insert_ipv4(g_zon->frag_table, 1, 2, 17, 3, 4, others_fid), others_fid);
    EXPECT_EQ(g_zon->frag_table->list_head, item) << "the item serves the next datagram";
}

constexpr switch_row switch_rows[] = {
    {"ager_on", true, false, "\nZON Ager: fragment was already deleted \n"},
    {"all_on", false, true, "\nZON Ager: fragment was already deleted \n"},
    {"off", false, false, ""},
};
INSTANTIATE_TEST_SUITE_P(, ager_of_recycled_fragments, ::testing::ValuesIn(switch_rows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
