// zon_errlog.h - the indexed error log for failures that clients cause.

#pragma once

#include "zon_engine_defs.h"

// While zon_errlog is set, prints "ZON_MSG_INDEX: INDEX. MESSAGE  LABEL:VALUE" as a trace line;
// otherwise nothing. msg_index is a ZON_ERRMSG_ value; func_msg names the operation and the
// argument.
void zon_log_error_message(unsigned int msg_index, const char* msg_str, const char* func_msg,
                           int val);
