// progress.h - one line on a terminal that tells how far a long reading has come.
//
// Shows nothing when standard error is no terminal, and nothing for a file that is read in an
// instant.
#ifndef ZONFLOW_PROGRESS_H
#define ZONFLOW_PROGRESS_H

#include <chrono>
#include <cstdint>

namespace zonflow {

class progress {
public:
    progress();
    ~progress();
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;

    // True when the line is due to be drawn anew; cheap enough to be asked for every packet.
    bool due(uint64_t packets);
    // bytes_total 0 means that nobody knows.
    void draw(uint64_t bytes_read, uint64_t bytes_total, uint64_t packets, uint64_t flows);
    // Takes the line away, before something else is written to the terminal.
    void clear();

private:
    bool terminal_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point next_;
};

}  // namespace zonflow

#endif
