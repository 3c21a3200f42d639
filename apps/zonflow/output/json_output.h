// json_output.h - JSON Lines: one object for each flow as it ends, then one for the capture. All
// fields stand in docs/zonflow.md.
#ifndef ZONFLOW_JSON_OUTPUT_H
#define ZONFLOW_JSON_OUTPUT_H

#include <string>

#include "output/flow_output.h"
#include "output/output_stream.h"

namespace zonflow {

class json_output : public flow_output {
public:
    explicit json_output(output_stream& out) : out_(out) {}
    void begin(const std::string& file_name) override;
    void flow(const flow_record& record) override;
    void groups(const std::vector<source_group>& groups) override;
    void dump(const std::string& text) override;
    void histogram(const bucket_depths& depths) override;
    void summary(const capture_summary& summary) override;
    void flush() override { out_.flush(); }

private:
    output_stream& out_;
    std::string file_;
};

}  // namespace zonflow

#endif
