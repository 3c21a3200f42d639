// zon_bundle.cpp - parents and the children that were announced for them.
//
// Owns   the three links of all flows.
// Locks  one private lock, taken last, guards every link: forming and breaking links never takes a
//        second flow's lock. The traversal holds the parent and one child, and never waits for one
//        of them while it holds the other.

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

#include "osal/zon_debug.h"
#include "osal/zon_lock_order.h"
#include "zon_api_internal.h"

namespace {

ordered_mutex<lock_class::bundle> links;
using links_guard = std::lock_guard<decltype(links)>;

// Links of records that were recycled can form a circle. No list is longer than the table: a longer
// walk goes round.
class bounded_walk {
public:
    bool step() { return left_ != 0 && left_-- != 0; }

private:
    uint32_t left_ = relaxed_load(g_zon->fid_table->allocated);
};

// Links are stored as atomic words, because a record that is taken anew is cleared under its own
// lock alone.
zon_flow_t* first_child(const zon_flow_t* parent) {
    return relaxed_load(parent->bundle_child);
}
zon_flow_t* sibling_of(const zon_flow_t* child) {
    return relaxed_load(child->bundle_sibling);
}
void set_link(zon_flow_t*& link, zon_flow_t* to) {
    __atomic_store_n(&link, to, __ATOMIC_RELAXED);
}

void zon_unbind_parent_flows(zon_flow_t* parent) {
    zon_flow_t* child = first_child(parent);
    set_link(parent->bundle_child, nullptr);
    for (bounded_walk walk; child != nullptr && walk.step();) {
        zon_flow_t* next = sibling_of(child);
        set_link(child->bundle_sibling, nullptr);
        set_link(child->bundle_parent, nullptr);
        child = next;
    }
}

void zon_unbind_child_flow(zon_flow_t* flow, zon_flow_t* parent) {
    set_link(flow->bundle_parent, nullptr);
    zon_flow_t* before = nullptr;
    bounded_walk walk;
    for (zon_flow_t* child = first_child(parent); child != nullptr && walk.step();
         child = sibling_of(child)) {
        if (child == flow) {
            // Kept on purpose: when the first child goes, its siblings drop off the list with it.
            if (before != nullptr)
                set_link(before->bundle_sibling, sibling_of(flow));
            else
                set_link(parent->bundle_child, nullptr);
            set_link(flow->bundle_sibling, nullptr);
            return;
        }
        before = child;
    }
}

// ---- traversal ----

// One walk over the children of a flow. Between two children other threads may change the list; the
// walk then goes on behind the last child that it has seen and that is still there.
class child_walk {
public:
    child_walk(locked_flow parent, child_flow_traverser_t visit)
        : parent_(std::move(parent)), visit_(visit) {}

    void run() {
        for (zon_flow_t* child = next_of(nullptr); child != nullptr;) {
            const locked_flow held = lock_child(child);
            if (!held)
                return;
            if (!zon_flow_is_dying(held.get())) {
                const client_function called;
                visit_(held->fid);
            }
            // Read after the visit: a visitor that deletes the child, or the parent, ends the walk.
            child = next_of(held.get());
            if (child != nullptr)
                remember(held.get());
        }
    }

private:
    zon_flow_t* next_of(const zon_flow_t* child) const {
        const std::lock_guard guard(links);
        return child != nullptr ? sibling_of(child) : first_child(parent_.get());
    }

    // Without memory the walk knows its last child alone: where that leaves the list while the walk
    // waits, children may be visited again.
    void remember(const zon_flow_t* child) try {
        last_ = child;
        visited_.push_back(child);
    } catch (const std::bad_alloc&) {
    }

    // Locks the wanted child, or the one that stands in its place once it is locked; empty at the
    // end of the list.
    locked_flow lock_child(zon_flow_t* child) {
        while (child != nullptr) {
            // One on its way out is passed over without its lock, which the deleting thread keeps.
            if (zon_flow_is_dying(child)) {
                if (!steps_.step())
                    return {};
                child = pass_over(child);
                continue;
            }
            locked_flow held = zon_try_lock_internal(child->flow_lock) ? locked_flow::adopt(child)
                                                                       : wait_for(child);
            zon_flow_t* now = still_next(child, links_guard(links));
            if (now == child)
                return steps_.step() ? std::move(held) : locked_flow{};
            child = now;
        }
        return {};
    }

    // Waits for a child with neither it nor the parent locked, then takes both.
    locked_flow wait_for(zon_flow_t* child) {
        zon_flow_t* parent = std::move(parent_).hand_over();
        for (;;) {
            zon_unlock_internal(parent->flow_lock);
            zon_lock_internal(child->flow_lock);
            if (zon_try_lock_internal(parent->flow_lock))
                break;
            zon_unlock_internal(child->flow_lock);
            zon_lock_internal(parent->flow_lock);
            if (zon_try_lock_internal(child->flow_lock))
                break;
        }
        parent_ = locked_flow::adopt(parent);
        return locked_flow::adopt(child);
    }

