/* zon.h - includes every public header of the library, nothing else. */
#ifndef ZON_H
#define ZON_H

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
