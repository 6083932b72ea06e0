// A device whose partitions lie in memory, the boot side's port over it, and the dump as the
// reading side of tarnix-chain finds it there.
#ifndef TARNIX_TESTS_BOOTSIDE_MEMORY_DEVICE_H
#define TARNIX_TESTS_BOOTSIDE_MEMORY_DEVICE_H

#include <assert.h>
#include <string.h>
#include <zlib.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bootside/chain_walk.h"
#include "chain/format/block_header.h"
#include "chain/format/initial_block_header.h"
#include "tests/support/files.h"
#include "tools/dump_reader.h"

struct memory_device {
    struct initial_block_header anchor;      // all that misc has
    std::map<uint64_t, std::string> blocks;  // of data, by number; what is not there is zeros
    std::vector<unsigned char> buffer;
    struct bootside_port port;
    std::string calls;    // R read, P payload written, S flag set, C flag cleared, F flush
    unsigned calls_left;  // until one fails with 77; 0: none does
};

using named_files = std::vector<std::pair<std::string, std::string>>;

// The one that a test works on.
inline struct memory_device device;

inline int answer(char call) {
    device.calls += call;
    return --device.calls_left == 0 ? 77 : 0;
}

inline int read_anchor(void *, uint64_t offset, void *to, size_t length) {
    assert(offset == initial_block_header_misc_offset && length == sizeof(device.anchor));
    memcpy(to, &device.anchor, length);
    return answer('R');
}

inline int write_flags(void *, uint64_t offset, const void *from, size_t length) {
    assert(offset ==
           initial_block_header_misc_offset + offsetof(struct initial_block_header, flags));
    memcpy(&device.anchor.flags, from, length);
    return answer((device.anchor.flags & initial_block_header_dump_flag) != 0 ? 'S' : 'C');
}

inline int read_blocks(void *, uint64_t offset, void *to, size_t length) {
    const uint32_t unit = device.anchor.block_length;
    assert(offset % unit == 0 && length % unit == 0 && length > 0);
    assert(offset <= device.port.data_size && length <= device.port.data_size - offset);
    memset(to, 0, length);
    const auto end = device.blocks.lower_bound((offset + length) / unit);
    for (auto at = device.blocks.lower_bound(offset / unit); at != end; ++at) {
        at->second.copy(static_cast<char *>(to) + (at->first * unit - offset), unit);
    }
    return answer('R');
}

inline int write_blocks(void *, uint64_t offset, const void *from, size_t length) {
    const uint32_t unit = device.anchor.block_length;
    for (size_t at = 0; at < length; at += unit) {
        device.blocks[(offset + at) / unit].assign(static_cast<const char *>(from) + at, unit);
    }
    return answer('P');
}

// Makes the device anew, with a data partition and a working buffer of so many bytes.
inline void make_device(const struct initial_block_header &anchor, uint64_t data_size,
                        size_t buffer_size) {
    device = {anchor, {}, std::vector<unsigned char>(buffer_size), {}, "", 0};
    const auto flush = [](void *) { return answer('F'); };
    const auto crc_of = [](void *, uint32_t start, const void *data, size_t length) {
        return static_cast<uint32_t>(crc32_z(start, static_cast<const Bytef *>(data), length));
    };
    device.port = {nullptr, read_anchor, write_flags, read_blocks,          write_blocks,
                   flush,   crc_of,      data_size,   device.buffer.data(), buffer_size};
}

// Makes the device anew, with a chain of `runs` runs of `length` blocks of 512 bytes each, every
// run before the last one on the medium, and a working buffer of so many blocks.
inline void make_chain(uint32_t runs, uint32_t length, size_t buffer_blocks) {
    const uint32_t n = runs * length;
    const auto block_at = [=](uint32_t position) {
        const uint32_t run = runs - 1 - position / length;
        return position < n ? run * (length + 1) + 1 + position % length : 0;
    };
    make_device({initial_block_header_magic, block_at(0), 512, n, 0x12345678, 0x80000001},
                512 * (uint64_t{runs} * (length + 1) + 1), 512 * buffer_blocks);
    uint32_t crc = device.anchor.crc32;
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t next = block_at(i + 1);
        crc = chain_walk_crc(&device.port, crc, block_at(i), next);
        device.blocks[block_at(i)] = bytes_of(block_header{block_header_magic, next, crc});
    }
}

inline named_files read_dump() {
    named_files found;
    const auto begin = [&](const struct dump_file &file) {
        found.emplace_back(file.name, "");
        return true;
    };
    const auto add = [&](const unsigned char *data, size_t length) {
        found.back().second.append(reinterpret_cast<const char *>(data), length);
        return true;
    };
    struct bootside_walk walk;
    chain_walk_start(&walk, &device.port);
    read_dump_stream(&walk, {begin, add, nullptr});
    return found;
}

#endif
