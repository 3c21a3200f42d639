// bundle_test.cpp - parents and children that are announced, promoted, walked over and deleted at
// the same time.
#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

#include "osal/zon_lock.h"
#include "support/deletion_halfway.h"
#include "support/lock_level.h"
#include "support/parked_thread.h"
#include "support/stress_engine.h"
#include "zon_fid_table.h"

namespace zon_test {
namespace {

thread_local std::vector<zon_fid_t> walked;
thread_local zon_fid_t walked_parent;
thread_local bool check_parent;

bool note_child(const zon_flow_ptr_t child) {
    walked.push_back(child);
    uint32_t packets = 0;
    EXPECT_EQ(zon_flow_get_packet_count(child, &packets), zon_error_none)
        << "flow " << child << " is on its way out";
    if (check_parent) {
        zon_fid_t parent = 0;
        EXPECT_EQ(zon_flow_get_parent(child, &parent), zon_error_none);
        EXPECT_EQ(parent, walked_parent)
            << "flow " << child << " was visited as somebody else's child";
    }
    if (walked.size() % 16 == 0)
        std::this_thread::yield();
    return true;
}

std::vector<zon_fid_t> children_of(zon_fid_t parent, bool checked) {
    walked.clear();
    walked_parent = parent;
    check_parent = checked;
    zon_flow_traverse_child_flows(parent, note_child);
    return walked;
}

zon_fid_t announce(uint32_t connection, zon_fid_t parent) {
    const zon_flow_tuple_t tuple = tuple_of(connection);
    zon_fid_t announced = 0;
    EXPECT_EQ(zon_pre_flow_add(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, parent, &announced, nullptr),
              zon_error_none);
    return announced;
}

class families : public stress_engine {
protected:
    families() { parameters.max_flows = 45000; }
};

TEST_P(families, lose_no_child_that_is_promoted) {
    constexpr uint32_t children = 20000;
    constexpr uint32_t threads = 2;
    const zon_fid_t parent = send(connection_packet::udp(0)).fid;
    for (uint32_t child = 1; child <= threads * children; ++child)
        ASSERT_NE(announce(child, parent), 0u);
    stress_crew crew;
    for (uint32_t thread = 0; thread < threads; ++thread)
        crew.add("packets " + std::to_string(thread), [thread](stress_thread& self) {
            for (uint32_t i = 0; i < children; ++i) {
                self.doing("promote");
                EXPECT_EQ(send(connection_packet::udp(1 + threads * i + thread)).seen.was_promoted,
                          1);
            }
        });
    run(crew);
    std::vector<zon_fid_t> found = children_of(parent, false);
    std::sort(found.begin(), found.end());
    EXPECT_EQ(std::unique(found.begin(), found.end()), found.end()) << "a child was visited twice";
    EXPECT_EQ(found.size(), threads * children) << "children got lost";
}

// A deletion looks for its flow in the whole list, while others take their neighbours out. Neither
// the first child goes, with which its siblings would drop off, nor the last one.
TEST_P(families, lose_no_child_when_others_are_deleted) {
    constexpr uint32_t rounds = 160;
    constexpr uint32_t children = 400;
    constexpr uint32_t threads = 2;
    const zon_fid_t parent = send(connection_packet::udp(0)).fid;
    std::vector<zon_fid_t> family(children);
    for (uint32_t round = 0; round < rounds; ++round) {
        for (uint32_t child = 0; child < children; ++child) {
            announce(1 + child, parent);
            family[child] = send(connection_packet::udp(1 + child)).fid;
        }
        stress_crew crew;
        for (uint32_t thread = 0; thread < threads; ++thread)
            crew.add("deleter " + std::to_string(thread), [&family, thread](stress_thread& self) {
                for (uint32_t child = 1 + thread; child + 1 < children; child += threads) {
                    self.doing("delete a child");
                    EXPECT_TRUE(zon_delete_flow_tamonet(family[child],
                                                        ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
                }
            });
        run(crew);
        // Whoever has their records now is no child.
        for (uint32_t stranger = 0; stranger < children; ++stranger)
            send(connection_packet::udp(20000 + stranger));
        const std::vector<zon_fid_t> expected = {family.back(), family.front()};
        EXPECT_EQ(children_of(parent, false), expected) << "round " << round;
        for (zon_fid_t fid = 1; fid <= g_zon->fid_table->allocated; ++fid)
            if (fid != parent)
                zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        EXPECT_EQ(children_of(parent, false).size(), 0u);
    }
}

// Several parents, few locks: walks hold a parent and want its children, deletions and promotions
// hold a child.
class small_families : public stress_engine {
protected:
    small_families() {
        parameters.max_flows = 64;
        parameters.max_threads = 2;
    }

    static constexpr uint32_t parents = 3;
    static constexpr uint32_t children_each = 5;
    static uint32_t child_number(uint32_t parent, uint32_t child) {
        return 100 * (parent + 1) + child;
    }

    static void add_parents_and_children(stress_crew& crew, uint32_t thread, uint32_t rounds) {
        crew.add("family " + std::to_string(thread), [rounds](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                const uint32_t parent = self.below(parents);
                const uint32_t child = child_number(parent, self.below(children_each));
                self.doing("parent's packet");
                const zon_fid_t parent_fid = send(connection_packet::udp(parent)).fid;
                self.doing("announce a child");
                announce(child, parent_fid);
                self.doing("child's packet");
                send(connection_packet::udp(child));
            }
        });
    }
    static void add_walker(stress_crew& crew, uint32_t rounds, bool checked) {
        crew.add("walker", [rounds, checked](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("walk over the children");
                std::vector<zon_fid_t> found = children_of(1 + self.below(24), checked);
                std::sort(found.begin(), found.end());
                if (checked) {
                    EXPECT_EQ(std::unique(found.begin(), found.end()), found.end())
                        << "a child was visited twice";
                }
                self.doing("ask for a parent");
                zon_fid_t parent = 0;
                zon_flow_get_parent(1 + self.below(24), &parent);
            }
        });
    }
    static void add_deleter(stress_crew& crew, uint32_t rounds, zon_fid_t first) {
        crew.add("deleter", [rounds, first](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("delete");
                zon_delete_flow_tamonet(first + self.below(25 - first),
                                        ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
                self.stumble();
            }
        });
    }
    static void add_dump(stress_crew& crew, uint32_t rounds) {
        crew.add("dump", [rounds](stress_thread& self) {
            zon_dump_flow_context filter{};
            filter.print_active = true;
            for (uint32_t i = 0; i < rounds; ++i) {
                self.doing("dump");
                zon_fid_table_iterate_flow(
                    g_zon->fid_table, [](zon_flow_report_t*, void*) {}, &filter);
            }
        });
    }
    void live(zon_fid_t first_to_die, bool checked) {
        constexpr uint32_t rounds = 6000;
        stress_crew crew;
        add_parents_and_children(crew, 0, rounds);
        add_parents_and_children(crew, 1, rounds);
        add_walker(crew, rounds / 2, checked);
        add_walker(crew, rounds / 2, checked);
        add_deleter(crew, rounds, first_to_die);
        add_dump(crew, rounds / 20);
        run(crew);
        delete_all_flows();
        expect_no_pre_flows();
    }
};

TEST_P(small_families, are_walked_over_while_children_come_and_go) {
    for (uint32_t parent = 0; parent < parents; ++parent)
        ASSERT_EQ(send(connection_packet::udp(parent)).fid, 1 + parent);
    live(1 + parents, true);
}

// A record that was a parent may serve a child, and have the children that were announced for its
// last flow: such a flow stays on the list of its own parent when it goes. Nothing is said here
// about whose children are visited.
TEST_P(small_families, are_walked_over_while_they_change) {
    live(1, false);
}

// ---- relatives that go ----

class family_in_deletion : public contended_engine {};

TEST_F(family_in_deletion, walk_passes_over_a_child_on_its_way_out) {
    const watchdog watched(std::chrono::seconds(120), [] {});
    const zon_fid_t parent = send(connection_packet::udp(0)).fid;
    zon_fid_t children[2];
    for (uint32_t child = 0; child < 2; ++child) {
        announce(1 + child, parent);
        children[child] = send(connection_packet::udp(1 + child)).fid;
    }
    const deletion_halfway deletion(children[0]);
    EXPECT_EQ(children_of(parent, false), std::vector<zon_fid_t>{children[1]});
}

// ---- a client that keeps one of the family locked ----

// A parent and two children; the first child has a lock of its own, and all records are taken.
class kept_family : public contended_engine {
protected:
    kept_family() {
        parameters.max_threads = 2;
        parameters.max_flows = 3;
    }
    void SetUp() override {
        contended_engine::SetUp();
        watched_ = std::make_unique<watchdog>(std::chrono::seconds(120), [] {});
        parent_ = send(connection_packet::udp(0)).fid;
        for (uint32_t number = 1; number <= 2; ++number)
            children_[number - 1] = announce(number, parent_);
        ASSERT_NE(lock_of(parent_), lock_of(children_[0]));
    }
    void TearDown() override {
        contended_engine::TearDown();
        watched_.reset();
    }

