// vem_mem_chunk_test.cpp - records of one size, from many threads.
#include "vem/vem_mem_chunk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <cstdint>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VEM_TEST_HEAP_ABORTS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VEM_TEST_HEAP_ABORTS 1
#endif
#endif

namespace {

class chunk_of {
public:
    explicit chunk_of(size_t element_size, uint32_t step = 16)
        : handle_(vem_mem_chunk_create(element_size, step, 257, 0, 4, "records of a test")) {
        EXPECT_NE(handle_, nullptr);
    }
    ~chunk_of() { EXPECT_TRUE(vem_mem_chunk_destroy(handle_)); }
    chunk_of(const chunk_of&) = delete;
    chunk_of& operator=(const chunk_of&) = delete;

    char* take() { return static_cast<char*>(vem_mem_chunk_malloc(handle_)); }
    uint32_t take(void** records, uint32_t count) {
        return vem_mem_chunk_malloc_many(handle_, records, count);
    }
    bool give_back(void* record) { return vem_mem_chunk_free(handle_, record); }

private:
    vem_chunk_type handle_;
};

TEST(vem_mem_chunk, accepts_null) {
    EXPECT_EQ(vem_mem_chunk_malloc(nullptr), nullptr);
    EXPECT_FALSE(vem_mem_chunk_free(nullptr, nullptr));
    EXPECT_FALSE(vem_mem_chunk_destroy(nullptr));
    int record = 0;
    EXPECT_FALSE(vem_mem_chunk_free(nullptr, &record));
    chunk_of chunk(16);
    EXPECT_FALSE(chunk.give_back(nullptr));
}

TEST(vem_mem_chunk, hands_out_several_as_it_would_one_by_one) {
    vem_chunk_type chunk = vem_mem_chunk_create(72, 4, 0, 0, 0, nullptr);
    void* fresh[6]{};
    ASSERT_EQ(vem_mem_chunk_malloc_many(chunk, fresh, 6), 6U);
    EXPECT_EQ(std::set<void*>(fresh, fresh + 6).size(), 6U);
    EXPECT_TRUE(vem_mem_chunk_free_many(chunk, fresh, 3));
    EXPECT_EQ(vem_mem_chunk_malloc(chunk), fresh[2]) << "freed last";
    void* again[3]{};
    ASSERT_EQ(vem_mem_chunk_malloc_many(chunk, again, 3), 3U);
    EXPECT_EQ(again[0], fresh[1]);
    EXPECT_EQ(again[1], fresh[0]);
    EXPECT_EQ(std::count(fresh, fresh + 6, again[2]), 0) << "a new one";
    EXPECT_EQ(vem_mem_chunk_malloc_many(chunk, again, 0), 0U);
    EXPECT_TRUE(vem_mem_chunk_destroy(chunk));
}

TEST(vem_mem_chunk, takes_several_back_or_none) {
    vem_chunk_type chunk = vem_mem_chunk_create(72, 4, 0, 0, 0, nullptr);
    void* record = vem_mem_chunk_malloc(chunk);
    void* with_null[] = {record, nullptr};
    EXPECT_FALSE(vem_mem_chunk_free_many(chunk, with_null, 2));
    EXPECT_NE(vem_mem_chunk_malloc(chunk), record) << "it was taken back";
    EXPECT_FALSE(vem_mem_chunk_free_many(nullptr, &record, 1));
    EXPECT_EQ(vem_mem_chunk_malloc_many(nullptr, &record, 1), 0U);
    EXPECT_TRUE(vem_mem_chunk_destroy(chunk));
}

TEST(vem_mem_chunk, needs_no_name_and_no_step) {
    vem_chunk_type chunk = vem_mem_chunk_create(24, 0, 0, 0, 0, nullptr);
    ASSERT_NE(chunk, nullptr);
    void* one = vem_mem_chunk_malloc(chunk);
    void* another = vem_mem_chunk_malloc(chunk);
    EXPECT_NE(one, nullptr);
    EXPECT_NE(another, nullptr);
    EXPECT_NE(one, another);
    EXPECT_TRUE(vem_mem_chunk_destroy(chunk));
}

TEST(vem_mem_chunk, refuses_sizes_that_no_memory_holds) {
    EXPECT_EQ(vem_mem_chunk_create(SIZE_MAX, 1, 0, 0, 0, "huge"), nullptr);
    EXPECT_EQ(vem_mem_chunk_create(SIZE_MAX / 2, 1000, 0, 0, 0, "huge"), nullptr);
    EXPECT_EQ(vem_mem_chunk_create(size_t{1} << 40, UINT32_MAX, 0, 0, 0, "huge"), nullptr);
}

TEST(vem_mem_chunk, gives_null_when_the_heap_has_no_more) {
#if defined(VEM_TEST_HEAP_ABORTS)
    GTEST_SKIP() << "a sanitizer's heap stops the program instead";
#endif
    // More than the address space.
    vem_chunk_type chunk = vem_mem_chunk_create(size_t{1} << 40, 1U << 20, 0, 0, 0, "too much");
    ASSERT_NE(chunk, nullptr);
    EXPECT_EQ(vem_mem_chunk_malloc(chunk), nullptr);
    EXPECT_TRUE(vem_mem_chunk_destroy(chunk));
}

TEST(vem_mem_chunk, the_record_freed_last_is_handed_out_next) {
    chunk_of chunk(40);
    char* a = chunk.take();
    char* b = chunk.take();
    char* c = chunk.take();
    chunk.give_back(a);
    chunk.give_back(c);
    EXPECT_EQ(chunk.take(), c);
    EXPECT_EQ(chunk.take(), a);
    EXPECT_NE(chunk.take(), b);
}

// However many lie free, one by one or several at once.
TEST(vem_mem_chunk, records_of_any_size_are_handed_out_last_freed_first) {
    for (const size_t size : {1U, 16U, 24U, 40U, 72U, 96U, 320U}) {
        chunk_of chunk(size);
        std::vector<char*> freed(100);
        for (char*& record : freed)
            record = chunk.take();
        for (char* record : freed)
            chunk.give_back(record);
        for (size_t left = freed.size(); left > 97; --left)
            EXPECT_EQ(chunk.take(), freed[left - 1]) << size;
        for (size_t at = 97; at < freed.size(); ++at)
            chunk.give_back(freed[at]);
        for (size_t left = freed.size(); left != 0; left -= 5) {
            void* taken[5];
            ASSERT_EQ(chunk.take(taken, 5), 5U);
            for (size_t at = 0; at < 5; ++at)
                EXPECT_EQ(taken[at], freed[left - 1 - at]) << size;
        }
    }
}

TEST(vem_mem_chunk, records_are_whole_aligned_and_apart) {
    for (const size_t size : std::vector<size_t>{0, 1, 7, 8, 9, 63, 72, 96, 248, 5000}) {
        chunk_of chunk(size, 10);
        std::vector<char*> records;
        for (int i = 0; i < 100; ++i) {
            records.push_back(chunk.take());
            ASSERT_EQ(reinterpret_cast<uintptr_t>(records.back()) % 8, 0U);
            std::memset(records.back(), i, size);
        }
        for (size_t i = 0; i < records.size(); ++i) {
            EXPECT_TRUE(std::all_of(records[i], records[i] + size,
                                    [i](char byte) { return byte == static_cast<char>(i); }))
                << "record " << i << " of size " << size;
        }
        std::sort(records.begin(), records.end());
        for (size_t i = 1; i < records.size(); ++i) {
            ASSERT_GE(records[i] - records[i - 1],
                      static_cast<ptrdiff_t>(std::max<size_t>(size, 8)));
        }
    }
}

TEST(vem_mem_chunk, the_records_of_one_step_lie_side_by_side_in_order) {
    constexpr uint32_t step = 1000;
    chunk_of chunk(50, step);
    char* last = chunk.take();
    for (uint32_t i = 1; i < step; ++i) {
        char* next = chunk.take();
        ASSERT_EQ(next - last, 56);
        last = next;
    }
}

TEST(vem_mem_chunk, a_million_records_lie_in_few_pieces) {
    constexpr size_t count = 1'000'000;
    constexpr ptrdiff_t size = 248;
    chunk_of chunk(size, 64);
    size_t pieces = 0;
    char* last = nullptr;
    for (size_t i = 0; i < count; ++i) {
        char* next = chunk.take();
        ASSERT_NE(next, nullptr);
        pieces += last == nullptr || next - last != size ? 1 : 0;
        last = next;
    }
    EXPECT_LE(pieces, 150U);
}

TEST(vem_mem_chunk, memory_is_used_again_before_it_grows) {
    chunk_of chunk(64, 8);
    std::vector<char*> records;
    for (int i = 0; i < 100; ++i) {
        records.push_back(chunk.take());
    }
    const std::set<char*> known(records.begin(), records.end());
    for (int round = 0; round < 10; ++round) {
        for (char* record : records) {
            chunk.give_back(record);
        }
        for (char*& record : records) {
            record = chunk.take();
            ASSERT_EQ(known.count(record), 1U);
        }
    }
}

// Each thread marks its records as its own and finds the marks when it gives them back.
void take_and_give_back(chunk_of& chunk, uint64_t owner, std::atomic<uint32_t>& foreign_marks) {
    constexpr int rounds = 300;
    constexpr int at_a_time = 60;
    std::vector<uint64_t*> records;
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < at_a_time; ++i) {
            records.push_back(reinterpret_cast<uint64_t*>(chunk.take()));
            std::fill_n(records.back(), 4, owner);
        }
        while (records.size() > static_cast<size_t>(round % at_a_time)) {
            uint64_t* record = records.back();
            records.pop_back();
            foreign_marks += std::count(record, record + 4, owner) != 4 ? 1 : 0;
            chunk.give_back(record);
        }
    }
    for (uint64_t* record : records) {
        chunk.give_back(record);
    }
}

TEST(vem_mem_chunk, no_record_has_two_owners) {
    for (const int threads : {1, 4}) {
        chunk_of chunk(32, 4);
        std::atomic<uint32_t> foreign_marks{0};
        std::barrier all_ready(threads);
        std::vector<std::thread> owners;
        for (int i = 0; i < threads; ++i) {
            owners.emplace_back([&, i] {
                all_ready.arrive_and_wait();
                take_and_give_back(chunk, static_cast<uint64_t>(i) + 1, foreign_marks);
            });
        }
        for (std::thread& owner : owners) {
            owner.join();
        }
        EXPECT_EQ(foreign_marks, 0U) << threads << " threads";
    }
}

}  // namespace
