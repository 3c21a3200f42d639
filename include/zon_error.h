/* zon_error.h - the error codes of the library and their texts.
 *
 * Every operation that can fail returns a zon_error_t; 0 is success. The values never change.
 */
#ifndef ZON_ERROR_H
#define ZON_ERROR_H

#include "zon_platform_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum zon_error_t_ ZON_ENUM_BASE {
    zon_error_min = 0,
    zon_error_none = 0,
    zon_error_flow_not_found = 1,
    zon_error_memory = 2,
    zon_error_invalid_tuple_type = 3,
    zon_error_parent_fid_not_found = 4,
    zon_error_client_delete_cb_not_registered = 5,
    zon_error_feature_object_already_attached = 6,
    zon_error_feature_object_not_attached = 7,
    zon_error_client_id_invalid = 8,
    zon_error_parameter_is_null = 9,
    zon_error_flow_tuple_is_null = 10,
    zon_error_client_pre_create_prevented = 11,
    zon_error_unsupported_l3_protocol = 12,
    zon_error_flow_creation_prevented = 13,
    zon_error_non_first_ip_fragment = 14,
    zon_error_engine_not_init = 15,
    zon_error_client_not_registered = 16,
    zon_error_direction_parameter_is_invalid = 17,
    zon_error_zon_table_access_failed = 18,
    zon_error_flow_table_access_failed = 19,
    zon_error_fid_table_access_failed = 20,
    zon_error_zon_table_creation_failed = 21,
    zon_error_flow_table_creation_failed = 22,
    zon_error_timer_wheel_creation_failed = 23,
    zon_error_fid_table_creation_failed = 24,
    zon_error_memory_chunk_creation_failed = 25,
    zon_error_memory_chunk_deletion_failed = 26,
    zon_error_tunnel_type_invalid = 27,
    zon_error_engine_capability_invalid = 28,
    zon_error_frag_table_creation_failed = 29,
    zon_error_sctx_table_creation_failed = 30,
    zon_error_sctx_type_invalid = 31,
    zon_error_sctx_unmapped = 32,
    zon_error_l4_state_invalid = 33,
    zon_error_invalid_next_seq_number = 34,
    zon_error_parameter_invalid = 35,
    zon_error_end = 36
} zon_error_t;

/* Message indexes of the error log, which writes to standard error while zon_errlog is set. */
typedef enum zon_errmsg_index_ ZON_ENUM_BASE {
    ZON_ERRMSG_NO_MEMORY = 0,
    ZON_ERRMSG_MAX_MEMORY = 1,
    ZON_ERRMSG_CLIENT_PRE_CREATE_PREVENTED = 2,
    ZON_ERRMSG_FLOW_CREATION_PREVENTED = 3,
    ZON_ERRMSG_UNSUPPORTED_L3_PROTOCOL = 4,
    ZON_ERRMSG_NON_FIRST_IP_FRAGMENT = 5,
    ZON_ERRMSG_CLIENT_API = 6,
    ZON_ERRMSG_UNKNOWN = 7,
    ZON_ERRMSG_INDEX_MAX = 8
} zon_errmsg_index_e;

/* The text of a code; "unknown zon error" for any value without one, negative values and
 * zon_error_end included. The text is constant and never freed. */
ZON_API const char* zon_error_str(zon_error_t err);

#ifdef __cplusplus
}
#endif

#endif
