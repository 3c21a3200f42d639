// zon_quarantine.h - half flows that were given up while the flow table still links them.

#pragma once

#include "zon_engine_defs.h"

// Links a half flow whose flow is being given up into the flow table for good: its bucket stays
// occupied and it is counted as an element and an insertion, but no lookup finds it. The usage
// counter of its family goes down as if its buffer had been given back; the buffer itself waits for
// zon_private_release_quarantine, because it is linked. False when its bucket is full: then the
// half flow stays with the caller.
bool zon_private_quarantine_half_flow(zon_half_flow_t* half_flow);

// Gives the buffers back to the engine's memory. Only once the flow table is no longer searched.
void zon_private_release_quarantine();
