// vem_thread.cpp - named threads.
#include "vem/vem_thread.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace {

struct thread_start {
    void* (*entry)(void*);
    void* arg;
    std::array<char, 16> name;  // the system shows 15 characters
};

constinit thread_local bool started_here = false;

void* run(void* arg) {
    const std::unique_ptr<thread_start> kept(static_cast<thread_start*>(arg));
    const thread_start start = *kept;
    started_here = true;
    if (start.name[0] != '\0') {
        pthread_setname_np(pthread_self(), start.name.data());
    }
    return start.entry(start.arg);
}

}  // namespace

int vem_thread_create(pthread_t* id, int, void* (*entry)(void*), void* arg, const char* name, int) {
    if (id == nullptr || entry == nullptr) {
        return EINVAL;
    }
    std::unique_ptr<thread_start> start(new (std::nothrow) thread_start{entry, arg, {}});
    if (start == nullptr) {
        return ENOMEM;
    }
    std::strncpy(start->name.data(), name == nullptr ? "" : name, start->name.size() - 1);
    const int result = pthread_create(id, nullptr, run, start.get());
    if (result == 0) {
        start.release();  // the thread's now
    }
    return result;
}

void vem_thread_exit(int code) {
    if (started_here) {
        pthread_exit(reinterpret_cast<void*>(static_cast<intptr_t>(code)));
    }
}
