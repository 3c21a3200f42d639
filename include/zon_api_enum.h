/* zon_api_enum.h - every enumeration that crosses the interface.
 *
 * The values are part of the interface and never change.
 */
#ifndef ZON_API_ENUM_H
#define ZON_API_ENUM_H

#include "zon_platform_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What the engine does, in force while at least one client has it enabled. */
typedef enum zon_capability_e_ ZON_ENUM_BASE {
    ZON_CAPABILITY_ENABLE_TCP = 1,
    ZON_CAPABILITY_ENABLE_UDP = 2,
    ZON_CAPABILITY_ENABLE_ICMP = 4, /* only counted: no ICMP packet is classified because of it */
    ZON_CAPABILITY_ENABLE_TCP_STATE_CHECKS = 8,
    ZON_CAPABILITY_ENABLE_IPV6INIP = 16,
    ZON_CAPABILITY_ENABLE_TEREDO = 32,
    ZON_CAPABILITY_ENABLE_CLIENT_BYPASS = 64,
    ZON_CAPABILITY_ENABLE_ALL = 127
} zon_capability_e;

/* Why a flow went away, as told to the clients' delete callbacks. */
typedef enum zon_flow_deletion_reason_e_ ZON_ENUM_BASE {
    ZON_FLOW_CLOSE_REASON_END_OF_FLOW = 0,         /* given by hosts */
    ZON_FLOW_CLOSE_REASON_INACTIVE_TIMEOUT = 1,    /* the flow was idle */
    ZON_FLOW_CLOSE_REASON_CLIENT_REQUEST = 2,      /* given by hosts; an announcement withdrawn */
    ZON_FLOW_CLOSE_REASON_CLIENT_UNREGISTERED = 3, /* zon_unreg_client_fo; the flow itself stays */
    ZON_FLOW_CLOSE_REASON_RESOURCE_SHORTAGE = 4,   /* half-open, it gave way; or given by hosts */
    ZON_FLOW_CLOSE_REASON_FLOWS_DESTROYED = 5      /* the engine is being destroyed */
} zon_flow_deletion_reason_e;

/* The whole flow, or one direction of it. */
typedef enum zon_flow_direction_e_ ZON_ENUM_BASE {
    ZON_DIR_BI = 0,
    ZON_DIR_INITIATOR = 1,
    ZON_DIR_RESPONDER = 2
} zon_flow_direction_e;

/* Which parts of a flow tuple are meaningful. */
typedef enum zon_flow_tuple_type_t_ ZON_ENUM_BASE {
    ZON_FLOW_TUPLE_TYPE_COMPLETE = 0,
    ZON_FLOW_TUPLE_TYPE_SRC_IP_PORT_KNOWN = 1, /* any destination, protocol and VRF */
    ZON_FLOW_TUPLE_TYPE_DST_IP_PORT_KNOWN = 2, /* any source, protocol and VRF */
    ZON_FLOW_TUPLE_TYPE_VRF_UNKNOWN = 3        /* any VRF */
} zon_flow_tuple_type_t;

/* Session state of a flow, whatever its protocol. */
typedef enum zon_l4_flow_state_e_ ZON_ENUM_BASE {
    ZON_L4_ENUM_START = 0,
    ZON_L4_CLOSED = 0,
    ZON_L4_OPENING = 1,
    ZON_L4_UNI_ESTABLISHED = 2,
    ZON_L4_UNI_ESTABLISHED_INCORRECT = 3,
    ZON_L4_BI_ESTABLISHED = 4,
    ZON_L4_BI_ESTABLISHED_INCORRECT = 5,
    ZON_L4_CLOSING = 6,
    ZON_L4_ENUM_END = 7
} zon_l4_flow_state_e;

/* TCP connection state, as seen from the middle (after RFC 9293 3.3.2, simplified). */
typedef enum zon_tcp_state_t_ ZON_ENUM_BASE {
    ZON_TCP_ENUM_BEGIN = 0,
    ZON_TCP_CLOSED = 0,
    ZON_TCP_LISTEN = 1,
    ZON_TCP_SYNSENT = 2,
    ZON_TCP_SYNRCVD = 3,
    ZON_TCP_ESTAB = 4,
    ZON_TCP_CLOSEWAIT = 5, /* at least one FIN has been seen */
    ZON_TCP_LASTACK = 6,   /* both FINs have been seen, the first one acknowledged */
    ZON_TCP_TIMEWAIT = 7,  /* finished or reset */
    ZON_TCP_ENUM_END = 8
} zon_tcp_state_t;

typedef enum zon_tcp_next_seq_valid_e_ ZON_ENUM_BASE {
    ZON_TCP_NEXT_SEQ_INVALID = 0,
    ZON_TCP_NEXT_SEQ_VALID = 1
} zon_tcp_next_seq_valid_e;

