// zlib's crc32, for the kit.
#ifndef TARNIX_UEFI_CRC32_H
#define TARNIX_UEFI_CRC32_H

#include <stddef.h>
#include <stdint.h>

// CRC-32 of IEEE 802.3, continued from `crc`, the result for earlier bytes or 0.
uint32_t crc32_of(uint32_t crc, const void *data, size_t length);

#endif
