// zon_frag_test.cpp - the table that ties later fragments to the flow of the first.

#include "zon_frag.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "support/engine_fixture.h"
#include "vem/vem_tw.h"

namespace {

using table_ptr = std::unique_ptr<zon_frag_table_t, decltype(&zon_frag_table_destroy)>;
table_ptr make_table(uint32_t buckets = 256) {
    return {zon_frag_table_create(buckets), zon_frag_table_destroy};
}

constexpr uint32_t source = 0x0A000001;
constexpr uint32_t destination = 0x0A000002;
constexpr std::array<uint32_t, 4> source6{0x20010db8, 0, 0, 1};
constexpr std::array<uint32_t, 4> destination6{0x20010db8, 0, 0, 2};

zon_fid_t insert4(zon_frag_table_t* table, uint32_t ident, zon_fid_t fid) {
    return zon_frag_flow_insert_ipv4(table, ident, 0, 17, source, destination, fid);
}
zon_fid_t lookup4(zon_frag_table_t* table, uint32_t ident) {
    return zon_frag_flow_lookup_ipv4(table, ident, 0, 17, source, destination);
}
zon_fid_t delete4(zon_frag_table_t* table, uint32_t ident) {
    return zon_frag_flow_delete_ipv4(table, ident, 0, 17, source, destination);
}

}  // namespace

TEST(frag_table, is_created_only_with_a_power_of_two_of_buckets) {
    for (const uint32_t buckets : {0u, 3u, 100u, 255u, 0xFFFFFFFFu})
        EXPECT_EQ(zon_frag_table_create(buckets), nullptr) << buckets;
    for (const uint32_t buckets : {1u, 2u, 256u, 4096u}) {
        const table_ptr table = make_table(buckets);
        ASSERT_NE(table, nullptr) << buckets;
        EXPECT_EQ(table->table_size, buckets);
        EXPECT_EQ(table->table_mask, buckets - 1);
        EXPECT_EQ(zon_frag_entry_count(table.get()), 0u);
    }
}

TEST(frag_table, hands_out_the_last_item_of_its_array_first) {
    const table_ptr table = make_table();
    EXPECT_EQ(table->free_list_head, &table->frag_arry[511]);
    insert4(table.get(), 1, 7);
    EXPECT_EQ(table->list_head, &table->frag_arry[511]);
    EXPECT_EQ(table->list_head->age_ms, 30000u);
    insert4(table.get(), 2, 8);
    EXPECT_EQ(table->list_head, &table->frag_arry[510]) << "the newest entry heads the list";
    EXPECT_EQ(delete4(table.get(), 1), 7u);
    EXPECT_EQ(table->free_list_head, &table->frag_arry[511])
        << "the item freed last is taken first";
}

TEST(frag_table, finds_and_deletes_what_was_inserted) {
    const table_ptr table = make_table();
    EXPECT_EQ(insert4(table.get(), 1, 42), 42u);
    EXPECT_EQ(zon_frag_entry_count(table.get()), 1u);
    EXPECT_EQ(lookup4(table.get(), 1), 42u);
    EXPECT_EQ(lookup4(table.get(), 1), 42u) << "a lookup leaves the entry";
    EXPECT_EQ(delete4(table.get(), 1), 42u);
    EXPECT_EQ(lookup4(table.get(), 1), 0u);
    EXPECT_EQ(zon_frag_entry_count(table.get()), 0u);
}

