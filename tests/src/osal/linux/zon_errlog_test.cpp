// zon_errlog_test.cpp - the indexed error log.

#include "osal/zon_errlog.h"

#include <gtest/gtest.h>

#include "support/captured_output.h"
#include "support/fixed_time_stamp.h"

using zon_test::captured_output;
using zon_test::fixed_time_stamp;

namespace {

class error_log : public ::testing::Test {
protected:
    void TearDown() override {
        zon_errlog = zon_debug_flag_engine = zon_debug_flag_fe = zon_debug_flag_l4 =
            zon_debug_flag_ager = zon_debug_flag_all = false;
    }
    const fixed_time_stamp stamp;
};

}  // namespace

TEST_F(error_log, prints_index_complaint_label_and_value) {
    zon_errlog = true;
    captured_output errors(stderr);
    zon_log_error_message(ZON_ERRMSG_CLIENT_API, "A complaint", "an_operation, id:", 33);
    EXPECT_EQ(errors.text(), "noon : ZON_MSG_INDEX: 6. A complaint  an_operation, id::33\n");
}

TEST_F(error_log, prints_negative_values_as_they_are) {
    zon_errlog = true;
    captured_output errors(stderr);
    zon_log_error_message(ZON_ERRMSG_NO_MEMORY, "m", "f", -5);
    EXPECT_EQ(errors.text(), "noon : ZON_MSG_INDEX: 0. m  f:-5\n");
}

TEST_F(error_log, is_silent_while_off_whatever_the_trace_switches_say) {
    zon_debug_flag_engine = zon_debug_flag_fe = zon_debug_flag_l4 = zon_debug_flag_ager =
        zon_debug_flag_all = true;
    captured_output errors(stderr);
    zon_log_error_message(ZON_ERRMSG_CLIENT_API, "m", "f", 1);
    EXPECT_EQ(errors.text(), "");
}

TEST_F(error_log, needs_no_trace_switch) {
    zon_errlog = true;
    captured_output errors(stderr);
    zon_log_error_message(ZON_ERRMSG_UNKNOWN, "m", "f", 1);
    EXPECT_EQ(errors.text(), "noon : ZON_MSG_INDEX: 7. m  f:1\n");
}
