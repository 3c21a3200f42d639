// bounded_text.h - text with nothing behind it: reading one byte too far is an error that the
// sanitizers tell.
#ifndef ZONFLOW_TESTS_BOUNDED_TEXT_H
#define ZONFLOW_TESTS_BOUNDED_TEXT_H

#include <algorithm>
#include <memory>
#include <string_view>

namespace zonflow_tests {

class bounded_text {
public:
    explicit bounded_text(std::string_view text)
        : bytes_(new char[text.size()]), view_(bytes_.get(), text.size()) {
        std::copy(text.begin(), text.end(), bytes_.get());
    }
    std::string_view view() const { return view_; }

private:
    std::unique_ptr<char[]> bytes_;
    std::string_view view_;
};

}  // namespace zonflow_tests

#endif