TEST(frag_table, tells_datagrams_apart_by_every_part_of_the_key) {
    const table_ptr table = make_table(1);
    ASSERT_EQ(zon_frag_flow_insert_ipv4(table.get(), 1, 2, 3, 4, 5, 9), 9u);
    EXPECT_EQ(zon_frag_flow_lookup_ipv4(table.get(), 9, 2, 3, 4, 5), 0u);
    EXPECT_EQ(zon_frag_flow_lookup_ipv4(table.get(), 1, 9, 3, 4, 5), 0u);
    EXPECT_EQ(zon_frag_flow_lookup_ipv4(table.get(), 1, 2, 9, 4, 5), 0u);
    EXPECT_EQ(zon_frag_flow_lookup_ipv4(table.get(), 1, 2, 3, 9, 5), 0u);
    EXPECT_EQ(zon_frag_flow_lookup_ipv4(table.get(), 1, 2, 3, 4, 9), 0u);
    EXPECT_EQ(zon_frag_flow_lookup_ipv4(table.get(), 1, 2, 3, 4, 5), 9u);

    std::array<uint32_t, 8> words{1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(zon_frag_flow_insert_ipv6(table.get(), 1, 2, 3, &words[0], &words[4], 10), 10u);
    for (uint32_t& word : words) {
        ++word;
        EXPECT_EQ(zon_frag_flow_lookup_ipv6(table.get(), 1, 2, 3, &words[0], &words[4]), 0u);
        --word;
    }
    EXPECT_EQ(zon_frag_flow_lookup_ipv6(table.get(), 1, 2, 3, &words[0], &words[4]), 10u);
}

TEST(frag_table, never_mixes_up_the_families) {
    for (const uint32_t buckets : {1u, 256u}) {
        const table_ptr table = make_table(buckets);
        const std::array<uint32_t, 4> same{source, destination, 0, 0};
        EXPECT_EQ(zon_frag_flow_insert_ipv4(table.get(), 5, 6, 17, source, destination, 1), 1u);
        EXPECT_EQ(zon_frag_flow_lookup_ipv6(table.get(), 5, 6, 17, same.data(), same.data()), 0u);
        EXPECT_EQ(zon_frag_flow_insert_ipv6(table.get(), 5, 6, 17, same.data(), same.data(), 2),
                  2u);
        EXPECT_EQ(zon_frag_entry_count(table.get()), 2u);
        EXPECT_EQ(zon_frag_flow_delete_ipv4(table.get(), 5, 6, 17, source, destination), 1u);
        EXPECT_EQ(zon_frag_flow_delete_ipv6(table.get(), 5, 6, 17, same.data(), same.data()), 2u);
    }
}

TEST(frag_table, replaces_the_fid_of_a_key_that_exists) {
    const table_ptr table = make_table();
    insert4(table.get(), 1, 42);
    EXPECT_EQ(insert4(table.get(), 1, 43), 43u);
    EXPECT_EQ(zon_frag_entry_count(table.get()), 1u);
    EXPECT_EQ(lookup4(table.get(), 1), 43u);
}

TEST(frag_table, changes_nothing_when_a_deleted_key_is_not_there) {
    const table_ptr table = make_table();
    insert4(table.get(), 1, 42);
    EXPECT_EQ(delete4(table.get(), 2), 0u);
    EXPECT_EQ(zon_frag_flow_delete_ipv6(table.get(), 1, 0, 17, source6.data(), destination6.data()),
              0u);
    EXPECT_EQ(zon_frag_entry_count(table.get()), 1u);
    EXPECT_EQ(lookup4(table.get(), 1), 42u);
}

TEST(frag_table, deletes_an_entry_only_while_it_still_names_the_fid) {
    const table_ptr table = make_table();
    insert4(table.get(), 1, 42);
    insert4(table.get(), 1, 43);
    EXPECT_EQ(zon_frag_flow_delete_if_ipv4(table.get(), 1, 0, 17, source, destination, 42), 0u);
    EXPECT_EQ(lookup4(table.get(), 1), 43u);
    EXPECT_EQ(zon_frag_flow_delete_if_ipv4(table.get(), 1, 0, 17, source, destination, 43), 43u);
    EXPECT_EQ(zon_frag_flow_delete_if_ipv4(table.get(), 1, 0, 17, source, destination, 43), 0u);
    zon_frag_flow_insert_ipv6(table.get(), 1, 0, 17, source6.data(), destination6.data(), 5);
    EXPECT_EQ(
        zon_frag_flow_delete_if_ipv6(table.get(), 1, 0, 17, source6.data(), destination6.data(), 4),
        0u);
    EXPECT_EQ(
        zon_frag_flow_delete_if_ipv6(table.get(), 1, 0, 17, source6.data(), destination6.data(), 5),
        5u);
}

namespace {
class frag_messages : public ::testing::Test {
protected:
    void SetUp() override { zon_debug_flag_engine = true; }
    void TearDown() override { zon_debug_flag_engine = false; }
    template <class action>
    static std::string errors_of(action run) {
        testing::internal::CaptureStderr();
        run();
        return testing::internal::GetCapturedStderr();
    }
};

void expect_message(const std::string& printed, const std::string& message) {
    EXPECT_NE(printed.find(": \nZON Engine: ZON FRAG Table: " + message), std::string::npos)
        << printed;
}
}  // namespace

TEST_F(frag_messages, refuse_the_513th_datagram_in_flight) {
    const table_ptr table = make_table();
    for (uint32_t ident = 1; ident <= 512; ++ident)
        ASSERT_EQ(insert4(table.get(), ident, ident), ident);
    expect_message(errors_of([&] { EXPECT_EQ(insert4(table.get(), 513, 513), 0u); }),
                   "zon_frag_malloc_item: free list is empty");
    EXPECT_EQ(zon_frag_entry_count(table.get()), 512u);
    EXPECT_EQ(insert4(table.get(), 7, 1000), 1000u) << "a known datagram is still served";
    EXPECT_EQ(delete4(table.get(), 9), 9u);
    EXPECT_EQ(insert4(table.get(), 513, 513), 513u);
    zon_debug_flag_engine = false;
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(insert4(table.get(), 514, 514), 0u); }), "");
}

