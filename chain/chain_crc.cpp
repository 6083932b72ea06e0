#include "chain/chain_crc.h"

#include <zlib.h>

uint32_t chain_crc;

uint32_t advance_chain_crc(uint64_t block, uint64_t next) {
    // In memory as on disk: the device is little-endian.
    const uint64_t link[2] = {block, next};
    static_assert(sizeof(link) == 16, "the CRC runs over 16 bytes a block");
    chain_crc = static_cast<uint32_t>(
        crc32(chain_crc, reinterpret_cast<const Bytef *>(link), sizeof(link)));
    return chain_crc;
}
