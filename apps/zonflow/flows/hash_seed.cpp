// hash_seed.cpp - asks the kernel for random bytes.
#include "flows/hash_seed.h"

#include <sys/random.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "flows/engine_host.h"

namespace zonflow {

uint32_t random_hash_seed() {
    uint32_t seed = 0;
    while (seed == 0) {
        const ssize_t got = getrandom(&seed, sizeof(seed), 0);
        if (got == static_cast<ssize_t>(sizeof(seed)) || (got < 0 && errno == EINTR)) {
            continue;
        }
        throw engine_error(std::string("cannot draw a seed for the hash: ") + std::strerror(errno));
    }
    return seed;
}

}  // namespace zonflow
