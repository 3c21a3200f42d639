// output_stream.cpp - writes through stdio and checks every result.
#include "output/output_stream.h"

#include <sys/ioctl.h>

#include <cerrno>

namespace zonflow {

void output_stream::write(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), file_) != text.size()) {
        throw output_error(errno);
    }
}

void output_stream::flush() {
    if (std::fflush(file_) != 0) {
        throw output_error(errno);
    }
}

int output_stream::columns() const {
    winsize size{};
    const bool terminal = ioctl(fileno(file_), TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return terminal ? size.ws_col : 80;
}

}  // namespace zonflow