    // What stands behind a child on its way out; it may have left the list already.
    zon_flow_t* pass_over(zon_flow_t* child) {
        zon_flow_t* behind = nullptr;
        {
            const links_guard held(links);
            zon_flow_t* now = still_next(child, held);
            if (now != child)
                return now;
            behind = sibling_of(child);
        }
        remember(child);
        return behind;
    }

    // The child itself while it is the next one, else the first one behind all that were visited
    // and are still listed. Null when the parent died meanwhile.
    zon_flow_t* still_next(zon_flow_t* child, const links_guard&) const {
        if (zon_flow_is_dying(parent_.get()))
            return nullptr;
        return follower_of_last() == child && is_of_family(child) ? child : first_unvisited();
    }

    // One that dropped off the list leads on to records that were its siblings' once. On the list
    // itself a record that was a parent, too, stays on purpose when its flow goes.
    bool is_of_family(const zon_flow_t* child) const {
        return relaxed_load(child->bundle_parent) == parent_.get() || is_listed(child);
    }

    bool is_listed(const zon_flow_t* wanted) const {
        bounded_walk walk;
        for (zon_flow_t* child = first_child(parent_.get()); child != nullptr && walk.step();
             child = sibling_of(child))
            if (child == wanted)
                return true;
        return false;
    }

    // Null when the last one went: its record may lead through the list of another parent by now.
    const zon_flow_t* follower_of_last() const {
        if (last_ == nullptr)
            return first_child(parent_.get());
        return relaxed_load(last_->bundle_parent) == parent_.get() ? sibling_of(last_) : nullptr;
    }

    zon_flow_t* first_unvisited() const {
        zon_flow_t* behind = first_child(parent_.get());
        bounded_walk walk;
        for (zon_flow_t* child = behind; child != nullptr && walk.step(); child = sibling_of(child))
            if (was_visited(child))
                behind = sibling_of(child);
        return behind;
    }

    bool was_visited(const zon_flow_t* child) const {
        return std::find(visited_.rbegin(), visited_.rend(), child) != visited_.rend();
    }

    locked_flow parent_;
    child_flow_traverser_t visit_;
    bounded_walk steps_;
    const zon_flow_t* last_ = nullptr;
    std::vector<const zon_flow_t*> visited_;
};

}  // namespace

void zon_private_link_to_parent(zon_flow_t* flow) {
    const std::lock_guard guard(links);
    if (zon_flow_t* parent = relaxed_load(flow->bundle_parent)) {
        set_link(flow->bundle_sibling, first_child(parent));
        set_link(parent->bundle_child, flow);
    }
}

void zon_private_unbind(zon_flow_t* flow) {
    const std::lock_guard guard(links);
    // A flow that is both a parent and a child stays on its own parent's list, on purpose.
    if (first_child(flow) != nullptr)
        zon_unbind_parent_flows(flow);
    else if (zon_flow_t* parent = relaxed_load(flow->bundle_parent))
        zon_unbind_child_flow(flow, parent);
}

void zon_private_set_parent(zon_flow_t* flow, zon_flow_t* parent, zon_fid_t parent_fid) {
    const std::lock_guard guard(links);
    // The parent may have gone meanwhile, and its record have become this very flow's.
    const bool still_there = parent != nullptr && parent != flow &&
                             zon_fid_table_slot(g_zon->fid_table, parent_fid) == parent &&
                             !zon_flow_is_dying(parent);
    set_link(flow->bundle_parent, still_there ? parent : nullptr);
}

zon_fid_t zon_private_parent_fid(const zon_flow_t* flow) {
    const std::lock_guard guard(links);
    const zon_flow_t* parent = relaxed_load(flow->bundle_parent);
    return parent != nullptr ? parent->fid : ZON_NULL_FID;
}

void zon_private_copy_links(const zon_flow_t* flow, zon_flow_t* snapshot) {
    const std::lock_guard guard(links);
    snapshot->bundle_parent = relaxed_load(flow->bundle_parent);
    snapshot->bundle_child = first_child(flow);
    snapshot->bundle_sibling = sibling_of(flow);
}

zon_error_t zon_flow_get_parent(zon_fid_t child, zon_fid_t* parent) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (parent == nullptr)
        return zon_error_parameter_is_null;
    *parent = ZON_NULL_FID;
    const locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, child);
    if (!flow) {
        zon_trace_engine_text(zon_client_api_text);
        return zon_error_flow_not_found;
    }
    *parent = zon_private_parent_fid(flow.get());
    if (*parent != ZON_NULL_FID)
        return zon_error_none;
    zon_trace_engine_text(zon_client_api_text);
    return zon_error_parent_fid_not_found;
}

zon_error_t zon_flow_traverse_child_flows(zon_fid_t parent, child_flow_traverser_t func) {
    if (g_zon == nullptr)
        return zon_error_engine_not_init;
    if (func == nullptr)
        return zon_error_parameter_is_null;
    locked_flow flow = zon_fid_table_lookup(g_zon->fid_table, parent);
    if (!flow) {
        zon_trace_engine_text(zon_client_api_text);
        return zon_error_parent_fid_not_found;
    }
    child_walk(std::move(flow), func).run();
    return zon_error_none;
}
