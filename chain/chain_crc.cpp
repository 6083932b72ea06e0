#include "chain/chain_crc.h"

#include <zlib.h>

#include "chain/format/chain_link.h"

uint32_t chain_crc;

uint32_t advance_chain_crc(uint64_t block, uint64_t next) {
    const struct chain_link link = {block, next};
    chain_crc = static_cast<uint32_t>(
        crc32(chain_crc, reinterpret_cast<const Bytef *>(&link), sizeof(link)));
    return chain_crc;
}
