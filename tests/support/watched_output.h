// watched_output.h - looks on while the code under test prints on standard output, or on standard
// error.
//
//   watched_output output([&] { seen.push_back(g_zon->in_use); });
//   ... something prints, and after each piece the function above was called ...
//   EXPECT_EQ(output.text(), "the line\n");
//
// One thread prints and looks. What the function itself prints is kept, too, and not looked at.

#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <utility>

namespace zon_test {

class watched_output {
public:
    explicit watched_output(std::function<void()> look, FILE*& stream = stdout)
        : look_(std::move(look)), watched_(stream), original_(stream) {
        cookie_io_functions_t functions{};
        functions.write = take;
        stream_ = fopencookie(this, "w", functions);
        setvbuf(stream_, nullptr, _IONBF, 0);
        watched_ = stream_;
    }
    watched_output(const watched_output&) = delete;
    watched_output& operator=(const watched_output&) = delete;
    ~watched_output() {
        watched_ = original_;
        fclose(stream_);
    }

    const std::string& text() const { return text_; }

private:
    static ssize_t take(void* self, const char* piece, size_t size) {
        auto& output = *static_cast<watched_output*>(self);
        output.text_.append(piece, size);
        if (!std::exchange(output.looking_, true)) {
            output.look_();
            output.looking_ = false;
        }
        return static_cast<ssize_t>(size);
    }

    std::function<void()> look_;
    FILE*& watched_;
    FILE* original_;
    FILE* stream_ = nullptr;
    std::string text_;
    bool looking_ = false;
};

}  // namespace zon_test
