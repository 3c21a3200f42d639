// vem_mem_chunk.cpp - pools of records of one size.
//
// Owns   the pieces that records are cut from, until the chunk is destroyed.
// Locks  one mutex a chunk, innermost.
#include "vem/vem_mem_chunk.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "vem_mutex.h"

#if defined(__SANITIZE_ADDRESS__)
#define VEM_WATCHES_MEMORY 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VEM_WATCHES_MEMORY 1
#endif
#endif
#if defined(VEM_WATCHES_MEMORY)
#include <sanitizer/asan_interface.h>
#endif

namespace {

constexpr size_t cache_line = 64;
constexpr size_t huge_page = size_t{2} << 20;
constexpr size_t record_alignment = 8;

// At the start of each piece.
struct alignas(cache_line) piece_header {
    piece_header* next;
    size_t bytes;
};

// Free records form a stack. One in so many is a link of it and names those that were freed after
// it, which need not be looked at to be handed out.
struct free_link {
    free_link* next;
    uint32_t count;
    void* others[14];

    static constexpr size_t least_bytes = 2 * sizeof(void*);
};

// How many a link names in a record of this size.
constexpr uint32_t others_in(size_t record_bytes) {
    return static_cast<uint32_t>(std::min(record_bytes - free_link::least_bytes,
                                          sizeof(free_link) - free_link::least_bytes) /
                                 sizeof(void*));
}

size_t rounded_up(size_t size, size_t multiple) {
    return (size + multiple - 1) / multiple * multiple;
}

// Under the address sanitizer a use of a record that nobody owns is reported like a use of freed
// heap memory.
void forbid(void* memory, size_t bytes) {
#if defined(VEM_WATCHES_MEMORY)
    ASAN_POISON_MEMORY_REGION(memory, bytes);
#else
    (void)memory;
    (void)bytes;
#endif
}

void allow(void* memory, size_t bytes) {
#if defined(VEM_WATCHES_MEMORY)
    ASAN_UNPOISON_MEMORY_REGION(memory, bytes);
#else
    (void)memory;
    (void)bytes;
#endif
}

std::atomic<bool> huge_pages_wanted{false};

// Large pieces are whole and aligned for huge pages where those are wanted. The heap reserves twice
// as much for that, which a process pays for that keeps all its memory resident.
piece_header* obtain_piece(size_t wanted) {
    const bool in_huge_pages =
        wanted >= huge_page && huge_pages_wanted.load(std::memory_order_relaxed);
    const size_t alignment = in_huge_pages ? huge_page : cache_line;
    const size_t bytes = rounded_up(wanted, alignment);
    void* memory = std::aligned_alloc(alignment, bytes);
    if (memory == nullptr)
        return nullptr;
    if (in_huge_pages)
        madvise(memory, bytes, MADV_HUGEPAGE);  // a wish: without them all works, only slower
    return new (memory) piece_header{nullptr, bytes};
}

}  // namespace

struct vem_chunk_ {
    vem_chunk_(size_t record_bytes, size_t step_bytes)
        : record_bytes_(record_bytes), step_bytes_(step_bytes), piece_bytes_(step_bytes) {}

    ~vem_chunk_() {
        while (pieces_ != nullptr) {
            piece_header* piece = pieces_;
            pieces_ = piece->next;
            allow(piece, piece->bytes);
            std::free(piece);
        }
    }

    vem_chunk_(const vem_chunk_&) = delete;
    vem_chunk_& operator=(const vem_chunk_&) = delete;

    void set_name(const char* name) { std::strncpy(name_.data(), name, name_.size() - 1); }

    // How many of the wanted records there were.
    uint32_t take(void** records, uint32_t wanted) {
        const std::lock_guard lock(mutex_);
        uint32_t taken = 0;
        if (top_count_ > wanted) {
            take_others(records, wanted);
            return wanted;
        }
        while (taken < wanted && (records[taken] = take_one()) != nullptr) {
            ++taken;
        }
        fetch_next();
        return taken;
    }

    // The last one is handed out first.
    void give_back(void* const* records, uint32_t count) {
        const std::lock_guard lock(mutex_);
        for (uint32_t at = 0; at < count; ++at) {
            put_on_top(records[at]);
        }
    }

private:
    void put_on_top(void* record) {
        forbid(record, record_bytes_);
        if (top_ != nullptr && top_count_ < others_) {
            allow(top_, record_bytes_);
            top_->others[top_count_++] = record;
            forbid(top_, record_bytes_);
            return;
        }
        if (top_ != nullptr) {
            allow(top_, record_bytes_);
            top_->count = top_count_;
            forbid(top_, record_bytes_);
        }
        allow(record, free_link::least_bytes);
        auto* link = static_cast<free_link*>(record);
        link->next = top_;
        forbid(record, record_bytes_);
        top_ = link;
        top_count_ = 0;
    }

