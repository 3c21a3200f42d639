// guarded_memory.h - memory that ends where a packet ends: one byte further and the program faults.

#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "support/packet_builder.h"

namespace zon_test {

class guarded_memory {
public:
    explicit guarded_memory(size_t capacity) {
        const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        readable_ = (capacity + page - 1) / page * page;
        mapped_ = readable_ + page;
        void* at =
            mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (at == MAP_FAILED)
            std::abort();
        base_ = static_cast<uint8_t*>(at);
        if (mprotect(base_ + readable_, page, PROT_NONE) != 0)
            std::abort();
    }
    ~guarded_memory() { munmap(base_, mapped_); }
    guarded_memory(const guarded_memory&) = delete;
    guarded_memory& operator=(const guarded_memory&) = delete;

    // The first `length` bytes of the packet, the last of them in front of the fault.
    uint8_t* place(const bytes& packet, size_t length) {
        if (length > readable_ || length > packet.size())
            std::abort();
        uint8_t* at = base_ + readable_ - length;
        if (length != 0)
            std::memcpy(at, packet.data(), length);
        return at;
    }

private:
    uint8_t* base_ = nullptr;
    size_t readable_ = 0;
    size_t mapped_ = 0;
};

}  // namespace zon_test
