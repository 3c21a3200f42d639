// bare_engine.h - a fresh engine without clients, timers and capabilities for each test.

#pragma once

#include <gtest/gtest.h>

#include "zon_engine_defs.h"

namespace zon_test {

class bare_engine : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(zon_init(100, 10000, 10, 10, 0, 16, 10), zon_error_none); }
    void TearDown() override {
        if (g_zon != nullptr)
            destroy();
    }

    static void destroy() {
        EXPECT_EQ(zon_destroy(), zon_error_none);
        EXPECT_EQ(g_zon, nullptr);
    }
};

}  // namespace zon_test