TEST_F(frag_messages, tell_of_a_missing_table) {
    expect_message(errors_of([] { EXPECT_EQ(insert4(nullptr, 1, 1), 0u); }),
                   "zon_frag_flow_insert_ipv4, tbl is 0");
    expect_message(errors_of([] { EXPECT_EQ(lookup4(nullptr, 1), 0u); }),
                   "zon_frag_flow_lookup_ipv4, tbl is 0");
    expect_message(errors_of([] { EXPECT_EQ(delete4(nullptr, 1), 0u); }),
                   "zon_frag_flow_delete_ipv4, tbl is 0");
    const uint32_t* any = source6.data();
    expect_message(
        errors_of([&] { EXPECT_EQ(zon_frag_flow_insert_ipv6(nullptr, 1, 0, 6, any, any, 1), 0u); }),
        "zon_frag_flow_insert_ipv6, tbl is 0");
    expect_message(
        errors_of([&] { EXPECT_EQ(zon_frag_flow_lookup_ipv6(nullptr, 1, 0, 6, any, any), 0u); }),
        "zon_frag_flow_lookup_ipv6, tbl is 0");
    expect_message(
        errors_of([&] { EXPECT_EQ(zon_frag_flow_delete_ipv6(nullptr, 1, 0, 6, any, any), 0u); }),
        "zon_frag_flow_delete_ipv6, tbl is 0");
    expect_message(errors_of([] { EXPECT_EQ(zon_frag_entry_count(nullptr), 0u); }),
                   "zon_frag_entry_count, tbl is 0");
    zon_frag_item_t item{};
    expect_message(errors_of([&] { EXPECT_EQ(zon_frag_flow_delete(&item), 0u); }),
                   "zon_frag_flow_delete, tbl is 0");
    zon_frag_table_destroy(nullptr);
}

