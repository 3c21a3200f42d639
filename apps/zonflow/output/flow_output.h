// flow_output.h - how flows and the summary of a capture are shown.
#ifndef ZONFLOW_FLOW_OUTPUT_H
#define ZONFLOW_FLOW_OUTPUT_H

#include <string>

#include "flows/capture_summary.h"
#include "flows/flow_record.h"

namespace zonflow {

// For each capture: begin, any number of flows, summary. Throws output_error.
class flow_output {
public:
    virtual ~flow_output() = default;
    virtual void begin(const std::string& file_name) = 0;
    virtual void flow(const flow_record& record) = 0;
    virtual void summary(const capture_summary& summary) = 0;
};

}  // namespace zonflow

#endif
