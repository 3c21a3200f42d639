// zon_lock_classes.h - the engine's classes of locks as the runtime's check of their order knows
// them; nothing in builds that do not check it.

#pragma once

#include "osal/zon_lock_order.h"

#ifdef ZON_CHECK_LOCK_ORDER

#include "vem/vem_lock_order.h"

const vem_lock_class* zon_vem_lock_class(lock_class of);

#endif