    static zon_lock_t lock_of(zon_fid_t fid) { return g_zon->fid_table->table[fid - 1]->flow_lock; }
    static zon_lock_t keep(uint32_t connection) {
        const zon_flow_tuple_t tuple = tuple_of(connection);
        zon_fid_t fid = 0;
        zon_lock_t lock = nullptr;
        EXPECT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock),
                  zon_error_none);
        return lock;
    }
    void promote_both() {
        for (uint32_t number = 1; number <= 2; ++number)
            ASSERT_EQ(send(connection_packet::udp(number)).fid, children_[number - 1]);
    }

    zon_fid_t parent_ = 0;
    zon_fid_t children_[2] = {};

private:
    std::unique_ptr<watchdog> watched_;
};

TEST_F(kept_family, parent_stops_neither_promotion_nor_deletion_of_a_child) {
    const zon_lock_t lock = keep(0);
    std::thread([this] {
        EXPECT_EQ(send(connection_packet::udp(1)).seen.was_promoted, 1);
        zon_fid_t parent = 0;
        EXPECT_EQ(zon_flow_get_parent(children_[0], &parent), zon_error_none);
        EXPECT_EQ(parent, parent_);
        EXPECT_TRUE(zon_delete_flow_tamonet(children_[0], ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    }).join();
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
}

TEST_F(kept_family, child_makes_a_walk_wait_without_the_parent) {
    promote_both();
    const zon_lock_t lock = keep(1);
    std::vector<zon_fid_t> found;
    parked_thread walker([&found, this] { found = children_of(parent_, false); });
    walker.wait_until_parked();
    EXPECT_TRUE(is_free_for_others(lock_of(parent_)));
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    walker.finish();
    EXPECT_EQ(found, (std::vector<zon_fid_t>{children_[1], children_[0]}));
}

TEST_F(kept_family, child_that_goes_while_a_walk_waits_is_not_visited_nor_who_takes_its_record) {
    promote_both();
    const zon_lock_t lock = keep(1);
    std::vector<zon_fid_t> found;
    parked_thread walker([&found, this] { found = children_of(parent_, false); });
    walker.wait_until_parked();
    EXPECT_TRUE(zon_delete_flow_tamonet(children_[0], ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    EXPECT_EQ(send(connection_packet::udp(3)).fid, children_[0]) << "the table has three records";
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    walker.finish();
    EXPECT_EQ(found, std::vector<zon_fid_t>{children_[1]});
}

class kept_family_beside_another : public kept_family {
protected:
    kept_family_beside_another() { parameters.max_flows = 4; }
};

// The records of both children serve the children of another parent, in the same order.
TEST_F(kept_family_beside_another, children_that_went_lead_a_waiting_walk_to_no_other_family) {
    const zon_fid_t other_parent = send(connection_packet::udp(9)).fid;
    ASSERT_NE(other_parent, 0u);
    promote_both();
    const zon_lock_t lock = keep(1);
    std::vector<zon_fid_t> found;
    parked_thread walker([&found, this] { found = children_of(parent_, false); });
    walker.wait_until_parked();
    for (const zon_fid_t child : children_)
        EXPECT_TRUE(zon_delete_flow_tamonet(child, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    for (const uint32_t number : {0U, 1U})
        EXPECT_EQ(announce(5 + number, other_parent), children_[number])
            << "in the order of leaving";
    for (const uint32_t number : {0U, 1U})
        EXPECT_EQ(send(connection_packet::udp(5 + number)).fid, children_[number]);
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    walker.finish();
    EXPECT_EQ(found, std::vector<zon_fid_t>{children_[1]}) << "visited before the walk waited";
}

// A third child, and a lock for each flow.
class kept_family_of_three : public kept_family {
protected:
    kept_family_of_three() {
        parameters.max_threads = 4;
        parameters.max_flows = 4;
    }
};

// When the newest child goes, its siblings drop off the list, but the one that was visited last
// still leads to the record behind it.
TEST_F(kept_family_of_three, record_of_a_child_that_dropped_off_and_went_is_not_visited) {
    const auto [oldest, middle] = children_;
    const zon_fid_t newest = announce(3, parent_);
    promote_both();
    ASSERT_EQ(send(connection_packet::udp(3)).fid, newest);
    const zon_lock_t lock = keep(1);
    std::vector<zon_fid_t> found;
    parked_thread walker([&found, this] { found = children_of(parent_, false); });
    walker.wait_until_parked();
    for (const zon_fid_t child : {newest, oldest})
        EXPECT_TRUE(zon_delete_flow_tamonet(child, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
    EXPECT_EQ(send(connection_packet::udp(8)).fid, newest) << "in the order of leaving";
    EXPECT_EQ(send(connection_packet::udp(9)).fid, oldest) << "in the order of leaving";
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    walker.finish();
    EXPECT_EQ(found, (std::vector<zon_fid_t>{newest, middle})) << "visited before the walk waited";
}

class families_losing_one : public stress_engine {};

// The middle one of three children goes during the walk; those around it stay.
TEST_P(families_losing_one, show_the_others_in_every_walk) {
    constexpr uint32_t rounds = 20000;
    const zon_fid_t parent = send(connection_packet::udp(0)).fid;
    zon_fid_t children[3] = {};
    stress_crew crew;
    crew.add("walker", [&](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            for (uint32_t number = 0; number < 3; ++number) {
                announce(1 + number, parent);
                children[number] = send(connection_packet::udp(1 + number)).fid;
            }
            self.meet();
            self.doing("walk over the children");
            std::vector<zon_fid_t> found = children_of(parent, true);
            std::erase(found, children[1]);
            EXPECT_EQ(found, (std::vector<zon_fid_t>{children[2], children[0]}))
                << "round " << round;
            self.meet();
            for (const zon_fid_t child : children)
                zon_delete_flow_tamonet(child, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    });
    crew.add("deleter", [&](stress_thread& self) {
        for (uint32_t round = 0; round < rounds; ++round) {
            self.meet();
            self.doing("delete the middle one");
            for (uint32_t wait = self.below(400); wait != 0; --wait)
                __builtin_ia32_pause();
            zon_delete_flow_tamonet(children[1], ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            self.meet();
        }
    });
    run(crew);
}

class reused_parents : public stress_engine {
protected:
    reused_parents() {
        parameters.max_threads = 2;
        parameters.max_flows = 2;
    }
};

// The announced child outlives its parent, whose record serves another flow when the child's first
// packet comes.
TEST_P(reused_parents, get_the_children_of_the_flow_before) {
    constexpr uint32_t rounds = 800;
    stress_crew crew;
    crew.add("parents", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.doing("make and delete a parent");
            const zon_fid_t parent = send(connection_packet::udp(1)).fid;
            const zon_fid_t child = announce(2, parent);
            EXPECT_TRUE(zon_delete_flow_tamonet(parent, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
            self.meet();
            // Now and then the child comes first.
            for (uint32_t yields = i % 4; yields > 0; --yields)
                std::this_thread::yield();
            self.doing("take its record");
            EXPECT_EQ(send(connection_packet::udp(3)).fid, parent) << "the table has two records";
            self.meet();
            self.doing("delete both");
            EXPECT_TRUE(zon_delete_flow_tamonet(child, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
            EXPECT_TRUE(zon_delete_flow_tamonet(parent, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        }
    });
    crew.add("child", [](stress_thread& self) {
        for (uint32_t i = 0; i < rounds; ++i) {
            self.meet();
            self.doing("promote the child");
            EXPECT_NE(send(connection_packet::udp(2)).fid, 0u);
            self.meet();
        }
    });
    run(crew);
    delete_all_flows();
    expect_no_pre_flows();
}

// ---- the lock of a client that deletes a child ----

class one_lock_family : public contended_engine {
protected:
    one_lock_family() { parameters.max_threads = 1; }
};

TEST_F(one_lock_family, deletion_of_a_child_leaves_the_caller_its_lock) {
    const zon_fid_t parent = send(connection_packet::udp(0)).fid;
    zon_fid_t children[3];
    for (uint32_t child = 0; child < 3; ++child) {
        announce(1 + child, parent);
        children[child] = send(connection_packet::udp(1 + child)).fid;
    }
    ASSERT_EQ(children_of(parent, false).size(), 3u);
    const zon_flow_tuple_t held = tuple_of(0);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    ASSERT_EQ(zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &held, &fid, &lock),
              zon_error_none);
    for (const zon_fid_t child : {children[1], children[2], children[0]}) {
        EXPECT_TRUE(zon_delete_flow_tamonet(child, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST));
        EXPECT_FALSE(is_free_for_others(lock))
            << "the deletion of a child gave the caller's lock away";
    }
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    EXPECT_TRUE(is_free_for_others(lock)) << "a level of the lock was left behind";
}

INSTANTIATE_TEST_SUITE_P(stress, families, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, families_losing_one, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, reused_parents, both_schedules, schedule_name);
INSTANTIATE_TEST_SUITE_P(stress, small_families, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test
