// deletion_halfway.h - a deletion that stands still between its two halves.

#pragma once

#include <algorithm>
#include <thread>

#include "support/obstructed_lock.h"
#include "support/stress_engine.h"
#include "zon_fid_table.h"
#include "zon_hashset.h"

namespace zon_test {

// Deletes a flow on a thread of its own and stops it between the moment that the flow is beyond
// recall and the moment that it leaves the flow table: this thread keeps all bucket locks, which it
// can go on taking itself.
class deletion_halfway {
public:
    explicit deletion_halfway(zon_fid_t fid) : flow_(g_zon->fid_table->table[fid - 1]) {
        for (int stripe = 0; stripe < stripes(); ++stripe)
            obstruct(zon_lock_get_pool_lock(set()->bucket_locks, stripe));
        thread_ = std::thread(
            [fid] { zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST); });
        wait_until(
            [this] { return __atomic_load_n(&flow_->private_dying, __ATOMIC_ACQUIRE) != 0; });
    }
    ~deletion_halfway() { finish(); }
    deletion_halfway(const deletion_halfway&) = delete;
    deletion_halfway& operator=(const deletion_halfway&) = delete;

    void finish() {
        if (!thread_.joinable())
            return;
        for (int stripe = 0; stripe < stripes(); ++stripe)
            clear_obstructed(zon_lock_get_pool_lock(set()->bucket_locks, stripe));
        thread_.join();
    }
    const zon_flow_t* flow() const { return flow_; }

private:
    static zon_hashset set() { return g_zon->flow_tbl->table; }
    static int stripes() { return std::max(1, set()->concurrency_level); }

    zon_flow_t* flow_;
    std::thread thread_;
};

}  // namespace zon_test
