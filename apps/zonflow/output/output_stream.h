// output_stream.h - standard output that tells when it failed: a full disk, a reader that went
// away.
#ifndef ZONFLOW_OUTPUT_STREAM_H
#define ZONFLOW_OUTPUT_STREAM_H

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace zonflow {

class output_error : public std::runtime_error {
public:
    // The error number says why.
    explicit output_error(int number) : std::runtime_error(std::strerror(number)) {}
};

class output_stream {
public:
    // The file stays the caller's.
    explicit output_stream(std::FILE* file) : file_(file) {}

    // Both throw output_error with the reason.
    void write(std::string_view text);
    void flush();

    // Columns of the terminal that the output goes to, 80 where it goes elsewhere.
    int columns() const;

private:
    std::FILE* file_;
};

}  // namespace zonflow

#endif
