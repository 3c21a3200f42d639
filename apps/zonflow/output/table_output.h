// table_output.h - a table for people, as wide as the terminal and no narrower than 80 columns.
#ifndef ZONFLOW_TABLE_OUTPUT_H
#define ZONFLOW_TABLE_OUTPUT_H

#include <cstdint>
#include <string>

#include "output/flow_output.h"
#include "output/output_stream.h"

namespace zonflow {

// At most six characters: "1234", "12.3K", "999K", "1.2M".
std::string short_number(uint64_t value);

class table_output : public flow_output {
public:
    // With several files each table is headed by its file's name. A bypassed flow is marked: "TCP*".
    table_output(output_stream& out, bool several_files);
    void begin(const std::string& file_name) override;
    void flow(const flow_record& record) override;
    void groups(const std::vector<source_group>& groups) override;
    void summary(const capture_summary& summary) override;

private:
    void header();
    void row(const std::string& protocol, const std::string& addresses, const std::string& packets,
             const std::string& bytes, const std::string& flags, const std::string& state,
             const std::string& end);
    void group_row(const std::string& address, const std::string& flows, const std::string& packets,
                   const std::string& bytes);

    output_stream& out_;
    bool several_files_;
    bool first_file_ = true;
    bool show_flags_;
    size_t address_columns_;  // for both endpoints together
};

}  // namespace zonflow

#endif
