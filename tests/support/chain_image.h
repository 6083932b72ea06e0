// A device as plain files, and chains on it.
#ifndef TARNIX_TESTS_SUPPORT_CHAIN_IMAGE_H
#define TARNIX_TESTS_SUPPORT_CHAIN_IMAGE_H

#include <stdint.h>

#include <string>
#include <vector>

#define MAP_PATH "/data/vendor/ramdump/ramdump.map"
#define DEVICE_PATH "/dev/block/bootdevice/by-name/userdata"
#define MISC_PATH "/dev/block/bootdevice/by-name/misc"

constexpr uint64_t block_length = 4096;  // st_blksize of every file here

// What a chain of `blocks` holds at the start of each: one header's bytes a block. The CRC is
// worked out here, from zlib alone.
std::vector<std::string> chain_headers(uint32_t seed, const std::vector<uint32_t> &blocks);

// Makes the map file, `size` bytes long and without content.
void make_map_file(uint64_t size);

// Bytes of an anchor.
std::string anchor_bytes(uint32_t first_block, uint32_t n_blocks, uint32_t seed, uint32_t flags);

#endif
