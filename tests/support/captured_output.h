// captured_output.h - what the code under test prints on standard output or standard error while
// the object lives.
//
//   captured_output errors(stderr);
//   ... something prints ...
//   EXPECT_EQ(errors.text(), "the line\n");

#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace zon_test {

class captured_output {
public:
    explicit captured_output(FILE* stream) : stream_(stream), kept_(tmpfile()) {
        fflush(stream_);
        original_ = dup(fileno(stream_));
        dup2(fileno(kept_), fileno(stream_));
    }
    captured_output(const captured_output&) = delete;
    captured_output& operator=(const captured_output&) = delete;
    ~captured_output() {
        fflush(stream_);
        dup2(original_, fileno(stream_));
        close(original_);
        fclose(kept_);
    }

    // Everything printed so far.
    std::string text() {
        fflush(stream_);
        std::string all(static_cast<size_t>(lseek(fileno(kept_), 0, SEEK_END)), '\0');
        const ssize_t got = pread(fileno(kept_), all.data(), all.size(), 0);
        all.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return all;
    }

private:
    FILE* stream_;
    FILE* kept_;
    int original_;
};

}  // namespace zon_test
