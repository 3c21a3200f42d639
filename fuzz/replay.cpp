// replay.cpp - runs a fuzzer without its driver: each seed of the named folders, and changed copies
// of it.
//
// This is the short form that the tests run. The copies are the same in each run. A run that finds
// no seed fails.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using content = std::vector<uint8_t>;

constexpr unsigned copies_of_a_seed = 50;

content content_of(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Some bytes are other ones, and now and then the end is missing.
content changed(content seed, std::mt19937& random) {
    if (seed.empty())
        return seed;
    for (auto changes = random() % 6; changes > 0; --changes)
        seed[random() % seed.size()] = static_cast<uint8_t>(random());
    if (random() % 4 == 0)
        seed.resize(random() % seed.size());
    return seed;
}

void run(const content& input) {
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

void run_with_copies(const std::filesystem::path& path) {
    const content seed = content_of(path);
    run(seed);
    std::mt19937 random(1);
    for (unsigned copy = 0; copy < copies_of_a_seed; ++copy)
        run(changed(seed, random));
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> seeds;
    for (int i = 1; i < argc; ++i)
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            seeds.push_back(entry.path());
    std::sort(seeds.begin(), seeds.end());
    for (const auto& seed : seeds)
        run_with_copies(seed);
    std::printf("%zu seeds, each with %u changed copies\n", seeds.size(), copies_of_a_seed);
    return seeds.empty() ? 1 : 0;
}
