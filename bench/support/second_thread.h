// second_thread.h - a thread that exists and sleeps, because locks cost less in a program that has
// only one.

#pragma once

#include <semaphore>
#include <thread>

namespace zon_bench {

class second_thread {
public:
    second_thread() : thread_([this] { end_.acquire(); }) {}
    ~second_thread() {
        end_.release();
        thread_.join();
    }
    second_thread(const second_thread&) = delete;
    second_thread& operator=(const second_thread&) = delete;

private:
    std::binary_semaphore end_{0};
    std::thread thread_;
};

}  // namespace zon_bench
