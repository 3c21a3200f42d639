// zon_connection_index_test.cpp - what the index of connections names, forgets and cannot hold.

#include "zon_connection_index.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <barrier>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t entries_of_line = 8;

// Hashes of one line and one tag differ in bits that are neither.
constexpr uint64_t hash_with(uint64_t tag, uint64_t line) {
    return tag << 48 | line;
}

class connections_index : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(index.create(64, 1)); }

    zon_flow_t* flow(size_t number) { return &records.at(number).flow; }
    zon_flow_t* found(uint64_t hash) const { return index.find(hash).flow; }

    std::array<flow_record, 20> records{};
    connection_index index;
};

connection<ipv4_family> ipv4_connection(uint32_t number, uint32_t vrf_id = 0,
                                        uint8_t protocol = 6) {
    return connection_of(0x0A000000U + number, 0x0B000000U, uint16_t{1000}, uint16_t{80}, protocol,
                         vrf_id);
}
connection<ipv6_family> ipv6_connection(uint32_t number, uint32_t vrf_id = 0,
                                        uint8_t protocol = 6) {
    const uint32_t source[4] = {0x20010db8, 0, 0, number};
    const uint32_t destination[4] = {0x20010db8, 0, 1, 0};
    return connection_of(source, destination, uint16_t{1000}, uint16_t{80}, protocol, vrf_id);
}

}  // namespace

TEST_F(connections_index, names_a_flow_from_put_to_remove) {
    EXPECT_EQ(found(hash_with(9, 3)), nullptr);
    EXPECT_TRUE(index.put(hash_with(9, 3), flow(0)));
    EXPECT_EQ(found(hash_with(9, 3)), flow(0));
    const connection_index::guess guess = index.find(hash_with(9, 3));
    EXPECT_TRUE(guess.still_stands());
    index.remove(hash_with(9, 3), flow(0));
    EXPECT_FALSE(guess.still_stands());
    EXPECT_EQ(found(hash_with(9, 3)), nullptr);
}

TEST_F(connections_index, removes_the_flow_that_is_named_and_no_other_one) {
    index.put(hash_with(9, 3), flow(0));
    index.remove(hash_with(9, 3), flow(1));
    index.remove(hash_with(11, 3), flow(0));
    index.remove(hash_with(9, 4), flow(0));
    EXPECT_EQ(found(hash_with(9, 3)), flow(0));
}

TEST_F(connections_index, holds_a_line_of_flows_and_refuses_the_next) {
    for (size_t i = 0; i < entries_of_line; ++i)
        EXPECT_TRUE(index.put(hash_with(2 * i + 1, 5), flow(i)));
    EXPECT_FALSE(index.put(hash_with(99, 5), flow(8)));
    EXPECT_EQ(found(hash_with(99, 5)), nullptr);
    for (size_t i = 0; i < entries_of_line; ++i)
        EXPECT_EQ(found(hash_with(2 * i + 1, 5)), flow(i)) << "a newcomer pushed out flow " << i;
    EXPECT_TRUE(index.put(hash_with(99, 6), flow(8))) << "the next line is another one";

    index.remove(hash_with(7, 5), flow(3));
    EXPECT_TRUE(index.put(hash_with(99, 5), flow(9)));
    EXPECT_EQ(found(hash_with(99, 5)), flow(9));
}

TEST_F(connections_index, names_one_of_two_flows_of_one_tag_and_then_the_other) {
    index.put(hash_with(9, 3), flow(0));
    index.put(hash_with(9, 3), flow(1));
    EXPECT_EQ(found(hash_with(9, 3)), flow(0));
    index.remove(hash_with(9, 3), flow(0));
    EXPECT_EQ(found(hash_with(9, 3)), flow(1));
}

TEST_F(connections_index, forgets_every_flow_of_a_tag_at_once_and_no_other_one) {
    for (size_t i = 0; i < entries_of_line; ++i)
        index.put(hash_with(i % 2 == 0 ? 9 : 11, 3), flow(i));
    index.put(hash_with(9, 4), flow(8));
    index.remove_all(hash_with(9, 3));
    EXPECT_EQ(found(hash_with(9, 3)), nullptr);
    EXPECT_EQ(found(hash_with(11, 3)), flow(1));
    EXPECT_EQ(found(hash_with(9, 4)), flow(8));
    for (size_t i = 0; i < entries_of_line / 2; ++i)
        EXPECT_TRUE(index.put(hash_with(13, 3), flow(i))) << "the places are free again";
    EXPECT_FALSE(index.put(hash_with(13, 3), flow(9)));
}

// The tag of a free entry must never look wanted.
TEST_F(connections_index, never_names_a_flow_of_0) {
    for (const uint64_t tag : {uint64_t{0}, uint64_t{1}, uint64_t{2}, uint64_t{0xFFFF}}) {
        EXPECT_EQ(found(hash_with(tag, 7)), nullptr) << "tag " << tag << " in an empty line";
        index.put(hash_with(tag, 7), flow(0));
        EXPECT_EQ(found(hash_with(tag, 7)), flow(0)) << "tag " << tag;
        index.remove(hash_with(tag, 7), flow(0));
        EXPECT_EQ(found(hash_with(tag, 7)), nullptr) << "tag " << tag << " behind its flow";
    }
}

