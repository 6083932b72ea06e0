#include "chain/chain_integrity.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chain/anchor_printout.h"
#include "chain/block_map.h"
#include "chain/chain_crc.h"
#include "chain/format/block_header.h"
#include "chain/transfer.h"
#include "config/log.h"

// Reads the header of a block and checks its magic.
static int read_header(int device_fd, int64_t block, uint64_t block_size,
                       struct block_header *header) {
    if (seek_to_block(device_fd, block, block_size) == -1) {
        log_error("error seeking to block %08lx: %s\n", static_cast<unsigned long>(block),
                  strerror(errno));
        return -1;
    }
    if (read_retry(device_fd, header, sizeof(*header)) == -1) {
        return -1;
    }
    if (header->magic != block_header_magic) {
        log_error("Bad magic at block %lx, got %08x\n", static_cast<unsigned long>(block),
                  header->magic);
        return -ENOENT;
    }
    return 0;
}

// Walks until a link is 0. On purpose nothing else ends the walk, not even the anchor's count: it
// shows what a boot side that only follows the links would see.
static int walk_chain(int device_fd, uint64_t block_size, uint32_t first_block) {
    int64_t block = first_block;
    uint32_t count = 0;
    bool mismatch = false;
    for (;;) {
        struct block_header header;
        const int result = read_header(device_fd, block, block_size, &header);
        if (result != 0) {
            return result;
        }
        if (block == first_block) {
            log_info("first block_header = {magic=%#x, next_block=%#x, crc32=%#x}\n",
                     block_header_magic, header.next_block, header.crc32);
        }
        // Goes on from the computed CRC, not from the stored one: one damaged CRC is one mismatch.
        const uint32_t computed =
            advance_chain_crc(static_cast<uint64_t>(block), header.next_block);
        if (!mismatch && header.crc32 != computed) {
            log_error("CRC32 mismatch at block %lx, got %08x, expecting %08x\n",
                      static_cast<unsigned long>(block), header.crc32, computed);
            mismatch = true;
        }
        ++count;
        if (header.next_block == 0) {
            break;
        }
        block = header.next_block;
    }
    log_info("Read %d blocks successfully\n", static_cast<int>(count));
    if (mismatch) {
        log_warn("Integrity of chain not verified due to CRC mismatch\n");
    }
    return 0;
}

int test_block_chain(const char *path, const char *blkdev,
                     const struct initial_block_header *anchor) {
    const int map_fd = open_retry(path, O_RDONLY | O_SYNC);
    if (map_fd == -1) {
        log_error("failed to open %s for reading: %s\n", path, strerror(errno));
        return -1;
    }
    // Asked only for the log. The walk starts at the anchor's first block, as the boot side does,
    // whatever the file system says.
    int block = 0;
    if (map_block(map_fd, &block) != 0) {
        log_error("Failed to get block 0 for file %s: %s\n", path, strerror(errno));
    }
    close(map_fd);

    print_initial_block_header(nullptr, anchor);
    chain_crc = anchor->crc32;

    // The block size that the kernel reports for the device. On a phone's flash it is the chain's
    // block length.
    struct stat device_stat;
    if (stat(blkdev, &device_stat) == -1) {
        log_error("failed to stat %s\n", blkdev);
        return -1;
    }
    log_info(" block size: %ld bytes\n", static_cast<long>(device_stat.st_blksize));
    const int device_fd = open_retry(blkdev, O_RDONLY | O_SYNC);
    if (device_fd == -1) {
        log_error("failed to open blk_dev:%s for reading: %s\n", blkdev, strerror(errno));
        return -1;
    }
    log_info("Opened %s for reading\n", blkdev);

    int result = 0;
    if (anchor->first_block == 0) {
        log_info("Read %d blocks successfully\n", 0);
    } else {
        result = walk_chain(device_fd, static_cast<uint64_t>(device_stat.st_blksize),
                            anchor->first_block);
    }
    close(device_fd);
    return result;
}
