// footprint.h - what a process holds of the machine: memory, threads, handles.

#pragma once

#include <malloc.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string_view>
#include <thread>

namespace zon_test {

// The sanitizers keep memory that was given back, on purpose.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool memory_is_measurable = false;
#else
inline constexpr bool memory_is_measurable = true;
#endif

// The suite runs the short forms; scripts/endure asks for the long ones.
inline bool is_long_form() {
    const char* form = std::getenv("ZON_ENDURANCE");
    return form != nullptr && std::string_view(form) == "long";
}

// Within the heap's own lists, and the resident set's pages, so much comes and goes by itself.
inline constexpr uint64_t heap_slack_bytes = 4 * 1024;
inline constexpr uint64_t page_slack_bytes = 256 * 1024;

inline uint64_t growth(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

struct footprint {
    uint64_t heap_bytes = 0;  // handed out and not freed
    uint64_t resident_bytes = 0;
    uint64_t mapped_bytes = 0;
    uint64_t threads = 0;
    uint64_t handles = 0;

    // A thread that was joined may be listed a moment longer: gives the list time to shrink.
    static footprint once_threads_are_gone(uint64_t threads_expected) {
        for (int i = 0; i < 10'000 && entries_of("/proc/self/task") > threads_expected; ++i)
            std::this_thread::yield();
        return of_this_process();
    }

    static footprint of_this_process() {
        footprint now;
        if (memory_is_measurable) {
            const struct mallinfo2 heap = mallinfo2();
            now.heap_bytes = heap.uordblks + heap.hblkhd;
            const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
            std::ifstream statm("/proc/self/statm");
            statm >> now.mapped_bytes >> now.resident_bytes;
            now.mapped_bytes *= page;
            now.resident_bytes *= page;
        }
        now.threads = entries_of("/proc/self/task");
        now.handles = entries_of("/proc/self/fd");
        return now;
    }

private:
    static uint64_t entries_of(const char* folder) {
        uint64_t count = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder))
            ++count;
        return count;
    }
};

inline std::ostream& operator<<(std::ostream& out, const footprint& held) {
    return out << held.heap_bytes / 1024 << " KiB of heap, " << held.resident_bytes / 1024
               << " KiB resident, " << held.mapped_bytes / 1024 << " KiB mapped, " << held.threads
               << " threads, " << held.handles << " handles";
}

}  // namespace zon_test
