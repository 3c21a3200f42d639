// capture_run.h - packets from their source to the output, through an engine of their own.
//
// Each says on standard error what is wrong with its source. Throws output_error and engine_error.
#ifndef ZONFLOW_CAPTURE_RUN_H
#define ZONFLOW_CAPTURE_RUN_H

#include <string>

#include "capture/packet_source.h"
#include "exit_code.h"
#include "options.h"
#include "output/flow_output.h"

namespace zonflow {

exit_code run_capture(const std::string& path, const options& options, flow_output& output);

// The traffic of the interface that the options name.
exit_code run_live(const options& options, flow_output& output);

// Any source, which is called by this name.
exit_code run_source(packet_source& source, const std::string& name, const options& options,
                     flow_output& output);

}  // namespace zonflow

#endif
