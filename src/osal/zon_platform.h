// zon_platform.h - a hook of the platform that is not a host's business; those that hosts replace
// are public (platform/linux/zon_pd_pkt_inline.h).

#pragma once

#include "platform/linux/zon_pd_pkt_inline.h"

// Kept for platforms that load defaults; this one has none, and nothing calls it.
zon_error_t zon_init_default_params();
