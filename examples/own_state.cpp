// own_state.cpp - a C++ client that keeps typed state with every flow: it measures how long each
// one takes to carry its first thousand bytes.
//
// Build:  c++ -std=c++17 examples/own_state.cpp $(pkg-config --cflags --libs zon) -o own_state
//         (README.md, "Embedding", has the installation and what a folder of one's own needs)
#include <zon.h>

#include <cstdio>
#include <memory>

// One object of a type per flow, made when it is first asked for and destroyed with the flow.
template <class state>
class per_flow {
public:
    explicit per_flow(zon_client_id_e client) : client_(client) {
        zon_client_register_delete_cb(client, [](zon_flow_ptr_t flow, void*, void*, void* of_flow,
                                                 zon_flow_deletion_reason_e, zon_client_id_e) {
            std::unique_ptr<state> last(static_cast<state*>(of_flow));
            if (last != nullptr)
                last->flow_ended(flow);
        });
    }
    state& operator[](zon_fid_t flow) const {
        void* present = nullptr;
        if (zon_flow_get_fo(flow, client_, ZON_DIR_BI, &present) != zon_error_none) {
            present = new state{};
            zon_flow_attach_fo(flow, client_, ZON_DIR_BI, present);
        }
        return *static_cast<state*>(present);
    }

private:
    zon_client_id_e client_;
};

struct first_thousand {
    unsigned bytes = 0, packets = 0;

    void packet(unsigned size) {
        if (bytes < 1000)
            ++packets;
        bytes += size;
    }
    void flow_ended(zon_flow_ptr_t flow) const {
        std::printf("flow %u: 1000 bytes in %u packets\n", flow, packets);
    }
};

int main() {
    zon_client_id_e me;
    if (zon_init(ZON_DEFAULT_MAX_FLOWS, /* pre_flow_timer, ms */ 30000, ZON_DEFAULT_MIN_INIT_FLOWS,
                 ZON_DEFAULT_MAX_CONCURRENCY, ZON_DEFAULT_MAX_COLLISION_SIZE,
                 ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS,
                 ZON_DEFAULT_MAX_MEM_BUFFER_INIT) != zon_error_none ||
        !zon_timer_tw_init(zon_get_tw_internal(), &g_zon->zon_timer_vdm,
                           &g_zon->zon_timer_process_create) ||
        zon_client_feature_register(&me) != zon_error_none)
        return 1;
    zon_client_enable_engine_capability(me, ZON_CAPABILITY_ENABLE_UDP);
    const per_flow<first_thousand> states(me);

    // 300 bytes of UDP payload from 192.0.2.1:7000 to 192.0.2.2:7001, sent five times.
    uint8_t datagram[328] = {0x45, 0, 1, 72,  0, 0, 0, 0,  64, 17, 0,  0, 192,
                             0,    2, 1, 192, 0, 2, 2, 27, 88, 27, 89, 1, 52};
    for (int i = 0; i < 5; ++i) {
        zon_pkt_indications_t seen{};
        zon_error_t error;
        const zon_fid_t flow =
            zon_handle_captured_packet(datagram, sizeof datagram, 0, nullptr, &seen, &error);
        if (flow == 0)
            return 1;
        states[flow].packet(seen.l4_payload_size);
    }
    zon_destroy();
}
