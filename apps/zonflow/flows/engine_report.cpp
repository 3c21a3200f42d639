// engine_report.cpp - the engine's dump as text, and its hash distribution counted by depth.
#include "flows/engine_report.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>

#include "output/output_stream.h"
#include "zon.h"

namespace zonflow {

namespace {

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

void check(bool done) {
    if (!done) {
        throw output_error(errno);
    }
}

// Standard output goes into a temporary file until it is given back.
class diverted_standard_output {
public:
    diverted_standard_output() : text_(std::tmpfile()) {
        check(text_ != nullptr);
        standard_ = dup(STDOUT_FILENO);
        check(standard_ >= 0);
        check(dup2(fileno(text_.get()), STDOUT_FILENO) >= 0);
    }
    ~diverted_standard_output() { give_back(); }
    diverted_standard_output(const diverted_standard_output&) = delete;
    diverted_standard_output& operator=(const diverted_standard_output&) = delete;

    std::string take() {
        check(std::fflush(stdout) == 0);
        give_back();
        std::rewind(text_.get());
        std::string text;
        char buffer[4096];
        for (size_t got = 0; (got = std::fread(buffer, 1, sizeof(buffer), text_.get())) > 0;) {
            text.append(buffer, got);
        }
        return text;
    }

private:
    void give_back() {
        if (standard_ >= 0) {
            dup2(standard_, STDOUT_FILENO);
            close(standard_);
            standard_ = -1;
        }
    }

    std::unique_ptr<std::FILE, file_closer> text_;
    int standard_ = -1;
};

struct heap_memory {
    void operator()(int32_t* memory) const { std::free(memory); }
};

}  // namespace

std::string flow_table_dump() {
    diverted_standard_output output;
    zon_dump_output wanted{};
    wanted.stats = true;
    wanted.active_flows = true;
    zon_debug_flow_table_dump(&wanted);
    return output.take();
}

bucket_depths flow_table_depths() {
    int32_t size = 0;
    int32_t used = 0;
    int32_t* distribution = nullptr;
    zon_debug_flow_table_stats(&size, &used, nullptr, nullptr, nullptr, nullptr, &distribution,
                               nullptr);
    const std::unique_ptr<int32_t, heap_memory> owner(distribution);
    bucket_depths depths;
    depths.buckets = static_cast<uint32_t>(size);
    depths.half_flows = static_cast<uint32_t>(used);
    if (distribution != nullptr) {
        for (const int32_t depth : std::span(distribution, static_cast<size_t>(size))) {
            ++depths.buckets_of_depth[static_cast<uint32_t>(depth)];
        }
    }
    return depths;
}

}  // namespace zonflow
