// zon_huge_pages_test.cpp - an engine that wants huge pages asks the system for them, and one that
// does not want them asks for none.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/engine_fixture.h"

namespace {

using namespace zon_test;

// Whether this system has huge pages to ask for. It gives them as it can, so the tests look at the
// wish.
bool system_has_huge_pages() {
    return std::filesystem::exists("/sys/kernel/mm/transparent_hugepage/enabled");
}

// KiB of this process for which huge pages were asked: of each mapping with the flag "hg"
// (proc(5)).
uint64_t kib_wished_huge() {
    std::ifstream mappings("/proc/self/smaps");
    uint64_t wished = 0;
    uint64_t mapping = 0;
    for (std::string line; std::getline(mappings, line);) {
        if (line.starts_with("Size:"))
            mapping = std::stoull(line.substr(line.find(':') + 1));
        else if (line.starts_with("VmFlags:") && line.find(" hg ") != std::string::npos)
            wished += mapping;
    }
    return wished;
}

class huge_pages : public engine_fixture {
protected:
    huge_pages() {
        parameters.max_flows = 1'000'000;
        parameters.min_init_flows = 20'000;  // some megabytes of records
    }
    // Of 8 MB of buckets, 16 MB of index and 8 MB of identifiers, and of 6 MB of flows.
    static constexpr uint64_t enough_kib = 38 * 1024;

    void SetUp() override {
        if (!system_has_huge_pages())
            GTEST_SKIP() << "this system has no huge pages";
    }
    void TearDown() override {
        EXPECT_EQ(zon_config_set_huge_pages(false), zon_error_none);
        engine_fixture::TearDown();
    }
};

TEST_F(huge_pages, are_not_asked_for_unless_a_host_wants_them) {
    const uint64_t before = kib_wished_huge();
    engine_fixture::SetUp();
    EXPECT_EQ(kib_wished_huge(), before);
}

TEST_F(huge_pages, are_asked_for_tables_and_flows_of_the_next_engine) {
    const uint64_t before = kib_wished_huge();
    EXPECT_EQ(zon_config_set_huge_pages(true), zon_error_none);
    engine_fixture::SetUp();
    const uint64_t asked = kib_wished_huge();
    EXPECT_GE(asked, before + enough_kib) << "asked for tables and flows";
    EXPECT_NE(handle(packet_builder::ipv4("10.0.0.1", "10.0.0.2").udp(1, 2)).fid, 0u);
    EXPECT_EQ(zon_config_set_huge_pages(false), zon_error_none);
    ASSERT_TRUE(zon_restart());
    EXPECT_LE(kib_wished_huge(), asked) << "the next engine asks for none";
#ifndef __SANITIZE_ADDRESS__  // which keeps freed memory for a while
    EXPECT_LT(kib_wished_huge(), before + enough_kib) << "the next engine asks for none";
#endif
}

}  // namespace
