// zon_engine_flags.cpp - the process-wide variables that hosts read and set.

#include "zon_engine_defs.h"

extern "C" {

const zon_fid_t ZON_NULL_FID = 0;
const uint8_t ipv4_half_flow_buf_size = sizeof(zon_ipv4_half_flow_t);
const uint8_t ipv6_half_flow_buf_size = sizeof(zon_ipv6_half_flow_t);

zon_t* g_zon = nullptr;

uint32_t ZON_DEFAULT_FLOW_TO_HASH_SIZE_RATIO = 1;
uint32_t ZON_DEFAULT_MAX_FLOWS = 5000;
uint32_t ZON_DEFAULT_MIN_INIT_FLOWS = 10;
uint32_t ZON_DEFAULT_FLOW_CHUNK_SIZE = 10;
uint32_t ZON_DEFAULT_MAX_CONCURRENCY = 10;
uint32_t ZON_DEFAULT_MAX_CHUNK_CREATE_ELEMENTS = 16;
uint32_t ZON_DEFAULT_MAX_MEM_BUFFER_INIT = 10;
uint8_t ZON_DEFAULT_MAX_COLLISION_SIZE = 0;
uint32_t ZON_DEFAULT_MIN_AGING = 0;

bool zon_debug_flag_engine = false;
bool zon_debug_flag_fe = false;
bool zon_debug_flag_l4 = false;
bool zon_debug_flag_ager = false;
bool zon_debug_flag_all = false;
bool zon_errlog = false;

}  // extern "C"
