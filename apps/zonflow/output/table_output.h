// table_output.h - a table for people, as wide as the terminal and no narrower than 80 columns. A
// flow is one line, always: one with longer addresses than there is room for sticks out.
#ifndef ZONFLOW_TABLE_OUTPUT_H
#define ZONFLOW_TABLE_OUTPUT_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "output/flow_output.h"
#include "output/output_stream.h"

namespace zonflow {

// At most five characters: "1234", "100K", "999K", "1.2M".
std::string short_number(uint64_t value);

class table_output : public flow_output {
public:
    // With several files each table is headed by its file's name. What a flow is marked with is
    // explained below the flows.
    table_output(output_stream& out, bool several_files, bool show_vlan);
    void begin(const std::string& file_name) override;
    void flow(const flow_record& record) override;
    void groups(const std::vector<source_group>& groups) override;
    void dump(const std::string& text) override;
    void histogram(const bucket_depths& depths) override;
    void summary(const capture_summary& summary) override;
    void flush() override { out_.flush(); }

private:
    struct cells {
        std::string protocol, vlan, from, to, packets, bytes, flags, state, end, marks;
    };
    void row(const cells& of);
    std::string marks_of(const flow_record& record);
    void explain_marks();
    void group_row(const std::string& address, const std::string& flows, const std::string& packets,
                   const std::string& bytes);

    output_stream& out_;
    bool several_files_;
    bool first_file_ = true;
    bool show_vlan_;
    bool show_flags_;
    size_t address_columns_;  // for both endpoints together
    std::set<char> marks_;    // that stand in the present table
};

}  // namespace zonflow

#endif
