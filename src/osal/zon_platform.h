// zon_platform.h - hooks of the platform that the engine itself calls; the ones that hosts replace
// are public (platform/linux/zon_pd_pkt_inline.h).

#pragma once

#include "platform/linux/zon_pd_pkt_inline.h"

// Loads platform defaults before a host reads the ZON_DEFAULT_ globals; this platform has none.
zon_error_t zon_init_default_params();
