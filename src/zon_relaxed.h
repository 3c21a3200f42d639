// zon_relaxed.h - relaxed atomic access to plain words.
//
// Statistics, configuration words and switches are plain fields of records whose layout hosts know.
// Several threads touch them without a lock; none of them orders anything.

#pragma once

#include <cstddef>
#include <cstdint>

template <class word>
inline word relaxed_load(const word& at) {
    return __atomic_load_n(&at, __ATOMIC_RELAXED);
}

template <class word>
inline void relaxed_store(word& at, decltype(at + 0) value) {
    __atomic_store_n(&at, static_cast<word>(value), __ATOMIC_RELAXED);
}

inline void relaxed_store(bool& at, bool value) {
    __atomic_store_n(&at, value, __ATOMIC_RELAXED);
}

// The new value.
template <class word>
inline word relaxed_add(word& at, int by) {
    return __atomic_add_fetch(&at, static_cast<word>(by), __ATOMIC_RELAXED);
}

// Reads a pointer where another thread may be writing anything, as into records that it gives back.
// It may be asked for, but never followed.
template <class record>
inline record* peek(record* const& at) {
    record* seen;
    asm volatile("movq %1, %0" : "=r"(seen) : "m"(at));
    return seen;
}

// Asks for the line so many bytes behind a record's start. The record may be none at all.
template <bool for_writing = false>
inline void prefetch_behind(const void* record, size_t bytes) {
    __builtin_prefetch(reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(record) + bytes),
                       for_writing);
}

// Reads a byte for the line to come, not for its value. Requests for lines whose page the processor
// has to look up may get lost when they stand close together; reads do not.
inline void touch(const void* at) {
    uint32_t byte;
    asm volatile("movzbl %1, %0" : "=r"(byte) : "m"(*static_cast<const char*>(at)));
}
