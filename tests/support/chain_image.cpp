#include "tests/support/chain_image.h"

#include <unistd.h>
#include <zlib.h>

#include "chain/format/block_header.h"
#include "chain/format/initial_block_header.h"
#include "tests/support/files.h"

std::vector<std::string> chain_headers(uint32_t seed, const std::vector<uint32_t> &blocks) {
    std::vector<std::string> headers;
    unsigned long crc = seed;
    for (size_t i = 0; i < blocks.size(); ++i) {
        const uint32_t next = i + 1 < blocks.size() ? blocks[i + 1] : 0;
        const uint64_t link[2] = {blocks[i], next};
        crc = crc32(crc, reinterpret_cast<const Bytef *>(link), sizeof(link));
        headers.push_back(
            bytes_of(block_header{block_header_magic, next, static_cast<uint32_t>(crc)}));
    }
    return headers;
}

void make_map_file(uint64_t size) {
    write_file(MAP_PATH, "");
    must(truncate(MAP_PATH, static_cast<off_t>(size)) == 0, MAP_PATH);
}

std::string anchor_bytes(uint32_t first_block, uint32_t n_blocks, uint32_t seed, uint32_t flags) {
    return bytes_of(initial_block_header{initial_block_header_magic, first_block, block_length,
                                         n_blocks, seed, flags});
}
