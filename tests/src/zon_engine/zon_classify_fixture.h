// zon_classify_fixture.h - an engine for packets that are handed to zon_engine itself: each test
// ends without trace and without a lock.

#pragma once

#include "support/engine_fixture.h"
#include "support/flow_reader.h"

namespace zon_test {

class classified_packet : public engine_fixture {
protected:
    void TearDown() override {
        zon_debug_flag_l4 = false;
        zon_debug_flag_all = false;
        zon_set_debug(false);
        EXPECT_TRUE(no_lock_is_held());
        engine_fixture::TearDown();
    }
};

}  // namespace zon_test