/* The tracker's verdict on one packet. */
typedef enum zon_l4_retcode_ ZON_ENUM_BASE {
    ZON_L4_RET_ENUM_START = 0,
    ZON_L4_NOERR = 0,
    ZON_L4_INVALID_DIR = 1,
    ZON_L4_INVALID_FLAGS = 2,
    ZON_L4_INVALID_DATA = 3,
    ZON_L4_INVALID_ACK = 4,
    ZON_L4_INVALID_SEQ = 5,
    ZON_L4_OOO_SEG = 6,
    ZON_L4_RETRANS_SEG = 7,
    ZON_L4_RST_IN_WIND = 8,
    ZON_L4_SYN_IN_WIND = 9,
    ZON_L4_RETRANS_INVALID_FLAGS = 10,
    ZON_L4_INVALID_STATE = 11,
    ZON_L4_OOO_PROT_SEMANTICS = 12,
    ZON_L4_UNSUPPORTED_PROTO = 13,
    ZON_L4_NOERR_NON_FIRST_FRAG = 14,
    ZON_L4_RET_ENUM_END = 15
} zon_l4_retcode;

/* The tunnel that a flow was seen inside. */
typedef enum zon_tunnel_type_e_ ZON_ENUM_BASE {
    ZON_TUNNEL_TYPE_NONE = 0,
    ZON_TUNNEL_TYPE_IPV6INIP = 1, /* IP protocol 41, RFC 4213 */
    ZON_TUNNEL_TYPE_TEREDO = 2,   /* RFC 4380 */
    ZON_TUNNEL_TYPE_MAX = 3
} zon_tunnel_type_e;

/* IP protocol numbers that the engine tells apart. */
typedef enum zon_l4_protocol_enum ZON_ENUM_BASE {
    ZON_ICMP_PROT = 1,
    ZON_TCP_PROT = 6,
    ZON_UDP_PROT = 17,
    ZON_IPV6_ENCAPSULATION_PROT = 41,
    ZON_OTHER_L4 = 255
} zon_l4_protocol_e;

/* EtherType of the network layer. */
typedef enum zon_l3_protocol_enum_ ZON_ENUM_BASE {
    ZON_L3_OTHER = 0,
    ZON_L3_IPV4 = 2048,
    ZON_L3_IPV6 = 34525
} zon_l3_protocol_enum;

/* Where a packet stands in its datagram. */
typedef enum zon_ip_frag_e_ ZON_ENUM_BASE {
    zon_ip_frag_none = 0,
    zon_ip_frag_first = 1,
    zon_ip_frag_middle = 2,
    zon_ip_frag_last = 3
} zon_ip_frag_e;

/* What a super context groups flows by; only type 0 has a meaning of the engine's own. */
typedef enum zon_super_context_types_e_ ZON_ENUM_BASE {
    ZON_SUPER_CONTEXT_MIN = 0,
    ZON_SUPER_CONTEXT_IDENTITY = 0,
    ZON_SUPER_CONTEXT_MAX = 4
} zon_super_context_types_e;

/* Which fields of a key are known. 0 to 4 are IPv4 keys, 5 to 9 IPv6 keys. */
typedef enum zon_key_type_t_ ZON_ENUM_BASE {
    ZON_IPV4_FIRST_KEY = 0,
    ZON_IPV4_KEY_COMPLETE = 0,
    ZON_IPV4_KEY_DST_IP_PORT_ONLY = 1,
    ZON_IPV4_KEY_SRC_IP_PORT_ONLY = 2,
    ZON_IPV4_KEY_PRE_FLOW_COMPLETE = 3,
    ZON_IPV4_KEY_VRF_STAR = 4,
    ZON_IPV4_LAST_KEY = 4,
    ZON_IPV6_FIRST_KEY = 5,
    ZON_IPV6_KEY_COMPLETE = 5,
    ZON_IPV6_KEY_DST_IP_PORT_ONLY = 6,
    ZON_IPV6_KEY_SRC_IP_PORT_ONLY = 7,
    ZON_IPV6_KEY_PRE_FLOW_COMPLETE = 8,
    ZON_IPV6_KEY_VRF_STAR = 9,
    ZON_IPV6_LAST_KEY = 9,
    ZON_MAX_KEY = 10
} zon_key_type_t;

/* The texts of the states and verdicts; "unknown" for a value outside the enumeration. Never null,
 * never freed. */
ZON_API const char* zon_tcp_state_string(zon_tcp_state_t state);
ZON_API const char* zon_session_state_string(int state);
ZON_API const char* zon_l4_retcode_string(int code);

#ifdef __cplusplus
}

/* Several capabilities in one call, in C++ as in C. */
extern "C++" constexpr zon_capability_e operator|(zon_capability_e one, zon_capability_e other) {
    return static_cast<zon_capability_e>(static_cast<int32_t>(one) | static_cast<int32_t>(other));
}
#endif

#endif
