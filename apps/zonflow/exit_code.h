// exit_code.h - what zonflow tells the shell.
#ifndef ZONFLOW_EXIT_CODE_H
#define ZONFLOW_EXIT_CODE_H

namespace zonflow {

// With several files the highest code counts.
enum class exit_code {
    done = 0,
    damaged_input = 1,  // or an interface that has gone; all that was read has been reported
    usage = 2,          // or an engine that cannot be started as asked
    cannot_open = 3,
    output_failed = 4
};

}  // namespace zonflow

#endif
