// How the records of this folder are held to their layout, in C11 and in C++17.
//
// All numbers of the format are unsigned and little-endian, and the records are on disk as they lie
// in memory: the processor must be little-endian too.
#ifndef TARNIX_CHAIN_FORMAT_RECORD_LAYOUT_H
#define TARNIX_CHAIN_FORMAT_RECORD_LAYOUT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define require_layout(condition) static_assert(condition, "layout on disk")
#else
#define require_layout(condition) _Static_assert(condition, "layout on disk")
#endif

require_layout(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

#endif
