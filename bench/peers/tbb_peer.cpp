// tbb_peer.cpp - TBB's concurrent hash map, whose accessor locks the entry while the record is
// looked for.

#include <tbb/concurrent_hash_map.h>

#include "peers/peer_table.h"

namespace zon_bench {
namespace {

struct hash_and_compare {
    static size_t hash(const peer_key& key) { return peer_hash{}(key); }
    static bool equal(const peer_key& a, const peer_key& b) { return a == b; }
};

class tbb_table {
public:
    void create(uint32_t flows) { map_.rehash(flows); }
    void put(const peer_key& key, peer_record* record) { map_.insert({key, record}); }
    peer_record* find(const peer_key& key) {
        map::accessor found;
        return map_.find(found, key) ? found->second : nullptr;
    }

private:
    using map = tbb::concurrent_hash_map<peer_key, peer_record*, hash_and_compare>;
    map map_;
};

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    using namespace zon_bench;
    add_peer_rows("peer/tbb::concurrent_hash_map", find_one_at_a_time<tbb_table>);
    return run_benchmarks(argc, argv);
}
