// flow_output.h - how flows and the summary of a capture are shown.
#ifndef ZONFLOW_FLOW_OUTPUT_H
#define ZONFLOW_FLOW_OUTPUT_H

#include <string>
#include <vector>

#include "flows/capture_summary.h"
#include "flows/flow_record.h"
#include "flows/source_groups.h"

namespace zonflow {

// For each capture: begin, any number of flows, groups where flows are grouped, summary. Throws
// output_error.
class flow_output {
public:
    virtual ~flow_output() = default;
    virtual void begin(const std::string& file_name) = 0;
    virtual void flow(const flow_record& record) = 0;
    virtual void groups(const std::vector<source_group>& groups) = 0;
    virtual void summary(const capture_summary& summary) = 0;
};

}  // namespace zonflow

#endif
