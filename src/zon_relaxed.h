// zon_relaxed.h - relaxed atomic access to plain words.
//
// Statistics, configuration words and switches are plain fields of records whose layout hosts know.
// Several threads touch them without a lock; none of them orders anything.

#pragma once

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
