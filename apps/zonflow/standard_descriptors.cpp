// standard_descriptors.cpp - fills what is closed with descriptors that name a file and open none.
#include "standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace zonflow {

void keep_standard_descriptors() {
    int lowest_free = 0;
    do {
        lowest_free = open("/dev/null", O_PATH | O_CLOEXEC);
    } while (lowest_free >= 0 && lowest_free <= STDERR_FILENO);
    if (lowest_free > STDERR_FILENO) {
        close(lowest_free);
    }
}

}  // namespace zonflow
