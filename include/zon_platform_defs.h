/* zon_platform_defs.h - the ground that every other public header stands on.
 *
 * Holds the export mark, the small scalar types, the opaque handles of the platform runtime and the
 * idle-timer record that flows embed. A host needs nothing but the include/ folder: the runtime's
 * own headers declare the same handle types under the same guards, so both may be included
 * together.
 */
#ifndef ZON_PLATFORM_DEFS_H
#define ZON_PLATFORM_DEFS_H

#include <pthread.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/* Marks what the shared library shows; everything else in it is hidden. */
#if defined(__GNUC__)
#define ZON_API __attribute__((visibility("default")))
#else
#define ZON_API
#endif

/* Enumerations are four bytes wide in both languages. In C++ the width is written out, so that a
 * value outside the listed ones, which a C host may pass and which the operations refuse, is still
 * a defined value. */
#ifdef __cplusplus
#define ZON_ENUM_BASE : int32_t
#else
#define ZON_ENUM_BASE
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Flow identifier, 1 to the capacity of the engine; ZON_NULL_FID (0) means "no flow". */
typedef uint32_t zon_fid_t;
typedef zon_fid_t zon_flow_ptr_t;
extern ZON_API const zon_fid_t ZON_NULL_FID;

/* Client id, 1 to 31. */
typedef uint32_t zon_client_id_e;
typedef zon_client_id_e zon_fo_id_t;

/* A recursive lock of the engine, and the first of a row of such locks. */
typedef void* zon_lock_t;
typedef void* zon_lock_pool_t;

/* A parsed packet: points at a zon_dp_fe_t (zon_engine_defs.h). */
typedef void* zon_fe_handle;

#ifndef VEM_DM_HANDLE_DEFINED
#define VEM_DM_HANDLE_DEFINED
typedef struct vem_dm_* vem_dm_handle;
#endif

#ifndef VEM_CHUNK_TYPE_DEFINED
#define VEM_CHUNK_TYPE_DEFINED
typedef struct vem_chunk_* vem_chunk_type;
#endif

/* A one-shot timer, embedded in the record that it belongs to; all fields are the runtime's. */
#ifndef VEM_TW_TIMER_DEFINED
#define VEM_TW_TIMER_DEFINED
typedef struct vem_tw_wheel_* vem_tw_wheel;
typedef struct vem_tw_timer_ vem_tw_timer;
typedef void (*vem_tw_timer_handler)(vem_tw_wheel wheel, vem_tw_timer* timer, void* context);

typedef struct vem_tw_links_ {
    struct vem_tw_links_* tw_next;
    struct vem_tw_links_* tw_prev;
} vem_tw_links;

typedef struct vem_tw_timer_basic_ {
    vem_tw_links tm_links;
    uint32_t tm_ticks;
} vem_tw_timer_basic;

struct vem_tw_timer_ {
    vem_tw_timer_basic timer;
    vem_tw_timer_handler callback;
    void* context;
};
#endif

typedef vem_tw_wheel zon_tw_wheel_t;
typedef vem_tw_timer zon_tw_timer_t;
typedef vem_dm_handle zon_tw_dm_handle_t;
typedef pthread_t zon_tw_pid_t;

#ifdef __cplusplus
}
#endif

#endif
