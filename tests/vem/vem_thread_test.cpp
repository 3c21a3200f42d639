// vem_thread_test.cpp - threads and their ends.
#include "vem/vem_thread.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

namespace {

TEST(vem_thread, runs_the_entry_and_hands_its_result_to_the_join) {
    int value = 5;
    pthread_t id{};
    const auto entry = [](void* arg) {
        ++*static_cast<int*>(arg);
        return arg;
    };
    ASSERT_EQ(vem_thread_create(&id, 0, entry, &value, "worker", 0), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(id, &result), 0);
    EXPECT_EQ(value, 6);
    EXPECT_EQ(result, &value);
}

TEST(vem_thread, cuts_its_name_to_what_the_system_shows) {
    std::array<char, 32> name{};
    pthread_t id{};
    const auto entry = [](void* arg) -> void* {
        auto* out = static_cast<std::array<char, 32>*>(arg);
        pthread_getname_np(pthread_self(), out->data(), out->size());
        return nullptr;
    };
    ASSERT_EQ(vem_thread_create(&id, 0, entry, &name, "a name longer than shown", 0), 0);
    pthread_join(id, nullptr);
    EXPECT_STREQ(name.data(), "a name longer t");
}

TEST(vem_thread, needs_no_name) {
    pthread_t id{};
    const auto entry = [](void*) -> void* { return nullptr; };
    ASSERT_EQ(vem_thread_create(&id, 0, entry, nullptr, nullptr, 0), 0);
    EXPECT_EQ(pthread_join(id, nullptr), 0);
}

TEST(vem_thread, refuses_to_start_nothing) {
    pthread_t id{};
    EXPECT_EQ(vem_thread_create(&id, 0, nullptr, nullptr, "name", 0), EINVAL);
    EXPECT_EQ(vem_thread_create(
                  nullptr, 0, [](void* arg) { return arg; }, nullptr, "name", 0),
              EINVAL);
}

TEST(vem_thread, exit_ends_a_thread_of_ours_and_unwinds_its_stack) {
    struct traces {
        bool unwound = false;
        bool went_on = false;
    } traces;
    pthread_t id{};
    const auto entry = [](void* arg) -> void* {
        auto* seen = static_cast<struct traces*>(arg);
        struct mark {
            bool& unwound;
            ~mark() { unwound = true; }
        } mark{seen->unwound};
        vem_thread_exit(7);
        seen->went_on = true;
        return nullptr;
    };
    ASSERT_EQ(vem_thread_create(&id, 0, entry, &traces, "leaver", 0), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(id, &result), 0);
    EXPECT_EQ(reinterpret_cast<intptr_t>(result), 7);
    EXPECT_TRUE(traces.unwound);
    EXPECT_FALSE(traces.went_on);
}

TEST(vem_thread, exit_returns_on_a_thread_that_others_started) {
    vem_thread_exit(0);
    bool went_on = false;
    std::thread foreign([&] {
        vem_thread_exit(0);
        went_on = true;
    });
    foreign.join();
    EXPECT_TRUE(went_on);
}

}  // namespace
