// urcu_peer.cpp - the lock-free hash table of liburcu under its cheapest kind of reader, which
// tells of itself between bursts only. The record is not locked.

#include <urcu-qsbr.h>
#include <urcu/rculfhash.h>

#include <bit>

#include "peers/peer_table.h"

namespace zon_bench {
namespace {

class urcu_table {
public:
    ~urcu_table() {
        cds_lfht_iter iterator;
        node* at;
        cds_lfht_for_each_entry(table_, &iterator, at, links) cds_lfht_del(table_, &at->links);
        cds_lfht_destroy(table_, nullptr);
    }

    void create(uint32_t flows) {
        const size_t buckets = std::bit_ceil(flows);
        table_ = cds_lfht_new(buckets, buckets, 0, 0, nullptr);
        require(table_ != nullptr, "no table");
        nodes_.reserve(flows);
    }
    void put(const peer_key& key, peer_record* record) {
        node& added = nodes_.emplace_back();
        cds_lfht_node_init(&added.links);
        added.key = key;
        added.record = record;
        cds_lfht_add(table_, peer_hash{}(key), &added.links);
    }
    peer_record* find(const peer_key& key) {
        cds_lfht_iter iterator;
        urcu_qsbr_read_lock();
        cds_lfht_lookup(table_, peer_hash{}(key), is_wanted, &key, &iterator);
        const cds_lfht_node* found = cds_lfht_iter_get_node(&iterator);
        peer_record* record =
            found != nullptr ? reinterpret_cast<const node*>(found)->record : nullptr;
        urcu_qsbr_read_unlock();
        if (++since_quiet_ % packet_source::burst_size == 0)
            urcu_qsbr_quiescent_state();
        return record;
    }

private:
    struct node {
        cds_lfht_node links;
        peer_key key;
        peer_record* record;
    };
    static int is_wanted(cds_lfht_node* links, const void* key) {
        return reinterpret_cast<const node*>(links)->key == *static_cast<const peer_key*>(key);
    }

    cds_lfht* table_ = nullptr;
    std::vector<node> nodes_;  // reserved once: no node ever moves
    uint32_t since_quiet_ = 0;
};

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    using namespace zon_bench;
    urcu_qsbr_register_thread();
    add_peer_rows("peer/rculfhash", find_one_at_a_time<urcu_table>);
    const int result = run_benchmarks(argc, argv);
    urcu_qsbr_unregister_thread();
    return result;
}
