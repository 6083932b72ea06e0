// Whole files, for tests, and of them the disk: partitions with a chain. What cannot be done ends
// the test binary with the path's name.
#ifndef TARNIX_TESTS_SUPPORT_FILES_H
#define TARNIX_TESTS_SUPPORT_FILES_H

#include <stdint.h>

#include <set>
#include <string>
#include <vector>

#define MAP_PATH "/data/vendor/ramdump/ramdump.map"
#define DEVICE_PATH "/dev/block/bootdevice/by-name/userdata"
#define MISC_PATH "/dev/block/bootdevice/by-name/misc"

constexpr uint64_t block_length = 4096;  // st_blksize of every file here

// Ends the test binary, with errno's text for `path`, unless it was done.
void must(bool done, const std::string &path);

// Makes the directory and those above it, where missing.
void make_directories(const std::string &path);

// Creates or replaces the file, making the directories above it.
void write_file(const std::string &path, const std::string &content);

// Writes into the file at a byte offset, creating it or making it longer (with a hole) as needed.
void write_file_at(const std::string &path, uint64_t offset, const std::string &content);

// The content; "(cannot be read)" when it cannot be read.
std::string read_file(const std::string &path);

// Names in the directory, without "." and "..".
std::set<std::string> list_directory(const std::string &path);

// Makes the map file, `size` bytes long and without content.
void make_map_file(uint64_t size);

// A record's bytes as they lie on disk.
template <typename Record>
std::string bytes_of(const Record &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof(record));
}

// What a chain of `blocks` holds at the start of each: one header's bytes a block. The CRC is
// worked out here, from zlib alone.
std::vector<std::string> chain_headers(uint32_t seed, const std::vector<uint32_t> &blocks);

// Bytes of an anchor.
std::string anchor_bytes(uint32_t first_block, uint32_t n_blocks, uint32_t seed, uint32_t flags);

#endif
