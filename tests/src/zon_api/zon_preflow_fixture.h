// zon_preflow_fixture.h - an engine for the tests of announced flows, and a tuple to announce.

#pragma once

#include "src/zon_api/api_fixture.h"

namespace zon_test {

class pre_flows : public api_fixture {
protected:
    static uint32_t count(uint32_t key_type) {
        return g_zon->flow_tbl->active_preflow_count[key_type];
    }
    zon_flow_tuple_t tuple = tuple4(host_a, 1000, host_b, 53);
};

}  // namespace zon_test
