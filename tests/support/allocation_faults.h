// allocation_faults.h - lets a chosen request of the engine for table memory fail, or every request
// of a thread for objects.
//
// The program under test is linked so that every call of zon_heap_zalloc between its units, and
// every use of operator new, comes here first (tests/CMakeLists.txt).

#pragma once

namespace zon_test {

// While it lives, requests for table memory succeed until the given number of them have been made;
// the next one fails, and those after it succeed again.
class failing_table_memory {
public:
    explicit failing_table_memory(int after_requests);
    ~failing_table_memory();
    failing_table_memory(const failing_table_memory&) = delete;
    failing_table_memory& operator=(const failing_table_memory&) = delete;

    // Whether the request that was to fail has come.
    bool has_failed() const;
};

// While it lives, operator new throws on the thread that made it. Memory that was asked for before,
// a vector's spare room for one, can still be used.
class failing_operator_new {
public:
    failing_operator_new();
    ~failing_operator_new();
    failing_operator_new(const failing_operator_new&) = delete;
    failing_operator_new& operator=(const failing_operator_new&) = delete;

    int times_failed() const;
};

}  // namespace zon_test
