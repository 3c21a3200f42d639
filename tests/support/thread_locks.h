// thread_locks.h - what each thread holds and what it waits for, of every class of locks, for the
// message of a watchdog.
//
// The program under test is linked so that all that threads tell the check of the lock order comes
// here first (tests/CMakeLists.txt). Builds without that check know nothing.

#pragma once

#include "support/lock_owners.h"

namespace zon_test {

// A guess while threads run.
void print_locks_of_threads(const thread_namer& name_of);

}  // namespace zon_test
