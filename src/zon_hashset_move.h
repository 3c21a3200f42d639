// zon_hashset_move.h - gives an item of a hash set another key.

#pragma once

#include "zon_hashset.h"

// Takes the item out, has it rewritten after wanted, a record that hashes as the item will, and
// links it into its new bucket, all in one step: no lookup meanwhile misses both keys. An item
// without a link back was outside the set and is only rewritten and linked. False when the new
// bucket is full: the item ends outside the set, rewritten, without a link back. No flow lock
// changes hands.
bool zon_hashset_move(zon_hashset set, zon_hashset_item item, const void* wanted,
                      zon_hashset_rewrite rewrite);