TEST_F(connections_index, keeps_guesses_apart_that_are_made_between_flows) {
    index.put(hash_with(9, 3), flow(0));
    const connection_index::guess before = index.find(hash_with(9, 3));
    index.remove(hash_with(9, 3), flow(0));
    index.put(hash_with(9, 3), flow(1));
    EXPECT_FALSE(before.still_stands());
    EXPECT_TRUE(index.find(hash_with(9, 3)).still_stands());
}

TEST(connections_index_of_any_size, names_flows) {
    for (const uint32_t flows : {0U, 1U, 3U, 4U, 5U, 1000U}) {
        connection_index index;
        ASSERT_TRUE(index.create(flows, 0)) << flows << " flows";
        std::array<flow_record, 4> records{};
        for (uint32_t i = 0; i < records.size(); ++i)
            EXPECT_TRUE(index.put(index.hash_of(ipv4_connection(i)), &records[i].flow))
                << flows << " flows";
        for (uint32_t i = 0; i < records.size(); ++i)
            EXPECT_NE(index.find(index.hash_of(ipv4_connection(i))).flow, nullptr);
    }
}

TEST(hash_of_connections, tells_vrf_protocol_and_family_apart) {
    connection_index index;
    ASSERT_TRUE(index.create(1000, 7));
    std::set<uint64_t> hashes;
    size_t made = 0;
    for (uint32_t number = 0; number < 50; ++number)
        for (uint32_t vrf_id = 0; vrf_id < 8; ++vrf_id)
            for (const uint8_t protocol : {uint8_t{6}, uint8_t{17}}) {
                hashes.insert(index.hash_of(ipv4_connection(number, vrf_id, protocol)));
                hashes.insert(index.hash_of(ipv6_connection(number, vrf_id, protocol)));
                made += 2;
            }
    EXPECT_EQ(hashes.size(), made);
}

TEST(hash_of_connections, changes_lines_with_the_seed) {
    std::array<connection_index, 2> seeded;
    ASSERT_TRUE(seeded[0].create(100000, 1));
    ASSERT_TRUE(seeded[1].create(100000, 2));
    constexpr uint64_t lines = 0x3FFF;
    int same_line = 0;
    for (uint32_t number = 0; number < 1000; ++number) {
        same_line += ((seeded[0].hash_of(ipv4_connection(number)) ^
                       seeded[1].hash_of(ipv4_connection(number))) &
                      lines) == 0;
        same_line += ((seeded[0].hash_of(ipv6_connection(number)) ^
                       seeded[1].hash_of(ipv6_connection(number))) &
                      lines) == 0;
    }
    EXPECT_LE(same_line, 3);
}

// Neighbouring connections, as hosts make them, overflow no more lines than chance does.
TEST(hash_of_connections, spreads_neighbours_over_the_lines) {
    constexpr uint32_t flows = 1 << 16;
    for (const uint32_t seed : {0U, 1U, 0xFFFFFFFFU}) {
        connection_index four;
        connection_index six;
        ASSERT_TRUE(four.create(flows, seed));
        ASSERT_TRUE(six.create(flows, seed));
        // Never looked at: only its address is kept.
        flow_record record{};
        uint32_t refused_four = 0;
        uint32_t refused_six = 0;
        for (uint32_t number = 0; number < flows; ++number) {
            refused_four += !four.put(four.hash_of(ipv4_connection(number)), &record.flow);
            refused_six += !six.put(six.hash_of(ipv6_connection(number)), &record.flow);
        }
        EXPECT_LE(refused_four, flows / 100) << "seed " << seed;
        EXPECT_LE(refused_six, flows / 100) << "seed " << seed;
    }
}

// A reader holds nothing: whatever it is told was the flow of the hash at that moment.
TEST(index_of_many_threads, names_only_flows_that_were_put_under_the_tag) {
    constexpr size_t writers = 3;
    constexpr int turns = 20000;
    connection_index index;
    ASSERT_TRUE(index.create(1, 0));  // one line for all
    std::array<flow_record, writers> records{};
    std::barrier start(writers + 1);
    std::atomic<size_t> running{writers};
    std::atomic<int> lost{0};
    std::vector<std::thread> threads;
    for (size_t number = 0; number < writers; ++number)
        threads.emplace_back([&, number] {
            start.arrive_and_wait();
            const uint64_t hash = hash_with(2 * number + 1, 0);
            for (int turn = 0; turn < turns; ++turn) {
                records[number].connection_hash = static_cast<uint64_t>(turn);
                lost += !index.put(hash, &records[number].flow);
                lost += index.find(hash).flow != &records[number].flow;
                if (turn % 3 == 0)
                    index.remove_all(hash);
                else
                    index.remove(hash, &records[number].flow);
                lost += index.find(hash).flow != nullptr;
            }
            --running;
        });
    int strangers = 0;
    start.arrive_and_wait();
    while (running != 0)
        for (size_t number = 0; number < writers; ++number) {
            const connection_index::guess guess = index.find(hash_with(2 * number + 1, 0));
            bool known = guess.flow == nullptr;
            for (const flow_record& record : records)
                known |= guess.flow == &record.flow;
            strangers += !known;
        }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(lost, 0) << "a thread did not find what it had put, or found what it had removed";
    EXPECT_EQ(strangers, 0);
    for (size_t number = 0; number < writers; ++number)
        EXPECT_EQ(index.find(hash_with(2 * number + 1, 0)).flow, nullptr);
    // All places are free.
    for (size_t i = 0; i < entries_of_line; ++i)
        EXPECT_TRUE(index.put(hash_with(1, 0), &records[0].flow));
}
