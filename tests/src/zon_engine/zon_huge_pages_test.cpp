// zon_huge_pages_test.cpp - an engine that asks for huge pages has them where the system gives them,
// and one that does not has none.

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/engine_fixture.h"

namespace {

using namespace zon_test;

// "[madvise]": who asks gets them, nobody else does.
bool system_gives_what_is_asked_for() {
    std::ifstream choice("/sys/kernel/mm/transparent_hugepage/enabled");
    const std::string text{std::istreambuf_iterator<char>(choice), {}};
    return text.find("[madvise]") != std::string::npos;
}

// KiB of this process that lie in huge pages.
uint64_t huge_kib() {
    std::ifstream usage("/proc/self/smaps_rollup");
    for (std::string word; usage >> word;)
        if (word == "AnonHugePages:") {
            uint64_t kib = 0;
            usage >> kib;
            return kib;
        }
    return 0;
}

class huge_pages : public engine_fixture {
protected:
    huge_pages() {
        parameters.max_flows = 1'000'000;
        parameters.min_init_flows = 20'000;  // some megabytes of records
    }
    // Of 8 MB of buckets, 16 MB of index and 8 MB of identifiers, and of 6 MB of flows.
    static constexpr uint64_t enough_kib = 16 * 2048;

    void SetUp() override {
        if (!system_gives_what_is_asked_for())
            GTEST_SKIP() << "this system gives huge pages to everybody or to nobody";
    }
    void TearDown() override {
        EXPECT_EQ(zon_config_set_huge_pages(false), zon_error_none);
        engine_fixture::TearDown();
    }
};

TEST_F(huge_pages, are_not_asked_for_unless_a_host_wants_them) {
    const uint64_t before = huge_kib();
    engine_fixture::SetUp();
    EXPECT_EQ(huge_kib(), before);
}

TEST_F(huge_pages, hold_tables_and_flows_of_the_next_engine) {
    const uint64_t before = huge_kib();
    EXPECT_EQ(zon_config_set_huge_pages(true), zon_error_none);
    engine_fixture::SetUp();
    const uint64_t with_pages = huge_kib();
    EXPECT_GE(with_pages, before + enough_kib) << "tables and flows are in huge pages";
    EXPECT_NE(handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1, 2)).fid, 0u);
    EXPECT_EQ(zon_config_set_huge_pages(false), zon_error_none);
    ASSERT_TRUE(zon_restart());
    EXPECT_LE(huge_kib(), with_pages) << "the next engine has none";
#ifndef __SANITIZE_ADDRESS__  // which keeps freed memory for a while
    EXPECT_LT(huge_kib(), before + enough_kib) << "the next engine has none";
#endif
}

}  // namespace
