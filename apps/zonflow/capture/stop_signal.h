// stop_signal.h - an interruption ends the reading, not the report.
//
// SIGINT and SIGTERM let the input that is being read end where it is, so that the flows found so
// far and the summary are still written: the usual way to end the reading of a feed. A second
// signal of the same kind ends the program at once.
#ifndef ZONFLOW_STOP_SIGNAL_H
#define ZONFLOW_STOP_SIGNAL_H

namespace zonflow {

// From here on the two signals stop the reading, except one that the shell has set to be ignored.
void stop_reading_on_signals();

bool stop_requested();

// While it lives, a stop makes this descriptor read as ended, also where a read waits for data.
class stoppable_input {
public:
    explicit stoppable_input(int descriptor);
    ~stoppable_input();
    stoppable_input(const stoppable_input&) = delete;
    stoppable_input& operator=(const stoppable_input&) = delete;
};

}  // namespace zonflow

#endif
