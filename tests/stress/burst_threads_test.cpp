// burst_threads_test.cpp - bursts of first packets while other threads delete what they made.
#include <array>
#include <atomic>

#include "support/packet_builder.h"
#include "support/stress_engine.h"

namespace zon_test {
namespace {

class bursts_beside_deletions : public contended_engine {
protected:
    static constexpr uint32_t flows = 200;
    static constexpr uint32_t bursts = 20'000;
    static constexpr size_t burst_size = 32;

    bursts_beside_deletions() {
        parameters.max_flows = flows;
        parameters.max_threads = 64;
        parameters.create_chunk_elements = 64;
        parameters.max_mem_buffer_init = 0;
    }

    // Packets of any of so many connections that most are new.
    class burst_of_newcomers {
    public:
        burst_of_newcomers() {
            packets_.fill(packet_builder::ipv4("10.0.0.1", "192.0.2.1").udp(1, 53).build());
            for (size_t i = 0; i < burst_size; ++i) {
                burst_[i].iphdr = packets_[i].data();
                burst_[i].captured_length = static_cast<uint32_t>(packets_[i].size());
                burst_[i].pkt_indications = &seen_[i];
            }
        }
        uint32_t send(stress_thread& self) {
            for (bytes& packet : packets_)
                for (const size_t at : {13U, 14U, 15U, 21U})
                    packet[at] = static_cast<uint8_t>(self.below(256));
            return zon_handle_packet_burst(burst_.data(), burst_size);
        }

    private:
        std::array<bytes, burst_size> packets_;
        std::array<zon_pkt_indications_t, burst_size> seen_{};
        std::array<zon_burst_packet_t, burst_size> burst_{};
    };
};

// Half flows whose memory is given back are links of a list of free memory then: whoever reads a
// bucket ahead without its lock may come across them.
TEST_F(bursts_beside_deletions, read_nothing_that_is_no_memory) {
    std::atomic<uint32_t> with_flow{0};
    std::atomic<bool> ended{false};
    stress_crew crew;
    crew.add("bursts", [&](stress_thread& self) {
        burst_of_newcomers newcomers;
        for (uint32_t burst = 0; burst < bursts; ++burst) {
            self.doing("send a burst");
            with_flow += newcomers.send(self);
        }
        ended = true;
    });
    crew.add("deletions", [&](stress_thread& self) {
        for (zon_fid_t fid = 1; !ended; fid = fid % flows + 1) {
            self.doing("delete");
            zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
        }
    });
    crew.run(schedule::together);
    EXPECT_GE(with_flow, flows);
}

}  // namespace
}  // namespace zon_test
