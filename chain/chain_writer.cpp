#include "chain/chain_writer.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "chain/anchor_printout.h"
#include "chain/block_look_ahead.h"
#include "chain/block_map.h"
#include "chain/chain_crc.h"
#include "chain/format/block_header.h"
#include "chain/progress.h"
#include "chain/transfer.h"
#include "config/log.h"
#include "config/properties.h"
#include "partitions/partition_items.h"

static const int32_t blocks_per_progress_line = 8192;

void write_header(int fd, int64_t block, int64_t next, uint64_t block_size, int32_t index) {
    if (seek_to_block(fd, block, block_size) == -1) {
        log_error("error seeking to block %08lx: %s\n", static_cast<unsigned long>(block),
                  strerror(errno));
        return;
    }
    struct block_header header;
    header.magic = block_header_magic;
    header.next_block = static_cast<uint32_t>(next);
    header.crc32 = advance_chain_crc(static_cast<uint64_t>(block), static_cast<uint64_t>(next));
    if (index == 1) {
        log_info("first block_header = {magic=%#x, next_block=%#x, crc32=%#x}", header.magic,
                 header.next_block, header.crc32);
    }
    // The chain is built to its end even when a write fails: the integrity test then stops at the
    // block whose header is old.
    (void)write_retry(fd, &header, sizeof(header));
}

// Writes the headers of all `n` blocks of the map file. -1 at a block without a place, before any
// further header is written.
static int write_headers(struct block_look_ahead *blocks, int32_t n, int first_block) {
    int32_t prev = first_block;
    for (int32_t i = 1; i < n; ++i) {
        if (i % blocks_per_progress_line == 0 && show_progress != 0) {
            log_info("%d/%d\n", i, n);
        }
        const struct mapped_block mapped = take_block(blocks, i);
        // Before the result: a hole is block 0, and the file system may report it as an error or
        // not.
        if (mapped.block == 0) {
            log_error("refusing to write to block 0\n");
            return -1;
        }
        if (mapped.result != 0) {
            log_error("failed to find block %d\n", i);
            return -1;
        }
        write_header(blocks->device, prev, mapped.block, blocks->block_size, i);
        prev = mapped.block;
    }
    write_header(blocks->device, prev, 0, blocks->block_size, n);
    return 0;
}

int raw_write_blocks(const char *file, const char *blkdev) {
    struct stat map_stat;
    if (stat(file, &map_stat) == -1) {
        log_error("failed to stat %s\n", file);
        return -1;
    }
    const int32_t block_size = static_cast<int32_t>(map_stat.st_blksize);
    const int32_t n = static_cast<int32_t>(static_cast<int64_t>(map_stat.st_size) / block_size);
    log_info(" block size: %ld bytes\n", static_cast<long>(block_size));
    log_info(" file size: %lld bytes, %d full blocks available\n",
             static_cast<long long>(map_stat.st_size), n);
    if (n == 0) {
        log_error("0 full blocks available in file\n");
        return -1;
    }

    // A failure from here on leaves the descriptors open: the run ends next, and closes them.
    const int map_fd = open_retry(file, O_RDONLY);
    if (map_fd == -1) {
        log_error("failed to open fd for reading: %s\n", strerror(errno));
        return -1;
    }
    // The file system must have given every block its place before it is asked where that is.
    (void)TEMP_FAILURE_RETRY(fsync(map_fd));
    const int device_fd = open_retry(blkdev, O_WRONLY);
    if (device_fd == -1) {
        log_error("failed to open blk_dev for writing: %s\n", strerror(errno));
        return -1;
    }
    log_info("Opened %s for writing\n", blkdev);

    // n is negative from 8 TiB on; block 0 gets its header even then.
    struct block_look_ahead blocks;
    start_look_ahead(&blocks, map_fd, device_fd, static_cast<uint64_t>(block_size), std::max(n, 1));
    const struct mapped_block first = take_block(&blocks, 0);
    if (first.result != 0) {
        log_error("failed to find block 0\n");
        return -1;
    }
    if (first.block == 0) {
        log_error("refusing to write to block 0\n");
        return -1;
    }
    const struct initial_block_header anchor = fresh_initial_block_header(
        static_cast<uint32_t>(first.block), static_cast<uint32_t>(block_size),
        static_cast<uint32_t>(n), chain_crc);

    if (write_headers(&blocks, n, first.block) == -1) {
        return -1;
    }
    if (show_progress == 1) {
        log_info("%d/%d\n", n, n);
    }
    close(map_fd);
    (void)TEMP_FAILURE_RETRY(fsync(device_fd));
    close(device_fd);

    // The results are not looked at: the chain itself is done. Without an anchor the next run
    // builds a new one.
    (void)MISC_write_RamdumpInitHdr(&anchor);
    (void)property_set("persist.vendor.tarnix.map", "valid");
    print_initial_block_header(blkdev, &anchor);
    return 0;
}
