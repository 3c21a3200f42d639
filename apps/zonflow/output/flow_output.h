// flow_output.h - how flows and the summary of a capture are shown.
#ifndef ZONFLOW_FLOW_OUTPUT_H
#define ZONFLOW_FLOW_OUTPUT_H

#include <string>
#include <vector>

#include "flows/capture_summary.h"
#include "flows/engine_report.h"
#include "flows/flow_record.h"
#include "flows/source_groups.h"

namespace zonflow {

// For each capture: begin, any number of flows, then groups, dump and histogram where they are
// wanted, and summary. Throws output_error.
class flow_output {
public:
    virtual ~flow_output() = default;
    virtual void begin(const std::string& file_name) = 0;
    virtual void flow(const flow_record& record) = 0;
    virtual void groups(const std::vector<source_group>& groups) = 0;
    virtual void dump(const std::string& text) = 0;
    virtual void histogram(const bucket_depths& depths) = 0;
    virtual void summary(const capture_summary& summary) = 0;
    // What has been written so far goes out.
    virtual void flush() = 0;
};

}  // namespace zonflow

#endif
