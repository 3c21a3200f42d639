/* zon.h - includes every public header of the library and tells its version, nothing else. */
#ifndef ZON_H
#define ZON_H

/* The version that these headers belong to, and the only place where it is written. A program runs
 * with any library of the same major version, which the loader finds by libzon.so.MAJOR. */
#define ZON_VERSION_MAJOR 0
#define ZON_VERSION_MINOR 1
#define ZON_VERSION_PATCH 0
#define ZON_VERSION_STRING "0.1.0"

#include "zon_api_enum.h"
#include "zon_client.h"
#include "zon_clock.h"
#include "zon_debug_api.h"
#include "zon_engine_defs.h"
#include "zon_error.h"
#include "zon_flow.h"
#include "zon_flow_tuple.h"
#include "zon_pkt_inline.h"
#include "zon_platform_defs.h"
#include "zon_super_ctx.h"
#include "zon_test_packets.h"

#endif
