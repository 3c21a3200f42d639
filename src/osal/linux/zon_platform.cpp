// zon_platform.cpp - defaults of the platform.
//
// Owns   nothing.
// Locks  none.

#include "osal/zon_platform.h"

zon_error_t zon_init_default_params() {
    return zon_error_none;
}
