// boost_peer.cpp - Boost's unordered map and its container of two indices, for one thread: nothing
// of them is locked.

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index_container.hpp>
#include <boost/unordered_map.hpp>

#include "peers/peer_table.h"

namespace zon_bench {
namespace {

class unordered_map_table {
public:
    void create(uint32_t flows) { map_.reserve(flows); }
    void put(const peer_key& key, peer_record* record) { map_.emplace(key, record); }
    peer_record* find(const peer_key& key) const {
        const auto at = map_.find(key);
        return at == map_.end() ? nullptr : at->second;
    }

private:
    boost::unordered_map<peer_key, peer_record*, peer_hash> map_;
};

// Each flow under the keys of both its directions, as one that translates addresses needs it.
class multi_index_table {
public:
    void create(uint32_t flows) { flows_.rehash(flows); }
    void put(const peer_key& key, peer_record* record) {
        const peer_key back{key.server, key.client, key.server_port, key.client_port, key.protocol};
        flows_.insert({key, back, record});
    }
    peer_record* find(const peer_key& key) const {
        const auto at = flows_.find(key);
        return at == flows_.end() ? nullptr : at->record;
    }

private:
    struct entry {
        peer_key forth;
        peer_key back;
        peer_record* record;
    };
    template <peer_key entry::*key>
    using by = boost::multi_index::hashed_unique<boost::multi_index::member<entry, peer_key, key>,
                                                 peer_hash>;
    boost::multi_index_container<
        entry, boost::multi_index::indexed_by<by<&entry::forth>, by<&entry::back>>>
        flows_;
};

}  // namespace
}  // namespace zon_bench

int main(int argc, char** argv) {
    using namespace zon_bench;
    add_peer_rows("peer/boost::unordered_map", find_one_at_a_time<unordered_map_table>);
    add_peer_rows("peer/boost::multi_index", find_one_at_a_time<multi_index_table>);
    return run_benchmarks(argc, argv);
}
