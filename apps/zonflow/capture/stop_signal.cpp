// stop_signal.cpp - puts an empty input in the place of the one that is read.
//
// A flag alone would leave a read that waits for a silent feed, and a signal that comes just before
// the read would be lost. The read is restarted on the same descriptor instead, which then has
// nothing more to give.
#include "capture/stop_signal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace zonflow {

namespace {

constexpr int none = -1;

volatile std::sig_atomic_t stopped = 0;
volatile std::sig_atomic_t input = none;
volatile std::sig_atomic_t empty_input = none;

void end_input() {
    if (input != none && empty_input != none) {
        dup2(empty_input, input);
    }
}

extern "C" void stop(int) {
    const int error = errno;
    stopped = 1;
    end_input();
    errno = error;
}

void stop_on(int signal) {
    struct sigaction before {};
    if (sigaction(signal, nullptr, &before) != 0 || before.sa_handler == SIG_IGN) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = stop;
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

}  // namespace

void stop_reading_on_signals() {
    empty_input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    stop_on(SIGINT);
    stop_on(SIGTERM);
}

bool stop_requested() {
    return stopped != 0;
}

stoppable_input::stoppable_input(int descriptor) {
    input = descriptor;
    if (stop_requested()) {
        end_input();
    }
}

stoppable_input::~stoppable_input() {
    input = none;
}

}  // namespace zonflow