TEST(frag_table, behaves_as_a_map_of_datagrams_under_random_scripts) {
    struct datagram {
        bool is_ipv6;
        uint32_t ident, vrf, address;
        auto operator<=>(const datagram&) const = default;
    };
    for (const unsigned seed : {1u, 2u, 3u}) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random()) % limit; };
        const table_ptr table = make_table(seed == 1 ? 1 : 64);
        std::map<datagram, zon_fid_t> model;
        for (int step = 0; step < 40000; ++step) {
            const datagram one{below(2) == 0, below(20), below(2), below(20)};
            const std::array<uint32_t, 4> src{1, one.address, 3, 4};
            const std::array<uint32_t, 4> dst{4, 3, 2, 1};
            const auto known = model.find(one);
            const zon_fid_t expected = known != model.end() ? known->second : 0;
            const uint32_t action = below(8);
            if (action < 5) {
                const zon_fid_t fid = 1 + below(1000);
                const zon_fid_t stored =
                    one.is_ipv6 ? zon_frag_flow_insert_ipv6(table.get(), one.ident, one.vrf, 17,
                                                            src.data(), dst.data(), fid)
                                : zon_frag_flow_insert_ipv4(table.get(), one.ident, one.vrf, 17,
                                                            one.address, 1, fid);
                const bool fits = known != model.end() || model.size() < zon_frag_capacity;
                ASSERT_EQ(stored, fits ? fid : 0);
                if (fits)
                    model[one] = fid;
            } else if (action < 7) {
                ASSERT_EQ(one.is_ipv6 ? zon_frag_flow_delete_ipv6(table.get(), one.ident, one.vrf,
                                                                  17, src.data(), dst.data())
                                      : zon_frag_flow_delete_ipv4(table.get(), one.ident, one.vrf,
                                                                  17, one.address, 1),
                          expected);
                model.erase(one);
            } else {
                ASSERT_EQ(one.is_ipv6 ? zon_frag_flow_lookup_ipv6(table.get(), one.ident, one.vrf,
                                                                  17, src.data(), dst.data())
                                      : zon_frag_flow_lookup_ipv4(table.get(), one.ident, one.vrf,
                                                                  17, one.address, 1),
                          expected);
            }
            ASSERT_EQ(zon_frag_entry_count(table.get()), model.size());
        }
    }
}

// ---- on the engine's clock ----

namespace {
class frag_aging : public zon_test::engine_fixture {
protected:
    zon_frag_table_t* table() { return g_zon->frag_table; }
};
}  // namespace

TEST_F(frag_aging, removes_an_entry_after_30_seconds) {
    insert4(table(), 1, 7);
    advance_ms(29999);
    EXPECT_EQ(lookup4(table(), 1), 7u);
    advance_ms(50);
    EXPECT_EQ(lookup4(table(), 1), 0u);
    EXPECT_EQ(zon_frag_entry_count(table()), 0u);
}

TEST_F(frag_aging, lets_neither_lookup_nor_replacement_prolong_an_entry) {
    insert4(table(), 1, 7);
    advance_sec(20);
    EXPECT_EQ(lookup4(table(), 1), 7u);
    EXPECT_EQ(insert4(table(), 1, 8), 8u);
    advance_ms(10050);
    EXPECT_EQ(lookup4(table(), 1), 0u);
}

TEST_F(frag_aging, gives_an_item_that_is_used_again_its_own_30_seconds) {
    insert4(table(), 1, 7);
    advance_sec(20);
    delete4(table(), 1);
    insert4(table(), 2, 8);  // takes the same item
    advance_sec(20);
    EXPECT_EQ(lookup4(table(), 2), 8u);
    advance_ms(10050);
    EXPECT_EQ(lookup4(table(), 2), 0u);
}

TEST_F(frag_aging, empties_a_full_table) {
    for (uint32_t ident = 0; ident < 600; ++ident) {
        insert4(table(), ident, ident + 1);
        advance_ms(1);
    }
    EXPECT_EQ(zon_frag_entry_count(table()), 512u);
    advance_sec(31);
    EXPECT_EQ(zon_frag_entry_count(table()), 0u);
    EXPECT_EQ(insert4(table(), 9, 9), 9u);
}

