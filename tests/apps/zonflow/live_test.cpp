// live_test.cpp - the program on the loopback interface, as a shell sees it.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>

#include <thread>

#include "tests/apps/zonflow/support/loopback.h"
#include "tests/apps/zonflow/support/prepared_zonflow.h"
#include "tests/apps/zonflow/support/running_zonflow.h"
#include "tests/apps/zonflow/support/zonflow_program.h"

namespace {

using namespace zonflow_tests;

class zonflow_live : public testing::Test {
protected:
    void SetUp() override {
        if (!may_read_interfaces()) {
            GTEST_SKIP() << "reading an interface takes root or CAP_NET_RAW";
        }
    }
};

// Should a test's packets never come.
const std::string at_last = "20";

// The heading is written once the interface is open.
TEST_F(zonflow_live, writes_flows_that_end_in_silence_and_the_rest_when_it_is_stopped) {
    const loopback_sender first;
    const loopback_sender second;
    running_zonflow run({"-i", "lo", "--filter", first.filter() + " or " + second.filter(),
                         "--idle-opening", "1", "--seconds", at_last});
    ASSERT_EQ(run.next_line().rfind("PROT", 0), 0u);
    first.send("one");
    const std::string idle = run.next_line();
    EXPECT_NE(idle.find("127.0.0.1:" + std::to_string(first.port())), std::string::npos) << idle;
    EXPECT_EQ(idle.substr(idle.size() - 4), "idle");
    run.send_signal(SIGINT);
    EXPECT_EQ(run.rest(), "1 packet: 1 in 1 flow, 0 not IP, 0 malformed\n");
    EXPECT_EQ(run.wait_for_end(), 0);
    EXPECT_EQ(run.errors(), "zonflow: lo: stopped after 1 packet\n");
}

TEST_F(zonflow_live, ends_after_as_many_packets_as_are_wanted) {
    const loopback_sender sender;
    running_zonflow run(
        {"-i", "lo", "--filter", sender.filter(), "--packets", "2", "--seconds", at_last});
    ASSERT_EQ(run.next_line().rfind("PROT", 0), 0u);
    sender.send("one");
    sender.send("two");
    sender.send("three");
    const std::vector<std::string> lines = lines_of(run.rest());
    EXPECT_EQ(run.wait_for_end(), 0);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 4), "open");
    EXPECT_EQ(lines[1], "2 packets: 2 in 1 flow, 0 not IP, 0 malformed");
    EXPECT_EQ(run.errors(), "");
}

TEST_F(zonflow_live, ends_after_as_many_seconds_as_are_wanted) {
    const loopback_sender sender;
    const json_result run = run_json("-i lo --seconds 1 --filter '" + sender.filter() + "'");
    EXPECT_EQ(run.exit_code, 0) << run.err;
    ASSERT_EQ(run.summaries.size(), 1u);
    EXPECT_EQ(json_field(run.summaries[0], "file"), "lo");
    EXPECT_EQ(json_field(run.summaries[0], "lost"), "0");
}

TEST_F(zonflow_live, says_in_one_line_why_it_cannot_begin) {
    const program_result nowhere = run_zonflow("-i nosuch0");
    EXPECT_EQ(nowhere.exit_code, 3);
    EXPECT_EQ(nowhere.err, "zonflow: nosuch0: no such interface\n");
    const program_result filtered = run_zonflow("-i lo --filter 'port port'");
    EXPECT_EQ(filtered.exit_code, 2);
    EXPECT_EQ(filtered.err.rfind("zonflow: lo: --filter: ", 0), 0u) << filtered.err;
    EXPECT_EQ(std::count(filtered.err.begin(), filtered.err.end(), '\n'), 1) << filtered.err;
    EXPECT_EQ(nowhere.out + filtered.out, "");
}

// A process of root's without this capability, or any other.
TEST(zonflow_interfaces, that_may_not_be_read_end_with_3) {
    const ended_program run = run_prepared({"-i", "lo"}, [] {
        return prctl(PR_CAPBSET_DROP, CAP_NET_RAW) == 0 || !may_read_interfaces();
    });
    if (run.exit_code == unprepared) {
        GTEST_SKIP() << "every interface may be read here";
    }
    EXPECT_EQ(run.exit_code, 3);
    EXPECT_EQ(run.err,
              "zonflow: lo: no permission to read its traffic: that takes root or CAP_NET_RAW\n");
}

bool set_loopback(bool up) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::string("lo").copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    bool done = ioctl(descriptor, SIOCGIFFLAGS, &request) == 0;
    const int others = request.ifr_flags & ~IFF_UP;
    request.ifr_flags = static_cast<short>(up ? others | IFF_UP : others);
    done = done && ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
    close(descriptor);
    return done;
}

// Runs in a thread with a network of its own, whose loopback interface nobody else needs.
template <typename body>
bool run_in_own_network(body run) {
    bool done = false;
    std::thread([&] {
        if (unshare(CLONE_NEWNET) == 0) {
            done = true;
            run();
        }
    }).join();
    return done;
}

TEST_F(zonflow_live, reports_what_it_has_when_the_interface_goes_down) {
    const bool done = run_in_own_network([] {
        ASSERT_TRUE(set_loopback(true));
        const loopback_sender sender;
        running_zonflow run(
            {"-i", "lo", "--filter", sender.filter(), "--idle-opening", "1", "--seconds", at_last});
        ASSERT_EQ(run.next_line().rfind("PROT", 0), 0u);
        sender.send("one");
        EXPECT_NE(run.next_line().find("idle"), std::string::npos);
        ASSERT_TRUE(set_loopback(false));
        EXPECT_EQ(run.rest(), "1 packet: 1 in 1 flow, 0 not IP, 0 malformed\n");
        EXPECT_EQ(run.wait_for_end(), 1);
        EXPECT_EQ(run.errors(),
                  "zonflow: lo: broken off after 1 packet: the interface went down or away\n");
    });
    if (!done) {
        GTEST_SKIP() << "no network of our own here";
    }
}

TEST_F(zonflow_live, cannot_begin_on_an_interface_that_is_down) {
    const bool done = run_in_own_network([] {
        const program_result run = run_zonflow("-i lo");
        EXPECT_EQ(run.exit_code, 3);
        EXPECT_EQ(run.err, "zonflow: lo: the interface is down\n");
    });
    if (!done) {
        GTEST_SKIP() << "no network of our own here";
    }
}

// Neither the socket nor anything else takes the place of what the shell has closed.
TEST_F(zonflow_live, writes_nothing_into_its_socket_where_the_output_is_closed) {
    const program_result run = run_zonflow("-i lo --seconds 1", "<&- >&-");
    EXPECT_EQ(run.exit_code, 4);
    EXPECT_EQ(run.err, "zonflow: cannot write the output: Bad file descriptor\n");
}

}  // namespace
