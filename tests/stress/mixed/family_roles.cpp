// family_roles.cpp - threads of clients that announce connections and look after their children.

#include <algorithm>

#include "stress/mixed/actor.h"

namespace zon_test {
namespace {

// ---- announcements ----

constexpr feat feats_of_kinds[] = {feat::announced_complete, feat::announced_by_source,
                                   feat::announced_by_destination, feat::announced_without_vrf};

zon_fid_t choose_parent(const actor& by) {
    if (by.cast.settings.loose && by.one_in(2))
        return by.self.below(by.cast.settings.max_flows + 1);
    return by.cast.parents[by.self.below(parent_count)];
}

// The announced flow is locked. What this thread or another announced before wears the mark of
// client 2, and an ordinary flow has seen a packet.
bool is_new(const actor& by, zon_fid_t fid) {
    uint32_t packets = 0;
    void* mark = nullptr;
    EXPECT_EQ(zon_flow_get_packet_count(fid, &packets), zon_error_none);
    return packets == 0 && zon_flow_get_fo(fid, by.cast.clients[2], ZON_DIR_BI, &mark) ==
                               zon_error_feature_object_not_attached;
}

void mark_new(const actor& by, zon_fid_t fid) {
    hung_object* mark = by.book().new_object();
    mark->hang();
    EXPECT_EQ(zon_flow_attach_fo(fid, by.cast.clients[2], ZON_DIR_BI, mark), zon_error_none);
    by.book().note_announced(fid);
}

void announce(const actor& by) {
    const connection which = by.any_of(kind::expected);
    const zon_flow_tuple_t tuple = tuple_of(which);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    by.self.doing("announce a connection");
    const zon_error_t error =
        zon_pre_flow_add(which.announced_as(), &tuple, choose_parent(by), &fid, &lock);
    if (error != zon_error_none) {
        EXPECT_EQ(error, zon_error_memory);
        EXPECT_EQ(lock, nullptr);
        by.book().note_refused_announcement();
        return;
    }
    EXPECT_NE(fid, 0U);
    if (is_new(by, fid)) {
        mark_new(by, fid);
        by.book().did(feats_of_kinds[which.announced_as()]);
    } else {
        by.book().did(feat::announcement_found);
    }
    by.self.doing("unlock an announced flow");
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
}

// ---- withdrawal ----

void withdraw_whole(const actor& by, const connection& which) {
    const zon_flow_tuple_t tuple = tuple_of(which);
    zon_fid_t fid = 0;
    zon_lock_t lock = nullptr;
    if (zon_flow_find_and_lock(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple, &fid, &lock) != zon_error_none)
        return;
    const zon_error_t error =
        zon_pre_flow_delete_using_flow_tuple(ZON_FLOW_TUPLE_TYPE_COMPLETE, &tuple);
    if (error == zon_error_none) {
        by.book().did(feat::announcement_withdrawn);
    } else {
        // An ordinary flow is left with one more level of its lock.
        EXPECT_EQ(error, zon_error_flow_not_found);
        EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
    }
    EXPECT_EQ(zon_flow_unlock(lock), zon_error_none);
}

void withdraw(const actor& by) {
    const connection which = by.any_of(kind::expected);
    by.self.doing("withdraw an announcement");
    if (which.announced_as() == ZON_FLOW_TUPLE_TYPE_COMPLETE) {
        withdraw_whole(by, which);
        return;
    }
    const zon_flow_tuple_t tuple = tuple_of(which);
    if (zon_pre_flow_delete_using_flow_tuple(which.announced_as(), &tuple) == zon_error_none)
        by.book().did(feat::announcement_withdrawn);
}

// ---- walks ----

struct walk_over_children {
    const actor* by = nullptr;
    zon_fid_t parent = 0;
    std::vector<zon_fid_t> seen;
};
thread_local walk_over_children walk;

// The parent and the child are locked.
bool visit_child(const zon_flow_ptr_t child) {
    walk.by->book().did(feat::child_walked);
    uint32_t packets = 0;
    EXPECT_EQ(zon_flow_get_packet_count(child, &packets), zon_error_none) << "a child that went";
    walk.seen.push_back(child);
    EXPECT_LE(walk.seen.size(), walk.by->cast.settings.max_flows) << "a walk that does not end";
    if (!walk.by->cast.settings.loose) {
        zon_fid_t parent = 0;
        EXPECT_EQ(zon_flow_get_parent(child, &parent), zon_error_none);
        EXPECT_EQ(parent, walk.parent) << "flow " << child << " is somebody else's child";
        EXPECT_EQ(std::count(walk.seen.begin(), walk.seen.end(), child), 1)
            << "child " << child << " is listed twice";
        EXPECT_GT(packets, 0U) << "listed before its first packet";
    }
    if (walk.by->one_in(16))
        zon_delete_flow_tamonet(child, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
    return true;
}

void walk_children(const actor& by) {
    const bool steady = !by.cast.settings.loose || by.one_in(2);
    const zon_fid_t parent = steady ? by.cast.parents[by.self.below(parent_count)]
                                    : by.self.below(by.cast.settings.max_flows + 1);
    walk = {&by, parent, {}};
    by.self.doing("walk over children");
    const zon_error_t error = zon_flow_traverse_child_flows(parent, visit_child);
    if (steady) {
        EXPECT_EQ(error, zon_error_none) << "a parent that should stay is gone";
    }
}

}  // namespace

void announce_and_walk(actor& by) {
    const uint32_t chosen = by.self.below(16);
    if (chosen < 6) {
        announce(by);
    } else if (chosen < 13) {
        const connection which = by.any_of(kind::expected);
        const bool any_vrf = which.announced_as() == ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN;
        by.self.doing("send an expected packet");
        send_packet(by, which, packet_of(which, by.one_in(2)), any_vrf ? by.self.below(2) : 0);
    } else if (chosen < 15) {
        walk_children(by);
    } else {
        withdraw(by);
    }
}

void make_parents(round_cast& cast) {
    constexpr uint32_t a_day_sec = 86400;
    for (uint32_t number = 0; number < parent_count; ++number) {
        const connection which{kind::parent, number};
        bytes packet = packet_of(which, false);
        packet_note note{false, group_of(which)};
        answer got;
        got.fid = zon_handle_packet(packet.data(), 0, &note, &got.seen, &got.error);
        ASSERT_NE(got.fid, 0U);
        cast.book->note_packet(got.fid, got.error, got.seen, false);
        ASSERT_EQ(zon_flow_set_aging(got.fid, a_day_sec), zon_error_none);
        // Answered, it gives way to no other connection.
        bytes reply = packet_of(which, true);
        ASSERT_EQ(zon_handle_packet(reply.data(), 0, &note, &got.seen, &got.error), got.fid);
        cast.book->note_packet(got.fid, got.error, got.seen, false);
        cast.parents.push_back(got.fid);
    }
}

}  // namespace zon_test
