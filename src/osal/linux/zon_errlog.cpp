// zon_errlog.cpp - the indexed error log.
//
// Owns   nothing.
// Locks  none.
// Knows nothing of the failures that it logs.

#include "osal/zon_errlog.h"

#include "osal/zon_debug.h"

void zon_log_error_message(unsigned int msg_index, const char* msg_str, const char* func_msg,
                           int val) {
    if (relaxed_load(zon_errlog)) [[unlikely]]
        zon_buginf("ZON_MSG_INDEX: %d. %s  %s:%d\n", static_cast<int>(msg_index), msg_str, func_msg,
                   val);
}
