// parked_thread.h - a thread that is run from one lock to the next.
//
//   held_lock table(...);
//   parked_thread sender([] { send(...); });
//   sender.wait_until_parked();  // it wants the table's lock

#pragma once

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace zon_test {

// Whoever made it keeps the locks that the thread shall stop at. Recursive ones can be taken again
// meanwhile.
class parked_thread {
public:
    explicit parked_thread(std::function<void()> body)
        : thread_([this, body = std::move(body)] {
              id_ = static_cast<int>(syscall(SYS_gettid));
              body();
              done_ = true;
          }) {}
    ~parked_thread() { finish(); }
    parked_thread(const parked_thread&) = delete;
    parked_thread& operator=(const parked_thread&) = delete;

    // Returns when it sleeps, time and again: it waits for a lock then and not for a moment only.
    void wait_until_parked() const {
        for (int sleeps = 0; sleeps < 20 && !done_; std::this_thread::yield())
            sleeps = is_asleep() ? sleeps + 1 : 0;
        ASSERT_FALSE(done_) << "it met no lock that is held";
    }
    // The locks must have been let go.
    void finish() {
        if (thread_.joinable())
            thread_.join();
    }

private:
    // The state stands behind the name, which is in parentheses.
    bool is_asleep() const {
        if (id_ == 0)
            return false;
        std::ifstream file("/proc/self/task/" + std::to_string(id_) + "/stat");
        std::string line;
        std::getline(file, line);
        const size_t end_of_name = line.rfind(')');
        return end_of_name != std::string::npos && line.compare(end_of_name, 3, ") S") == 0;
    }

    std::atomic<int> id_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace zon_test
