// progress.cpp - draws over its own line, four times a second.
#include "output/progress.h"

#include <unistd.h>

#include <cstdio>

namespace zonflow {

namespace {

constexpr std::chrono::milliseconds between_drawings{250};
constexpr uint64_t packets_between_looks = 1024;  // at the time
constexpr double megabyte = 1e6;

}  // namespace

progress::progress()
    : terminal_(isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + between_drawings) {}

progress::~progress() {
    clear();
}

bool progress::due(uint64_t packets) {
    return terminal_ && packets % packets_between_looks == 0 &&
           std::chrono::steady_clock::now() >= next_;
}

void progress::draw(uint64_t bytes_read, uint64_t bytes_total, uint64_t packets, uint64_t flows) {
    std::fprintf(stderr, "\r%.1f", static_cast<double>(bytes_read) / megabyte);
    if (bytes_total != 0) {
        std::fprintf(stderr, " of %.1f", static_cast<double>(bytes_total) / megabyte);
    }
    std::fprintf(stderr, " MB, %llu packets, %llu flows\033[K",
                 static_cast<unsigned long long>(packets), static_cast<unsigned long long>(flows));
    drawn_ = true;
    next_ = std::chrono::steady_clock::now() + between_drawings;
}

void progress::clear() {
    if (drawn_) {
        std::fputs("\r\033[K", stderr);
        drawn_ = false;
    }
}

}  // namespace zonflow
