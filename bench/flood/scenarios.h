// scenarios.h - the floods, in the order of the table.

#pragma once

#include <vector>

#include "flood_run.h"

namespace zon_bench {

const std::vector<flood>& all_floods();

}  // namespace zon_bench
