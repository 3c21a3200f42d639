// operations_fuzz.cpp - programs of every operation of the public interface, on the engine and on
// the model of tests/properties.
//
// Ten bytes make a step: two for its kind, eight for its numbers.
//
// Holds  engine and model agree after each step, and nothing is left when every flow is deleted.

#include <array>
#include <sstream>

#include "fuzz_input.h"
#include "properties/side_by_side.h"

using namespace zon_fuzz;

namespace {

zon_test::operation next_step(fuzz_input& input) {
    const auto kind = static_cast<uint16_t>(input.two_bytes());
    std::array<uint8_t, zon_test::fields> numbers;
    for (uint8_t& number : numbers)
        number = input.byte();
    return zon_test::operation_of(kind, numbers);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // What the dumps print is none of this fuzzer's business.
    static const bool is_quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
    require(is_quiet, "standard output can be turned off");
    fuzz_input input(data, size);
    zon_test::script steps;
    try {
        zon_test::side_by_side both;
        while (!input.is_empty()) {
            steps.push_back(next_step(input));
            both.run(steps.back());
        }
        both.clear_all();
    } catch (const std::runtime_error& difference) {
        std::ostringstream text;
        zon_test::showValue(steps, text);
        std::fputs(text.str().c_str(), stderr);
        require(false, difference.what());
    }
    return 0;
}
