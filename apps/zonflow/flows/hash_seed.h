// hash_seed.h - a number that nobody outside can guess.
#ifndef ZONFLOW_HASH_SEED_H
#define ZONFLOW_HASH_SEED_H

#include <cstdint>

namespace zonflow {

// From the kernel's generator; never 0, which is the plain hash. Throws engine_error.
uint32_t random_hash_seed();

}  // namespace zonflow

#endif