TEST_F(frag_aging, deletes_an_item_by_hand_once) {
    insert4(table(), 1, 7);
    zon_frag_item_t* item = table()->list_head;
    EXPECT_EQ(zon_frag_flow_delete(item), 7u);
    EXPECT_EQ(zon_frag_flow_delete(item), 0u);
    insert4(table(), 2, 8);
    insert4(table(), 1, 9);  // the first datagram again, in another item
    ASSERT_NE(table()->list_head, item);
    zon_frag_item_t stale = *table()->list_head;
    EXPECT_EQ(zon_frag_flow_delete(&stale), 0u) << "only the item in the bucket is removed";
    EXPECT_EQ(lookup4(table(), 1), 9u);
}

// A packet thread may delete the entry and give its item to another datagram between the moment its
// expiry is taken off the wheel and the moment the ager gets the table's lock. Here both happen
// inside the expiry itself.
TEST_F(frag_aging, spares_an_item_that_was_used_again_while_its_expiry_was_on_the_way) {
    static zon_fid_t aged_out;
    insert4(table(), 1, 7);
    zon_frag_item_t* item = table()->list_head;
    const auto expire = [](vem_tw_wheel, vem_tw_timer*, void* context) {
        auto* expired = static_cast<zon_frag_item_t*>(context);
        EXPECT_EQ(delete4(g_zon->frag_table, 1), 7u);
        EXPECT_EQ(insert4(g_zon->frag_table, 2, 8), 8u);
        EXPECT_EQ(g_zon->frag_table->list_head, expired);
        aged_out = zon_frag_flow_delete(expired);
    };
    aged_out = 99;
    ASSERT_EQ(vem_tw_timer_start(g_zon->zon_tw, &item->timer, 10, expire, item), 0);
    advance_ms(50);
    EXPECT_EQ(aged_out, 0u);
    EXPECT_EQ(lookup4(table(), 2), 8u);
    advance_ms(29900);
    EXPECT_EQ(lookup4(table(), 2), 8u);
    advance_ms(200);
    EXPECT_EQ(lookup4(table(), 2), 0u) << "its own expiry removes it";
}

TEST_F(frag_aging, is_destroyed_with_entries_whose_timers_run) {
    for (uint32_t ident = 0; ident < 100; ++ident)
        insert4(table(), ident, 1);
    EXPECT_EQ(zon_destroy(), zon_error_none);
    EXPECT_EQ(zon_clock_advance_us(40'000'000), zon_error_none);
}

// Packet threads insert, look up and delete while the clock turns and entries expire.
TEST_F(frag_aging, keeps_its_count_when_threads_and_expiries_race) {
    constexpr int workers = 3;
    std::barrier start(workers + 1);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (uint32_t worker = 0; worker < workers; ++worker)
        threads.emplace_back([&, worker] {
            std::mt19937 random(worker);
            start.arrive_and_wait();
            for (int step = 0; step < 20000; ++step) {
                const auto ident = static_cast<uint32_t>(random() % 700);
                switch (random() % 4) {
                case 0:
                    delete4(table(), ident);
                    break;
                case 1: {
                    const zon_fid_t fid = lookup4(table(), ident);
                    EXPECT_TRUE(fid == 0 || fid == ident + 1);
                    break;
                }
                default:
                    insert4(table(), ident, ident + 1);
                    break;
                }
            }
        });
    std::thread clock([&] {
        start.arrive_and_wait();
        while (!stop)
            zon_clock_advance_us(500'000);
    });
    for (std::thread& thread : threads)
        thread.join();
    stop = true;
    clock.join();
    uint32_t entries = 0;
    for (uint32_t ident = 0; ident < 700; ++ident)
        entries += lookup4(table(), ident) != 0;
    EXPECT_EQ(zon_frag_entry_count(table()), entries);
    advance_sec(31);
    EXPECT_EQ(zon_frag_entry_count(table()), 0u);
    for (uint32_t ident = 0; ident < 512; ++ident)
        ASSERT_EQ(insert4(table(), ident, 1), 1u) << "an item was lost";
}
