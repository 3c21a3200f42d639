// shared_objects_test.cpp - feature objects that several threads attach, detach and lose.
#include <atomic>
#include <vector>

#include "stress/shared_by_threads.h"

namespace zon_test {
namespace {

class objects_on_threads : public shared_by_threads {};

void ignore_deletion(zon_flow_ptr_t, void*, void*, void*, zon_flow_deletion_reason_e,
                     zon_client_id_e) {}

constexpr uint32_t fo_rounds = 12000;
constexpr uint32_t fo_threads = 3;
// How often each object came back to its client; an object is attached once.
std::vector<std::atomic<int>> given_back(fo_threads* fo_rounds);

void give_back(void* object) {
    if (object != nullptr)
        ++*static_cast<std::atomic<int>*>(object);
}

void take_back_deleted(zon_flow_ptr_t, void* initiator, void* responder, void* whole,
                       zon_flow_deletion_reason_e, zon_client_id_e) {
    // One record may be found in several positions: it is still one object.
    give_back(whole);
    if (initiator != whole)
        give_back(initiator);
    if (responder != whole && responder != initiator)
        give_back(responder);
}

TEST_P(objects_on_threads, come_back_once) {
    for (std::atomic<int>& count : given_back)
        count = 0;
    zon_client_id_e clients[fo_threads];
    for (zon_client_id_e& id : clients) {
        ASSERT_EQ(zon_client_feature_register(&id), zon_error_none);
        ASSERT_EQ(zon_client_register_delete_cb(id, take_back_deleted), zon_error_none);
    }
    std::atomic<uint32_t> attached{0};
    stress_crew crew;
    for (uint32_t thread = 0; thread < fo_threads; ++thread)
        crew.add("client " + std::to_string(thread), [&, thread](stress_thread& self) {
            const zon_client_id_e id = clients[thread];
            for (uint32_t i = 0; i < fo_rounds; ++i) {
                self.doing("send");
                const zon_fid_t fid = send(connection_packet::udp(self.below(6))).fid;
                void* mine = nullptr;
                self.doing("detach");
                if (zon_flow_detach_fo(fid, id, ZON_DIR_BI, &mine) == zon_error_none)
                    give_back(mine);
                self.doing("attach");
                std::atomic<int>* object = &given_back[thread * fo_rounds + i];
                // Nobody else attaches for this client: the place is empty since the detaching.
                if (zon_flow_attach_fo(fid, id, ZON_DIR_BI, object) == zon_error_none)
                    ++attached;
                else
                    ++*object;  // the flow went meanwhile
            }
        });
    crew.add("deleter", [](stress_thread& self) {
        for (uint32_t i = 0; i < fo_rounds; ++i) {
            self.doing("delete");
            zon_delete_flow_tamonet(1 + self.below(8), ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            self.stumble();
        }
    });
    crew.add("unregistering", [&clients](stress_thread& self) {
        for (uint32_t i = 0; i < fo_rounds / 4; ++i) {
            self.doing("take a client's objects off");
            EXPECT_EQ(zon_unreg_client_fo(clients[self.below(fo_threads)]), zon_error_none);
        }
    });
    run(crew);
    delete_all_flows();
    uint32_t wrong = 0;
    for (const std::atomic<int>& count : given_back)
        wrong += count != 1;
    EXPECT_EQ(wrong, 0u) << "objects were lost, or came back twice, of " << given_back.size();
    EXPECT_GT(attached, 0u);
}

// Clients with objects on the whole flow and on directions share the ends of their lists.
TEST_P(objects_on_threads, stay_with_their_flow) {
    constexpr uint32_t rounds = 15000;
    static uint32_t flow_of_object[65];
    zon_client_id_e clients[3];
    for (zon_client_id_e& id : clients) {
        ASSERT_EQ(zon_client_feature_register(&id), zon_error_none);
        ASSERT_EQ(zon_client_register_delete_cb(
                      id,
                      [](zon_flow_ptr_t fid, void* initiator, void* responder, void* whole,
                         zon_flow_deletion_reason_e, zon_client_id_e) {
                          for (void* object : {initiator, responder, whole}) {
                              if (object != nullptr) {
                                  EXPECT_EQ(*static_cast<uint32_t*>(object), fid)
                                      << "another flow's object";
                              }
                          }
                      }),
                  zon_error_none);
    }
    for (uint32_t fid = 0; fid <= 64; ++fid)
        flow_of_object[fid] = fid;
    stress_crew crew;
    for (uint32_t thread = 0; thread < 3; ++thread)
        crew.add("client " + std::to_string(thread), [&clients](stress_thread& self) {
            for (uint32_t i = 0; i < rounds; ++i) {
                const zon_client_id_e id = clients[self.below(3)];
                const zon_fid_t fid = send(connection_packet::udp(self.below(6))).fid;
                const auto direction = static_cast<zon_flow_direction_e>(self.below(3));
                void* object = nullptr;
                self.doing("attach");
                zon_flow_attach_fo(fid, id, direction, &flow_of_object[fid]);
                self.doing("read");
                if (zon_flow_get_fo(fid, id, static_cast<zon_flow_direction_e>(self.below(3)),
                                    &object) == zon_error_none) {
                    EXPECT_EQ(*static_cast<uint32_t*>(object), fid) << "another flow's object";
                }
                self.doing("detach");
                if (self.below(3) == 0 &&
                    zon_flow_detach_fo(fid, id, direction, &object) == zon_error_none) {
                    EXPECT_EQ(*static_cast<uint32_t*>(object), fid) << "another flow's object";
                }
                self.doing("delete");
                if (self.below(6) == 0)
                    zon_delete_flow_tamonet(fid, ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST);
            }
        });
    run(crew);
}

// A client's object on a direction is followed by the one on the whole flow: both leave both lists,
// or the next owner of the records finds them on this flow.
TEST_F(contended_engine, takes_an_unregistering_client_s_objects_off_all_lists) {
    static int objects[4];
    zon_client_id_e leaving = 0;
    ASSERT_EQ(zon_client_feature_register(&leaving), zon_error_none);
    ASSERT_EQ(zon_client_register_delete_cb(leaving, ignore_deletion), zon_error_none);
    const zon_fid_t first = send(connection_packet::udp(1)).fid;
    const zon_fid_t second = send(connection_packet::udp(2)).fid;
    ASSERT_EQ(zon_flow_attach_fo(first, leaving, ZON_DIR_BI, &objects[0]), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(first, leaving, ZON_DIR_INITIATOR, &objects[1]), zon_error_none);
    ASSERT_EQ(zon_unreg_client_fo(leaving), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(second, client, ZON_DIR_BI, &objects[2]), zon_error_none);
    ASSERT_EQ(zon_flow_attach_fo(second, client, ZON_DIR_INITIATOR, &objects[3]), zon_error_none);
    for (const zon_flow_direction_e direction :
         {ZON_DIR_BI, ZON_DIR_INITIATOR, ZON_DIR_RESPONDER}) {
        void* found = nullptr;
        EXPECT_EQ(zon_flow_get_fo(first, client, direction, &found),
                  zon_error_feature_object_not_attached);
        EXPECT_EQ(found, nullptr) << "another flow's object";
    }
}

INSTANTIATE_TEST_SUITE_P(stress, objects_on_threads, both_schedules, schedule_name);

}  // namespace
}  // namespace zon_test
