#include "chain/chain_crc.h"

#include <zlib.h>

#include <algorithm>
#include <iterator>

#include "chain/format/chain_link.h"

uint32_t chain_crc;

uint32_t extend_chain_crc(uint32_t crc, uint64_t block, uint64_t next) {
    const struct chain_link link = {block, next};
    return static_cast<uint32_t>(crc32(crc, reinterpret_cast<const Bytef *>(&link), sizeof(link)));
}

uint32_t extend_chain_crc_over_run(uint32_t crc, uint64_t block, uint64_t count) {
    struct chain_link links[256];
    while (count > 0) {
        const size_t n = std::min<uint64_t>(count, std::size(links));
        for (size_t i = 0; i < n; ++i) {
            links[i] = {block + i, block + i + 1};
        }
        crc = static_cast<uint32_t>(crc32(crc, reinterpret_cast<const Bytef *>(links),
                                          static_cast<uInt>(n * sizeof(links[0]))));
        block += n;
        count -= n;
    }
    return crc;
}

uint32_t advance_chain_crc(uint64_t block, uint64_t next) {
    chain_crc = extend_chain_crc(chain_crc, block, next);
    return chain_crc;
}