    // The top names more than so many.
    void take_others(void** records, uint32_t wanted) {
        allow(top_, record_bytes_);
        void** next = top_->others + top_count_;
        for (uint32_t taken = 0; taken < wanted; ++taken) {
            records[taken] = *--next;
            allow(records[taken], record_bytes_);
        }
        top_count_ -= wanted;
        fetch(next[-1]);
        fetch(top_count_ > 1 ? next[-2] : top_);
        forbid(top_, record_bytes_);
    }

    void* take_from_top() {
        allow(top_, record_bytes_);
        if (top_count_ != 0) {
            void* record = top_->others[--top_count_];
            forbid(top_, record_bytes_);
            allow(record, record_bytes_);
            return record;
        }
        void* record = top_;
        top_ = top_->next;
        if (top_ != nullptr) {
            allow(top_, record_bytes_);
            top_count_ = top_->count;
            forbid(top_, record_bytes_);
        }
        return record;
    }

    void* take_one() {
        if (top_ != nullptr) {
            return take_from_top();
        }
        if (static_cast<size_t>(untouched_end_ - untouched_) < record_bytes_ && !grow()) {
            return nullptr;
        }
        void* record = untouched_;
        untouched_ += record_bytes_;
        allow(record, record_bytes_);
        return record;
    }

    // Records were often freed long ago: the next two are on their way before they are asked for.
    void fetch_next() const {
        if (top_ == nullptr) {
            return;
        }
        allow(top_, record_bytes_);
        if (top_count_ == 0) {
            fetch(top_);
            fetch(top_->next);
        } else {
            fetch(top_->others[top_count_ - 1]);
            fetch(top_count_ > 1 ? top_->others[top_count_ - 2] : top_);
        }
        forbid(top_, record_bytes_);
    }
    // Behind the last record there is none; asking for it does no harm.
    void fetch(const void* record) const {
        __builtin_prefetch(record, 1);
        __builtin_prefetch(
            reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(record) + last_line_), 1);
    }

    // Each piece is twice the last one, up to a huge page, so that the heap is asked rarely.
    bool grow() {
        piece_header* piece = obtain_piece(piece_bytes_);
        if (piece == nullptr && piece_bytes_ > step_bytes_) {
            piece = obtain_piece(step_bytes_);
        }
        if (piece == nullptr) {
            return false;
        }
        piece->next = pieces_;
        pieces_ = piece;
        untouched_ = reinterpret_cast<char*>(piece + 1);
        untouched_end_ = reinterpret_cast<char*>(piece) + piece->bytes;
        forbid(untouched_, piece->bytes - sizeof(piece_header));
        piece_bytes_ = std::max(step_bytes_, std::min(piece_bytes_ * 2, huge_page));
        return true;
    }

    const size_t record_bytes_;
    const size_t last_line_ = std::min(record_bytes_ - record_alignment, cache_line);
    const size_t step_bytes_;  // the least that a piece has, header and all
    size_t piece_bytes_;       // what the next piece has
    vem::chunk_mutex mutex_;
    const uint32_t others_ = others_in(record_bytes_);
    free_link* top_ = nullptr;
    uint32_t top_count_ = 0;     // how many the top names
    char* untouched_ = nullptr;  // the rest of the newest piece
    char* untouched_end_ = nullptr;
    piece_header* pieces_ = nullptr;
    std::array<char, 64> name_{};
};

vem_chunk_type vem_mem_chunk_create(size_t element_size, uint32_t create_elements, int, int, int,
                                    const char* name) {
    constexpr size_t most_bytes = size_t{1} << 62;
    if (element_size > most_bytes) {
        return nullptr;
    }
    const size_t record =
        rounded_up(std::max(element_size, free_link::least_bytes), record_alignment);
    const size_t step = std::max(create_elements, 1U);
    if (step > most_bytes / record) {
        return nullptr;
    }
    auto* chunk = new (std::nothrow) vem_chunk_(record, record * step + sizeof(piece_header));
    if (chunk != nullptr && name != nullptr) {
        chunk->set_name(name);
    }
    return chunk;
}

void* vem_mem_chunk_malloc(vem_chunk_type chunk) {
    void* record = nullptr;
    return vem_mem_chunk_malloc_many(chunk, &record, 1) == 0 ? nullptr : record;
}

uint32_t vem_mem_chunk_malloc_many(vem_chunk_type chunk, void** records, uint32_t count) {
    return chunk == nullptr ? 0 : chunk->take(records, count);
}

bool vem_mem_chunk_free(vem_chunk_type chunk, void* element) {
    return vem_mem_chunk_free_many(chunk, &element, 1);
}

bool vem_mem_chunk_free_many(vem_chunk_type chunk, void* const* elements, uint32_t count) {
    if (chunk == nullptr || std::find(elements, elements + count, nullptr) != elements + count) {
        return false;
    }
    chunk->give_back(elements, count);
    return true;
}

bool vem_mem_chunk_destroy(vem_chunk_type chunk) {
    delete chunk;
    return chunk != nullptr;
}

void vem_mem_use_huge_pages(bool wanted) {
    huge_pages_wanted.store(wanted, std::memory_order_relaxed);
}
