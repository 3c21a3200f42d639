// capture_run.h - one capture from its file to the output, through an engine of its own.
#ifndef ZONFLOW_CAPTURE_RUN_H
#define ZONFLOW_CAPTURE_RUN_H

#include <string>

#include "exit_code.h"
#include "options.h"
#include "output/flow_output.h"

namespace zonflow {

// Says on standard error what is wrong with the file. Throws output_error and engine_error.
exit_code run_capture(const std::string& path, const options& options, flow_output& output);

}  // namespace zonflow

#endif
